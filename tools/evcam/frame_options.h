// Frame options shared by the commands that deliver frames (play, live), and the helpers that
// hold a DVS object and report failed calls.
#ifndef EVCAM_TOOLS_EVCAM_FRAME_OPTIONS_H
#define EVCAM_TOOLS_EVCAM_FRAME_OPTIONS_H

#include <CLI/CLI.hpp>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "evcam/evcam.h"

namespace evcam::tool {

struct FrameOptions {
    uint32_t period = 0;     ///< frame period rule when not 0
    uint32_t events = 0;     ///< event count rule when not 0
    uint32_t frameEnds = 0;  ///< sensor frame-end rule when not 0
    uint32_t outType = OUT_IMAGE;
    std::string color = "rgb";
    bool callback = false;
    std::string exportPrefix;
    int saveMode = 1;
};

/// Registers --period/--events/--frame-ends (one at most), --out-type, --color, --callback,
/// --export and --save-mode on cmd, storing into options.
void AddFrameOptions(CLI::App& cmd, FrameOptions& options);

/// Frames and events as the caller received them; the frame callback adds from the library's
/// timer thread.
struct FrameTally {
    std::atomic<uint64_t> frames{0};
    std::atomic<uint64_t> events{0};

    void Add(const DVSUIData* data, unsigned char count);
    static void OnFrame(DVSUIData* data, unsigned char count, void* user, int);
};

/// Applies the options to dvs (the frame callback adds to tally). Prints the first failure as
/// "evcam <command>: <what>: <message> (<code>)". @return true when every call succeeded.
bool ApplyFrameOptions(DVS* dvs, const FrameOptions& options, FrameTally& tally,
                       const char* command);

/// Prints "evcam <command>: <what>: <message> (<code>)" unless rc is 0. @return rc == 0.
bool Check(DVS_ERROR rc, const char* command, const char* what);

/// Polls frames of every form asked for into records of its own (a stereo frame fills two).
class FramePoller {
  public:
    /// Sizes the records from dvs's version and resolution.
    FramePoller(DVS* dvs, uint32_t outType);
    /// Takes one frame if there is one and adds it to tally. @return whether it took one.
    bool Poll(FrameTally& tally);

  private:
    DVS* mDvs;
    uint32_t mOutType;
    DVSUIData mRecords[2];
};

/// Prints the frame, event, byte and throughput lines of a run that lasted wall seconds.
void PrintFrameSummary(const FrameOptions& o, const FrameTally& tally, unsigned long decoded,
                       unsigned long sensorFrameEnds, uint64_t bytes, double wall);

struct DvsDeleter {
    void operator()(DVS* d) const { DVSManager::DeleteDVS(d); }
};
using DvsHandle = std::unique_ptr<DVS, DvsDeleter>;

}  // namespace evcam::tool

#endif  // EVCAM_TOOLS_EVCAM_FRAME_OPTIONS_H
