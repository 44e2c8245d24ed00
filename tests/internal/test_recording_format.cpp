#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "src/record/recording_format.h"

namespace evcam {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

Bytes HeaderWord(uint8_t type, uint16_t value) {
    return {0x7F, type, static_cast<uint8_t>(value & 0xFF), static_cast<uint8_t>(value >> 8)};
}

Bytes RawWord(uint8_t b0, uint8_t b1, uint8_t b2, uint8_t b3) {
    return {b0, b1, b2, b3};
}

Bytes WriterHeader(uint16_t version) {
    Bytes h = HeaderWord(0, 2);
    Bytes v = HeaderWord(1, version);
    h.insert(h.end(), v.begin(), v.end());
    return h;
}

Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) {
        all.insert(all.end(), p.begin(), p.end());
    }
    return all;
}

// groups 4-byte groups of zeros (no version marks them) whose group number mark (1-based)
// starts with firstByte; mark 0 leaves the body without any such group.
Bytes Body(size_t groups, size_t mark = 1, uint8_t firstByte = 0x08) {
    Bytes body(groups * 4, 0);
    if (mark != 0) {
        body[(mark - 1) * 4] = firstByte;
    }
    return body;
}

class TempDirTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "evcam-recording-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        mDir = pattern;
    }
    void TearDown() override { fs::remove_all(mDir); }

    std::string Write(const std::string& name, const Bytes& bytes) {
        const std::string path = (mDir / name).string();
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
        return path;
    }

    Bytes Read(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

    // Checks a file holding bytes under name, as the file source does.
    DVS_ERROR Check(const std::string& name, const Bytes& bytes, RecordingHeader& header) {
        return CheckRecordingFile(Write(name, bytes).c_str(), header);
    }

    fs::path mDir;
};

using RecordingCheck = TempDirTest;

TEST_F(RecordingCheck, rejects_999_bytes_whatever_they_hold_and_examines_1000) {
    RecordingHeader header;
    EXPECT_EQ(Check("short.dvs", Join({WriterHeader(1), Body(247), {0, 0, 0}}), header),
              ERR_INVALID_FILE);
    EXPECT_EQ(header.headerWords, 0);

    EXPECT_EQ(Check("enough.dvs", Join({WriterHeader(1), Body(248)}), header), ERR_SUCCESS);
    EXPECT_EQ(header.headerWords, 2);
    EXPECT_EQ(header.version, MVT94QX);
}

TEST_F(RecordingCheck, scans_past_first_groups_that_do_not_mark_a_reference_timestamp) {
    for (uint8_t first : {uint8_t{0x88}, uint8_t{0x0C}, uint8_t{0x07}}) {
        SCOPED_TRACE(static_cast<int>(first));
        Bytes body = Body(300, 5, 0x0B);
        body[0] = first;
        RecordingHeader header;
        EXPECT_EQ(Check("scan.dvs", Join({WriterHeader(17), body}), header), ERR_SUCCESS);
        EXPECT_EQ(header.version, MVT94QX_STEREO);

        EXPECT_EQ(Check("none.dvs", Join({WriterHeader(17), Body(300, 1, first)}), header),
                  ERR_INVALID_FILE);
    }
}

struct HeaderCase {
    const char* what;
    Bytes header;
    DVS_ERROR result;
    uint16_t words;
    DVS_VERSION version;
};

TEST_F(RecordingCheck, walks_header_words_to_their_verdicts) {
    const std::vector<HeaderCase> cases = {
        {"later version word wins",
         Join({RawWord(0x7F, 0, 3, 0), RawWord(0x7F, 1, 1, 0), RawWord(0x7F, 1, 0x11, 0)}),
         ERR_SUCCESS, 3, MVT94QX_STEREO},
        {"version first, no length", RawWord(0x7F, 1, 1, 0), ERR_INVALID_FILE, 0, SELECT_VERSION},
        {"one-word form", RawWord(0x7F, 4, 1, 0), ERR_SUCCESS, 1, MVT94QX},
        {"one-word form stereo", RawWord(0x7F, 4, 0x11, 0), ERR_SUCCESS, 1, MVT94QX_STEREO},
        {"one-word form with byte 3 set", RawWord(0x7F, 4, 1, 1), ERR_INVALID_FILE, 1,
         SELECT_VERSION},
        {"one-word form unknown version", RawWord(0x7F, 4, 2, 0), ERR_INVALID_FILE, 1,
         SELECT_VERSION},
        {"one-word form after a length", Join({HeaderWord(0, 2), RawWord(0x7F, 4, 1, 0)}),
         ERR_INVALID_FILE, 2, SELECT_VERSION},
        {"length below 2", Join({HeaderWord(0, 1), HeaderWord(1, 1)}), ERR_INVALID_FILE, 1,
         SELECT_VERSION},
        {"bad marker", Join({RawWord(0x7E, 0, 2, 0), HeaderWord(1, 1)}), ERR_INVALID_FILE, 0,
         SELECT_VERSION},
        {"unknown word type", Join({HeaderWord(0, 2), HeaderWord(2, 1)}), ERR_INVALID_FILE, 2,
         SELECT_VERSION},
        {"unknown version", Join({HeaderWord(0, 2), HeaderWord(1, 2)}), ERR_INVALID_FILE, 2,
         SELECT_VERSION},
        {"version 16", Join({HeaderWord(0, 2), HeaderWord(1, 16)}), ERR_INVALID_FILE, 2,
         SELECT_VERSION},
        {"version 0x0101", Join({HeaderWord(0, 2), HeaderWord(1, 0x0101)}), ERR_INVALID_FILE, 2,
         SELECT_VERSION},
        {"last length word sets the end",
         Join({HeaderWord(0, 2), HeaderWord(0, 3), HeaderWord(1, 1)}), ERR_SUCCESS, 3, MVT94QX},
        {"version word before the stated end runs into the body",
         Join({HeaderWord(0, 2), HeaderWord(0, 2), HeaderWord(1, 1)}), ERR_INVALID_FILE, 2,
         MVT94QX},
    };
    for (const HeaderCase& c : cases) {
        SCOPED_TRACE(c.what);
        RecordingHeader header;
        EXPECT_EQ(Check("case.dvs", Join({c.header, Body(300)}), header), c.result);
        EXPECT_EQ(header.headerWords, c.words);
        EXPECT_EQ(header.version, c.version);
    }
}

