// Feeds arbitrary bytes to the recording check: once as a recording (header expected) and once
// as a headerless raw dump of version 1. Besides crashes it stops on verdicts that break the
// check's promises.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <unistd.h>

#include "src/record/recording_format.h"

namespace {

namespace fs = std::filesystem;

// Per-process names, so that parallel fuzzing jobs do not share files.
fs::path InputPath(const char* extension) {
    return fs::temp_directory_path() / ("evcam-fuzz-" + std::to_string(getpid()) + extension);
}

void WriteInput(const fs::path& path, const uint8_t* data, size_t size) {
    FILE* file = fopen(path.c_str(), "wb");
    if (file == nullptr || (size > 0 && fwrite(data, 1, size, file) != size) || fclose(file) != 0) {
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace evcam;

    static const fs::path recording = InputPath(".dvs");
    static const fs::path dump = InputPath(".raw");
    WriteInput(recording, data, size);
    RecordingHeader header;
    const DVS_ERROR result = CheckRecordingFile(recording.c_str(), header);
    if (result == ERR_SUCCESS) {
        if (!IsKnownVersion(header.version) || header.headerWords == 0 ||
            int64_t{header.headerWords} * 4 >= static_cast<int64_t>(size)) {
            abort();
        }
    } else if (result != ERR_READ_FILE && result != ERR_INVALID_FILE) {
        abort();
    }

    WriteInput(dump, data, size);
    RecordingHeader stated{7, MVT94QX};
    const DVS_ERROR dumpResult = CheckRecordingFile(dump.c_str(), stated);
    if ((dumpResult != ERR_SUCCESS && dumpResult != ERR_INVALID_FILE) || stated.headerWords != 7 ||
        stated.version != MVT94QX) {
        abort();
    }
    // Removed only after a clean verdict: a crash leaves the input behind for a look.
    fs::remove(recording);
    fs::remove(dump);
    return 0;
}
