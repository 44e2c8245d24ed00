// The FX20 and FX3 transports and the read thread over the real libusb backend, against
// cameras emulated at the usbdevfs level: what travels on the wire, what arrives in the packet
// buffers, and what the kit does when the device list is re-opened, the endpoint stalls or
// times out, or the camera is unplugged while streaming.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "emulation_fixture.h"
#include "src/platform/cyusb.h"

namespace evcam {
namespace {

using namespace std::chrono_literals;

// One camera of a kind, plugged, scanned and bound to a stream that may be started.
template <typename K>
struct Rig {
    explicit Rig(uint64_t byteRate = 2000000)
        : id(PlugCamera(K::kSim, byteRate)), camera(EmulatedBus::Instance().Camera(id)) {
        EXPECT_EQ(ScanCount(K::Table()), 1);
        EXPECT_EQ(stream.SetDVSID(0), ERR_SUCCESS);
        stream.SetSensorVersion(MVT94QX);
    }
    int id;
    UsbdevfsCamera& camera;
    typename K::Stream stream;
};

class EmulatedTransports : public EmulationTest {};
template <typename K>
class EmulatedKinds : public EmulationTest {};
TYPED_TEST_SUITE(EmulatedKinds, Kinds);

// ---- Register requests

TYPED_TEST(EmulatedKinds, register_requests_travel_in_the_kinds_convention_and_fail_alike) {
    Rig<TypeParam> rig;
    rig.camera.ClearControlLog();
    EXPECT_EQ(rig.stream.WriteI2CReg(0x120, 0x123A, 0x1FF), ERR_SUCCESS);
    EXPECT_EQ(rig.camera.ReadRegister(0x20, 0x123A), 0xFF);
    rig.camera.WriteRegister(0x21, 0x3A, 0x5C);
    int value = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(rig.stream.ReadI2CReg(0x21, 0x3A, value), ERR_SUCCESS);
    // Only FX20 traces its reads.
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              TypeParam::kSim == sim::Kind::kFX20 ? "[I2C READ] slvAddr=0x21 addr=0x003A val=0x5C\n"
                                                  : "");
    EXPECT_EQ(value, 0x5C);
    // FX20: slave and big-endian register address in the payload; FX3: in the setup packet.
    EXPECT_EQ(Wires(rig.camera.ControlLog()),
              std::vector<Wire>({TypeParam::Write(0x120, 0x123A, 0x1FF),
                                 {0xC0, 0xAB, 0x21, 0x3A, 1, {0x5C}, 1}}));

