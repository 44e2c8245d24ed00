#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "evcam/sim.h"
#include "src/stream/fx20_stream.h"
#include "src/stream/fx3_stream.h"
#include "src/stream/usb_device_table.h"
#include "tests/support/usb_support.h"

namespace evcam {
namespace {

// Device id, location key, description, controller kind.
using Record = std::tuple<uint32_t, uint32_t, std::string, uint32_t>;
using Records = std::vector<Record>;

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

Records ToRecords(const USBDevice* list, int count) {
    Records out;
    for (int i = 0; i < count; ++i) {
        out.emplace_back(list[i].mDevId, list[i].mLocation, list[i].mDescriptor, list[i].mDevType);
    }
    return out;
}

// Scans one kind and expects success.
Records Scan(UsbDeviceTable& table) {
    USBDevice* list = nullptr;
    int count = -1;
    EXPECT_EQ(table.ScanDVSDevice(&list, count), ERR_SUCCESS);
    return ToRecords(list, count);
}

// The record of a camera with id at bus and address; the text format itself is pinned down by
// a literal text in the descriptor test.
Record Rec(uint32_t id, int bus, int address, int packetSize, uint32_t kind = 0) {
    char text[100];
    std::snprintf(text, sizeof(text), "Hub - %d - Port - %d - 0x%X, %d Bytes", bus, address,
                  address, packetSize);
    return {id, static_cast<uint32_t>(bus * 100 + address), text, kind};
}

// The tables live for the whole process: SimBusTest starts every test from an empty bus,
// scanned, so that no entry is present.
using Discovery = SimBusTest;

// Cameras keep their ids while they stay where they are, even when a survivor moves up the
// list, and a newcomer takes a freed id; a third camera of a kind is refused, and the list
// still holds the previous scan.
TEST_F(Discovery, a_third_camera_leaves_the_table_and_the_previous_list_as_they_were) {
    UsbDeviceTable& table = FX3Stream::Table();
    const int first = PlugAt(sim::Kind::kFX3, 2, 3);
    PlugAt(sim::Kind::kFX3, 2, 4);
    Scan(table);
    ASSERT_EQ(sim::Unplug(first), ERR_SUCCESS);
    EXPECT_EQ(Scan(table), Records{Rec(1, 2, 4, 1024)});
    PlugAt(sim::Kind::kFX3, 1, 9);
    const Records both = {Rec(0, 1, 9, 1024), Rec(1, 2, 4, 1024)};
    EXPECT_EQ(Scan(table), both);
    EXPECT_TRUE(Scan(FX20Stream::Table()).empty()) << "the other kind's table knows nothing";
    const int replug = PlugAt(sim::Kind::kFX3, 2, 3);
    USBDevice* list = nullptr;
    int count = 5;
    EXPECT_EQ(table.ScanDVSDevice(&list, count), ERR_TOO_MANY_DEVICES);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(ToRecords(list, 2), both);
    for (unsigned char id : {0, 1}) {
        unsigned char cyIndex = 9;
        EXPECT_EQ(table.GetCypressDevID(id, cyIndex), ERR_SUCCESS);
        EXPECT_EQ(cyIndex, id);
    }
    ASSERT_EQ(sim::Unplug(replug), ERR_SUCCESS);
    EXPECT_EQ(Scan(table), both);
}

TEST_F(Discovery, location_key_collision_gives_both_cameras_one_id) {
    // 1 x 100 + 105 and 2 x 100 + 5 make the same key.
    PlugAt(sim::Kind::kFX20, 1, 105);
    PlugAt(sim::Kind::kFX20, 2, 5);
    EXPECT_EQ(Scan(FX20Stream::Table()), (Records{Rec(0, 1, 105, 512), Rec(1, 2, 5, 512)}));
    // On the next scan both match entry 0, and entry 1 is forgotten.
    EXPECT_EQ(Scan(FX20Stream::Table()), (Records{Rec(0, 1, 105, 512), Rec(0, 2, 5, 512)}));
    EXPECT_EQ(FX20Stream::Table().Entry(1).mPresent, 0);
}

// A camera whose endpoint reports packet size 0 is listed with an empty description.
TEST_F(Discovery, descriptor_refuses_bad_indexes_and_packet_size_zero) {
    PlugAt(sim::Kind::kFX20, 1, 42);
    Scan(FX20Stream::Table());
    char text[100] = "untouched";
    DevUSBItem item{1, 42, true};
    EXPECT_FALSE(FX20Stream::GetDevDescriptor(3, item, text));
    EXPECT_FALSE(FX20Stream::GetDevDescriptor(1, item, text));  // nothing at index 1
    EXPECT_STREQ(text, "untouched");
    EXPECT_TRUE(FX20Stream::GetDevDescriptor(0, item, text));
    EXPECT_STREQ(text, "Hub - 1 - Port - 42 - 0x2A, 512 Bytes");
    unsigned char cyIndex = 0;
    EXPECT_EQ(FX20Stream::GetCypressDevID(2, cyIndex), ERR_PARA_ERROR);

    PlugAt(sim::Kind::kFX20, 3, 7, sim::kZeroPacketSize);
    EXPECT_EQ(Scan(FX20Stream::Table()), (Records{Rec(0, 1, 42, 512), {1, 307, "", 0}}));
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
    EXPECT_EQ(ToRecords(list, count), (Records{Rec(0, 1, 3, 512), Rec(0, 1, 2, 1024, 1)}));
    PlugAt(sim::Kind::kFX20, 1, 4);
    EXPECT_EQ(scanAll(), ERR_SUCCESS);
    EXPECT_EQ(ToRecords(list, count), (Records{Rec(0, 1, 3, 512), Rec(1, 1, 4, 512)}));
    PlugAt(sim::Kind::kFX3, 1, 5);
    PlugAt(sim::Kind::kFX3, 1, 6);
    EXPECT_EQ(scanAll(), ERR_TOO_MANY_DEVICES);
    EXPECT_EQ(UsbDeviceTable::ScanAllKinds(FX20Stream::Table(), FX3Stream::Table(), nullptr, count),
              ERR_PARA_ERROR);
}

TEST_F(Discovery, binding_answers_each_refusal_with_its_code) {
    const int first = PlugAt(sim::Kind::kFX20, 1, 5);
    PlugAt(sim::Kind::kFX20, 1, 6);
    Testable<FX20Stream> stream;
    EXPECT_EQ(stream.SetDVSID(0), ERR_INVALID_DEVICE);  // nothing scanned yet
    Scan(FX20Stream::Table());
    EXPECT_EQ(stream.SetDVSID(3), ERR_PARA_ERROR);
    EXPECT_EQ(stream.SetDVSID(2), ERR_INVALID_DEVICE);  // entry 2 is never filled
    EXPECT_EQ(stream.SetDVSID(0), ERR_SUCCESS);
    EXPECT_EQ(stream.GetDVSID(), 0u);
    EXPECT_EQ(stream.GetReadSize(), 2 * 512);
    stream.SetSensorVersion(MVT94QX);
    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    Testable<FX20Stream> other;
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

    // An endpoint that reports no packet size leaves the unit at 1024.
    PlugAt(sim::Kind::kFX3, 1, 5, sim::kZeroPacketSize);
    Scan(FX3Stream::Table());
    FX3Stream fx3;
    ASSERT_EQ(fx3.SetDVSID(0), ERR_SUCCESS);
    EXPECT_EQ(fx3.GetReadSize(), 2 * 1024);
}

}  // namespace
}  // namespace evcam
