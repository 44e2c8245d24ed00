// Where a simulated camera's sensor words come from: the scene generator, or the body of a
// recording played in a loop.
#ifndef EVCAM_SRC_SIM_STREAM_SOURCE_H
#define EVCAM_SRC_SIM_STREAM_SOURCE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "src/sim/scene_generator.h"

namespace evcam {

/// An endless byte stream of sensor words. Not thread-safe: the owner serialises calls.
class StreamSource {
  public:
    virtual ~StreamSource() = default;
    /// Writes the next n bytes of the stream to out (out may be null to skip them). Never
    /// fails and never blocks beyond file I/O.
    virtual void Read(uint8_t* out, size_t n) = 0;
};

/// A scene of the generator, cut into bytes.
class SceneSource : public StreamSource {
  public:
    SceneSource(SceneKind scene, bool stereo);
    void Read(uint8_t* out, size_t n) override;

  private:
    SceneGenerator mGenerator;
    std::vector<uint8_t> mBuffer;
    size_t mOffset = 0;  ///< first unread byte of mBuffer
    uint32_t mSpanUs;    ///< sensor time generated per refill; grows for sparse scenes
};

/// The body of a file, from its data start to its end, again and again.
class FileSource : public StreamSource {
  public:
    /// Opens path. A path containing ".dvs" is a recording whose body follows its header;
    /// any other file is a raw dump, all body.
    /// @return the source, or null with a reason in why (cannot open, bad header, no body).
    static std::unique_ptr<FileSource> Open(const std::string& path, std::string& why);
    ~FileSource() override;
    FileSource(const FileSource&) = delete;
    FileSource& operator=(const FileSource&) = delete;

    void Read(uint8_t* out, size_t n) override;

  private:
    FileSource(FILE* file, long dataStart) : mFile(file), mDataStart(dataStart) {}
    /// Fills mBuffer with the next block, wrapping to the data start at the end; a file that
    /// shrank to nothing while streaming goes on as zero words, which a parser ignores.
    void Refill();

    FILE* mFile;
    long mDataStart;
    std::vector<uint8_t> mBuffer;
    size_t mOffset = 0;
};

}  // namespace evcam

#endif  // EVCAM_SRC_SIM_STREAM_SOURCE_H
