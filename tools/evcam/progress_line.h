// A one-line progress display that is shown only when standard output is a terminal, so that
// output piped into files or other programs stays clean.
#ifndef EVCAM_TOOLS_EVCAM_PROGRESS_LINE_H
#define EVCAM_TOOLS_EVCAM_PROGRESS_LINE_H

#include <chrono>
#include <string>

namespace evcam::tool {

class ProgressLine {
  public:
    ProgressLine();
    ~ProgressLine();
    /// Redraws the line with text, at most ten times a second.
    void Update(const std::string& text);
    /// Clears the line so that the next output starts on a clean line.
    void Clear();

  private:
    bool mEnabled;
    bool mShown = false;
    std::chrono::steady_clock::time_point mLast;
};

/// "12.3 MB" style byte counts and "4.56 M" style counts for reports.
std::string HumanBytes(double bytes);
std::string HumanCount(double count);

}  // namespace evcam::tool

#endif  // EVCAM_TOOLS_EVCAM_PROGRESS_LINE_H
