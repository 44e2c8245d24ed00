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
using Records = std::vector<Record>;

Records Scan(UsbDeviceTable& table, DVS_ERROR expected = ERR_SUCCESS) {
    USBDevice* list = nullptr;
    int count = -1;
    EXPECT_EQ(table.ScanDVSDevice(&list, count), expected);
    Records records;
    for (int i = 0; i < count; ++i) {
        records.emplace_back(list[i].mDevId, list[i].mLocation, list[i].mDescriptor);
    }
    return records;
}

int Plug(sim::Kind kind, int bus, int address, int packetSize = 0) {
    return PlugCamera(kind, 2000000, bus, packetSize, address);
}

// Addresses are never reused in a process and only grow, so each test asks for its own.
using EmulatedDiscovery = EmulationTest;

// An endpoint that reports packet size 0 is listed without a description.
TEST_F(EmulatedDiscovery, each_kind_lists_its_own_cameras_and_keeps_their_ids_by_location) {
    const int fx20 = Plug(sim::Kind::kFX20, 1, 26);
    const int fx3 = Plug(sim::Kind::kFX3, 2, 27);
    Plug(sim::Kind::kFX3, 5, 50, sim::kZeroPacketSize);
    EXPECT_EQ(Scan(FX20Stream::Table()),
              Records({{0, 126, "Hub - 1 - Port - 26 - 0x1A, 512 Bytes"}}));
    EXPECT_EQ(Scan(FX3Stream::Table()),
              Records({{0, 227, "Hub - 2 - Port - 27 - 0x1B, 1024 Bytes"}, {1, 550, ""}}));
    EXPECT_EQ(EmulatedBus::Instance().LocationKey(fx20), 126);
    EXPECT_EQ(EmulatedBus::Instance().LocationKey(fx3), 227);

    // Both kinds merged: FX20 records first, each marked with its kind, at most two.
    USBDevice* merged = nullptr;
    int count = 0;
    ASSERT_EQ(UsbDeviceTable::ScanAllKinds(FX20Stream::Table(), FX3Stream::Table(), &merged, count),
              ERR_SUCCESS);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(std::make_tuple(merged[0].mLocation, merged[0].mDevType, merged[1].mLocation,
                              merged[1].mDevType),
              std::make_tuple(126u, 0u, 227u, 1u));

    // A third camera of a kind is refused and the table kept; an unplugged one frees its id
    // for the next newcomer while the survivor keeps its own.
    const int third = Plug(sim::Kind::kFX3, 5, 51);
    EXPECT_TRUE(Scan(FX3Stream::Table(), ERR_TOO_MANY_DEVICES).empty());
    EXPECT_EQ(FX3Stream::Table().Entry(1).mLocation, 550u);
    EmulatedBus::Instance().Unplug(third);
    EmulatedBus::Instance().Unplug(fx3);
    EXPECT_EQ(Scan(FX3Stream::Table()), Records({{1, 550, ""}}));
    EXPECT_EQ(FX3Stream::Table().Entry(1).mCyIndex, 0) << "now first in the list";
    Plug(sim::Kind::kFX3, 5, 52);
    EXPECT_EQ(Scan(FX3Stream::Table()),
              Records({{1, 550, ""}, {0, 552, "Hub - 5 - Port - 52 - 0x34, 1024 Bytes"}}));
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
