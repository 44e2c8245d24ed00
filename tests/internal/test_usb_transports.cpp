#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "evcam/sim.h"
#include "src/data/dvs_packet.h"
#include "src/data/packet_buffer.h"
#include "src/platform/cyusb.h"
#include "src/stream/fx20_stream.h"
#include "src/stream/fx3_stream.h"

namespace evcam {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

// A transport whose version (normally from a bias file) and value width a test may set.
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

int Plug(sim::Kind kind, uint64_t byteRate = 2000000, int unplugAfterMs = -1) {
    sim::CameraConfig config;
    config.kind = kind;
    config.byteRate = byteRate;
    config.unplugAfterMs = unplugAfterMs;
    const int id = sim::Plug(config);
    EXPECT_GE(id, 0);
    return id;
}

int Scan(UsbDeviceTable& table) {
    USBDevice* list = nullptr;
    int count = 0;
    EXPECT_EQ(table.ScanDVSDevice(&list, count), ERR_SUCCESS);
    return count;
}

// One camera of a kind, plugged, scanned and bound to a stream that may be started.
template <typename K>
struct Rig {
    explicit Rig(uint64_t byteRate = 2000000, int unplugAfterMs = -1)
        : camera(Plug(K::kSim, byteRate, unplugAfterMs)) {
        EXPECT_EQ(Scan(K::Table()), 1);
        EXPECT_EQ(stream.SetDVSID(0), ERR_SUCCESS);
        stream.SetSensorVersion(MVT94QX);
    }
    int camera;
    typename K::Stream stream;
};

// Waits up to 5 s for done().
template <typename Pred>
bool Eventually(Pred done) {
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

// Stands in for the parse thread: takes every packet of a pool as it arrives, keeps the bytes
// and checks the stamps.
class Drain {
  public:
    explicit Drain(PacketBuffer& buffer) : mBuffer(buffer) {
        mBuffer.SetProcessStatus(true);
        mThread = std::thread([this] { Run(); });
    }
    ~Drain() { Finish(); }

    // Stops draining after taking what is left. @return every byte taken.
    Bytes Finish() {
        if (mThread.joinable()) {
            mStop = true;
            mThread.join();
        }
        return mBytes;
    }
    size_t Taken() const { return mTaken; }
    bool StampsOk() const { return !mBadStamp; }

  private:
    void Run() {
        for (;;) {
            const bool last = mStop;
            while (DVSPacket* p = mBuffer.GetADataNode()) {
                mBytes.insert(mBytes.end(), p->mData, p->mData + p->mDataLen);
                if (p->mVersion != MVT94QX || p->mDVSID != 0) {
                    mBadStamp = true;
                }
                ++mTaken;
                mBuffer.PutANodeToFreeList(p);
            }
            if (last) {
                return;
            }
            std::this_thread::sleep_for(1ms);
        }
    }

    PacketBuffer& mBuffer;
    std::thread mThread;
    std::atomic<bool> mStop{false};
    std::atomic<size_t> mTaken{0};
    std::atomic<bool> mBadStamp{false};
    Bytes mBytes;  // the drain thread's until Finish
};

// The recorder's side of a saving pool, read after the stream stopped.
Bytes SavedBytes(PacketBuffer& buffer) {
    Bytes bytes;
    while (DVSPacket* p = buffer.GetASaveNode()) {
        bytes.insert(bytes.end(), p->mData, p->mData + p->mDataLen);
        buffer.PutANodeToFreeList(p);
    }
    return bytes;
}

// Every test starts from an empty, scanned bus: the tables are process-wide.
class UsbTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(sim::Enable(), ERR_SUCCESS);
        sim::UnplugAll();
        Scan(FX20Stream::Table());
        Scan(FX3Stream::Table());
    }
    void TearDown() override { sim::UnplugAll(); }
};

// ---- Register requests

// A logged request: bmRequestType, bRequest, wValue, wIndex, wLength, data bytes, result.
using Wire = std::tuple<int, int, int, int, int, Bytes, int>;

