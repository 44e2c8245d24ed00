#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "src/stream/bias_file.h"
#include "tests/support/usb_support.h"

namespace evcam {
namespace {

const std::string kVersionLine = "//@ DVS_VERSION MVT94QX\n";
const std::string kMonoHeader = kVersionLine + "//@ Single\n//@ Description test biases\n";

// ---- Helpers and the line parser

TEST(BiasHelpers, trim_and_number_readers_stop_at_the_first_other_character) {
    for (const auto& [in, out] : std::vector<std::pair<std::string, std::string>>{
             {" \t ab  c \r\n", "ab  c"}, {" \t\r\n", ""}, {"", ""}, {"\nx", "x"}}) {
        std::string s = in;
        bias::strtrim(s.data());
        EXPECT_EQ(s.c_str(), out) << "[" << in << "]";
    }
    // Base 16 or 10, text, start, value, end; both wrap at 32 bits.
    const std::vector<std::tuple<bool, std::string, int, int, int>> numbers = {
        {true, "1fZ", 0, 0x1F, 2},    {true, "x20 ", 1, 0x20, 3},
        {true, "g1", 0, 0, 0},        {true, "123456789", 0, 0x23456789, 9},
        {true, "FFFFFFFF", 0, -1, 8}, {false, "100x", 0, 100, 3},
        {false, "t100", 0, 0, 0},     {false, "4294967297", 0, 1, 10},
        {false, "0a", 0, 0, 1}};
    for (const auto& [hex, text, from, value, end] : numbers) {
        std::string s = text;
        int pos = from;
        EXPECT_EQ(hex ? bias::htoi(s.data(), &pos) : bias::atoi(s.data(), &pos), value) << text;
        EXPECT_EQ(pos, end) << text;
    }
}

TEST(BiasLine, parses_register_wait_and_unusable_lines) {
    // Line, result, slave, register, value (fields not compared for -1).
    const std::vector<std::tuple<std::string, int, int, int, int>> cases = {
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
    for (const auto& [text, result, slave, reg, value] : cases) {
        std::string line = text;
        int got[3] = {-7, -7, -7};
        EXPECT_EQ(bias::parseString(line.data(), &got[0], &got[1], &got[2]), result) << text;
        if (result != -1) {
            EXPECT_EQ(std::make_tuple(got[0], got[1], got[2]), std::make_tuple(slave, reg, value))
                << text;
        }
    }
    int field = 0;
    EXPECT_EQ(bias::parseString(nullptr, &field, &field, &field), -1);
}

// ---- The header check

TEST(BiasHeader, accepts_only_the_directives_in_order) {
    // The directive padded to 511 bytes ends fgets' first piece; the rest of that line is a
    // line of its own.
    std::string padded = kVersionLine.substr(0, kVersionLine.size() - 1);
    padded.resize(511, ' ');
    const std::string longText(400, 'd');
    struct Case {
        std::string text;
        bool valid;
        int version;
        bool cdvs;
        std::string description;
    };
    const std::vector<Case> cases = {
        {kMonoHeader + "20 3A 0F\n", true, 1, false, "test biases"},
        {kVersionLine + "//@ Stereo\n//@ CDVS\n//@ CDVS\n//@ Description two\n", true, 17, true,
         "two"},
        // Blank lines anywhere, blanks around a directive and CR LF endings are allowed; the
        // description keeps what follows the one blank of its prefix.
        {"\n \n  \t//@ DVS_VERSION MVT94QX \r\n\r\n//@ Single\t\n  \n"
         "//@ Description  two blanks \r\n",
         true, 1, false, " two blanks"},
        {kVersionLine + "//@ Single\n//@ Description last line", true, 1, false, "last line"},
        {padded + "//@ Single\n//@ Description x\n", true, 1, false, "x"},
        {kVersionLine + "//@ Single\n//@ Description " + longText, true, 1, false,
         longText.substr(0, sizeof(BiasFileItem::description) - 1)},
        {"// my settings\n" + kMonoHeader, false, 0, false, ""},
        {"//@ DVS_VERSION  MVT94QX\n//@ Single\n//@ Description x\n", false, 0, false, ""},
        {"//@ dvs_version mvt94qx\n//@ Single\n//@ Description x\n", false, 0, false, ""},
        {kVersionLine + "//@ Single\n//@ Description\n", false, 0, false, ""},
        {kVersionLine + "//@ Single\n//@ Description   \n", false, 0, false, ""},
        {kVersionLine + "//@ Single\n", false, 0, false, ""},
        {kVersionLine + "//@ Description x\n", false, 0, false, ""},
        {kVersionLine + "//@ CDVS\n//@ Single\n//@ Description x\n", false, 0, false, ""},
        {kVersionLine + "//@ Single\n//@ Stereo\n//@ Description x\n", false, 0, false, ""},
        {kVersionLine + "//@ Single\n20 3A 0F\n//@ Description x\n", false, 0, false, ""},
        {"", false, 0, false, ""},
    };
    TempDir dir;
    for (size_t i = 0; i <= cases.size(); ++i) {
        BiasFileItem item;
        // One more, never written: a missing file is invalid too.
        const std::string name = "h" + std::to_string(i) + ".bias";
        const std::string path = i < cases.size() ? dir.Write(name, cases[i].text) : dir.File(name);
        std::snprintf(item.filePath, sizeof item.filePath, "%s", path.c_str());
        const bool valid = i < cases.size() && cases[i].valid;
        ASSERT_EQ(DeviceStream::IsValidBiasFile(item), valid) << "case " << i;
        if (valid) {
            EXPECT_EQ(
                std::make_tuple(int(item.dvsVersion), item.isCDVS, std::string(item.description)),
                std::make_tuple(cases[i].version, cases[i].cdvs, cases[i].description))
                << "case " << i;
        }
    }
}

// ---- SetBias on simulated cameras of both kinds

// A transport whose Nth register write meets a failing control request.
template <typename Base>
class FailingStream : public Base {
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

int VersionOf(DeviceStream& stream) {
    int version = -1;
    EXPECT_EQ(stream.GetVersion(&version), ERR_SUCCESS);
    return version;
}

// One camera of the kind, bound to a stream that no bias file has set up yet.
template <typename K>
class SetBias : public SimBusTest {
  protected:
    void SetUp() override {
        SimBusTest::SetUp();
        rig = std::make_unique<SimRig<K, FailingStream<typename K::Stream>>>(1000000, -1,
                                                                             SELECT_VERSION);
        rig->stream.camera = rig->camera;
        sim::ClearControlLog(rig->camera);
    }
    void TearDown() override {
        rig.reset();
        SimBusTest::TearDown();
    }
    std::vector<Wire> Log() const { return Wires(sim::ControlLog(rig->camera)); }
    int Register(int slave, int reg) const {
        int value = -1;
        EXPECT_EQ(sim::ReadRegister(rig->camera, slave, reg, value), ERR_SUCCESS);
        return value;
    }

    TempDir dir;
    std::unique_ptr<SimRig<K, FailingStream<typename K::Stream>>> rig;
};
TYPED_TEST_SUITE(SetBias, Kinds);

TYPED_TEST(SetBias, writes_register_lines_in_file_order_and_pauses_for_wait_lines) {
    // One line cut after fgets' 999 bytes: its two pieces are two register lines.
    std::string cut = "20 10 01";
    cut.resize(999, ' ');
    const std::string path =
        this->dir.Write("order.bias", kMonoHeader +
                                          "\n20:3a=0f\n20 3B 1C // comment\n0x21 0x3C 0x2D\n21 3D\n"
                                          "wait 64\n20 3A wait 100\nzz 40 01\n" +
                                          cut + "20 11 02\n22 0110 01\n22 0111 02");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(this->rig->stream.SetBias(path.c_str()), ERR_SUCCESS);
    // "wait 64" pauses 0 ms, "20 3A wait 100" 0x100 ms.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    using K = TypeParam;
    // The last line has no line feed: checked, but never applied.
    EXPECT_EQ(this->Log(),
              std::vector<Wire>({K::Write(0x20, 0x3A, 0x0F), K::Write(0x20, 0x3B, 0x1C),
                                 K::Write(0x00, 0x21, 0x2D), K::Write(0x20, 0x10, 0x01),
                                 K::Write(0x20, 0x11, 0x02), K::Write(0x22, 0x110, 0x01)}));
    EXPECT_EQ(VersionOf(this->rig->stream), MVT94QX);
}

TYPED_TEST(SetBias, sample_files_load_and_give_their_version) {
    for (const auto& [name, version, slave] : {std::make_tuple("single", MVT94QX, 0x20),
                                               std::make_tuple("stereo", MVT94QX_STEREO, 0x22)}) {
        const std::string path = std::string(EVCAM_SAMPLES_DIR) + "/" + name + ".bias";
        EXPECT_EQ(this->rig->stream.SetBias(path.c_str()), ERR_SUCCESS) << name;
        EXPECT_EQ(VersionOf(this->rig->stream), version);
        EXPECT_EQ(this->Register(slave, 0x0010), 1) << name;
    }
}

TYPED_TEST(SetBias, refuses_bad_paths_invalid_files_unbound_and_running_streams) {
    auto& s = this->rig->stream;
    EXPECT_EQ(s.SetBias(nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(s.SetBias(""), ERR_PARA_ERROR);
    EXPECT_EQ(s.SetBias(std::string(300, 'a').c_str()), ERR_PARA_ERROR);
    EXPECT_EQ(s.SetBias(this->dir.File("none.bias").c_str()), ERR_INVALID_FILE);
    const std::string invalid =
        this->dir.Write("bad.bias", "// my settings\n" + kMonoHeader + "20 3A 0F\n");
    EXPECT_EQ(s.SetBias(invalid.c_str()), ERR_INVALID_FILE);
    EXPECT_TRUE(this->Log().empty());
    EXPECT_EQ(VersionOf(s), SELECT_VERSION);
    EXPECT_EQ(s.Start(), ERR_NO_BIAS_FILE);

    const std::string valid = this->dir.Write("good.bias", kMonoHeader + "20 3A 0F\n");
    typename TypeParam::Stream unbound;
    EXPECT_EQ(unbound.SetBias(valid.c_str()), ERR_INVALID_DEVICE);
    ASSERT_EQ(s.SetBias(valid.c_str()), ERR_SUCCESS);
    ASSERT_EQ(s.Start(), ERR_SUCCESS);
    sim::ClearControlLog(this->rig->camera);
    EXPECT_EQ(s.SetBias(valid.c_str()), ERR_DEVICE_IN_USE);
    EXPECT_EQ(s.Stop(), ERR_SUCCESS);
    EXPECT_TRUE(this->Log().empty());
}

TYPED_TEST(SetBias, failed_write_stops_the_file_and_keeps_earlier_writes_and_the_version) {
    const std::string path = this->dir.Write(
        "fail.bias",
        kVersionLine + "//@ Stereo\n//@ Description x\n20 3A 0F\n20 3B 1C\n20 3C 2D\n");
    this->rig->stream.failAt = 2;
    testing::internal::CaptureStdout();
    EXPECT_EQ(this->rig->stream.SetBias(path.c_str()), ERR_I2C_WRITE);
    EXPECT_NE(testing::internal::GetCapturedStdout().find(
                  "ERROR: write register fail:slvAddr:32, adr:59, val:28\n"),
              std::string::npos);
    EXPECT_EQ(this->rig->stream.writes, 2);
    EXPECT_EQ(this->Register(0x20, 0x3A), 0x0F);
    EXPECT_EQ(VersionOf(this->rig->stream), MVT94QX_STEREO);
}

}  // namespace
}  // namespace evcam
