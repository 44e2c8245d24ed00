#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "src/record/recording_format.h"
#include "tests/support/test_support.h"

namespace evcam {
namespace {

Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) {
        all.insert(all.end(), p.begin(), p.end());
    }
    return all;
}

// Bytes from hex pairs; spaces are ignored.
Bytes Hex(const std::string& hex) {
    Bytes out;
    for (size_t i = 0; i < hex.size(); ++i) {
        if (hex[i] != ' ') {
            out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i++, 2), nullptr, 16)));
        }
    }
    return out;
}

// groups 4-byte groups of zeros, which mark nothing; group number mark (1-based) starts with
// firstByte, mark 0 leaves none.
Bytes Body(size_t groups, size_t mark = 1, uint8_t firstByte = 0x08) {
    Bytes body(groups * 4, 0);
    if (mark != 0) {
        body[(mark - 1) * 4] = firstByte;
    }
    return body;
}

class RecordingFile : public ::testing::Test {
  protected:
    DVS_ERROR Check(const std::string& name, const Bytes& bytes, RecordingHeader& header) {
        return CheckRecordingFile(mDir.Write(name, std::string(bytes.begin(), bytes.end())).c_str(),
                                  header);
    }
    TempDir mDir;
};

struct CheckCase {
    const char* what;
    std::string header;  // hex
    DVS_ERROR result;
    uint16_t words;  // what the header walk reached
    DVS_VERSION version;
    Bytes body = Body(300);
};

TEST_F(RecordingFile, check_walks_header_and_body_to_their_verdicts) {
    constexpr auto kOk = ERR_SUCCESS;
    constexpr auto kBad = ERR_INVALID_FILE;
    constexpr auto kNone = SELECT_VERSION;
    constexpr auto V1 = MVT94QX;
    constexpr auto V17 = MVT94QX_STEREO;
    constexpr size_t kLastExamined = 262144;  // 1 MiB of groups
    const std::string writer = "7F000200 7F010100";
    // Only 0x08..0x0B open a reference time stamp word.
    const Bytes unmarked = Hex("88000000 8B000000 0C000000 07000000 48000000 18000000");
    std::string endless;
    for (int i = 0; i < 250; ++i) {
        endless += "7F000200";
    }
    const std::vector<CheckCase> cases = {
        {"999 bytes whatever they hold", writer, kBad, 0, kNone, Join({Body(247), {0, 0, 0}})},
        {"1000 bytes are examined", writer, kOk, 2, V1, Body(248)},
        {"later version word wins", "7F000300 7F010100 7F011100", kOk, 3, V17},
        {"version first, no length", "7F010100", kBad, 0, kNone},
        {"one-word form", "7F040100", kOk, 1, V1},
        {"one-word form stereo", "7F041100", kOk, 1, V17},
        {"one-word form with byte 3 set", "7F040101", kBad, 1, kNone},
        {"one-word form unknown version", "7F040200", kBad, 1, kNone},
        {"one-word form after a length", "7F000200 7F040100", kBad, 2, kNone},
        {"length below 2", "7F000100 7F010100", kBad, 1, kNone},
        {"bad marker", "7E000200 7F010100", kBad, 0, kNone},
        {"unknown word type", "7F000200 7F020100", kBad, 2, kNone},
        {"unknown version", "7F000200 7F010200", kBad, 2, kNone},
        {"version 16", "7F000200 7F011000", kBad, 2, kNone},
        {"version 0x0101", "7F000200 7F010101", kBad, 2, kNone},
        {"last length word sets the end", "7F000200 7F000300 7F010100", kOk, 3, V1},
        {"version word before the stated end", "7F000200 7F000200 7F010100", kBad, 2, V1},
        {"header that never ends", endless, ERR_READ_FILE, 2, kNone, {}},
        {"header that ends in a partial word", endless, ERR_READ_FILE, 2, kNone, {0x7F, 0x01}},
        {"unmarked groups only", writer, kBad, 2, V1, Join({unmarked, Body(300, 0)})},
        {"scan goes on past unmarked groups", writer, kOk, 2, V1,
         Join({unmarked, Body(300, 5, 0x0B)})},
        {"mark in the last group within 1 MiB", writer, kOk, 2, V1,
         Body(kLastExamined + 8, kLastExamined)},
        {"mark beyond 1 MiB", writer, kBad, 2, V1, Body(kLastExamined + 8, kLastExamined + 1)},
        // The last whole group of the body is never examined; the body excludes the header.
        {"mark in the last but one group", writer, kOk, 2, V1, Body(248, 247, 0x0A)},
        {"mark in the last group", writer, kBad, 2, V1, Body(248, 248)},
        {"one-word form, mark in the last but one group", "7F040100", kOk, 1, V1,
         Body(249, 248, 0x09)},
        {"one-word form, mark in the last group", "7F040100", kBad, 1, V1, Body(249, 249)},
        {"ends inside a group", writer, kOk, 2, V1, Join({Body(250), {0x08, 0}})},
    };
    for (const CheckCase& c : cases) {
        SCOPED_TRACE(c.what);
        RecordingHeader header;
        EXPECT_EQ(Check("case.dvs", Join({Hex(c.header), c.body}), header), c.result);
        EXPECT_EQ(header.headerWords, c.words);
        EXPECT_EQ(header.version, c.version);
    }
}

