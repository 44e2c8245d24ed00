// One simulated camera as its USB controller shows it: identity, a register file behind vendor
// requests, and a bulk IN endpoint streaming sensor words in real time. It knows nothing of
// handles, lists or threads, so that any USB front end (the simulated bus, or a later
// emulation at the kernel interface) can drive it.
#ifndef EVCAM_SRC_SIM_SIM_CAMERA_H
#define EVCAM_SRC_SIM_SIM_CAMERA_H

#include <libusb-1.0/libusb.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "evcam/sim.h"
#include "src/sim/stream_source.h"

namespace evcam {

/// The model is a pure function of time: every call takes the current time, and the endpoint
/// works out what happened since the last call (packets filled, short packets sent, time-outs,
/// a scheduled unplug) as if it had been watched all along. Not thread-safe: the front end
/// serialises every call and passes non-decreasing times.
class SimCamera {
  public:
    using Clock = std::chrono::steady_clock;
    using TimePoint = Clock::time_point;
    static constexpr TimePoint kNever = TimePoint::max();

    static constexpr uint16_t kVendorId = 0x04B4;
    static constexpr uint16_t kFX20ProductId = 0x00F0;
    static constexpr uint16_t kFX3ProductId = 0x00F1;
    static constexpr uint8_t kDataEndpoint = 0x81;
    static constexpr uint8_t kReadRequest = 0xAB;
    static constexpr uint8_t kWriteRequest = 0xBA;
    /// Bytes the controller buffers while the host does not read. Beyond that the sensor's
    /// output is lost: production pauses until the host reads again, so the delivered byte
    /// stream itself stays continuous.
    static constexpr uint64_t kFifoBytes = 128 * 1024;
    /// A partial packet waits this long for more data before the controller sends it short.
    static constexpr std::chrono::milliseconds kCommitDelay{1};

    /// One bulk read travelling through the endpoint. The front end owns it and keeps it
    /// alive while queued (from SubmitIn until done or AbortIn).
    struct InRequest {
        uint8_t* buffer = nullptr;
        int length = 0;
        TimePoint submitted{};
        TimePoint deadline = kNever;  ///< submission + time-out; kNever for none
        // Written by the camera.
        int moved = 0;  ///< bytes in buffer so far
        bool done = false;
        libusb_transfer_status status = LIBUSB_TRANSFER_COMPLETED;
        TimePoint doneAt{};

      private:
        friend class SimCamera;
        enum class Fate { kNormal, kTimeout, kError };
        Fate fate = Fate::kNormal;
        int target = 0;  ///< bytes after which the transfer ends (half its length when short)
    };

    /// config must be resolved (address and packet size set, kZeroPacketSize allowed);
    /// source must not be null.
    SimCamera(const sim::CameraConfig& config, std::unique_ptr<StreamSource> source);

    sim::Kind GetKind() const { return mConfig.kind; }
    uint16_t VendorId() const { return kVendorId; }
    uint16_t ProductId() const;
    int Bus() const { return mConfig.bus; }
    int Address() const { return mConfig.address; }
    /// Bytes per packet of the data endpoint; 0 for a broken descriptor.
    int MaxPacketSize() const;

    /// False from the moment of an unplug (immediate or scheduled) on.
    bool Present(TimePoint now) const { return now < mUnplugAt; }
    /// Unplugs now: reads not done end with LIBUSB_TRANSFER_NO_DEVICE. @return false when it
    /// was already unplugged.
    bool Unplug(TimePoint now);

    /// One control request on endpoint 0; data holds wLength bytes. A request the camera
    /// accepts moves wLength bytes; a request in another convention, for an unknown
    /// bRequest, or with the wrong direction stalls; every request that reaches a present
    /// camera is logged. @return wLength, LIBUSB_ERROR_PIPE, LIBUSB_ERROR_IO (injected) or
    /// LIBUSB_ERROR_NO_DEVICE (unplugged, not logged).
    int Control(TimePoint now, uint8_t bmRequestType, uint8_t bRequest, uint16_t wValue,
                uint16_t wIndex, uint8_t* data, uint16_t wLength);

