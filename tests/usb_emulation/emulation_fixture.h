// What the emulation tests share: a test fixture that starts every test from an empty emulated
// bus under the real libusb backend, and small helpers to plug, scan, wait and drain.
#ifndef EVCAM_TESTS_USB_EMULATION_EMULATION_FIXTURE_H
#define EVCAM_TESTS_USB_EMULATION_EMULATION_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "emulated_bus.h"
#include "src/data/dvs_packet.h"
#include "src/data/packet_buffer.h"
#include "src/platform/libusb_backend.h"
#include "src/platform/usb_backend.h"
#include "src/stream/fx20_stream.h"
#include "src/stream/fx3_stream.h"

namespace evcam {

using Bytes = std::vector<uint8_t>;

/// Plugs a camera of kind on bus at byteRate (0 = as fast as the host reads).
inline int PlugCamera(sim::Kind kind, uint64_t byteRate = 2000000, int bus = 1,
                      int packetSize = 0) {
    sim::CameraConfig config;
    config.kind = kind;
    config.bus = bus;
    config.byteRate = byteRate;
    config.maxPacketSize = packetSize;
    const int id = EmulatedBus::Instance().Plug(config);
    EXPECT_GE(id, 0);
    return id;
}

/// Scans table; expects success. @return the number of cameras listed.
inline int ScanCount(UsbDeviceTable& table) {
    USBDevice* list = nullptr;
    int count = 0;
    EXPECT_EQ(table.ScanDVSDevice(&list, count), ERR_SUCCESS);
    return count;
}

/// Waits up to 5 s for done(), polling every 2 ms.
template <typename Pred>
bool Eventually(Pred done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// Every test starts on an empty emulated bus that the real libusb backend serves, with both
/// kinds' tables scanned empty (the tables are process-wide).
class EmulationTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // The testbed must exist before libusb starts, so it comes first.
        EmulatedBus& bus = EmulatedBus::Instance();
        ASSERT_TRUE(EmulatedBus::Preloaded())
            << "run under the umockdev preload (run_emulated.sh), or libusb sees the real bus";
        ASSERT_NE(dynamic_cast<LibusbBackend*>(&ActiveUsbBackend()), nullptr)
            << "the real libusb backend must serve these tests";
        bus.UnplugAll();
        ScanCount(FX20Stream::Table());
        ScanCount(FX3Stream::Table());
    }
    void TearDown() override { EmulatedBus::Instance().UnplugAll(); }
};

/// Stands in for the parse thread: takes every packet of a pool as it arrives and keeps the
/// bytes, each packet as one chunk.
class Drain {
  public:
    explicit Drain(PacketBuffer& buffer) : mBuffer(buffer) {
        mBuffer.SetProcessStatus(true);
        mThread = std::thread([this] { Run(); });
    }
    ~Drain() { Finish(); }
    Drain(const Drain&) = delete;
    Drain& operator=(const Drain&) = delete;

    /// Stops after taking what is left. @return every packet taken, in order.
    const std::vector<Bytes>& Finish() {
        if (mThread.joinable()) {
            mStop = true;
            mThread.join();
        }
        return mPackets;
    }
    size_t Taken() const { return mTaken; }
    /// Identity and version of the last packet taken.
    uint32_t LastDVSID() const { return mLastDVSID; }

  private:
    void Run() {
        for (;;) {
            const bool last = mStop;
            while (DVSPacket* p = mBuffer.GetADataNode()) {
                mPackets.emplace_back(p->mData, p->mData + p->mDataLen);
                mLastDVSID = p->mDVSID;
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
    std::atomic<uint32_t> mLastDVSID{kNoDVSID};
    std::vector<Bytes> mPackets;  ///< the drain thread's until Finish
};

/// The recorder's side of a saving pool, read after the stream stopped.
inline Bytes SavedBytes(PacketBuffer& buffer) {
    Bytes bytes;
    while (DVSPacket* p = buffer.GetASaveNode()) {
        bytes.insert(bytes.end(), p->mData, p->mData + p->mDataLen);
        buffer.PutANodeToFreeList(p);
    }
    return bytes;
}

}  // namespace evcam

#endif  // EVCAM_TESTS_USB_EMULATION_EMULATION_FIXTURE_H
