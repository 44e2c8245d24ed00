#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "evcam/sim.h"
#include "src/stream/bias_file.h"
#include "src/stream/fx20_stream.h"
#include "src/stream/fx3_stream.h"

namespace evcam {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

const std::string kMonoHeader =
    "//@ DVS_VERSION MVT94QX\n//@ Single\n//@ Description test biases\n";
const std::string kStereoHeader =
    "//@ DVS_VERSION MVT94QX\n//@ Stereo\n//@ Description test biases\n";

// A folder of its own for each test, removed afterwards.
class TempDirTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "evcam_bias_XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        mDir = pattern;
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(mDir, ec);
    }
    std::string Write(const std::string& name, const std::string& text) {
        const std::string path = (mDir / name).string();
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

    fs::path mDir;
};

// ---- Helpers and the line parser

TEST(BiasHelpers, strtrim_removes_blanks_and_line_ends_at_both_ends_only) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {" \t ab  c \r\n", "ab  c"}, {" \t\r\n", ""}, {"", ""}, {"abc", "abc"}, {"\nx", "x"}};
    for (const auto& [in, out] : cases) {
        std::string s = in;
        bias::strtrim(s.data());
        EXPECT_STREQ(s.c_str(), out.c_str()) << "input [" << in << "]";
    }
}

TEST(BiasHelpers, number_readers_stop_at_the_first_other_character_and_wrap_at_32_bits) {
    struct Case {
        bool hex;
        std::string text;
        int from;
        int value;
        int end;
    };
    const std::vector<Case> cases = {
        {true, "1fZ", 0, 0x1F, 2},    {true, "x20 ", 1, 0x20, 3},
        {true, "g1", 0, 0, 0},        {true, "123456789", 0, 0x23456789, 9},
        {true, "FFFFFFFF", 0, -1, 8}, {false, "100x", 0, 100, 3},
        {false, "t100", 0, 0, 0},     {false, "4294967297", 0, 1, 10},
        {false, "0a", 0, 0, 1},
    };
    for (const Case& c : cases) {
        std::string s = c.text;
        int pos = c.from;
        const int value = c.hex ? bias::htoi(s.data(), &pos) : bias::atoi(s.data(), &pos);
        EXPECT_EQ(value, c.value) << c.text;
        EXPECT_EQ(pos, c.end) << c.text;
    }
}

TEST(BiasLine, parses_register_wait_and_unusable_lines) {
    struct Case {
        std::string line;
        int result;
        int slave, reg, value;
    };
    const std::vector<Case> cases = {
        {"20 3A 0F", 1, 0x20, 0x3A, 0x0F},
        {"20:3a=0f", 1, 0x20, 0x3A, 0x0F},
        {"\t20 \t3A::==0F\r\n", 1, 0x20, 0x3A, 0x0F},
        {"20 3A 0F // comment", 1, 0x20, 0x3A, 0x0F},
        {"20 3A 0F \r 11", 1, 0x20, 0x3A, 0x0F},
        {"20 3A 1 2 3", 1, 0x20, 0x3A, 3},
        {"1 2 123456789", 1, 1, 2, 0x23456789},
        {"", 10, 0, 0, 0},
        {"// 20 3A 0F", 10, 0, 0, 0},
        {"  \t\r\n", 10, 0, 0, 0},
        {"20", 11, 0x20, 0, 0},
        {"20 3A", 12, 0x20, 0x3A, 0},
        {"20 3A \n0F", 12, 0x20, 0x3A, 0},
        // The character after a number is skipped unseen, a line end or a "/" included.
        {"0x20 0x3A 0x0F", 1, 0, 0x20, 0x0F},
        {"20x3A 0F", 1, 0x20, 0x3A, 0x0F},
        {"20,3A,0F", 1, 0x20, 0x3A, 0x0F},
        {"20 3A 0F/1", 1, 0x20, 0x3A, 0x01},
        {"20 3A 0F\r 11", 1, 0x20, 0x3A, 0x11},
        {"20 3A\n0F", 1, 0x20, 0x3A, 0x0F},
        // The word fills the field it stands in with 0; numbers after it go on from there.
        {"wait 64", 2, 0x64, 0, 0},
        {"0 0 wait 64", 2, 0, 0, 0x64},
        {"20 3A WaIt 100", 2, 0x20, 0x3A, 0x100},
        {"20 wait 3A", 2, 0x20, 0x3A, 0},
        {"0 0 wait1000", 2, 0, 0, 0x1000},
        {"20 3A 0F wait", 2, 0x20, 0x3A, 0},
        {"20 3A 0F wa", -1, 0, 0, 0},
        {"20 3A w", -1, 0, 0, 0},
        {"20 3A watt 1", -1, 0, 0, 0},
        {"20 ,3A 0F", -1, 0, 0, 0},
        {"zz 3A 0F", -1, 0, 0, 0},
    };
    for (const Case& c : cases) {
        std::string line = c.line;
        int slave = -7, reg = -7, value = -7;
        const int result = bias::parseString(line.data(), &slave, &reg, &value);
        EXPECT_EQ(result, c.result) << "[" << c.line << "]";
        if (result != -1) {
            EXPECT_EQ(std::make_tuple(slave, reg, value), std::make_tuple(c.slave, c.reg, c.value))
                << "[" << c.line << "]";
        }
    }
    int field = 0;
    EXPECT_EQ(bias::parseString(nullptr, &field, &field, &field), -1);
}

