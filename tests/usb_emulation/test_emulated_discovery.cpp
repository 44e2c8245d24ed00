// Discovery and binding through the real libusb backend: what libusb reads from the emulated
// cameras' sysfs records and descriptors must come out as the kit's ids and description texts.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "emulation_fixture.h"

namespace evcam {
namespace {

// A listed record: device id, location key, description.
using Record = std::tuple<uint32_t, uint32_t, std::string>;

std::vector<Record> Scan(UsbDeviceTable& table, DVS_ERROR expected = ERR_SUCCESS) {
    USBDevice* list = nullptr;
    int count = -1;
    EXPECT_EQ(table.ScanDVSDevice(&list, count), expected);
    std::vector<Record> records;
    for (int i = 0; i < count; ++i) {
        records.emplace_back(list[i].mDevId, list[i].mLocation, list[i].mDescriptor);
    }
    return records;
}

int Plug(sim::Kind kind, int bus, int address, int packetSize = 0) {
    sim::CameraConfig config;
    config.kind = kind;
    config.bus = bus;
    config.address = address;
    config.maxPacketSize = packetSize;
    const int id = EmulatedBus::Instance().Plug(config);
    EXPECT_GE(id, 0);
    return id;
}

// Addresses are never reused in a process, so each test asks for its own.
class EmulatedDiscovery : public EmulationTest {};

TEST_F(EmulatedDiscovery, each_kind_lists_its_own_cameras_with_exact_description_text) {
    const int fx20 = Plug(sim::Kind::kFX20, 1, 26);
    const int fx3 = Plug(sim::Kind::kFX3, 2, 27);
    EXPECT_EQ(Scan(FX20Stream::Table()),
              std::vector<Record>({{0, 126, "Hub - 1 - Port - 26 - 0x1A, 512 Bytes"}}));
    EXPECT_EQ(Scan(FX3Stream::Table()),
              std::vector<Record>({{0, 227, "Hub - 2 - Port - 27 - 0x1B, 1024 Bytes"}}));
    EXPECT_EQ(EmulatedBus::Instance().LocationKey(fx20), 126);
    EXPECT_EQ(EmulatedBus::Instance().LocationKey(fx3), 227);

    // Both kinds merged: FX20 records first, each marked with its kind.
    USBDevice* merged = nullptr;
    int count = 0;
    ASSERT_EQ(UsbDeviceTable::ScanAllKinds(FX20Stream::Table(), FX3Stream::Table(), &merged, count),
              ERR_SUCCESS);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(merged[0].mLocation, 126u);
    EXPECT_EQ(merged[0].mDevType, 0u);
    EXPECT_EQ(merged[1].mLocation, 227u);
    EXPECT_EQ(merged[1].mDevType, 1u);
}

TEST_F(EmulatedDiscovery, ids_stay_with_locations_across_unplug_and_newcomers_take_the_free_id) {
    EmulatedBus& bus = EmulatedBus::Instance();
    const int first = Plug(sim::Kind::kFX20, 3, 30);
    const int second = Plug(sim::Kind::kFX20, 3, 31);
    const std::vector<Record> both = {{0, 330, "Hub - 3 - Port - 30 - 0x1E, 512 Bytes"},
                                      {1, 331, "Hub - 3 - Port - 31 - 0x1F, 512 Bytes"}};
    EXPECT_EQ(Scan(FX20Stream::Table()), both);
    EXPECT_EQ(Scan(FX20Stream::Table()), both);

    bus.Unplug(first);
    EXPECT_EQ(Scan(FX20Stream::Table()),
              std::vector<Record>({{1, 331, "Hub - 3 - Port - 31 - 0x1F, 512 Bytes"}}));
    EXPECT_EQ(FX20Stream::Table().Entry(1).mCyIndex, 0) << "now first in the list";

    Plug(sim::Kind::kFX20, 3, 32);
    EXPECT_EQ(Scan(FX20Stream::Table()),
              std::vector<Record>({{1, 331, "Hub - 3 - Port - 31 - 0x1F, 512 Bytes"},
                                   {0, 332, "Hub - 3 - Port - 32 - 0x20, 512 Bytes"}}));
    bus.Unplug(second);
    EXPECT_EQ(Scan(FX20Stream::Table()),
              std::vector<Record>({{0, 332, "Hub - 3 - Port - 32 - 0x20, 512 Bytes"}}));
}

TEST_F(EmulatedDiscovery, a_third_camera_of_a_kind_is_refused_and_the_table_kept) {
    Plug(sim::Kind::kFX3, 4, 40);
    Plug(sim::Kind::kFX3, 4, 41);
    ASSERT_EQ(Scan(FX3Stream::Table()).size(), 2u);
    const int third = Plug(sim::Kind::kFX3, 4, 42);
    EXPECT_TRUE(Scan(FX3Stream::Table(), ERR_TOO_MANY_DEVICES).empty());
    EXPECT_EQ(FX3Stream::Table().Entry(1).mLocation, 441u);
    EmulatedBus::Instance().Unplug(third);
    EXPECT_EQ(Scan(FX3Stream::Table()).size(), 2u);
}

TEST_F(EmulatedDiscovery, an_endpoint_reporting_packet_size_zero_is_listed_without_description) {
    Plug(sim::Kind::kFX20, 5, 50, sim::kZeroPacketSize);
    EXPECT_EQ(Scan(FX20Stream::Table()), std::vector<Record>({{0, 550, ""}}));
}

TEST_F(EmulatedDiscovery, binding_takes_the_transfer_size_from_the_endpoint_descriptor) {
    Plug(sim::Kind::kFX20, 6, 60);
    Plug(sim::Kind::kFX3, 6, 61);
    ASSERT_EQ(ScanCount(FX20Stream::Table()), 1);
    ASSERT_EQ(ScanCount(FX3Stream::Table()), 1);
    FX20Stream fx20;
    FX3Stream fx3;
    ASSERT_EQ(fx20.SetPPX(4), ERR_SUCCESS);
    EXPECT_EQ(fx20.SetDVSID(0), ERR_SUCCESS);
    EXPECT_EQ(fx20.GetReadSize(), 4 * 512);
    EXPECT_EQ(fx3.SetDVSID(0), ERR_SUCCESS);
    EXPECT_EQ(fx3.GetReadSize(), 2 * 1024);
    EXPECT_EQ(fx3.SetDVSID(1), ERR_INVALID_DEVICE);
    EXPECT_EQ(fx3.SetDVSID(3), ERR_PARA_ERROR);
}

}  // namespace
}  // namespace evcam
