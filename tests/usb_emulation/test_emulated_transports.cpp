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
#include <tuple>
#include <vector>

#include "emulation_fixture.h"
#include "src/platform/cyusb.h"

namespace evcam {
namespace {

using namespace std::chrono_literals;

// A transport whose sensor version (normally from a bias file) and value width a test may set.
template <typename Base>
class Testable : public Base {
  public:
    using Base::SetSensorVersion;
    int I2cValueLen(int) const override { return width; }
    int width = 1;
};

template <typename S, sim::Kind K, int P>
struct KindOf {
    using Stream = Testable<S>;
    static constexpr sim::Kind kSim = K;
    static constexpr int kPacket = P;
    static UsbDeviceTable& Table() { return S::Table(); }
};
using Fx20 = KindOf<FX20Stream, sim::Kind::kFX20, 512>;
using Fx3 = KindOf<FX3Stream, sim::Kind::kFX3, 1024>;

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

// ---- Register requests

// A logged request: bmRequestType, bRequest, wValue, wIndex, wLength, data, result.
using Wire = std::tuple<int, int, int, int, int, Bytes, int>;

Wire WireOf(const sim::ControlRequest& r) {
    return {r.bmRequestType, r.bRequest, r.wValue, r.wIndex, r.wLength, r.data, r.result};
}

std::vector<Wire> WiresOf(UsbdevfsCamera& camera) {
    std::vector<Wire> wires;
    for (const sim::ControlRequest& r : camera.ControlLog()) {
        wires.push_back(WireOf(r));
    }
    return wires;
}

template <typename K>
void CheckConventions(const Wire& write, const Wire& read, const std::string& trace) {
    Rig<K> rig;
    rig.camera.ClearControlLog();
    EXPECT_EQ(rig.stream.WriteI2CReg(0x120, 0x123A, 0x1FF), ERR_SUCCESS);
    EXPECT_EQ(rig.camera.ReadRegister(0x20, 0x123A), 0xFF);

    rig.camera.WriteRegister(0x21, 0x3A, 0x5C);
    int value = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(rig.stream.ReadI2CReg(0x21, 0x3A, value), ERR_SUCCESS);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), trace);
    EXPECT_EQ(value, 0x5C);
    EXPECT_EQ(WiresOf(rig.camera), std::vector<Wire>({write, read}));
}

TEST_F(EmulatedTransports, register_requests_travel_in_each_kinds_convention_and_read_back) {
    // FX20: a write carries slave and big-endian register address in its payload.
    CheckConventions<Fx20>({0x40, 0xBA, 0, 0, 4, {0x20, 0x12, 0x3A, 0xFF}, 4},
                           {0xC0, 0xAB, 0x21, 0x3A, 1, {0x5C}, 1},
                           "[I2C READ] slvAddr=0x21 addr=0x003A val=0x5C\n");
    EmulatedBus::Instance().UnplugAll();
    // FX3: addresses in the setup packet, only the value in the data stage, no trace.
    CheckConventions<Fx3>({0x40, 0xBA, 0x120, 0x123A, 1, {0xFF}, 1},
                          {0xC0, 0xAB, 0x21, 0x3A, 1, {0x5C}, 1}, "");
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
    EXPECT_EQ(WiresOf(rig.camera),
              std::vector<Wire>({{0x40, 0xBA, 0x20, 0x10, 2, {0x12, 0x34}, 2},
                                 {0xC0, 0xAB, 0x20, 0x11, 2, {0xAB, 0xCD}, 2}}));
}

template <typename K>
void CheckFailedRequests() {
    Rig<K> rig;
    rig.camera.ClearControlLog();
    rig.camera.WriteRegister(0x20, 0x10, 0x33);
    int value = 0;
    // A failed request reaches libusb as a protocol error; reads try three times.
    rig.camera.InjectFault(sim::Fault::kControlError, 2);
    EXPECT_EQ(rig.stream.ReadI2CReg(0x20, 0x10, value), ERR_SUCCESS);
    EXPECT_EQ(value, 0x33);
    rig.camera.InjectFault(sim::Fault::kControlError, 3);
    EXPECT_EQ(rig.stream.ReadI2CReg(0x20, 0x10, value), ERR_I2C_READ);
    rig.camera.InjectFault(sim::Fault::kControlError, 1);
    EXPECT_EQ(rig.stream.WriteI2CReg(0x20, 0x10, 1), ERR_I2C_WRITE);
    EXPECT_EQ(rig.camera.ControlLog().size(), 7u);
}