TEST_F(RecordingCheck, header_that_never_ends_gives_read_error) {
    Bytes lengthWords;
    for (int i = 0; i < 250; ++i) {
        const Bytes w = HeaderWord(0, 2);
        lengthWords.insert(lengthWords.end(), w.begin(), w.end());
    }
    RecordingHeader header;
    EXPECT_EQ(Check("endless.dvs", lengthWords, header), ERR_READ_FILE);
    lengthWords.push_back(0x7F);
    EXPECT_EQ(Check("endless.dvs", lengthWords, header), ERR_READ_FILE);
}

TEST_F(RecordingCheck, looks_for_the_reference_timestamp_within_one_mebibyte_of_body) {
    constexpr size_t kLastExamined = 262144;
    RecordingHeader header;
    EXPECT_EQ(
        Check("late.dvs", Join({WriterHeader(1), Body(kLastExamined + 8, kLastExamined)}), header),
        ERR_SUCCESS);
    EXPECT_EQ(Check("late.dvs", Join({WriterHeader(1), Body(kLastExamined + 8, kLastExamined + 1)}),
                    header),
              ERR_INVALID_FILE);
}

TEST_F(RecordingCheck, never_examines_the_last_whole_group_of_the_body) {
    // The body length excludes the header, whichever form it has.
    RecordingHeader header;
    EXPECT_EQ(Check("tail.dvs", Join({WriterHeader(1), Body(248, 247)}), header), ERR_SUCCESS);
    EXPECT_EQ(Check("tail.dvs", Join({WriterHeader(1), Body(248, 248)}), header), ERR_INVALID_FILE);
    EXPECT_EQ(Check("tail.dvs", Join({RawWord(0x7F, 4, 1, 0), Body(249, 248)}), header),
              ERR_SUCCESS);
    EXPECT_EQ(Check("tail.dvs", Join({RawWord(0x7F, 4, 1, 0), Body(249, 249)}), header),
              ERR_INVALID_FILE);
}

TEST_F(RecordingCheck, accepts_a_recording_that_ends_inside_a_group) {
    RecordingHeader header;
    EXPECT_EQ(Check("ragged.dvs", Join({WriterHeader(1), Body(250), {0x08, 0}}), header),
              ERR_SUCCESS);
}

TEST_F(RecordingCheck, path_containing_dvs_anywhere_is_read_with_a_header) {
    RecordingHeader header;
    EXPECT_EQ(Check("take.dvs.raw", Join({WriterHeader(17), Body(300)}), header), ERR_SUCCESS);
    EXPECT_EQ(header.headerWords, 2);
    EXPECT_EQ(header.version, MVT94QX_STEREO);

    header.version = MVT94QX;
    EXPECT_EQ(Check("take.dvs.raw", Body(300), header), ERR_INVALID_FILE);
}

TEST_F(RecordingCheck, headerless_dump_is_checked_with_the_stated_version) {
    const Bytes dump = Body(300);
    for (DVS_VERSION v : {MVT94QX, MVT94QX_STEREO}) {
        RecordingHeader header{5, v};
        EXPECT_EQ(Check("take.raw", dump, header), ERR_SUCCESS);
        EXPECT_EQ(header.headerWords, 5);
        EXPECT_EQ(header.version, v);
    }
    for (int v : {0, 2, 16}) {
        RecordingHeader header{0, static_cast<DVS_VERSION>(v)};
        EXPECT_EQ(Check("take.raw", dump, header), ERR_INVALID_FILE) << v;
    }
}

TEST_F(RecordingCheck, reports_missing_path_and_unopenable_file) {
    RecordingHeader header;
    EXPECT_EQ(CheckRecordingFile(nullptr, header), ERR_NO_FILE);
    EXPECT_EQ(CheckRecordingFile("", header), ERR_NO_FILE);
    EXPECT_EQ(CheckRecordingFile((mDir / "absent.dvs").c_str(), header), ERR_OPEN_FILE);
}

