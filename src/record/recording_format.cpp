#include "src/record/recording_format.h"

#include <cstring>

#include "evcam/platform.h"

namespace evcam {

namespace {

constexpr size_t kWordSize = 4;

// Closes the file on every way out of a check.
class FileCloser {
  public:
    explicit FileCloser(FILE* file) : mFile(file) {}
    ~FileCloser() { fclose(mFile); }
    FileCloser(const FileCloser&) = delete;
    FileCloser& operator=(const FileCloser&) = delete;

  private:
    FILE* mFile;
};

bool IsValidVersionWord(unsigned value) {
    return (value & ~16u) == 1u;
}

const char* VersionName(DVS_VERSION version) {
    auto it = Ver2StrMap.find(version);
    return it != Ver2StrMap.end() ? it->second : "";
}

// The date and time part both name forms share.
constexpr const char* kStampFormat = "%04d-%02d-%02d-%02d-%02d-%02d";
constexpr const char* kFollowOnFormat = "%04d-%02d-%02d-%02d-%02d-%02d-%s.dvs";

}  // namespace

bool IsRecordingPath(const char* path) {
    return path != nullptr && strstr(path, ".dvs") != nullptr;
}

bool IsReferenceTimestampByte(uint8_t byte, int version) {
    if (!IsKnownVersion(version)) {
        return false;
    }
    return (byte & 0x80) == 0 && (byte & 0x7C) == 0x08;
}

DVS_ERROR ReadFileHeader(FILE* file, RecordingHeader& header) {
    header.headerWords = 0;
    for (unsigned index = 1;; ++index) {
        uint8_t word[kWordSize];
        if (fread(word, 1, kWordSize, file) != kWordSize) {
            return ERR_READ_FILE;
        }
        if (word[0] != kHeaderMarker) {
            return ERR_INVALID_FILE;
        }
        const unsigned value = word[2] | (word[3] << 8);
        switch (word[1]) {
            case kHeaderLengthWord:
                header.headerWords = static_cast<uint16_t>(value);
                if (value < 2) {
                    return ERR_INVALID_FILE;
                }
                break;
            case kHeaderVersionWord:
                if (header.headerWords == 0) {
                    return ERR_INVALID_FILE;
                }
                header.version = static_cast<DVS_VERSION>(value);
                if (!IsValidVersionWord(value)) {
                    header.version = SELECT_VERSION;
                    return ERR_INVALID_FILE;
                }
                if (index == header.headerWords) {
                    return ERR_SUCCESS;
                }
                break;
            case kHeaderOneWordForm:
                // Older files carry the version in a single word, which must stand alone.
                if (header.headerWords != 0) {
                    return ERR_INVALID_FILE;
                }
                header.headerWords = 1;
                header.version = static_cast<DVS_VERSION>(word[2]);
                if (!IsValidVersionWord(word[2]) || word[3] != 0) {
                    header.version = SELECT_VERSION;
                    return ERR_INVALID_FILE;
                }
                return ERR_SUCCESS;
            default:
                return ERR_INVALID_FILE;
        }
    }
}

DVS_ERROR CheckBinFile(FILE* file, int64_t bodyLength, DVS_VERSION version) {
    for (int64_t k = 1;; ++k) {
        uint8_t group[kWordSize];
        if (fread(group, 1, kWordSize, file) != kWordSize) {
            return ERR_INVALID_FILE;
        }
        if (4 * k >= kBodyScanLimit || 4 * k >= bodyLength) {
            return ERR_INVALID_FILE;
        }
        if (IsReferenceTimestampByte(group[0], version)) {
            return ERR_SUCCESS;
        }
    }
}

DVS_ERROR CheckRecordingFile(const char* path, RecordingHeader& header) {
    if (path == nullptr || path[0] == '\0') {
        return ERR_NO_FILE;
    }
    FILE* file = nullptr;
    if (DVSOpenFile(&file, path, "rb") != 0) {
        return ERR_OPEN_FILE;
    }
    FileCloser closer(file);
    if (DVSSeek64(file, 0, SEEK_END) != 0) {
        return ERR_INVALID_FILE;
    }
    const int64_t size = DVSTell64(file);
    if (size <= kMaxRejectedFileSize || DVSSeek64(file, 0, SEEK_SET) != 0) {
        return ERR_INVALID_FILE;
    }
    if (!IsRecordingPath(path)) {
        return CheckBinFile(file, size, header.version);
    }
    const DVS_ERROR headerResult = ReadFileHeader(file, header);
    if (headerResult != ERR_SUCCESS) {
        return headerResult;
    }
    return CheckBinFile(file, size - int64_t{header.headerWords} * 4, header.version);
}

DVS_ERROR WriteFileHeader(FILE* file, DVS_VERSION version) {
    const uint8_t lengthWord[kWordSize] = {kHeaderMarker, kHeaderLengthWord, kWriterHeaderWords, 0};
    const auto value = static_cast<uint16_t>(version);
    const uint8_t versionWord[kWordSize] = {kHeaderMarker, kHeaderVersionWord,
                                            static_cast<uint8_t>(value & 0xFF),
                                            static_cast<uint8_t>(value >> 8)};
    if (fwrite(lengthWord, 1, kWordSize, file) != kWordSize ||
        fwrite(versionWord, 1, kWordSize, file) != kWordSize) {
        return ERR_WRITE_FILE;
    }
    return ERR_SUCCESS;
}

DVS_ERROR WriteRecordingFile(const char* path, DVS_VERSION version, const uint8_t* body,
                             size_t length) {
    FILE* file = nullptr;
    if (DVSOpenFile(&file, path, "wb+") != 0) {
        return ERR_OPEN_FILE;
    }
    DVS_ERROR result = WriteFileHeader(file, version);
    if (result == ERR_SUCCESS && length > 0 && fwrite(body, 1, length, file) != length) {
        result = ERR_WRITE_FILE;
    }
    if (fclose(file) != 0 && result == ERR_SUCCESS) {
        result = ERR_WRITE_FILE;
    }
    return result;
}

std::string MakeRecordingFileName(const tm& t, DVS_VERSION version) {
    char stamp[64];
    snprintf(stamp, sizeof(stamp), kStampFormat, t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
             t.tm_hour, t.tm_min, t.tm_sec);
    return std::string(stamp) + "-" + VersionName(version) + ".dvs";
}

std::string MakeFollowOnFileName(const tm& t, DVS_VERSION version) {
    // The recorder hands its "-<name>" to a format that has its own dash: two dashes result.
    const std::string versionPart = std::string("-") + VersionName(version);
    char name[320];
    snprintf(name, sizeof(name), kFollowOnFormat, t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
             t.tm_hour, t.tm_min, t.tm_sec, versionPart.c_str());
    return name;
}

}  // namespace evcam
