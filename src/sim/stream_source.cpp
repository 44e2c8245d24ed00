#include "src/sim/stream_source.h"

#include <algorithm>
#include <cstring>

#include "evcam/platform.h"
#include "src/record/recording_format.h"

namespace evcam {

namespace {

constexpr uint32_t kFirstSpanUs = 10000;
constexpr uint32_t kMaxSpanUs = 1000000;
// A refill that yields less than this doubles the span, so a sparse scene (still) does not
// cost one generator call per few bytes.
constexpr size_t kSmallRefill = 16384;
constexpr size_t kFileBlock = 65536;

SceneConfig MakeSceneConfig(SceneKind scene, bool stereo) {
    SceneConfig config;
    config.scene = scene;
    config.stereo = stereo;
    return config;
}

}  // namespace

SceneSource::SceneSource(SceneKind scene, bool stereo)
    : mGenerator(MakeSceneConfig(scene, stereo)), mSpanUs(kFirstSpanUs) {}

void SceneSource::Read(uint8_t* out, size_t n) {
    while (n > 0) {
        if (mOffset == mBuffer.size()) {
            mBuffer.clear();
            mOffset = 0;
            mGenerator.Generate(mSpanUs, mBuffer);
            if (mBuffer.size() < kSmallRefill) {
                mSpanUs = std::min(mSpanUs * 2, kMaxSpanUs);
            }
            continue;
        }
        const size_t take = std::min(n, mBuffer.size() - mOffset);
        if (out != nullptr) {
            std::memcpy(out, mBuffer.data() + mOffset, take);
            out += take;
        }
        mOffset += take;
        n -= take;
    }
}

std::unique_ptr<FileSource> FileSource::Open(const std::string& path, std::string& why) {
    FILE* file = nullptr;
    if (path.empty() || DVSOpenFile(&file, path.c_str(), "rb") != 0 || file == nullptr) {
        why = "cannot open file '" + path + "'";
        return nullptr;
    }
    long dataStart = 0;
    if (IsRecordingPath(path.c_str())) {
        RecordingHeader header;
        if (ReadFileHeader(file, header) != ERR_SUCCESS) {
            std::fclose(file);
            why = "file '" + path + "' has no valid recording header";
            return nullptr;
        }
        dataStart = static_cast<long>(header.headerWords) * 4;
    }
    const long end = DVSSeek64(file, 0, SEEK_END) == 0 ? DVSTell64(file) : -1;
    if (end <= dataStart || DVSSeek64(file, dataStart, SEEK_SET) != 0) {
        std::fclose(file);
        why = "file '" + path + "' holds no sensor data";
        return nullptr;
    }
    return std::unique_ptr<FileSource>(new FileSource(file, dataStart));
}

FileSource::~FileSource() {
    std::fclose(mFile);
}

void FileSource::Refill() {
    mBuffer.resize(kFileBlock);
    mOffset = 0;
    size_t got = std::fread(mBuffer.data(), 1, mBuffer.size(), mFile);
    if (got == 0) {
        DVSSeek64(mFile, mDataStart, SEEK_SET);
        got = std::fread(mBuffer.data(), 1, mBuffer.size(), mFile);
    }
    if (got == 0) {
        // The file shrank under us: zero words, which a parser ignores, keep the stream going.
        std::fill(mBuffer.begin(), mBuffer.end(), 0);
        got = mBuffer.size();
    }
    mBuffer.resize(got);
}

void FileSource::Read(uint8_t* out, size_t n) {
    while (n > 0) {
        if (mOffset == mBuffer.size()) {
            Refill();
        }
        const size_t take = std::min(n, mBuffer.size() - mOffset);
        if (out != nullptr) {
            std::memcpy(out, mBuffer.data() + mOffset, take);
            out += take;
        }
        mOffset += take;
        n -= take;
    }
}

}  // namespace evcam