TEST_F(EmulatedTransports, failed_control_requests_give_the_register_error_codes) {
    CheckFailedRequests<Fx20>();
    EmulatedBus::Instance().UnplugAll();
    CheckFailedRequests<Fx3>();
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

struct Ring {
    explicit Ring(unsigned int size = 1024) : size(size), buffers(kRingSlots, Bytes(size, 0xEF)) {}
    DVS_ERROR Begin(FX20Stream& s, int slot) {
        return s.BeginRawXfer(buffers[slot].data(), size, slot);
    }
    // Collects slot; the bytes received are appended to got.
    DVS_ERROR Finish(FX20Stream& s, int slot, int polls = 5000) {
        unsigned int n = 77;
        const DVS_ERROR rc = s.FinishRawXfer(buffers[slot].data(), size, &n, polls, slot);
        got.insert(got.end(), buffers[slot].begin(), buffers[slot].begin() + n);
        return rc;
    }
    unsigned int size;
    std::vector<Bytes> buffers;
    Bytes got;
};

TEST_F(EmulatedTransports, ring_streams_byte_exact_with_four_transfers_in_flight) {
    Rig<Fx20> rig(0);
    rig.camera.StartCapture();
    Ring ring;
    for (int slot = 0; slot < kRingSlots; ++slot) {
        ASSERT_EQ(ring.Begin(rig.stream, slot), ERR_SUCCESS);
    }
    EXPECT_EQ(ring.Begin(rig.stream, 2), ERR_ALREADY_DONE);  // still in flight
    for (int turn = 0; turn < 50; ++turn) {
        const int slot = turn % kRingSlots;
        ASSERT_EQ(ring.Finish(rig.stream, slot), ERR_SUCCESS);
        ASSERT_EQ(ring.Begin(rig.stream, slot), ERR_SUCCESS);
    }
    for (int turn = 50; turn < 54; ++turn) {
        ASSERT_EQ(ring.Finish(rig.stream, turn % kRingSlots), ERR_SUCCESS);
    }
    const Bytes sent = rig.camera.TakeCapture();
    EXPECT_EQ(sent.size(), 54u * 1024);
    EXPECT_TRUE(ring.got == sent);
    EXPECT_EQ(rig.camera.Calls(UsbdevfsCall::kBulkSubmit), 54);
    EXPECT_EQ(rig.camera.UrbsHeld(), 0);
}

// The read thread re-queues a slot before it copies the slot's bytes out, and any thread that
// handles USB events (a register access, another camera's reads) may complete the re-queued
// transfer meanwhile: its bytes must not reach the slot's buffer before it is collected.
TEST_F(EmulatedTransports, ring_slot_buffer_changes_only_when_the_slot_is_collected) {
    Rig<Fx20> rig(0);
    rig.camera.StartCapture();
    Ring ring;
    ASSERT_EQ(ring.Begin(rig.stream, 0), ERR_SUCCESS);
    ASSERT_EQ(ring.Finish(rig.stream, 0), ERR_SUCCESS);
    const Bytes first = ring.buffers[0];
    ASSERT_EQ(ring.Begin(rig.stream, 0), ERR_SUCCESS);
    std::thread other([&] {
        Eventually([&] {
            timeval tv{0, 1000};
            usb_handle_events_timeout_completed(nullptr, &tv, nullptr);
            return rig.camera.UrbsHeld() == 0;
        });
    });
    other.join();
    ASSERT_EQ(rig.camera.UrbsHeld(), 0) << "the other thread completed the transfer";
    EXPECT_TRUE(ring.buffers[0] == first);
    ASSERT_EQ(ring.Finish(rig.stream, 0), ERR_SUCCESS);
    EXPECT_TRUE(ring.got == rig.camera.TakeCapture());
    EXPECT_EQ(ring.got.size(), 2048u);
}

TEST_F(EmulatedTransports, ring_time_out_discards_the_urb_and_the_slot_works_again) {
    Rig<Fx20> rig;
    Ring ring;
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
    Rig<Fx20> rig;
    Ring ring;
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
    EXPECT_EQ(rig.stream.SetStart(), ERR_ALREADY_DONE);
    EXPECT_EQ(rig.camera.Calls(UsbdevfsCall::kClearHalt), clears + 1);
    EXPECT_EQ(rig.stream.SetStop(), ERR_SUCCESS);
}

// ---- The read thread, end to end on both kinds

template <typename K>
class EmulatedReadThread : public EmulationTest {};
using Kinds = ::testing::Types<Fx20, Fx3>;
TYPED_TEST_SUITE(EmulatedReadThread, Kinds);

// Main and saving pools on a started stream, the main one drained as the parser would.
template <typename K>
struct Streaming {
    explicit Streaming(Rig<K>& rig)
        : rig(rig),
          saving(4, rig.stream.GetReadSize()),
          main(256, rig.stream.GetReadSize()),
          drain(main) {
        saving.SetSaveStatus(true);
        EXPECT_EQ(rig.stream.SetSavingPacketBuffer(&saving), ERR_SUCCESS);
        rig.stream.SetPacketBuffer(&main);
        rig.camera.StartCapture();
        EXPECT_EQ(rig.stream.Start(), ERR_SUCCESS);
    }
    // Waits for more packets to arrive. @return whether they did in 5 s.
    bool Flows(size_t packets = 20) {
        const size_t before = drain.Taken();
        return Eventually([&] { return drain.Taken() >= before + packets; });
    }
    Rig<K>& rig;
    PacketBuffer saving;
    PacketBuffer main;
    Drain drain;
};

Bytes Joined(const std::vector<Bytes>& packets) {
    Bytes all;
    for (const Bytes& p : packets) {
        all.insert(all.end(), p.begin(), p.end());
    }
    return all;
}

TYPED_TEST(EmulatedReadThread, streams_every_byte_the_camera_sent_into_both_pools) {
    Rig<TypeParam> rig;
    Streaming<TypeParam> s(rig);
    ASSERT_TRUE(s.Flows(100));
    ASSERT_EQ(rig.stream.Stop(), ERR_SUCCESS);
    EXPECT_EQ(rig.camera.UrbsHeld(), 0);
    const Bytes sent = rig.camera.TakeCapture();
    ASSERT_FALSE(sent.empty());
    EXPECT_TRUE(SavedBytes(s.saving) == sent);
    EXPECT_TRUE(Joined(s.drain.Finish()) == sent);
    EXPECT_EQ(s.drain.LastDVSID(), 0u);
}

// Every register access closes and re-opens the kind's device list. The backend keeps the
// handle of a camera that is still attached, so the transfers in flight on it go on: the
// stream loses nothing and needs no reset.
TYPED_TEST(EmulatedReadThread, register_access_while_streaming_loses_nothing) {
    Rig<TypeParam> rig;
    Streaming<TypeParam> s(rig);
    ASSERT_TRUE(s.Flows());
    const int clears = rig.camera.Calls(UsbdevfsCall::kClearHalt);
    int value = 0;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(rig.stream.WriteI2CReg(0x20, i, i + 1), ERR_SUCCESS);
        EXPECT_EQ(rig.stream.ReadI2CReg(0x20, i, value), ERR_SUCCESS);
        EXPECT_EQ(value, i + 1);
    }
    ASSERT_TRUE(s.Flows());
    EXPECT_TRUE(rig.stream.IsReading());
    ASSERT_EQ(rig.stream.Stop(), ERR_SUCCESS);
    EXPECT_EQ(rig.camera.Calls(UsbdevfsCall::kClearHalt), clears) << "no reset was needed";
    EXPECT_EQ(rig.camera.Calls(UsbdevfsCall::kClaim), 1) << "the interface was claimed once";
    EXPECT_TRUE(SavedBytes(s.saving) == rig.camera.TakeCapture());
}