// ---- The header check

using BiasHeader = TempDirTest;

TEST_F(BiasHeader, accepts_only_the_directives_in_order) {
    struct Case {
        std::string text;
        bool valid;
        int version;
        bool cdvs;
        std::string description;
    };
    const std::string version = "//@ DVS_VERSION MVT94QX\n";
    const std::vector<Case> cases = {
        {kMonoHeader + "20 3A 0F\n", true, 1, false, "test biases"},
        {version + "//@ Stereo\n//@ CDVS\n//@ CDVS\n//@ Description two\n", true, 17, true, "two"},
        // Blank lines anywhere, blanks around a directive and CR LF endings are allowed; the
        // description keeps what follows the one blank of its prefix.
        {"\n \n  \t//@ DVS_VERSION MVT94QX \r\n\r\n//@ Single\t\n  \n"
         "//@ Description  two blanks \r\n",
         true, 1, false, " two blanks"},
        {version + "//@ Single\n//@ Description last line", true, 1, false, "last line"},
        {"// my settings\n" + kMonoHeader, false, 0, false, ""},
        {"//@ DVS_VERSION  MVT94QX\n//@ Single\n//@ Description x\n", false, 0, false, ""},
        {"//@ dvs_version mvt94qx\n//@ Single\n//@ Description x\n", false, 0, false, ""},
        {version + "//@ Single\n//@ Description\n", false, 0, false, ""},
        {version + "//@ Single\n//@ Description   \n", false, 0, false, ""},
        {version + "//@ Single\n", false, 0, false, ""},
        {version + "//@ Description x\n", false, 0, false, ""},
        {version + "//@ CDVS\n//@ Single\n//@ Description x\n", false, 0, false, ""},
        {version + "//@ Single\n//@ Stereo\n//@ Description x\n", false, 0, false, ""},
        {version + "//@ Single\n20 3A 0F\n//@ Description x\n", false, 0, false, ""},
        {"", false, 0, false, ""},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        const Case& c = cases[i];
        BiasFileItem item;
        const std::string path = Write("h" + std::to_string(i) + ".bias", c.text);
        std::snprintf(item.filePath, sizeof item.filePath, "%s", path.c_str());
        ASSERT_EQ(DeviceStream::IsValidBiasFile(item), c.valid) << "case " << i;
        if (c.valid) {
            EXPECT_EQ(item.dvsVersion, c.version) << "case " << i;
            EXPECT_EQ(item.isCDVS, c.cdvs) << "case " << i;
            EXPECT_STREQ(item.description, c.description.c_str()) << "case " << i;
        }
    }
}

TEST_F(BiasHeader, missing_file_is_invalid) {
    BiasFileItem item;
    std::snprintf(item.filePath, sizeof item.filePath, "%s", (mDir / "none.bias").c_str());
    EXPECT_FALSE(DeviceStream::IsValidBiasFile(item));
}

TEST_F(BiasHeader, lines_are_read_in_511_byte_pieces_and_a_long_description_is_cut) {
    // The directive padded to 511 bytes ends the first piece; the rest of that line is read
    // as a line of its own.
    std::string first = "//@ DVS_VERSION MVT94QX";
    first.resize(511, ' ');
    BiasFileItem item;
    std::string path = Write("split.bias", first + "//@ Single\n//@ Description x\n");
    std::snprintf(item.filePath, sizeof item.filePath, "%s", path.c_str());
    EXPECT_TRUE(DeviceStream::IsValidBiasFile(item));

    const std::string longText(400, 'd');
    BiasFileItem cut;
    path = Write("long.bias", "//@ DVS_VERSION MVT94QX\n//@ Single\n//@ Description " + longText);
    std::snprintf(cut.filePath, sizeof cut.filePath, "%s", path.c_str());
    ASSERT_TRUE(DeviceStream::IsValidBiasFile(cut));
    EXPECT_EQ(std::string(cut.description), longText.substr(0, sizeof cut.description - 1));
}

// ---- SetBias on simulated cameras of both kinds