TEST(ReferenceTimestampByte, marks_only_08_to_0B_and_only_for_known_versions) {
    for (int byte = 0; byte < 256; ++byte) {
        const bool expected = byte >= 0x08 && byte <= 0x0B;
        EXPECT_EQ(IsReferenceTimestampByte(static_cast<uint8_t>(byte), MVT94QX), expected) << byte;
        EXPECT_EQ(IsReferenceTimestampByte(static_cast<uint8_t>(byte), MVT94QX_STEREO), expected)
            << byte;
        for (int other : {0, 2, 16, 33}) {
            EXPECT_FALSE(IsReferenceTimestampByte(static_cast<uint8_t>(byte), other)) << byte;
        }
    }
}

TEST(RecordingPath, is_a_substring_test_not_an_extension_test) {
    EXPECT_TRUE(IsRecordingPath("a.dvs"));
    EXPECT_TRUE(IsRecordingPath("take.dvs.raw"));
    EXPECT_TRUE(IsRecordingPath("/data/x.dvs/plain.bin"));
    EXPECT_FALSE(IsRecordingPath("a.DVS"));
    EXPECT_FALSE(IsRecordingPath("dvs"));
    EXPECT_FALSE(IsRecordingPath("a.dv"));
    EXPECT_FALSE(IsRecordingPath(""));
    EXPECT_FALSE(IsRecordingPath(nullptr));
}

using RecordingWriter = TempDirTest;

TEST_F(RecordingWriter, writes_a_header_the_reader_ends_after_eight_bytes) {
    for (DVS_VERSION v : {MVT94QX, MVT94QX_STEREO}) {
        SCOPED_TRACE(v);
        const Bytes body = Body(300, 2);
        const std::string path = (mDir / "w.dvs").string();
        ASSERT_EQ(WriteRecordingFile(path.c_str(), v, body.data(), body.size()), ERR_SUCCESS);

        const Bytes file = Read(path);
        ASSERT_EQ(file.size(), 8 + body.size());
        EXPECT_EQ(Bytes(file.begin(), file.begin() + 4), RawWord(0x7F, 0x00, 0x02, 0x00));
        EXPECT_EQ(Bytes(file.begin() + 4, file.begin() + 8),
                  RawWord(0x7F, 0x01, static_cast<uint8_t>(v), 0x00));
        EXPECT_EQ(Bytes(file.begin() + 8, file.end()), body);

        RecordingHeader header;
        EXPECT_EQ(CheckRecordingFile(path.c_str(), header), ERR_SUCCESS);
        EXPECT_EQ(header.headerWords, 2);
        EXPECT_EQ(header.version, v);
    }
}

TEST_F(RecordingWriter, recording_stopped_almost_at_once_is_written_but_refused) {
    const Bytes body = Body(247);
    const std::string path = (mDir / "brief.dvs").string();
    EXPECT_EQ(WriteRecordingFile(path.c_str(), MVT94QX, body.data(), body.size()), ERR_SUCCESS);
    RecordingHeader header;
    EXPECT_EQ(CheckRecordingFile(path.c_str(), header), ERR_INVALID_FILE);
}

TEST_F(RecordingWriter, reports_failed_open_and_short_header_write) {
    const std::string missingDir = (mDir / "no-such-dir" / "x.dvs").string();
    EXPECT_EQ(WriteRecordingFile(missingDir.c_str(), MVT94QX, nullptr, 0), ERR_OPEN_FILE);

    const std::string path = Write("readonly.dvs", Body(1));
    FILE* readOnly = fopen(path.c_str(), "rb");
    ASSERT_NE(readOnly, nullptr);
    EXPECT_EQ(WriteFileHeader(readOnly, MVT94QX), ERR_WRITE_FILE);
    fclose(readOnly);
}

TEST(RecordingFileName, first_file_has_one_dash_and_follow_on_two) {
    tm t{};
    t.tm_year = 2024 - 1900;
    t.tm_mon = 2;
    t.tm_mday = 5;
    t.tm_hour = 14;
    t.tm_min = 7;
    t.tm_sec = 9;
    EXPECT_EQ(MakeRecordingFileName(t, MVT94QX), "2024-03-05-14-07-09-MVT94QX.dvs");
    t.tm_hour = 15;
    t.tm_min = 40;
    t.tm_sec = 2;
    EXPECT_EQ(MakeFollowOnFileName(t, MVT94QX), "2024-03-05-15-40-02--MVT94QX.dvs");

    tm s{};
    s.tm_year = 2025 - 1900;
    s.tm_mon = 0;
    s.tm_mday = 7;
    s.tm_hour = 9;
    s.tm_min = 5;
    s.tm_sec = 3;
    EXPECT_EQ(MakeRecordingFileName(s, MVT94QX_STEREO), "2025-01-07-09-05-03-MVT94QX_STEREO.dvs");
    EXPECT_EQ(MakeFollowOnFileName(s, MVT94QX_STEREO), "2025-01-07-09-05-03--MVT94QX_STEREO.dvs");
}

}  // namespace
}  // namespace evcam
