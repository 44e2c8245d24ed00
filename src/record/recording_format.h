// The .dvs recording format: an 8-byte header of tagged words followed by the sensor's raw
// bytes. Both sides live here so the writer and the reader cannot drift apart.
#ifndef EVCAM_SRC_RECORD_RECORDING_FORMAT_H
#define EVCAM_SRC_RECORD_RECORDING_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

#include "evcam/dvs_error.h"

namespace evcam {

/// Marker byte that opens every header word.
constexpr uint8_t kHeaderMarker = 0x7F;
/// Header word types.
constexpr uint8_t kHeaderLengthWord = 0;
constexpr uint8_t kHeaderVersionWord = 1;
constexpr uint8_t kHeaderOneWordForm = 4;
/// Header size of every file this writer makes: a length word and a version word.
constexpr int kWriterHeaderWords = 2;
/// Files up to this many bytes are too short to hold a recording.
constexpr int64_t kMaxRejectedFileSize = 999;
/// The body check gives up once 4 x group index reaches this (1 MiB of groups examined).
constexpr int64_t kBodyScanLimit = 0x100004;

/// What the header walk found. The walk writes into it as it goes, so after a rejected header
/// it holds the values reached so far (the version is 0 after an unknown version word).
struct RecordingHeader {
    uint16_t headerWords = 0;  ///< header length in 4-byte words; data start = headerWords x 4
    DVS_VERSION version = SELECT_VERSION;
};

/// True when path contains ".dvs" anywhere: such files are expected to carry a header, so a
/// "take.dvs.raw" counts as a recording. A null path is not a recording. Any thread.
bool IsRecordingPath(const char* path);

/// True when byte, as the first byte of a 4-byte sensor word, marks a reference time stamp for
/// the given version: 0x08..0x0B for versions 1 and 17, nothing for any other version.
bool IsReferenceTimestampByte(uint8_t byte, int version);

/// Walks the header words from the current position of file. Sets header.headerWords to 0
/// first, then follows each word: length words set it, version words set header.version.
/// On success the file stands at the first body byte.
/// @return 0; 205 when a word cannot be read in full; 207 for a bad marker or type, a length
///         below 2, a version word before any length word, a version other than 1 or 17
///         (header.version is reset to 0), or a one-word form that is not first or not clean.
/// Does not take ownership of file; blocks on file I/O only.
DVS_ERROR ReadFileHeader(FILE* file, RecordingHeader& header);

/// Judges whether the bytes from the current position of file are sensor data of version:
/// succeeds at the first 4-byte group whose first byte marks a reference time stamp. The k-th
/// group (k from 1) is tested only while 4k is below bodyLength and below kBodyScanLimit, so
/// the last whole group of a body is never examined.
/// @return 0 on success; 207 for a short read, an exhausted scan or no marking byte.
DVS_ERROR CheckBinFile(FILE* file, int64_t bodyLength, DVS_VERSION version);

/// Checks the file at path as the file source does before playing it. For a recording path
/// (IsRecordingPath) the header is walked into header, then the body is checked with the
/// version found; for any other path the whole file is the body, checked with header.version
/// as the caller states it, and header is left untouched. The file is closed in every case.
/// @return 0; 23 for a null or empty path; 202 when the file cannot be opened; 207 for a file
///         of 999 bytes or fewer, a rejected header or body; 205 as ReadFileHeader.
DVS_ERROR CheckRecordingFile(const char* path, RecordingHeader& header);

/// Writes the writer's header at the current position of file: 7F 00 02 00 (two header
/// words), then 7F 01 and version as u16 little-endian.
/// @return 0, or 204 when either word is written short. Does not flush or close file.
DVS_ERROR WriteFileHeader(FILE* file, DVS_VERSION version);

/// Creates (or truncates) path and writes a whole recording: the writer's header for version,
/// then length bytes of body. A null body is allowed when length is 0.
/// @return 0; 202 when the file cannot be created; 204 for a short write or a failed close.
DVS_ERROR WriteRecordingFile(const char* path, DVS_VERSION version, const uint8_t* body,
                             size_t length);

/// Name of the first file of a recording made at local time t: "YYYY-MM-DD-hh-mm-ss-<name>.dvs"
/// with the version name of Ver2StrMap. A version missing from the map gives an empty name.
std::string MakeRecordingFileName(const tm& t, DVS_VERSION version);

/// Name of a follow-on file made at local time t. The version name is inserted already
/// preceded by its own dash, so the name holds two dashes before it:
/// "YYYY-MM-DD-hh-mm-ss--<name>.dvs". Readers must not rely on either form.
std::string MakeFollowOnFileName(const tm& t, DVS_VERSION version);

}  // namespace evcam

#endif  // EVCAM_SRC_RECORD_RECORDING_FORMAT_H