// A logged request: bmRequestType, bRequest, wValue, wIndex, wLength, data bytes, result.
using Wire = std::tuple<int, int, int, int, int, Bytes, int>;

Wire WireOf(const sim::ControlRequest& r) {
    return {r.bmRequestType, r.bRequest, r.wValue, r.wIndex, r.wLength, r.data, r.result};
}

// A transport whose Nth register write meets a failing control request.
template <typename Base>
class BiasStream : public Base {
  public:
    DVS_ERROR WriteI2CReg(int slave, int reg, int value) override {
        if (++writes == failAt) {
            EXPECT_EQ(sim::InjectFault(camera, sim::Fault::kControlError), ERR_SUCCESS);
        }
        return Base::WriteI2CReg(slave, reg, value);
    }
    int camera = -1;
    int failAt = 0;
    int writes = 0;
};

struct Fx20 {
    using Stream = BiasStream<FX20Stream>;
    static constexpr sim::Kind kSim = sim::Kind::kFX20;
    static UsbDeviceTable& Table() { return FX20Stream::Table(); }
    // Slave and big-endian register address travel in the payload.
    static Wire Write(int slave, int reg, int value) {
        return {0x40, 0xBA, 0,
                0,    4,    Bytes{uint8_t(slave), uint8_t(reg >> 8), uint8_t(reg), uint8_t(value)},
                4};
    }
};
struct Fx3 {
    using Stream = BiasStream<FX3Stream>;
    static constexpr sim::Kind kSim = sim::Kind::kFX3;
    static UsbDeviceTable& Table() { return FX3Stream::Table(); }
    // Addresses in the setup packet, the value alone in the data stage.
    static Wire Write(int slave, int reg, int value) {
        return {0x40, 0xBA, slave, reg, 1, Bytes{uint8_t(value)}, 1};
    }
};

int Scan(UsbDeviceTable& table) {
    USBDevice* list = nullptr;
    int count = 0;
    EXPECT_EQ(table.ScanDVSDevice(&list, count), ERR_SUCCESS);
    return count;
}

int VersionOf(DeviceStream& stream) {
    int version = -1;
    EXPECT_EQ(stream.GetVersion(&version), ERR_SUCCESS);
    return version;
}

// One camera of the kind, plugged, scanned and bound; the tables are process-wide, so every
// test starts from an empty bus.
template <typename K>
class SetBias : public TempDirTest {
  protected:
    void SetUp() override {
        TempDirTest::SetUp();
        ASSERT_EQ(sim::Enable(), ERR_SUCCESS);
        sim::UnplugAll();
        sim::CameraConfig config;
        config.kind = K::kSim;
        config.byteRate = 1000000;
        camera = sim::Plug(config);
        ASSERT_GE(camera, 0);
        ASSERT_EQ(Scan(K::Table()), 1);
        ASSERT_EQ(stream.SetDVSID(0), ERR_SUCCESS);
        stream.camera = camera;
        sim::ClearControlLog(camera);
    }
    void TearDown() override {
        stream.Stop();
        sim::UnplugAll();
        TempDirTest::TearDown();
    }
    std::vector<Wire> Log() const {
        std::vector<Wire> wires;
        for (const sim::ControlRequest& r : sim::ControlLog(camera)) {
            wires.push_back(WireOf(r));
        }
        return wires;
    }
    int Register(int slave, int reg) const {
        int value = -1;
        EXPECT_EQ(sim::ReadRegister(camera, slave, reg, value), ERR_SUCCESS);
        return value;
    }

    int camera = -1;
    typename K::Stream stream;
};
using Kinds = ::testing::Types<Fx20, Fx3>;
TYPED_TEST_SUITE(SetBias, Kinds);

TYPED_TEST(SetBias, writes_register_lines_in_file_order_and_skips_the_rest) {
    const std::string path = this->Write("order.bias", kMonoHeader +
                                                           "\n"
                                                           "20:3a=0f\n"
                                                           "20 3B 1C // comment\n"
                                                           "0x21 0x3C 0x2D\n"
                                                           "21 3D\n"
                                                           "wait 64\n"
                                                           "zz 40 01\n"
                                                           "22 0110 01\n"
                                                           "22 0111 02");
    EXPECT_EQ(this->stream.SetBias(path.c_str()), ERR_SUCCESS);
    using K = TypeParam;
    const std::vector<Wire> expected = {K::Write(0x20, 0x3A, 0x0F), K::Write(0x20, 0x3B, 0x1C),
                                        K::Write(0x00, 0x21, 0x2D), K::Write(0x22, 0x110, 0x01)};
    EXPECT_EQ(this->Log(), expected);
    EXPECT_EQ(this->Register(0x20, 0x3A), 0x0F);
    EXPECT_EQ(this->Register(0x22, 0x110), 0x01);
    // The last line has no line feed: checked, but never applied.
    EXPECT_EQ(this->Register(0x22, 0x111), 0);
    EXPECT_EQ(VersionOf(this->stream), MVT94QX);
}