Wire WireOf(const sim::ControlRequest& r) {
    return {r.bmRequestType, r.bRequest, r.wValue, r.wIndex, r.wLength, r.data, r.result};
}

template <typename K>
void CheckConventions(const Wire& write, const Wire& read, const std::string& trace) {
    Rig<K> rig;
    sim::ClearControlLog(rig.camera);
    EXPECT_EQ(rig.stream.WriteI2CReg(0x120, 0x123A, 0x1FF), ERR_SUCCESS);
    int value = 0;
    EXPECT_EQ(sim::ReadRegister(rig.camera, 0x20, 0x123A, value), ERR_SUCCESS);
    EXPECT_EQ(value, 0xFF);

    ASSERT_EQ(sim::WriteRegister(rig.camera, 0x21, 0x3A, 0x5C), ERR_SUCCESS);
    testing::internal::CaptureStdout();
    EXPECT_EQ(rig.stream.ReadI2CReg(0x21, 0x3A, value), ERR_SUCCESS);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), trace);
    EXPECT_EQ(value, 0x5C);

    const std::vector<sim::ControlRequest> log = sim::ControlLog(rig.camera);
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(WireOf(log[0]), write);
    EXPECT_EQ(WireOf(log[1]), read);
}

TEST_F(UsbTest, register_requests_travel_in_each_kinds_convention) {
    // FX20: a write carries slave and big-endian register address in its payload.
    CheckConventions<Fx20>({0x40, 0xBA, 0, 0, 4, {0x20, 0x12, 0x3A, 0xFF}, 4},
                           {0xC0, 0xAB, 0x21, 0x3A, 1, {0x5C}, 1},
                           "[I2C READ] slvAddr=0x21 addr=0x003A val=0x5C\n");
    sim::UnplugAll();
    Scan(FX20Stream::Table());
    // FX3: addresses in the setup packet, only the value in the data stage, no trace.
    CheckConventions<Fx3>({0x40, 0xBA, 0x120, 0x123A, 1, {0xFF}, 1},
                          {0xC0, 0xAB, 0x21, 0x3A, 1, {0x5C}, 1}, "");
}

template <typename K>
void CheckAttempts() {
    Rig<K> rig;
    sim::ClearControlLog(rig.camera);
    ASSERT_EQ(sim::WriteRegister(rig.camera, 0x20, 0x10, 0x33), ERR_SUCCESS);
    int value = 0;
    // Two failures are absorbed by the third attempt.
    ASSERT_EQ(sim::InjectFault(rig.camera, sim::Fault::kControlError, 2), ERR_SUCCESS);
    EXPECT_EQ(rig.stream.ReadI2CReg(0x20, 0x10, value), ERR_SUCCESS);
    EXPECT_EQ(value, 0x33);
    EXPECT_EQ(sim::ControlLog(rig.camera).size(), 3u);

    ASSERT_EQ(sim::InjectFault(rig.camera, sim::Fault::kControlError, 3), ERR_SUCCESS);
    testing::internal::CaptureStdout();
    EXPECT_EQ(rig.stream.ReadI2CReg(0x20, 0x10, value), ERR_I2C_READ);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(sim::ControlLog(rig.camera).size(), 6u);

    // A write is tried once.
    ASSERT_EQ(sim::InjectFault(rig.camera, sim::Fault::kControlError, 1), ERR_SUCCESS);
    EXPECT_EQ(rig.stream.WriteI2CReg(0x20, 0x10, 1), ERR_I2C_WRITE);
    EXPECT_EQ(sim::ControlLog(rig.camera).size(), 7u);
}

TEST_F(UsbTest, register_read_makes_three_attempts_and_write_one) {
    CheckAttempts<Fx20>();
    sim::UnplugAll();
    Scan(FX20Stream::Table());
    CheckAttempts<Fx3>();
}