    // A failed request reaches libusb as a protocol error; reads try three times, silently.
    rig.camera.ClearControlLog();
    rig.camera.InjectFault(sim::Fault::kControlError, 2);
    EXPECT_EQ(rig.stream.ReadI2CReg(0x21, 0x3A, value), ERR_SUCCESS);
    EXPECT_EQ(rig.camera.ControlLog().size(), 3u);
    rig.camera.InjectFault(sim::Fault::kControlError, 3);
    testing::internal::CaptureStdout();
    EXPECT_EQ(rig.stream.ReadI2CReg(0x21, 0x3A, value), ERR_I2C_READ);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(rig.camera.ControlLog().size(), 6u);
    rig.camera.InjectFault(sim::Fault::kControlError, 1);
    EXPECT_EQ(rig.stream.WriteI2CReg(0x20, 0x10, 1), ERR_I2C_WRITE);
    EXPECT_EQ(rig.camera.ControlLog().size(), 7u);
}

TEST_F(EmulatedTransports, fx3_two_byte_values_are_big_endian_on_the_wire) {
    Rig<Fx3> rig;
    rig.stream.width = 2;
    rig.camera.ClearControlLog();
    EXPECT_EQ(rig.stream.WriteI2CReg(0x20, 0x10, 0x1234), ERR_SUCCESS);
    rig.camera.WriteRegister(0x20, 0x11, 0xABCD);
    int value = 0;
    EXPECT_EQ(rig.stream.ReadI2CReg(0x20, 0x11, value), ERR_SUCCESS);
    EXPECT_EQ(value, 0xABCD);
    EXPECT_EQ(Wires(rig.camera.ControlLog()),
              std::vector<Wire>({{0x40, 0xBA, 0x20, 0x10, 2, {0x12, 0x34}, 2},
                                 {0xC0, 0xAB, 0x20, 0x11, 2, {0xAB, 0xCD}, 2}}));
}

// ---- The backend's device lists

TEST_F(EmulatedTransports, a_reopened_list_gives_back_the_handles_of_attached_cameras) {
    EmulatedBus& bus = EmulatedBus::Instance();
    const int first = PlugCamera(sim::Kind::kFX20);
    const int second = PlugCamera(sim::Kind::kFX20);
    ASSERT_EQ(cyusb_open(kCameraVendorId, kFX20ProductId), 2);
    libusb_device_handle* kept = cyusb_gethandle(kCameraVendorId, kFX20ProductId, 0);
    ASSERT_NE(kept, nullptr);
    const int bus1 = cyusb_get_busnumber(kept);

    cyusb_close(kCameraVendorId, kFX20ProductId);
    EXPECT_EQ(cyusb_gethandle(kCameraVendorId, kFX20ProductId, 0), nullptr);
    EXPECT_EQ(cyusb_get_busnumber(kept), LIBUSB_ERROR_NO_DEVICE) << "refused while closed";

    bus.Unplug(second);
    ASSERT_EQ(cyusb_open(kCameraVendorId, kFX20ProductId), 1);
    EXPECT_EQ(cyusb_gethandle(kCameraVendorId, kFX20ProductId, 0), kept);
    EXPECT_EQ(cyusb_get_busnumber(kept), bus1);
    // The camera still attached kept its interface; the one gone was let go.
    EXPECT_EQ(bus.Camera(first).Calls(UsbdevfsCall::kClaim), 1);
    EXPECT_EQ(bus.Camera(first).Calls(UsbdevfsCall::kRelease), 0);
    EXPECT_EQ(bus.Camera(second).Calls(UsbdevfsCall::kRelease), 1);
    cyusb_close(kCameraVendorId, kFX20ProductId);
}

// ---- FX20 ring of asynchronous transfers, driven by hand on the test's thread

// The read thread re-queues a slot before it copies the slot's bytes out, and any thread that
// handles USB events (a register access, another camera's reads) may complete the transfers
// meanwhile: their bytes must not reach the slots' buffers before they are collected.
TEST_F(EmulatedTransports, ring_streams_byte_exact_into_slots_that_change_only_when_collected) {
    Rig<Fx20> rig(0);
    rig.camera.StartCapture();
    Ring ring;
    for (int slot = 0; slot < kRingSlots; ++slot) {
        ASSERT_EQ(ring.Begin(rig.stream, slot), ERR_SUCCESS);
    }
    EXPECT_EQ(ring.Begin(rig.stream, 2), ERR_ALREADY_DONE);  // still in flight
    std::thread other([&] {
        WaitUntil([&] {
            timeval tv{0, 1000};
            usb_handle_events_timeout_completed(nullptr, &tv, nullptr);
            return rig.camera.UrbsHeld() == 0;
        });
    });
    other.join();
    ASSERT_EQ(rig.camera.UrbsHeld(), 0) << "the other thread completed the transfers";
    EXPECT_EQ(ring.buffers, std::vector<Bytes>(kRingSlots, Bytes(1024, 0xEF)));
    for (int turn = 0; turn < 54; ++turn) {
        ASSERT_EQ(ring.Finish(rig.stream, turn % kRingSlots), ERR_SUCCESS);
        if (turn < 50) {
            ASSERT_EQ(ring.Begin(rig.stream, turn % kRingSlots), ERR_SUCCESS);
        }
    }
    EXPECT_EQ(ring.got.size(), 54u * 1024);
    EXPECT_TRUE(ring.got == rig.camera.TakeCapture());
    EXPECT_EQ(rig.camera.Calls(UsbdevfsCall::kBulkSubmit), 54);
    EXPECT_EQ(rig.camera.UrbsHeld(), 0);
}

TEST_F(EmulatedTransports, ring_time_out_discards_the_urb_and_the_slot_works_again) {
    Rig<Fx20> rig;
    Ring ring;
    // polls 0 still polls once.
    for (int polls : {20, 0}) {
        rig.camera.InjectFault(sim::Fault::kTimeout);
        ASSERT_EQ(ring.Begin(rig.stream, 1), ERR_SUCCESS);
        EXPECT_EQ(ring.Finish(rig.stream, 1, polls), ERR_TIMEOUT) << polls;
        EXPECT_TRUE(ring.got.empty());
    }
    // The transfer's own time-out, handled by libusb, ends it the same way.
    ASSERT_EQ(rig.stream.SetTimeout(30), ERR_SUCCESS);
    rig.camera.InjectFault(sim::Fault::kTimeout);
    ASSERT_EQ(ring.Begin(rig.stream, 1), ERR_SUCCESS);
    EXPECT_EQ(ring.Finish(rig.stream, 1, 1000000), ERR_TIMEOUT);
    EXPECT_EQ(rig.camera.Calls(UsbdevfsCall::kDiscard), 3);
    EXPECT_EQ(rig.camera.UrbsHeld(), 0);

    ASSERT_EQ(ring.Begin(rig.stream, 1), ERR_SUCCESS);
    EXPECT_EQ(ring.Finish(rig.stream, 1), ERR_SUCCESS);
    EXPECT_EQ(ring.got.size(), 1024u);
}

TEST_F(EmulatedTransports, ring_reports_refusals_errors_overflow_and_unplug) {
    Ring ring;
    Testable<FX20Stream> unbound;
    EXPECT_EQ(ring.Begin(unbound, 0), ERR_INVALID_DEVICE);
    EXPECT_EQ(ring.Finish(unbound, 0), ERR_INVALID_DEVICE);
    Rig<Fx20> rig;
    // The scan of the rig released every idle transfer: none is allocated for slot 2.
    EXPECT_EQ(ring.Finish(rig.stream, 2), ERR_PARA_ERROR);
    ring.got.clear();  // a refused collect leaves the count untouched
    EXPECT_EQ(rig.stream.BeginRawXfer(ring.buffers[0].data(), 1024, kRingSlots), ERR_PARA_ERROR);

    rig.camera.InjectFault(sim::Fault::kSubmitError);
    EXPECT_EQ(ring.Begin(rig.stream, 3), ERR_TRANSFER);
    EXPECT_EQ(ring.Finish(rig.stream, 3), ERR_TRANSFER);
    rig.camera.InjectFault(sim::Fault::kTransferError);
    ASSERT_EQ(ring.Begin(rig.stream, 3), ERR_SUCCESS);
    EXPECT_EQ(ring.Finish(rig.stream, 3), ERR_TRANSFER);
    EXPECT_TRUE(ring.got.empty());

    // A transfer that is not a whole number of packets overflows on its last packet.
    Ring odd(700);
    ASSERT_EQ(odd.Begin(rig.stream, 0), ERR_SUCCESS);
    EXPECT_EQ(odd.Finish(rig.stream, 0), ERR_TRANSFER);
    EXPECT_EQ(odd.got.size(), 700u);

    // Transfers that wait for data when the camera goes.
    rig.camera.InjectFault(sim::Fault::kTimeout, kRingSlots);
    for (int slot = 0; slot < kRingSlots; ++slot) {
        ASSERT_EQ(ring.Begin(rig.stream, slot), ERR_SUCCESS);
    }
    EmulatedBus::Instance().Unplug(rig.id);
    for (int slot = 0; slot < kRingSlots; ++slot) {
        EXPECT_EQ(ring.Finish(rig.stream, slot), ERR_NO_DEVICE);
    }
    EXPECT_EQ(ring.Begin(rig.stream, 0), ERR_TRANSFER);
    EXPECT_EQ(ring.Finish(rig.stream, 0), ERR_TRANSFER);
}

// ---- FX3 synchronous reads

TEST_F(EmulatedTransports, fx3_reads_synchronously_byte_exact_and_maps_failures) {
    Rig<Fx3> rig(0);
    rig.camera.StartCapture();
    Bytes got;
    Bytes buf(2048);
    unsigned int n = 0;
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(rig.stream.ReadRawData(buf.data(), 2048, &n), ERR_SUCCESS);
        got.insert(got.end(), buf.begin(), buf.begin() + n);
    }
    EXPECT_EQ(got.size(), 20u * 2048);
    EXPECT_TRUE(got == rig.camera.TakeCapture());