    /// Queues a read of the data endpoint; the first read after plugging or a clear-halt
    /// starts the stream. A halted endpoint completes the read at once with a stall.
    /// @return 0; LIBUSB_ERROR_NO_DEVICE when unplugged; LIBUSB_ERROR_IO when an injected
    ///         submission fault refuses it (nothing queued then).
    int SubmitIn(InRequest& request, TimePoint now);
    /// Ends a queued read at now with status, keeping what it received; nothing when it is
    /// done or not queued.
    void AbortIn(InRequest& request, libusb_transfer_status status, TimePoint now);
    /// Brings the endpoint up to now: fills and completes queued reads in order.
    /// @return the earliest time at which something may change without a call (kNever).
    TimePoint Advance(TimePoint now);
    /// Clears a halt; the stream resumes at the next read. @return 0, or
    /// LIBUSB_ERROR_NO_DEVICE when unplugged.
    int ClearHalt(TimePoint now);

    /// Arms a fault (see sim::Fault); count is at least 1.
    void InjectFault(sim::Fault fault, int count, TimePoint now);

    /// The register file: slave address (low 8 bits) and register address (low 16 bits).
    int ReadRegister(int slave, int reg) const;
    void WriteRegister(int slave, int reg, int value);
    const std::vector<sim::ControlRequest>& ControlLog() const { return mLog; }
    void ClearControlLog() { mLog.clear(); }

    void StartCapture();
    /// @return false when no capture runs.
    bool TakeCapture(std::vector<uint8_t>& bytes);
    uint64_t BytesSent() const { return mBytesSent; }

  private:
    static uint32_t RegisterKey(int slave, int reg);
    /// Control request bodies; both return the result of Control.
    int ReadRequest(uint8_t bmRequestType, uint16_t wValue, uint16_t wIndex, uint8_t* data,
                    uint16_t wLength, sim::ControlRequest& entry);
    int WriteRequest(uint8_t bmRequestType, uint16_t wValue, uint16_t wIndex, const uint8_t* data,
                     uint16_t wLength);

    /// Moves the head read forward to horizon. @return true when it is done; otherwise
    /// next receives the time of its next event.
    bool Fill(InRequest& request, TimePoint horizon, TimePoint& next);
    bool Finish(InRequest& request, libusb_transfer_status status, TimePoint at);
    /// Ends a read whose last packet does not fit its remaining room: a short fault takes
    /// what fits and completes, a plain read overflows.
    bool EndWithLastPacket(InRequest& request, TimePoint at);
    void Deliver(InRequest& request, int n);
    /// Bytes the sensor has produced by t since plugging.
    uint64_t Produced(TimePoint t) const;
    /// Bytes waiting in the controller at t; drops what exceeds the FIFO.
    uint64_t Ready(TimePoint t);
    /// Earliest time at which byte number count (from 1) of the stream exists.
    TimePoint TimeOfByte(uint64_t count) const;
    /// True when a full packet always forms before a partial one would be sent short.
    /// Only for a running stream with a byte rate.
    bool PacketsOutpaceCommit() const;
    void StopStream(TimePoint now);

    sim::CameraConfig mConfig;
    std::unique_ptr<StreamSource> mSource;
    std::map<uint32_t, uint16_t> mRegisters;
    std::vector<sim::ControlRequest> mLog;

    std::deque<InRequest*> mQueue;
    TimePoint mCursor{};  ///< time up to which the endpoint has been worked out
    TimePoint mUnplugAt = kNever;
    bool mEverStarted = false;
    bool mRunning = false;  ///< the sensor produces (between a read and a stall)
    bool mHalted = false;
    TimePoint mRunStart{};
    uint64_t mProducedBase = 0;  ///< bytes produced before the current run
    uint64_t mConsumed = 0;      ///< bytes taken from the source (sent or lost in overflow)
    uint64_t mDropped = 0;       ///< bytes the full FIFO could not take
    uint64_t mBytesSent = 0;

    int mSubmitErrors = 0;
    int mTransferErrors = 0;
    int mTimeouts = 0;
    int mShortTransfers = 0;
    int mControlErrors = 0;

    bool mCapturing = false;
    std::vector<uint8_t> mCapture;
};

}  // namespace evcam

#endif  // EVCAM_SRC_SIM_SIM_CAMERA_H