template <typename K>
void CheckRefusals() {
    typename K::Stream unbound;
    int value = 0;
    EXPECT_EQ(unbound.WriteI2CReg(0x20, 0x10, 1), ERR_NO_DEVICE);  // nothing on the bus
    Rig<K> rig;
    EXPECT_EQ(unbound.ReadI2CReg(0x20, 0x10, value), ERR_INVALID_DEVICE);
    EXPECT_EQ(rig.stream.DevSendRegReq(static_cast<RegReqType>(2), 0x20, 0x10, value),
              ERR_PARA_ERROR);
    rig.stream.width = 3;
    EXPECT_EQ(rig.stream.WriteI2CReg(0x20, 0x10, 1), ERR_PARA_ERROR);
    EXPECT_TRUE(sim::ControlLog(rig.camera).empty());
}

TEST_F(UsbTest, register_access_checks_bus_binding_type_and_width_first) {
    CheckRefusals<Fx20>();
    sim::UnplugAll();
    CheckRefusals<Fx3>();
}

TEST_F(UsbTest, value_width_two_is_big_endian_on_fx3_and_refused_on_fx20) {
    Rig<Fx3> fx3;
    fx3.stream.width = 2;
    sim::ClearControlLog(fx3.camera);
    EXPECT_EQ(fx3.stream.WriteI2CReg(0x20, 0x10, 0x1234), ERR_SUCCESS);
    ASSERT_EQ(sim::WriteRegister(fx3.camera, 0x20, 0x11, 0xABCD), ERR_SUCCESS);
    int value = 0;
    EXPECT_EQ(fx3.stream.ReadI2CReg(0x20, 0x11, value), ERR_SUCCESS);
    EXPECT_EQ(value, 0xABCD);
    const auto log = sim::ControlLog(fx3.camera);
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(WireOf(log[0]), Wire(0x40, 0xBA, 0x20, 0x10, 2, {0x12, 0x34}, 2));
    EXPECT_EQ(WireOf(log[1]), Wire(0xC0, 0xAB, 0x20, 0x11, 2, {0xAB, 0xCD}, 2));

    Rig<Fx20> fx20;
    fx20.stream.width = 2;
    EXPECT_EQ(fx20.stream.WriteI2CReg(0x20, 0x10, 0x1234), ERR_PARA_ERROR);
    EXPECT_TRUE(sim::ControlLog(fx20.camera).empty());
}

