// The transports and the read thread over the simulated bus, where faults, rates and unplugs
// come on demand. What travels on the wire and the FX20 ring are tested over the real libusb
// backend (tests/usb_emulation).
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "src/platform/cyusb.h"
#include "tests/support/usb_support.h"

namespace evcam {
namespace {

using namespace std::chrono_literals;

template <typename K>
class Transport : public SimBusTest {};
TYPED_TEST_SUITE(Transport, Kinds);

TYPED_TEST(Transport, register_access_checks_bus_binding_type_and_width_then_reopens_the_list) {
    typename TypeParam::Stream unbound;
    int value = 0;
    EXPECT_EQ(unbound.WriteI2CReg(0x20, 0x10, 1), ERR_NO_DEVICE);  // nothing on the bus
    SimRig<TypeParam> rig;
    EXPECT_EQ(unbound.ReadI2CReg(0x20, 0x10, value), ERR_INVALID_DEVICE);
    EXPECT_EQ(rig.stream.DevSendRegReq(static_cast<RegReqType>(2), 0x20, 0x10, value),
              ERR_PARA_ERROR);
    rig.stream.width = 3;
    EXPECT_EQ(rig.stream.WriteI2CReg(0x20, 0x10, 1), ERR_PARA_ERROR);
    // FX3 registers may be two bytes wide, FX20 ones never.
    rig.stream.width = 2;
    EXPECT_EQ(rig.stream.WriteI2CReg(0x20, 0x10, 1),
              TypeParam::kSim == sim::Kind::kFX3 ? ERR_SUCCESS : ERR_PARA_ERROR);
    EXPECT_EQ(sim::ControlLog(rig.camera).size(), TypeParam::kSim == sim::Kind::kFX3 ? 1u : 0u);

    // Every access closes the list and opens it again: a handle fetched before is stale.
    rig.stream.width = 1;
    libusb_device_handle* before = TypeParam::Table().FetchHandle(0);
    EXPECT_EQ(cyusb_get_busnumber(before), 1);
    EXPECT_EQ(rig.stream.WriteI2CReg(0x20, 0x10, 1), ERR_SUCCESS);
    EXPECT_EQ(cyusb_get_busnumber(before), LIBUSB_ERROR_NO_DEVICE);
}

TYPED_TEST(Transport, start_marks_in_use_once_and_reset_restores_the_time_out) {
    SimRig<TypeParam> rig;
    EXPECT_EQ(rig.stream.SetStop(), ERR_ALREADY_DONE);
    EXPECT_EQ(rig.stream.SetStart(), ERR_SUCCESS);
    EXPECT_EQ(rig.stream.SetStart(), ERR_ALREADY_DONE);
    EXPECT_EQ(TypeParam::Table().Entry(0).mInUse, 1);
    EXPECT_EQ(rig.stream.SetStop(), ERR_SUCCESS);

    typename TypeParam::Stream unbound;
    ASSERT_EQ(unbound.SetTimeout(77), ERR_SUCCESS);
    EXPECT_EQ(unbound.DevReset(), ERR_PARA_ERROR);
    EXPECT_EQ(unbound.GetTimeout(), 5000);
    EXPECT_EQ(unbound.SetStart(), ERR_PARA_ERROR);

    // Closing with an index that has no transfers still closes the list.
    ASSERT_GT(TypeParam::Table().DVSDeviceCount(), 0);
    TypeParam::Table().DVSClose(7);
    EXPECT_FALSE(TypeParam::Table().IsOpen());
}

TEST_F(SimBusTest, dev_reset_clears_the_halt_of_the_last_fetched_handle) {
    const int first = PlugSim(sim::Kind::kFX3);
    const int second = PlugSim(sim::Kind::kFX3);
    ASSERT_EQ(ScanCount(FX3Stream::Table()), 2);
    Testable<FX3Stream> a;
    Testable<FX3Stream> b;
    ASSERT_EQ(a.SetDVSID(0), ERR_SUCCESS);
    ASSERT_EQ(b.SetDVSID(1), ERR_SUCCESS);
    ASSERT_EQ(sim::InjectFault(first, sim::Fault::kStall), ERR_SUCCESS);
    ASSERT_EQ(sim::InjectFault(second, sim::Fault::kStall), ERR_SUCCESS);
    // The kind's last handle is the second camera's, so a's reset frees b's endpoint.
    ASSERT_NE(FX3Stream::Table().FetchHandle(1), nullptr);
    EXPECT_EQ(a.DevReset(), ERR_SUCCESS);
    Bytes buf(2048);
    unsigned int n = 0;
    EXPECT_EQ(a.ReadRawData(buf.data(), 2048, &n), ERR_TRANSFER);
    EXPECT_EQ(b.ReadRawData(buf.data(), 2048, &n), ERR_SUCCESS);
}

// Over the real backend a collect that waits for a transfer never submitted would hang.
TEST_F(SimBusTest, fx20_refused_submission_is_reported_at_the_collect_without_waiting) {
    SimRig<Fx20> rig;
    Ring ring;
    ASSERT_EQ(sim::InjectFault(rig.camera, sim::Fault::kSubmitError), ERR_SUCCESS);
    EXPECT_EQ(ring.Begin(rig.stream, 3), ERR_TRANSFER);
    EXPECT_EQ(ring.Finish(rig.stream, 3), ERR_TRANSFER);
}

// ---- The read thread, end to end on both kinds

template <typename K>
class ReadThread : public SimBusTest {};
TYPED_TEST_SUITE(ReadThread, Kinds);

TYPED_TEST(ReadThread, start_stop_and_settings_answer_their_codes) {
    typename TypeParam::Stream unbound;
    EXPECT_EQ(unbound.Start(), ERR_INVALID_DEVICE);
    EXPECT_EQ(unbound.Stop(), ERR_ALREADY_DONE);
    SimRig<TypeParam> rig;
    typename TypeParam::Stream& s = rig.stream;
    EXPECT_EQ(s.SetPPX(513), ERR_PARA_ERROR);
    EXPECT_EQ(s.SetPPX(4), ERR_SUCCESS);
    EXPECT_EQ(s.GetReadSize(), 4 * TypeParam::kPacket);

    ASSERT_EQ(s.Start(), ERR_SUCCESS);
    EXPECT_EQ(s.Start(), ERR_ALREADY_DONE);
    EXPECT_EQ(s.Reset(), ERR_RUNNING);
    EXPECT_EQ(s.SetPPX(2), ERR_RUNNING);
    EXPECT_EQ(s.Stop(), ERR_SUCCESS);
    EXPECT_FALSE(s.IsReading());
    EXPECT_EQ(s.Stop(), ERR_ALREADY_DONE);

    // Reset forgets the version, so the stream needs a bias file again; the size stays.
    EXPECT_EQ(s.Reset(), ERR_SUCCESS);
    EXPECT_EQ(s.GetReadSize(), 4 * TypeParam::kPacket);
    EXPECT_EQ(s.Start(), ERR_NO_BIAS_FILE);
    int version = 9;
    EXPECT_EQ(s.GetVersion(&version), ERR_SUCCESS);
    EXPECT_EQ(version, 0);
}

TYPED_TEST(ReadThread, saving_buffer_gets_every_byte_after_the_skipped_ones) {
    SimRig<TypeParam> rig;
    typename TypeParam::Stream& s = rig.stream;
    PacketBuffer saving(4, s.GetReadSize());
    saving.SetSaveStatus(true);
    PacketBuffer main(64, s.GetReadSize());
    ASSERT_EQ(s.SetSavingPacketBuffer(&saving), ERR_SUCCESS);
    s.SetPacketBuffer(&main);
    s.SetSkipBytes(4096);
    s.SetSkipBytes(4098);  // not a multiple of 4: ignored
    Drain drain(main);
    ASSERT_EQ(sim::StartCapture(rig.camera), ERR_SUCCESS);
    ASSERT_EQ(s.Start(), ERR_SUCCESS);
    EXPECT_TRUE(drain.Flows(100));
    ASSERT_EQ(s.Stop(), ERR_SUCCESS);

    Bytes sent;
    ASSERT_EQ(sim::TakeCapture(rig.camera, sent), ERR_SUCCESS);
    ASSERT_GT(sent.size(), 4096u);
    const Bytes expected(sent.begin() + 4096, sent.end());
    EXPECT_TRUE(SavedBytes(saving) == expected);
    EXPECT_GT(saving.GetNodeCount(), 4);  // the saving pool grew instead of dropping
    EXPECT_TRUE(drain.StampsOk());
    const Bytes parsed = drain.Joined();
    ASSERT_GE(parsed.size(), 4u);
    EXPECT_TRUE(std::equal(parsed.begin(), parsed.begin() + 4, expected.begin()));
}

// On the simulated bus a re-opened list ends the transfers queued on its old handles.
TYPED_TEST(ReadThread, register_access_and_rescans_while_streaming_are_survived) {
    // A slow camera: its transfers are still queued when each access closes the device list.
    SimRig<TypeParam> rig(2000);
    PacketBuffer main(64, rig.stream.GetReadSize());
    rig.stream.SetPacketBuffer(&main);
    Drain drain(main);
    ASSERT_EQ(rig.stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(drain.Flows());
    int value = 0;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(rig.stream.WriteI2CReg(0x20, i, i), ERR_SUCCESS);
        EXPECT_EQ(rig.stream.ReadI2CReg(0x20, i, value), ERR_SUCCESS);
        EXPECT_EQ(value, i);
        EXPECT_EQ(ScanCount(TypeParam::Table()), 1);
    }
    EXPECT_TRUE(drain.Flows());
    EXPECT_TRUE(rig.stream.IsReading());
    EXPECT_EQ(rig.stream.Stop(), ERR_SUCCESS);
}

struct Notices {
    std::mutex lock;
    std::vector<double> rates;
    std::vector<std::pair<unsigned long, unsigned long>> drops;
    static void Rate(void* user, double kib) {
        auto* n = static_cast<Notices*>(user);
        std::lock_guard<std::mutex> g(n->lock);
        n->rates.push_back(kib);
    }
    static void Drop(void* user, unsigned long dropped, unsigned long offered) {
        auto* n = static_cast<Notices*>(user);
        std::lock_guard<std::mutex> g(n->lock);
        n->drops.emplace_back(dropped, offered);
    }
    size_t Count() {
        std::lock_guard<std::mutex> g(lock);
        return std::min(rates.size(), drops.size());
    }
};

TYPED_TEST(ReadThread, full_pool_drops_with_a_notice_about_once_a_second_at_the_true_rate) {
    // 1000 KiB per second, in transfers large enough for the 1 ms pause after each drop.
    SimRig<TypeParam> rig(1024000);
    typename TypeParam::Stream& s = rig.stream;
    ASSERT_EQ(s.SetPPX(8), ERR_SUCCESS);
    PacketBuffer nobodyDrains(0, s.GetReadSize());
    s.SetPacketBuffer(&nobodyDrains);
    Notices notices;
    ASSERT_EQ(s.SetUsbDataRateCbk(&Notices::Rate, &notices), ERR_SUCCESS);
    ASSERT_EQ(s.SetPktBufDropCbk(&Notices::Drop, &notices), ERR_SUCCESS);
    const auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(s.Start(), ERR_SUCCESS);
    EXPECT_TRUE(WaitUntil([&] { return notices.Count() >= 2; }));
    ASSERT_EQ(s.Stop(), ERR_SUCCESS);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    std::lock_guard<std::mutex> g(notices.lock);
    // Never more often than once a second.
    EXPECT_LE(notices.drops.size(), seconds + 0.5);
    EXPECT_LE(notices.rates.size(), seconds + 0.5);
    for (const auto& [dropped, offered] : notices.drops) {
        EXPECT_GT(dropped, 0u);
        EXPECT_EQ(dropped, offered);
    }
    for (double kib : notices.rates) {
        EXPECT_GT(kib, 600.0);
        EXPECT_LT(kib, 1400.0);
    }
}

TYPED_TEST(ReadThread, saving_buffer_withdrawn_while_streaming_is_not_touched_again) {
    SimRig<TypeParam> rig;
    auto saving = std::make_unique<PacketBuffer>(4, rig.stream.GetReadSize());
    saving->SetSaveStatus(true);
    ASSERT_EQ(rig.stream.SetSavingPacketBuffer(saving.get()), ERR_SUCCESS);
    ASSERT_EQ(rig.stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return saving->GetNodeCount() > 8; }));
    EXPECT_EQ(rig.stream.SetSavingPacketBuffer(nullptr), ERR_SUCCESS);
    saving.reset();  // AddressSanitizer reports any later use by the read thread
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(rig.stream.Stop(), ERR_SUCCESS);
}

// A callback that stops the stream it is called by.
void StopFromCallback(void* user, double) {
    static_cast<DeviceStream*>(user)->Stop();
}

TYPED_TEST(ReadThread, stop_from_a_callback_ends_the_thread_without_joining_itself) {
    SimRig<TypeParam> rig;
    ASSERT_EQ(rig.stream.SetUsbDataRateCbk(&StopFromCallback, &rig.stream), ERR_SUCCESS);
    ASSERT_EQ(rig.stream.Start(), ERR_SUCCESS);
    EXPECT_TRUE(WaitUntil([&] { return !rig.stream.IsReading(); }));
    EXPECT_FALSE(rig.stream.IsRunning());
    EXPECT_EQ(rig.stream.Start(), ERR_SUCCESS);  // joins the old thread first
    EXPECT_EQ(rig.stream.Stop(), ERR_SUCCESS);
}

}  // namespace
}  // namespace evcam