    ASSERT_EQ(rig.stream.SetTimeout(30), ERR_SUCCESS);
    rig.camera.InjectFault(sim::Fault::kTimeout);
    EXPECT_EQ(rig.stream.ReadRawData(buf.data(), 2048, &n), ERR_TIMEOUT);
    rig.camera.InjectFault(sim::Fault::kTransferError);
    EXPECT_EQ(rig.stream.ReadRawData(buf.data(), 2048, &n), ERR_TRANSFER);
    rig.camera.InjectFault(sim::Fault::kSubmitError);
    EXPECT_EQ(rig.stream.ReadRawData(buf.data(), 2048, &n), ERR_TRANSFER);
    EXPECT_EQ(rig.stream.ReadRawData(buf.data(), 2048, &n), ERR_SUCCESS);
    EmulatedBus::Instance().Unplug(rig.id);
    EXPECT_EQ(rig.stream.ReadRawData(buf.data(), 2048, &n), ERR_NO_DEVICE);
}

TEST_F(EmulatedTransports, fx3_start_clears_the_halt_and_restores_the_time_out) {
    Rig<Fx3> rig;
    ASSERT_EQ(rig.stream.SetTimeout(100), ERR_SUCCESS);
    const int clears = rig.camera.Calls(UsbdevfsCall::kClearHalt);
    EXPECT_EQ(rig.stream.SetStart(), ERR_SUCCESS);
    EXPECT_EQ(rig.camera.Calls(UsbdevfsCall::kClearHalt), clears + 1);
    EXPECT_EQ(rig.stream.GetTimeout(), 5000);
    // A second start is refused before any reset.
    ASSERT_EQ(rig.stream.SetTimeout(100), ERR_SUCCESS);
    EXPECT_EQ(rig.stream.SetStart(), ERR_ALREADY_DONE);
    EXPECT_EQ(rig.camera.Calls(UsbdevfsCall::kClearHalt), clears + 1);
    EXPECT_EQ(rig.stream.GetTimeout(), 100);
    EXPECT_EQ(rig.stream.SetStop(), ERR_SUCCESS);
}

