// What the transport tests share over either bus (the simulated one or the emulated one under
// the real libusb backend): the two kinds as type parameters, scans, control requests as
// comparable values, a parse-thread stand-in that drains a packet pool, and the FX20 ring of
// transfers driven by hand.
#ifndef EVCAM_TESTS_SUPPORT_USB_SUPPORT_H
#define EVCAM_TESTS_SUPPORT_USB_SUPPORT_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <tuple>
#include <vector>

#include "evcam/sim.h"
#include "src/data/dvs_packet.h"
#include "src/data/packet_buffer.h"
#include "src/stream/fx20_stream.h"
#include "src/stream/fx3_stream.h"
#include "tests/support/test_support.h"

namespace evcam {

/// A transport whose sensor version (normally from a bias file) and register value width a
/// test may set.
template <typename Base>
class Testable : public Base {
  public:
    using Base::SetSensorVersion;
    int I2cValueLen(int) const override { return width; }
    int width = 1;
};

/// A logged control request: bmRequestType, bRequest, wValue, wIndex, wLength, data, result.
using Wire = std::tuple<int, int, int, int, int, Bytes, int>;

inline std::vector<Wire> Wires(const std::vector<sim::ControlRequest>& log) {
    std::vector<Wire> wires;
    for (const sim::ControlRequest& r : log) {
        wires.emplace_back(r.bmRequestType, r.bRequest, r.wValue, r.wIndex, r.wLength, r.data,
                           r.result);
    }
    return wires;
}

/// One kind of camera as a type parameter: its stream, table and endpoint packet size, and
/// how a one-byte register write of that kind travels.
template <typename S, sim::Kind K, int P>
struct KindOf {
    using Stream = Testable<S>;
    static constexpr sim::Kind kSim = K;
    static constexpr int kPacket = P;
    static UsbDeviceTable& Table() { return S::Table(); }
    static Wire Write(int slave, int reg, int value) {
        if (K == sim::Kind::kFX20) {
            // Slave and big-endian register address in the payload.
            return {0x40, 0xBA,
                    0,    0,
                    4,    Bytes{uint8_t(slave), uint8_t(reg >> 8), uint8_t(reg), uint8_t(value)},
                    4};
        }
        // Addresses in the setup packet, only the value in the data stage.
        return {0x40, 0xBA, slave, reg, 1, Bytes{uint8_t(value)}, 1};
    }
};
using Fx20 = KindOf<FX20Stream, sim::Kind::kFX20, 512>;
using Fx3 = KindOf<FX3Stream, sim::Kind::kFX3, 1024>;
using Kinds = ::testing::Types<Fx20, Fx3>;

/// Scans table and expects success. Takes the table's scan lock. @return the cameras listed.
inline int ScanCount(UsbDeviceTable& table) {
    USBDevice* list = nullptr;
    int count = 0;
    EXPECT_EQ(table.ScanDVSDevice(&list, count), ERR_SUCCESS);
    return count;
}

/// Plugs a camera of kind on the process's simulated bus, sending at byteRate (0 = as fast as
/// the host reads) and unplugging itself unplugAfterMs after its stream starts (-1 = never).
/// @return the camera id; -1 (reported as a failure) when it could not be plugged.
inline int PlugSim(sim::Kind kind, uint64_t byteRate = 2000000, int unplugAfterMs = -1) {
    sim::CameraConfig config;
    config.kind = kind;
    config.byteRate = byteRate;
    config.unplugAfterMs = unplugAfterMs;
    const int id = sim::Plug(config);
    EXPECT_GE(id, 0);
    return id;
}

/// Every test starts on the process's simulated bus, empty, with both kinds' tables scanned
/// empty (the tables are process-wide); everything is unplugged after.
class SimBusTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(sim::Enable(), ERR_SUCCESS);
        sim::UnplugAll();
        ScanCount(FX20Stream::Table());
        ScanCount(FX3Stream::Table());
    }
    void TearDown() override { sim::UnplugAll(); }
};