TYPED_TEST(SetBias, reads_lines_in_999_byte_pieces) {
    // One line of the file, cut after 999 bytes: its two pieces are two register lines.
    std::string line = "20 10 01";
    line.resize(999, ' ');
    const std::string path = this->Write("chunks.bias", kMonoHeader + line + "20 11 02\n");
    EXPECT_EQ(this->stream.SetBias(path.c_str()), ERR_SUCCESS);
    const std::vector<Wire> expected = {TypeParam::Write(0x20, 0x10, 0x01),
                                        TypeParam::Write(0x20, 0x11, 0x02)};
    EXPECT_EQ(this->Log(), expected);
}

TYPED_TEST(SetBias, wait_line_pauses_for_the_value_it_fills) {
    const std::string path = this->Write("wait.bias", kMonoHeader + "20 3A wait 100\n");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(this->stream.SetBias(path.c_str()), ERR_SUCCESS);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    EXPECT_TRUE(this->Log().empty());
}

TYPED_TEST(SetBias, sample_files_load_and_give_their_version) {
    const std::string single = std::string(EVCAM_SAMPLES_DIR) + "/single.bias";
    EXPECT_EQ(this->stream.SetBias(single.c_str()), ERR_SUCCESS);
    EXPECT_EQ(VersionOf(this->stream), MVT94QX);
    EXPECT_EQ(this->Register(0x20, 0x0010), 1);
    EXPECT_EQ(this->Register(0x20, 0x0031), 0x2C);

    const std::string stereo = std::string(EVCAM_SAMPLES_DIR) + "/stereo.bias";
    EXPECT_EQ(this->stream.SetBias(stereo.c_str()), ERR_SUCCESS);
    EXPECT_EQ(VersionOf(this->stream), MVT94QX_STEREO);
    EXPECT_EQ(this->Register(0x22, 0x0010), 1);
    EXPECT_EQ(this->Register(0x22, 0x0033), 0x40);
}

TYPED_TEST(SetBias, refuses_bad_paths_invalid_files_unbound_and_running_streams) {
    auto& s = this->stream;
    EXPECT_EQ(s.SetBias(nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(s.SetBias(""), ERR_PARA_ERROR);
    EXPECT_EQ(s.SetBias(std::string(300, 'a').c_str()), ERR_PARA_ERROR);
    EXPECT_EQ(s.SetBias((this->mDir / "none.bias").c_str()), ERR_INVALID_FILE);
    const std::string invalid =
        this->Write("bad.bias", "// my settings\n" + kMonoHeader + "20 3A 0F\n");
    EXPECT_EQ(s.SetBias(invalid.c_str()), ERR_INVALID_FILE);
    EXPECT_TRUE(this->Log().empty());
    EXPECT_EQ(VersionOf(s), SELECT_VERSION);
    EXPECT_EQ(s.Start(), ERR_NO_BIAS_FILE);

    const std::string valid = this->Write("good.bias", kMonoHeader + "20 3A 0F\n");
    typename TypeParam::Stream unbound;
    EXPECT_EQ(unbound.SetBias(valid.c_str()), ERR_INVALID_DEVICE);

    ASSERT_EQ(s.SetBias(valid.c_str()), ERR_SUCCESS);
    ASSERT_EQ(s.Start(), ERR_SUCCESS);
    sim::ClearControlLog(this->camera);
    EXPECT_EQ(s.SetBias(valid.c_str()), ERR_DEVICE_IN_USE);
    EXPECT_EQ(s.Stop(), ERR_SUCCESS);
    EXPECT_TRUE(this->Log().empty());
}

TYPED_TEST(SetBias, failed_write_stops_the_file_and_keeps_earlier_writes_and_the_version) {
    const std::string path =
        this->Write("fail.bias", kStereoHeader + "20 3A 0F\n20 3B 1C\n20 3C 2D\n");
    this->stream.failAt = 2;
    testing::internal::CaptureStdout();
    EXPECT_EQ(this->stream.SetBias(path.c_str()), ERR_I2C_WRITE);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("ERROR: write register fail:slvAddr:32, adr:59, val:28\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(this->stream.writes, 2);
    EXPECT_EQ(this->Log().size(), 2u);
    EXPECT_EQ(this->Register(0x20, 0x3A), 0x0F);
    EXPECT_EQ(this->Register(0x20, 0x3B), 0);
    EXPECT_EQ(this->Register(0x20, 0x3C), 0);
    EXPECT_EQ(VersionOf(this->stream), MVT94QX_STEREO);
}

}  // namespace
}  // namespace evcam