// ---- The read thread, end to end on both kinds

// Main and saving pools on a started stream, the main one drained as the parser would.
template <typename K>
struct Streaming {
    explicit Streaming(Rig<K>& rig)
        : saving(4, rig.stream.GetReadSize()), main(256, rig.stream.GetReadSize()), drain(main) {
        saving.SetSaveStatus(true);
        EXPECT_EQ(rig.stream.SetSavingPacketBuffer(&saving), ERR_SUCCESS);
        rig.stream.SetPacketBuffer(&main);
        rig.camera.StartCapture();
        EXPECT_EQ(rig.stream.Start(), ERR_SUCCESS);
    }
    PacketBuffer saving;
    PacketBuffer main;
    Drain drain;
};

// Every register access closes and re-opens the kind's device list. The backend keeps the
// handle of a camera that is still attached, so the transfers in flight on it go on: the
// stream loses nothing and needs no reset.
TYPED_TEST(EmulatedKinds, streams_every_byte_into_both_pools_through_register_access) {
    Rig<TypeParam> rig;
    Streaming<TypeParam> s(rig);
    ASSERT_TRUE(s.drain.Flows());
    const int clears = rig.camera.Calls(UsbdevfsCall::kClearHalt);
    int value = 0;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(rig.stream.WriteI2CReg(0x20, i, i + 1), ERR_SUCCESS);
        EXPECT_EQ(rig.stream.ReadI2CReg(0x20, i, value), ERR_SUCCESS);
        EXPECT_EQ(value, i + 1);
    }
    ASSERT_TRUE(s.drain.Flows(100));
    EXPECT_TRUE(rig.stream.IsReading());
    ASSERT_EQ(rig.stream.Stop(), ERR_SUCCESS);
    EXPECT_EQ(rig.camera.UrbsHeld(), 0);
    EXPECT_EQ(rig.camera.Calls(UsbdevfsCall::kClearHalt), clears) << "no reset was needed";
    EXPECT_EQ(rig.camera.Calls(UsbdevfsCall::kClaim), 1) << "the interface was claimed once";
    const Bytes sent = rig.camera.TakeCapture();
    ASSERT_FALSE(sent.empty());
    EXPECT_TRUE(SavedBytes(s.saving) == sent);
    EXPECT_TRUE(s.drain.Joined() == sent);
    EXPECT_TRUE(s.drain.StampsOk());
}