TEST_F(UsbTest, register_access_reopens_the_device_list) {
    Rig<Fx20> rig;
    libusb_device_handle* before = FX20Stream::Table().FetchHandle(0);
    ASSERT_NE(before, nullptr);
    EXPECT_EQ(cyusb_get_busnumber(before), 1);
    EXPECT_EQ(rig.stream.WriteI2CReg(0x20, 0x10, 1), ERR_SUCCESS);
    // The handle fetched before belongs to the list the access closed.
    EXPECT_EQ(cyusb_get_busnumber(before), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_NE(FX20Stream::Table().FetchHandle(0), nullptr);
}

// ---- FX20 ring of asynchronous transfers, driven by hand on the test's thread

struct Ring {
    Ring() : buffers(kRingSlots, Bytes(1024, 0xEF)) {}
    DVS_ERROR Begin(FX20Stream& s, int slot) {
        return s.BeginRawXfer(buffers[slot].data(), 1024, slot);
    }
    // Collects slot; the bytes received are appended to got.
    DVS_ERROR Finish(FX20Stream& s, int slot, int polls = 5000) {
        unsigned int n = 77;
        const DVS_ERROR rc = s.FinishRawXfer(buffers[slot].data(), 1024, &n, polls, slot);
        got.insert(got.end(), buffers[slot].begin(), buffers[slot].begin() + n);
        return rc;
    }
    std::vector<Bytes> buffers;
    Bytes got;
};

TEST_F(UsbTest, ring_keeps_four_transfers_and_refills_a_slot_after_the_others) {
    Rig<Fx20> rig(0);
    ASSERT_EQ(sim::StartCapture(rig.camera), ERR_SUCCESS);
    Ring ring;
    for (int slot = 0; slot < kRingSlots; ++slot) {
        ASSERT_EQ(ring.Begin(rig.stream, slot), ERR_SUCCESS);
    }
    EXPECT_EQ(ring.Begin(rig.stream, 2), ERR_ALREADY_DONE);  // still in flight
    EXPECT_EQ(ring.Finish(rig.stream, 0), ERR_SUCCESS);
    ASSERT_EQ(ring.Begin(rig.stream, 0), ERR_SUCCESS);
    for (int slot : {1, 2, 3, 0}) {
        EXPECT_EQ(ring.Finish(rig.stream, slot), ERR_SUCCESS);
    }
    Bytes sent;
    ASSERT_EQ(sim::TakeCapture(rig.camera, sent), ERR_SUCCESS);
    EXPECT_EQ(sent.size(), 5u * 1024);
    EXPECT_EQ(ring.got, sent);
}

TEST_F(UsbTest, ring_time_out_cancels_and_waits_then_the_slot_works_again) {
    Rig<Fx20> rig;
    Ring ring;
    for (int polls : {20, 0}) {
        ASSERT_EQ(sim::InjectFault(rig.camera, sim::Fault::kTimeout), ERR_SUCCESS);
        ASSERT_EQ(ring.Begin(rig.stream, 1), ERR_SUCCESS);
        EXPECT_EQ(ring.Finish(rig.stream, 1, polls), ERR_TIMEOUT) << polls;
        EXPECT_TRUE(ring.got.empty());
    }
    // The transfer's own, shorter time-out ends it the same way.
    ASSERT_EQ(rig.stream.SetTimeout(20), ERR_SUCCESS);
    ASSERT_EQ(sim::InjectFault(rig.camera, sim::Fault::kTimeout), ERR_SUCCESS);
    ASSERT_EQ(ring.Begin(rig.stream, 1), ERR_SUCCESS);
    EXPECT_EQ(ring.Finish(rig.stream, 1), ERR_TIMEOUT);

    ASSERT_EQ(rig.stream.SetTimeout(5000), ERR_SUCCESS);
    ASSERT_EQ(ring.Begin(rig.stream, 1), ERR_SUCCESS);
    EXPECT_EQ(ring.Finish(rig.stream, 1), ERR_SUCCESS);
    EXPECT_FALSE(ring.got.empty());
}

TEST_F(UsbTest, ring_reports_refused_submission_and_unplug_at_the_collect) {
    Ring ring;
    Testable<FX20Stream> unbound;
    EXPECT_EQ(ring.Begin(unbound, 0), ERR_INVALID_DEVICE);
    EXPECT_EQ(ring.Finish(unbound, 0), ERR_INVALID_DEVICE);
    Rig<Fx20> rig;
    // The scan of SetUp released every idle transfer: none is allocated for slot 2.
    EXPECT_EQ(ring.Finish(rig.stream, 2), ERR_PARA_ERROR);
    ring.got.clear();  // a refused collect leaves the count untouched

    ASSERT_EQ(sim::InjectFault(rig.camera, sim::Fault::kSubmitError), ERR_SUCCESS);
    EXPECT_EQ(ring.Begin(rig.stream, 3), ERR_TRANSFER);
    EXPECT_EQ(ring.Finish(rig.stream, 3), ERR_TRANSFER);
    EXPECT_TRUE(ring.got.empty());

    for (int slot = 0; slot < kRingSlots; ++slot) {
        ASSERT_EQ(ring.Begin(rig.stream, slot), ERR_SUCCESS);
    }
    ASSERT_EQ(sim::Unplug(rig.camera), ERR_SUCCESS);
    for (int slot = 0; slot < kRingSlots; ++slot) {
        EXPECT_EQ(ring.Finish(rig.stream, slot), ERR_NO_DEVICE);
    }
    EXPECT_EQ(ring.Begin(rig.stream, 0), ERR_TRANSFER);
}

// ---- Start, stop and reset of the transports

template <typename K>
void CheckInUse() {
    Rig<K> rig;
    EXPECT_EQ(rig.stream.SetStop(), ERR_ALREADY_DONE);
    EXPECT_EQ(rig.stream.SetStart(), ERR_SUCCESS);
    EXPECT_EQ(rig.stream.SetStart(), ERR_ALREADY_DONE);
    EXPECT_EQ(K::Table().Entry(0).mInUse, 1);
    EXPECT_EQ(rig.stream.SetStop(), ERR_SUCCESS);

    typename K::Stream unbound;
    ASSERT_EQ(unbound.SetTimeout(77), ERR_SUCCESS);
    EXPECT_EQ(unbound.DevReset(), ERR_PARA_ERROR);
    EXPECT_EQ(unbound.GetTimeout(), 5000);
    EXPECT_EQ(unbound.SetStart(), ERR_PARA_ERROR);

    // Closing with an index that has no transfers still closes the list.
    ASSERT_GT(K::Table().DVSDeviceCount(), 0);
    K::Table().DVSClose(7);
    EXPECT_FALSE(K::Table().IsOpen());
}

TEST_F(UsbTest, start_marks_in_use_once_and_reset_restores_the_time_out) {
    CheckInUse<Fx20>();
    sim::UnplugAll();
    CheckInUse<Fx3>();
}

TEST_F(UsbTest, fx3_start_clears_the_halt_and_restores_the_time_out) {
    Rig<Fx3> rig;
    Bytes buf(2048);
    unsigned int n = 0;
    ASSERT_EQ(rig.stream.SetTimeout(100), ERR_SUCCESS);
    ASSERT_EQ(sim::InjectFault(rig.camera, sim::Fault::kStall), ERR_SUCCESS);
    EXPECT_EQ(rig.stream.ReadRawData(buf.data(), 2048, &n), ERR_TRANSFER);

    EXPECT_EQ(rig.stream.SetStart(), ERR_SUCCESS);
    EXPECT_EQ(rig.stream.GetTimeout(), 5000);
    EXPECT_EQ(rig.stream.ReadRawData(buf.data(), 2048, &n), ERR_SUCCESS);
    EXPECT_GT(n, 0u);

    // A second start is refused before any reset.
    ASSERT_EQ(rig.stream.SetTimeout(100), ERR_SUCCESS);
    ASSERT_EQ(sim::InjectFault(rig.camera, sim::Fault::kStall), ERR_SUCCESS);
    EXPECT_EQ(rig.stream.SetStart(), ERR_ALREADY_DONE);
    EXPECT_EQ(rig.stream.GetTimeout(), 100);
    EXPECT_EQ(rig.stream.ReadRawData(buf.data(), 2048, &n), ERR_TRANSFER);
    EXPECT_EQ(rig.stream.SetStop(), ERR_SUCCESS);
}

TEST_F(UsbTest, dev_reset_clears_the_halt_of_the_last_fetched_handle) {
    const int first = Plug(sim::Kind::kFX3);
    const int second = Plug(sim::Kind::kFX3);
    ASSERT_EQ(Scan(FX3Stream::Table()), 2);
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

TEST_F(UsbTest, fx3_reads_synchronously_and_maps_failures) {
    Rig<Fx3> rig(0);
    ASSERT_EQ(sim::StartCapture(rig.camera), ERR_SUCCESS);
    Bytes got;
    Bytes buf(2048);
    unsigned int n = 0;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(rig.stream.ReadRawData(buf.data(), 2048, &n), ERR_SUCCESS);
        got.insert(got.end(), buf.begin(), buf.begin() + n);
    }
    Bytes sent;
    ASSERT_EQ(sim::TakeCapture(rig.camera, sent), ERR_SUCCESS);
    EXPECT_EQ(got, sent);
    EXPECT_EQ(got.size(), 3u * 2048);

    ASSERT_EQ(rig.stream.SetTimeout(20), ERR_SUCCESS);
    ASSERT_EQ(sim::InjectFault(rig.camera, sim::Fault::kTimeout), ERR_SUCCESS);
    EXPECT_EQ(rig.stream.ReadRawData(buf.data(), 2048, &n), ERR_TIMEOUT);
    ASSERT_EQ(sim::InjectFault(rig.camera, sim::Fault::kTransferError), ERR_SUCCESS);
    EXPECT_EQ(rig.stream.ReadRawData(buf.data(), 2048, &n), ERR_TRANSFER);
    ASSERT_EQ(sim::Unplug(rig.camera), ERR_SUCCESS);
    EXPECT_EQ(rig.stream.ReadRawData(buf.data(), 2048, &n), ERR_NO_DEVICE);
}

// ---- The read thread, end to end on both kinds

template <typename K>
class ReadThread : public UsbTest {};
using Kinds = ::testing::Types<Fx20, Fx3>;
TYPED_TEST_SUITE(ReadThread, Kinds);

TYPED_TEST(ReadThread, start_stop_and_settings_answer_their_codes) {
    typename TypeParam::Stream unbound;
    EXPECT_EQ(unbound.Start(), ERR_INVALID_DEVICE);
    EXPECT_EQ(unbound.Stop(), ERR_ALREADY_DONE);
    Rig<TypeParam> rig;
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
    Rig<TypeParam> rig;
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
    EXPECT_TRUE(Eventually([&] { return drain.Taken() > 100; }));
    ASSERT_EQ(s.Stop(), ERR_SUCCESS);

    Bytes sent;
    ASSERT_EQ(sim::TakeCapture(rig.camera, sent), ERR_SUCCESS);
    ASSERT_GT(sent.size(), 4096u);
    const Bytes expected(sent.begin() + 4096, sent.end());
    EXPECT_TRUE(SavedBytes(saving) == expected);
    EXPECT_GT(saving.GetNodeCount(), 4);  // the saving pool grew instead of dropping
    EXPECT_TRUE(drain.StampsOk());
    const Bytes parsed = drain.Finish();
    ASSERT_GE(parsed.size(), 4u);
    EXPECT_TRUE(std::equal(parsed.begin(), parsed.begin() + 4, expected.begin()));
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
    Rig<TypeParam> rig(1024000);
    typename TypeParam::Stream& s = rig.stream;
    ASSERT_EQ(s.SetPPX(8), ERR_SUCCESS);
    PacketBuffer nobodyDrains(0, s.GetReadSize());
    s.SetPacketBuffer(&nobodyDrains);
    Notices notices;
    ASSERT_EQ(s.SetUsbDataRateCbk(&Notices::Rate, &notices), ERR_SUCCESS);
    ASSERT_EQ(s.SetPktBufDropCbk(&Notices::Drop, &notices), ERR_SUCCESS);
    const auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(s.Start(), ERR_SUCCESS);
    EXPECT_TRUE(Eventually([&] { return notices.Count() >= 2; }));
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

TYPED_TEST(ReadThread, unplug_while_streaming_ends_the_thread_and_stop_returns) {
    Rig<TypeParam> rig(2000000, 150);
    PacketBuffer main(16, rig.stream.GetReadSize());
    rig.stream.SetPacketBuffer(&main);
    Drain drain(main);
    ASSERT_EQ(rig.stream.Start(), ERR_SUCCESS);
    EXPECT_TRUE(Eventually([&] { return !rig.stream.IsReading(); }));
    EXPECT_GT(drain.Taken(), 0u);
    EXPECT_TRUE(rig.stream.IsRunning());  // until the owner stops it
    auto stopped = std::async(std::launch::async, [&] { return rig.stream.Stop(); });
    ASSERT_EQ(stopped.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(stopped.get(), ERR_SUCCESS);
    EXPECT_EQ(Scan(TypeParam::Table()), 0);
}

TYPED_TEST(ReadThread, register_access_and_rescans_while_streaming_are_survived) {
    // A slow camera: its transfers are still queued when each access closes the device list.
    Rig<TypeParam> rig(2000);
    PacketBuffer main(64, rig.stream.GetReadSize());
    rig.stream.SetPacketBuffer(&main);
    Drain drain(main);
    ASSERT_EQ(rig.stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(Eventually([&] { return drain.Taken() > 20; }));
    int value = 0;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(rig.stream.WriteI2CReg(0x20, i, i), ERR_SUCCESS);
        EXPECT_EQ(rig.stream.ReadI2CReg(0x20, i, value), ERR_SUCCESS);
        EXPECT_EQ(value, i);
        EXPECT_EQ(Scan(TypeParam::Table()), 1);
    }
    const size_t before = drain.Taken();
    EXPECT_TRUE(Eventually([&] { return drain.Taken() > before + 20; }));
    EXPECT_TRUE(rig.stream.IsReading());
    EXPECT_EQ(rig.stream.Stop(), ERR_SUCCESS);
}

// Each kind re-opens only its own device list: an FX3 camera's register writes and scans never
// end the transfers of an FX20 camera streaming meanwhile, nor hand it the FX3 camera's handle.
TEST_F(UsbTest, other_kinds_register_access_and_scans_leave_a_streaming_fx20_alone) {
    Rig<Fx20> fx20(200000);
    Rig<Fx3> fx3;
    PacketBuffer saving(4, fx20.stream.GetReadSize());
    saving.SetSaveStatus(true);
    PacketBuffer main(64, fx20.stream.GetReadSize());
    ASSERT_EQ(fx20.stream.SetSavingPacketBuffer(&saving), ERR_SUCCESS);
    fx20.stream.SetPacketBuffer(&main);
    Drain drain(main);
    ASSERT_EQ(sim::StartCapture(fx20.camera), ERR_SUCCESS);
    ASSERT_EQ(sim::StartCapture(fx3.camera), ERR_SUCCESS);
    ASSERT_EQ(fx20.stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(Eventually([&] { return drain.Taken() > 5; }));
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(fx3.stream.WriteI2CReg(0x20, i, i), ERR_SUCCESS);
        EXPECT_EQ(Scan(FX3Stream::Table()), 1);
        std::this_thread::sleep_for(2ms);
    }
    const size_t before = drain.Taken();
    EXPECT_TRUE(Eventually([&] { return drain.Taken() > before + 5; }));
    ASSERT_EQ(fx20.stream.Stop(), ERR_SUCCESS);

    Bytes sent;
    ASSERT_EQ(sim::TakeCapture(fx20.camera, sent), ERR_SUCCESS);
    EXPECT_FALSE(sent.empty());
    EXPECT_TRUE(SavedBytes(saving) == sent) << "every byte the FX20 camera sent, in order";
    Bytes fx3Sent;
    ASSERT_EQ(sim::TakeCapture(fx3.camera, fx3Sent), ERR_SUCCESS);
    EXPECT_TRUE(fx3Sent.empty()) << "nobody reads the FX3 camera";
    int value = -1;
    ASSERT_EQ(sim::ReadRegister(fx3.camera, 0x20, 19, value), ERR_SUCCESS);
    EXPECT_EQ(value, 19);
}

TYPED_TEST(ReadThread, saving_buffer_withdrawn_while_streaming_is_not_touched_again) {
    Rig<TypeParam> rig;
    auto saving = std::make_unique<PacketBuffer>(4, rig.stream.GetReadSize());
    saving->SetSaveStatus(true);
    ASSERT_EQ(rig.stream.SetSavingPacketBuffer(saving.get()), ERR_SUCCESS);
    ASSERT_EQ(rig.stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(Eventually([&] { return saving->GetNodeCount() > 8; }));
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
    Rig<TypeParam> rig;
    ASSERT_EQ(rig.stream.SetUsbDataRateCbk(&StopFromCallback, &rig.stream), ERR_SUCCESS);
    ASSERT_EQ(rig.stream.Start(), ERR_SUCCESS);
    EXPECT_TRUE(Eventually([&] { return !rig.stream.IsReading(); }));
    EXPECT_FALSE(rig.stream.IsRunning());
    EXPECT_EQ(rig.stream.Start(), ERR_SUCCESS);  // joins the old thread first
    EXPECT_EQ(rig.stream.Stop(), ERR_SUCCESS);
}

}  // namespace
}  // namespace evcam
