#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "evcam/sim.h"
#include "src/stream/fx20_stream.h"
#include "src/stream/fx3_stream.h"
#include "src/stream/usb_device_table.h"

namespace evcam {
namespace {

// Device id, location key, description, controller kind.
using Record = std::tuple<uint32_t, uint32_t, std::string, uint32_t>;

int PlugAt(sim::Kind kind, int bus, int address, int packetSize = 0) {
    sim::CameraConfig config;
    config.kind = kind;
    config.bus = bus;
    config.address = address;
    config.maxPacketSize = packetSize;
    config.scene = "still";
    const int id = sim::Plug(config);
    EXPECT_GE(id, 0);
    return id;
}

std::vector<Record> Records(const USBDevice* list, int count) {
    std::vector<Record> out;
    for (int i = 0; i < count; ++i) {
        out.emplace_back(list[i].mDevId, list[i].mLocation, list[i].mDescriptor, list[i].mDevType);
    }
    return out;
}

// Scans one kind and expects success.
std::vector<Record> Scan(UsbDeviceTable& table) {
    USBDevice* list = nullptr;
    int count = -1;
    EXPECT_EQ(table.ScanDVSDevice(&list, count), ERR_SUCCESS);
    return Records(list, count);
}

std::string Description(int bus, int address, int packetSize) {
    char text[100];
    std::snprintf(text, sizeof(text), "Hub - %d - Port - %d - 0x%X, %d Bytes", bus, address,
                  address, packetSize);
    return text;
}

// The tables live for the whole process: every test starts from an empty bus, scanned, so that
// no entry is present.
class Discovery : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(sim::Enable(), ERR_SUCCESS);
        sim::UnplugAll();
        Scan(FX20Stream::Table());
        Scan(FX3Stream::Table());
    }
    void TearDown() override { sim::UnplugAll(); }
};

// A stream whose version a test may set, so that it can be started.
class StartableFX20 : public FX20Stream {
  public:
    using FX20Stream::SetSensorVersion;
};

TEST_F(Discovery, keeps_ids_and_describes_cameras_while_they_stay_put) {
    PlugAt(sim::Kind::kFX20, 1, 5);
    PlugAt(sim::Kind::kFX20, 1, 42);
    const std::vector<Record> expected = {
        {0, 105, "Hub - 1 - Port - 5 - 0x5, 512 Bytes", 0},
        {1, 142, "Hub - 1 - Port - 42 - 0x2A, 512 Bytes", 0},
    };
    EXPECT_EQ(Scan(FX20Stream::Table()), expected);
    EXPECT_EQ(Scan(FX20Stream::Table()), expected);
    // The other kind's table knows nothing of them.
    EXPECT_TRUE(Scan(FX3Stream::Table()).empty());
}

TEST_F(Discovery, freed_id_goes_to_the_next_newcomer_and_survivors_keep_theirs) {
    UsbDeviceTable& table = FX3Stream::Table();
    const int first = PlugAt(sim::Kind::kFX3, 2, 3);
    PlugAt(sim::Kind::kFX3, 2, 4);
    Scan(table);

    ASSERT_EQ(sim::Unplug(first), ERR_SUCCESS);
    // The survivor keeps id 1 although it is now first in the list.
    EXPECT_EQ(Scan(table), (std::vector<Record>{{1, 204, Description(2, 4, 1024), 0}}));
    unsigned char cyIndex = 9;
    EXPECT_EQ(table.GetCypressDevID(1, cyIndex), ERR_SUCCESS);
    EXPECT_EQ(cyIndex, 0);

    PlugAt(sim::Kind::kFX3, 1, 9);
    EXPECT_EQ(Scan(table), (std::vector<Record>{{0, 109, Description(1, 9, 1024), 0},
                                                {1, 204, Description(2, 4, 1024), 0}}));

    // Replugged at its old place, the first camera is a third one: too many.
    const int replug = PlugAt(sim::Kind::kFX3, 2, 3);
    USBDevice* list = nullptr;
    int count = 5;
    EXPECT_EQ(table.ScanDVSDevice(&list, count), ERR_TOO_MANY_DEVICES);
    EXPECT_EQ(count, 0);
    // The list still holds the previous scan, and the table was not touched.
    EXPECT_EQ(Records(list, 2), (std::vector<Record>{{0, 109, Description(1, 9, 1024), 0},
                                                     {1, 204, Description(2, 4, 1024), 0}}));
    EXPECT_EQ(table.GetCypressDevID(0, cyIndex), ERR_SUCCESS);
    EXPECT_EQ(cyIndex, 0);
    EXPECT_EQ(table.GetCypressDevID(1, cyIndex), ERR_SUCCESS);
    EXPECT_EQ(cyIndex, 1);
    ASSERT_EQ(sim::Unplug(replug), ERR_SUCCESS);
    EXPECT_EQ(Scan(table), (std::vector<Record>{{0, 109, Description(1, 9, 1024), 0},
                                                {1, 204, Description(2, 4, 1024), 0}}));
}

TEST_F(Discovery, location_key_collision_gives_both_cameras_one_id) {
    // 1 x 100 + 105 and 2 x 100 + 5 make the same key.
    PlugAt(sim::Kind::kFX20, 1, 105);
    PlugAt(sim::Kind::kFX20, 2, 5);
    EXPECT_EQ(Scan(FX20Stream::Table()),
              (std::vector<Record>{{0, 205, Description(1, 105, 512), 0},
                                   {1, 205, Description(2, 5, 512), 0}}));
    // On the next scan both match entry 0, and entry 1 is forgotten.
    EXPECT_EQ(Scan(FX20Stream::Table()),
              (std::vector<Record>{{0, 205, Description(1, 105, 512), 0},
                                   {0, 205, Description(2, 5, 512), 0}}));
    EXPECT_EQ(FX20Stream::Table().Entry(1).mPresent, 0);
}