// A scan releases the transfers of its kind: what was in flight is lost, whole transfers at a
// time, and the stream goes on.
TYPED_TEST(EmulatedKinds, rescans_while_streaming_lose_only_whole_transfers) {
    Rig<TypeParam> rig;
    Streaming<TypeParam> s(rig);
    ASSERT_TRUE(s.drain.Flows());
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(ScanCount(TypeParam::Table()), 1);
        ASSERT_TRUE(s.drain.Flows(5));
    }
    EXPECT_TRUE(rig.stream.IsReading());
    ASSERT_EQ(rig.stream.Stop(), ERR_SUCCESS);
    const Bytes sent = rig.camera.TakeCapture();
    // Each delivered transfer is the next stretch of what was sent, possibly after a gap.
    size_t at = 0;
    for (const Bytes& packet : s.drain.Finish()) {
        const auto found = std::search(sent.begin() + at, sent.end(), packet.begin(), packet.end());
        ASSERT_NE(found, sent.end());
        at = static_cast<size_t>(found - sent.begin()) + packet.size();
    }
}

TYPED_TEST(EmulatedKinds, unplug_while_streaming_ends_the_thread_and_the_camera_is_gone) {
    Rig<TypeParam> rig;
    Streaming<TypeParam> s(rig);
    ASSERT_TRUE(s.drain.Flows());
    EmulatedBus::Instance().Unplug(rig.id);
    EXPECT_TRUE(WaitUntil([&] { return !rig.stream.IsReading(); }));
    EXPECT_TRUE(rig.stream.IsRunning());  // until the owner stops it
    auto stopped = std::async(std::launch::async, [&] { return rig.stream.Stop(); });
    ASSERT_EQ(stopped.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(stopped.get(), ERR_SUCCESS);
    EXPECT_EQ(ScanCount(TypeParam::Table()), 0);
    EXPECT_EQ(rig.camera.UrbsHeld(), 0);
    EXPECT_EQ(rig.camera.Calls(UsbdevfsCall::kRelease), 1) << "its handle was closed";
    // What arrived before the unplug is intact; only the transfer the unplug cut short is
    // not delivered.
    const Bytes sent = rig.camera.TakeCapture();
    const Bytes saved = SavedBytes(s.saving);
    ASSERT_LE(saved.size(), sent.size());
    EXPECT_LT(sent.size() - saved.size(), static_cast<size_t>(rig.stream.GetReadSize()));
    EXPECT_TRUE(std::equal(saved.begin(), saved.end(), sent.begin()));
}

// A time-out ends in DevReset (the halt cleared, the time-out back to 5000 ms); a stall is
// cleared at once. Either way the stream goes on.
TYPED_TEST(EmulatedKinds, a_time_out_or_a_stall_while_streaming_is_cleared_and_streaming_goes_on) {
    Rig<TypeParam> rig;
    Streaming<TypeParam> s(rig);
    ASSERT_TRUE(s.drain.Flows());
    // After the start, which restores 5000 ms on an FX3 stream; then more reads, so that the
    // faulted one surely runs with it.
    ASSERT_EQ(rig.stream.SetTimeout(40), ERR_SUCCESS);
    ASSERT_TRUE(s.drain.Flows(8));
    for (sim::Fault fault : {sim::Fault::kTimeout, sim::Fault::kStall}) {
        const int clears = rig.camera.Calls(UsbdevfsCall::kClearHalt);
        rig.camera.InjectFault(fault);
        EXPECT_TRUE(WaitUntil([&] { return rig.camera.Calls(UsbdevfsCall::kClearHalt) > clears; }))
            << static_cast<int>(fault);
        EXPECT_TRUE(s.drain.Flows());
    }
    EXPECT_EQ(rig.stream.GetTimeout(), 5000);
    ASSERT_EQ(rig.stream.Stop(), ERR_SUCCESS);
}

// Each kind re-opens only its own device list: an FX3 camera's register writes and scans never
// end the transfers of an FX20 camera streaming meanwhile.
TEST_F(EmulatedTransports, other_kinds_register_access_and_scans_leave_a_streaming_fx20_alone) {
    Rig<Fx20> fx20;
    Rig<Fx3> fx3;
    Streaming<Fx20> s(fx20);
    ASSERT_TRUE(s.drain.Flows());
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(fx3.stream.WriteI2CReg(0x20, i, i), ERR_SUCCESS);
        EXPECT_EQ(ScanCount(FX3Stream::Table()), 1);
    }
    ASSERT_TRUE(s.drain.Flows());
    ASSERT_EQ(fx20.stream.Stop(), ERR_SUCCESS);
    EXPECT_TRUE(SavedBytes(s.saving) == fx20.camera.TakeCapture());
    EXPECT_EQ(fx3.camera.ReadRegister(0x20, 9), 9);
}

}  // namespace
}  // namespace evcam