// A scan releases the transfers of its kind: what was in flight is lost, whole transfers at a
// time, and the stream goes on.
TYPED_TEST(EmulatedReadThread, rescans_while_streaming_lose_only_whole_transfers) {
    Rig<TypeParam> rig;
    Streaming<TypeParam> s(rig);
    ASSERT_TRUE(s.Flows());
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(ScanCount(TypeParam::Table()), 1);
        ASSERT_TRUE(s.Flows(5));
    }
    EXPECT_TRUE(rig.stream.IsReading());
    ASSERT_EQ(rig.stream.Stop(), ERR_SUCCESS);
    const Bytes sent = rig.camera.TakeCapture();
    const Bytes saved = SavedBytes(s.saving);
    // Each delivered transfer is the next stretch of what was sent, possibly after a gap.
    size_t at = 0;
    for (const Bytes& packet : s.drain.Finish()) {
        const auto found = std::search(sent.begin() + at, sent.end(), packet.begin(), packet.end());
        ASSERT_NE(found, sent.end());
        at = static_cast<size_t>(found - sent.begin()) + packet.size();
    }
    EXPECT_LE(saved.size(), sent.size());
}

TYPED_TEST(EmulatedReadThread, unplug_while_streaming_ends_the_thread_and_the_camera_is_gone) {
    Rig<TypeParam> rig;
    Streaming<TypeParam> s(rig);
    ASSERT_TRUE(s.Flows());
    EmulatedBus::Instance().Unplug(rig.id);
    EXPECT_TRUE(Eventually([&] { return !rig.stream.IsReading(); }));
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

TYPED_TEST(EmulatedReadThread,
           a_time_out_while_streaming_ends_in_dev_reset_and_the_stream_goes_on) {
    Rig<TypeParam> rig;
    Streaming<TypeParam> s(rig);
    ASSERT_TRUE(s.Flows());
    // After the start, which restores 5000 ms on an FX3 stream; then more reads, so that the
    // faulted one surely runs with it.
    ASSERT_EQ(rig.stream.SetTimeout(40), ERR_SUCCESS);
    ASSERT_TRUE(s.Flows(8));
    const int clears = rig.camera.Calls(UsbdevfsCall::kClearHalt);
    rig.camera.InjectFault(sim::Fault::kTimeout);
    EXPECT_TRUE(Eventually([&] { return rig.camera.Calls(UsbdevfsCall::kClearHalt) > clears; }));
    EXPECT_EQ(rig.stream.GetTimeout(), 5000);
    EXPECT_TRUE(s.Flows());
    ASSERT_EQ(rig.stream.Stop(), ERR_SUCCESS);
}

TYPED_TEST(EmulatedReadThread, a_stall_while_streaming_is_cleared_and_the_stream_goes_on) {
    Rig<TypeParam> rig;
    Streaming<TypeParam> s(rig);
    ASSERT_TRUE(s.Flows());
    const int clears = rig.camera.Calls(UsbdevfsCall::kClearHalt);
    rig.camera.InjectFault(sim::Fault::kStall);
    EXPECT_TRUE(s.Flows());
    EXPECT_GT(rig.camera.Calls(UsbdevfsCall::kClearHalt), clears);
    ASSERT_EQ(rig.stream.Stop(), ERR_SUCCESS);
}

// Each kind re-opens only its own device list: an FX3 camera's register writes and scans never
// end the transfers of an FX20 camera streaming meanwhile.
TEST_F(EmulatedTransports, other_kinds_register_access_and_scans_leave_a_streaming_fx20_alone) {
    Rig<Fx20> fx20;
    Rig<Fx3> fx3;
    Streaming<Fx20> s(fx20);
    ASSERT_TRUE(s.Flows());
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(fx3.stream.WriteI2CReg(0x20, i, i), ERR_SUCCESS);
        EXPECT_EQ(ScanCount(FX3Stream::Table()), 1);
    }
    ASSERT_TRUE(s.Flows());
    ASSERT_EQ(fx20.stream.Stop(), ERR_SUCCESS);
    EXPECT_TRUE(SavedBytes(s.saving) == fx20.camera.TakeCapture());
    EXPECT_EQ(fx3.camera.ReadRegister(0x20, 9), 9);
}

}  // namespace
}  // namespace evcam