TEST_F(Discovery, packet_size_zero_lists_camera_with_empty_description) {
    PlugAt(sim::Kind::kFX20, 3, 7, sim::kZeroPacketSize);
    EXPECT_EQ(Scan(FX20Stream::Table()), (std::vector<Record>{{0, 307, "", 0}}));
}

TEST_F(Discovery, descriptor_and_device_id_refuse_bad_indexes) {
    PlugAt(sim::Kind::kFX20, 1, 5);
    Scan(FX20Stream::Table());
    char text[100] = "untouched";
    DevUSBItem item{1, 5, true};
    EXPECT_FALSE(FX20Stream::GetDevDescriptor(3, item, text));
    EXPECT_FALSE(FX20Stream::GetDevDescriptor(1, item, text));  // nothing at index 1
    EXPECT_STREQ(text, "untouched");
    EXPECT_TRUE(FX20Stream::GetDevDescriptor(0, item, text));
    EXPECT_STREQ(text, "Hub - 1 - Port - 5 - 0x5, 512 Bytes");

    unsigned char cyIndex = 0;
    EXPECT_EQ(FX20Stream::GetCypressDevID(2, cyIndex), ERR_PARA_ERROR);
}

TEST_F(Discovery, merge_lists_fx20_first_and_at_most_two) {
    USBDevice* list = nullptr;
    int count = -1;
    auto scanAll = [&] {
        return UsbDeviceTable::ScanAllKinds(FX20Stream::Table(), FX3Stream::Table(), &list, count);
    };
    EXPECT_EQ(scanAll(), ERR_SUCCESS);
    EXPECT_EQ(count, 0);

    PlugAt(sim::Kind::kFX3, 1, 2);
    PlugAt(sim::Kind::kFX20, 1, 3);
    EXPECT_EQ(scanAll(), ERR_SUCCESS);
    EXPECT_EQ(Records(list, count), (std::vector<Record>{{0, 103, Description(1, 3, 512), 0},
                                                         {0, 102, Description(1, 2, 1024), 1}}));

    PlugAt(sim::Kind::kFX20, 1, 4);
    EXPECT_EQ(scanAll(), ERR_SUCCESS);
    EXPECT_EQ(Records(list, count), (std::vector<Record>{{0, 103, Description(1, 3, 512), 0},
                                                         {1, 104, Description(1, 4, 512), 0}}));

    PlugAt(sim::Kind::kFX3, 1, 5);
    PlugAt(sim::Kind::kFX3, 1, 6);
    EXPECT_EQ(scanAll(), ERR_TOO_MANY_DEVICES);
    EXPECT_EQ(UsbDeviceTable::ScanAllKinds(FX20Stream::Table(), FX3Stream::Table(), nullptr, count),
              ERR_PARA_ERROR);
}

TEST_F(Discovery, binding_answers_each_refusal_with_its_code) {
    const int first = PlugAt(sim::Kind::kFX20, 1, 5);
    PlugAt(sim::Kind::kFX20, 1, 6);
    StartableFX20 stream;
    EXPECT_EQ(stream.SetDVSID(0), ERR_INVALID_DEVICE);  // nothing scanned yet
    Scan(FX20Stream::Table());

    EXPECT_EQ(stream.SetDVSID(3), ERR_PARA_ERROR);
    EXPECT_EQ(stream.SetDVSID(2), ERR_INVALID_DEVICE);  // entry 2 is never filled
    EXPECT_EQ(stream.SetDVSID(0), ERR_SUCCESS);
    EXPECT_EQ(stream.GetDVSID(), 0u);
    EXPECT_EQ(stream.GetReadSize(), 2 * 512);

    stream.SetSensorVersion(MVT94QX);
    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    StartableFX20 other;
    EXPECT_EQ(other.SetDVSID(0), ERR_DEVICE_IN_USE);
    EXPECT_EQ(stream.SetDVSID(1), ERR_RUNNING);
    EXPECT_EQ(stream.Stop(), ERR_SUCCESS);
    EXPECT_EQ(other.SetDVSID(0), ERR_SUCCESS);

    // Camera 0 leaves without a rescan: entry 1 still says list index 1, which is gone now.
    // The id stays set although the binding is refused.
    ASSERT_EQ(sim::Unplug(first), ERR_SUCCESS);
    EXPECT_EQ(other.SetDVSID(1), ERR_INVALID_DEVICE);
    EXPECT_EQ(other.GetDVSID(), 1u);

    sim::UnplugAll();
    EXPECT_EQ(other.SetDVSID(0), ERR_NO_DEVICE);
}

TEST_F(Discovery, binding_keeps_the_packet_unit_when_the_endpoint_reports_none) {
    PlugAt(sim::Kind::kFX3, 1, 5, sim::kZeroPacketSize);
    Scan(FX3Stream::Table());
    FX3Stream stream;
    ASSERT_EQ(stream.SetDVSID(0), ERR_SUCCESS);
    EXPECT_EQ(stream.GetReadSize(), 2 * 1024);
}

}  // namespace
}  // namespace evcam