/// One simulated camera of kind K, plugged, scanned and bound to a stream of the given sensor
/// version (normally set by a bias file). Expects an empty bus (SimBusTest).
template <typename K, typename Stream = typename K::Stream>
struct SimRig {
    explicit SimRig(uint64_t byteRate = 2000000, int unplugAfterMs = -1,
                    DVS_VERSION version = MVT94QX)
        : camera(PlugSim(K::kSim, byteRate, unplugAfterMs)) {
        EXPECT_EQ(ScanCount(K::Table()), 1);
        EXPECT_EQ(stream.SetDVSID(0), ERR_SUCCESS);
        stream.SetSensorVersion(version);
    }
    int camera;
    Stream stream;
};

/// Stands in for the parse thread: a thread of its own takes every packet of a pool as it
/// arrives, keeps its bytes and checks its stamps. The pool must outlive the drain.
class Drain {
  public:
    explicit Drain(PacketBuffer& buffer) : mBuffer(buffer) {
        mBuffer.SetProcessStatus(true);
        mThread = std::thread([this] { Run(); });
    }
    ~Drain() { Finish(); }
    Drain(const Drain&) = delete;
    Drain& operator=(const Drain&) = delete;

    /// Stops after taking what is left; blocks until the thread ends. @return every packet
    /// taken, in order.
    const std::vector<Bytes>& Finish() {
        if (mThread.joinable()) {
            mStop = true;
            mThread.join();
        }
        return mPackets;
    }
    /// Finish, then every byte taken, in order.
    Bytes Joined() {
        Bytes all;
        for (const Bytes& p : Finish()) {
            all.insert(all.end(), p.begin(), p.end());
        }
        return all;
    }
    size_t Taken() const { return mTaken; }
    /// Waits up to 5 s for more packets to arrive. @return whether they did.
    bool Flows(size_t packets = 20) const {
        const size_t before = mTaken;
        return WaitUntil([&] { return mTaken >= before + packets; });
    }
    /// Whether every packet carried the version and device identity of a bound stream of
    /// version 1 on device 0.
    bool StampsOk() const { return !mBadStamp; }

  private:
    void Run() {
        for (;;) {
            const bool last = mStop;
            while (DVSPacket* p = mBuffer.GetADataNode()) {
                mPackets.emplace_back(p->mData, p->mData + p->mDataLen);
                mBadStamp = mBadStamp || p->mVersion != MVT94QX || p->mDVSID != 0;
                ++mTaken;
                mBuffer.PutANodeToFreeList(p);
            }
            if (last) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    PacketBuffer& mBuffer;
    std::thread mThread;
    std::atomic<bool> mStop{false};
    std::atomic<size_t> mTaken{0};
    std::atomic<bool> mBadStamp{false};
    std::vector<Bytes> mPackets;  ///< the drain thread's until Finish
};

/// The recorder's side of a saving pool: takes every saved packet. Call after the stream
/// stopped. @return their bytes, in order.
inline Bytes SavedBytes(PacketBuffer& buffer) {
    Bytes bytes;
    while (DVSPacket* p = buffer.GetASaveNode()) {
        bytes.insert(bytes.end(), p->mData, p->mData + p->mDataLen);
        buffer.PutANodeToFreeList(p);
    }
    return bytes;
}

/// The FX20 ring of transfers, driven by hand on the test's thread: a buffer per slot and
/// every byte collected so far.
struct Ring {
    explicit Ring(unsigned int size = 1024) : size(size), buffers(kRingSlots, Bytes(size, 0xEF)) {}
    DVS_ERROR Begin(FX20Stream& s, int slot) {
        return s.BeginRawXfer(buffers[slot].data(), size, slot);
    }
    /// Collects slot, waiting up to polls ms; the bytes received are appended to got.
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

}  // namespace evcam

#endif  // EVCAM_TESTS_SUPPORT_USB_SUPPORT_H