// A headerless dump is checked with the version the caller states; ".dvs" anywhere in a path
// means a header.
TEST_F(RecordingFile, check_of_headerless_dumps_other_paths_and_missing_files) {
    for (int v : {0, 1, 2, 16, 17}) {
        RecordingHeader header{5, static_cast<DVS_VERSION>(v)};
        EXPECT_EQ(Check("take.raw", Body(300), header),
                  v == 1 || v == 17 ? ERR_SUCCESS : ERR_INVALID_FILE)
            << v;
        EXPECT_EQ(header.headerWords, 5);
        EXPECT_EQ(header.version, v);
    }
    RecordingHeader header;
    EXPECT_EQ(Check("take.dvs.raw", Join({Hex("7F000200 7F011100"), Body(300)}), header),
              ERR_SUCCESS);
    EXPECT_EQ(header.headerWords, 2);
    EXPECT_EQ(header.version, MVT94QX_STEREO);
    EXPECT_EQ(CheckRecordingFile(nullptr, header), ERR_NO_FILE);
    EXPECT_EQ(CheckRecordingFile("", header), ERR_NO_FILE);
    EXPECT_EQ(CheckRecordingFile(mDir.File("absent.dvs").c_str(), header), ERR_OPEN_FILE);
}

// A recording stopped almost at once is written without complaint but refused by the reader.
TEST_F(RecordingFile, writer_header_ends_the_reader_walk_after_eight_bytes) {
    for (DVS_VERSION v : {MVT94QX, MVT94QX_STEREO}) {
        for (size_t groups : {247, 300}) {
            SCOPED_TRACE(testing::Message() << v << " " << groups);
            const Bytes body = Body(groups, 2);
            const std::string path = mDir.File("w.dvs");
            ASSERT_EQ(WriteRecordingFile(path.c_str(), v, body.data(), body.size()), ERR_SUCCESS);
            EXPECT_EQ(ReadFileBytes(path),
                      Join({Hex("7F000200 7F01"), {static_cast<uint8_t>(v), 0}, body}));
            const bool full = groups == 300;
            RecordingHeader header;
            EXPECT_EQ(CheckRecordingFile(path.c_str(), header),
                      full ? ERR_SUCCESS : ERR_INVALID_FILE);
            EXPECT_EQ(header.headerWords, full ? 2 : 0);
            EXPECT_EQ(header.version, full ? v : SELECT_VERSION);
        }
    }
}

TEST_F(RecordingFile, writer_reports_failed_open_and_short_header_write) {
    EXPECT_EQ(WriteRecordingFile(mDir.File("no-such-dir/x.dvs").c_str(), MVT94QX, nullptr, 0),
              ERR_OPEN_FILE);
    FILE* readOnly = fopen(mDir.Write("readonly.dvs", "abcd").c_str(), "rb");
    ASSERT_NE(readOnly, nullptr);
    EXPECT_EQ(WriteFileHeader(readOnly, MVT94QX), ERR_WRITE_FILE);
    fclose(readOnly);
}

// The first file of a recording has one dash before the version, a follow-on file two.
TEST(RecordingName, path_test_is_a_substring_test_and_names_carry_time_and_version) {
    for (const char* yes : {"a.dvs", "take.dvs.raw", "/data/x.dvs/plain.bin"}) {
        EXPECT_TRUE(IsRecordingPath(yes)) << yes;
    }
    for (const char* no : {"a.DVS", "dvs", "a.dv", "", static_cast<const char*>(nullptr)}) {
        EXPECT_FALSE(IsRecordingPath(no)) << no;
    }
    tm t{};
    t.tm_year = 2025 - 1900;
    t.tm_mon = 0;
    t.tm_mday = 7;
    t.tm_hour = 9;
    t.tm_min = 5;
    t.tm_sec = 3;
    EXPECT_EQ(MakeRecordingFileName(t, MVT94QX), "2025-01-07-09-05-03-MVT94QX.dvs");
    EXPECT_EQ(MakeFollowOnFileName(t, MVT94QX), "2025-01-07-09-05-03--MVT94QX.dvs");
    EXPECT_EQ(MakeRecordingFileName(t, MVT94QX_STEREO), "2025-01-07-09-05-03-MVT94QX_STEREO.dvs");
    EXPECT_EQ(MakeFollowOnFileName(t, MVT94QX_STEREO), "2025-01-07-09-05-03--MVT94QX_STEREO.dvs");
}

}  // namespace
}  // namespace evcam
