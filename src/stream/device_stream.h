// The source of a live camera: a read thread that keeps up to four USB transfers in flight and
// copies what they bring into the recorder's and the parser's packet buffers.
#ifndef EVCAM_SRC_STREAM_DEVICE_STREAM_H
#define EVCAM_SRC_STREAM_DEVICE_STREAM_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

#include "src/stream/bias_file.h"
#include "src/stream/stream.h"
#include "src/stream/usb_device_table.h"

namespace evcam {

class DVSPacket;

/// Transfers kept in flight by the read thread.
constexpr int kRingSlots = 4;

/// Live source. The transports (FX20Stream, FX3Stream) supply the device operations; this class
/// runs the read thread over them.
///
/// Threads: the owner calls every public operation from one thread at a time. The read thread
/// calls the transport's BeginRawXfer, FinishRawXfer, ReadRawData and DevReset, the packet
/// buffers, and the rate and drop callbacks (which must not destroy the stream; they may call
/// Stop, which then does not wait for the thread it runs on).
///
/// The read thread ends by itself when the device is gone: at once when a transfer answers 101
/// (the latest scan no longer lists the camera), or when requests keep failing with 1 or 102
/// (no handle, no device) for 250 ms with no transfer getting through. Shorter failures, as
/// when a register access or a scan closes and re-opens the device list under a streaming
/// thread, are survived and streaming goes on. Over libusb a register access keeps the handles
/// of attached cameras and loses nothing; a scan (the FX20 transport cancels its ring) and the
/// simulated bus lose the transfers in flight. The stream
/// stays marked running until Stop, as it always was; IsReading() tells whether data still
/// flows.
class DeviceStream : public Stream {
  public:
    /// Joins a read thread still alive. The transports stop the stream in their own
    /// destructors, while their part of the object still exists.
    ~DeviceStream() override;

    /// Marks the device in use (SetStart) and starts the read thread.
    /// @return 0; 101 when unbound; 5 before a bias file set the version; 4 when running or
    ///         when SetStart answers 4; 2 when the system refuses a thread (SetStop undoes
    ///         SetStart). Does not block on USB.
    DVS_ERROR Start() override;
    /// SetStop, then clears the running flag and joins the thread, which first collects what
    /// is still in flight: up to four transfers, each ending within the USB time-out (at once
    /// when the device is gone). Called from a callback on the read thread it does not join.
    /// @return 0; 4 when not running; 101 when unbound.
    DVS_ERROR Stop() override;
    /// Back to PPX 2, time-out 5000 ms, no version, no drop callback, zero rate and drop
    /// counts. The rate callback, the skip count and the transfer size stay (so the transfer
    /// size may disagree with PPX until the next SetPPX). @return 0, or 201 while running.
    DVS_ERROR Reset() override;
    /// Transfers of ppx endpoint packets. @return 0; 201 while running; 1 unless 1..512.
    DVS_ERROR SetPPX(unsigned int ppx) override;
    /// USB time-out for the next transfers. @return 0, or 1 for timeoutMs <= 0.
    DVS_ERROR SetTimeout(int timeoutMs) override;
    /// Drops the next bytes before delivering; a value that is not a multiple of 4 is ignored.
    /// Seen by the read thread at its next transfer.
    void SetSkipBytes(unsigned int bytes) override;
    /// @return 0, or 1 for null.
    DVS_ERROR GetVersion(int* version) override;
    /// Called on the read thread about once a second with user and the data rate in KiB/s.
    /// @return 0, or 1 for null.
    DVS_ERROR SetUsbDataRateCbk(void (*callback)(void*, double), void* user) override;
    /// Called on the read thread, with user, the dropped and the offered packet counts, about
    /// once a second while the parser's buffer keeps dropping. @return 0, or 1 for null.
    DVS_ERROR SetPktBufDropCbk(void (*callback)(void*, unsigned long, unsigned long),
                               void* user) override;
    /// The parser's pool; may be changed (to null) while the thread runs: the thread stops
    /// delivering to it at its next transfer, and the pool must live until Stop returns.
    /// @return 0.
    DVS_ERROR SetPacketBuffer(PacketBuffer* buffer) override;

    /// Loads a bias settings file: checks its header (IsValidBiasFile), takes its version,
    /// then writes its register lines in file order through WriteI2CReg and sleeps its wait
    /// lines. A last line without a line feed is not applied. The version stays even when a
    /// write fails; the registers written before stay too. Blocks on USB and on the waits.
    /// Owner's thread.
    /// @return 0; 1 for a null or empty path, or one of 260 bytes or more; 101 when unbound;
    ///         100 while running; 207 for an invalid file; 202 when it cannot be reopened;
    ///         the result of a failed write (after "ERROR: write register fail:..." on
    ///         standard output).
    DVS_ERROR SetBias(const char* path) override;

    /// Checks the header of the file item.filePath (read in lines of up to 511 bytes, a last
    /// line without line feed included) and fills dvsVersion, isCDVS and description.
    /// @return true when the header is complete and in order. Any thread.
    static bool IsValidBiasFile(BiasFileItem& item);

    /// The recorder's pool, filled before the parser's and never dropped from. With a pool:
    /// disables its dropping and takes it on success. With null: forgets the pool and blocks
    /// (1 ms sleeps) until the read thread is out of its saving step, so the old pool may be
    /// destroyed on return. @return the EnableDropData result, or 0 for null.
    virtual DVS_ERROR SetSavingPacketBuffer(PacketBuffer* buffer);

    /// Recovers the data endpoint after a time-out; called on the read thread. Resets the USB
    /// time-out to 5000 ms first.
    virtual DVS_ERROR DevReset() = 0;
    /// Marks the bound device in use. @return 0, 1 when unbound, 4 when already in use.
    virtual DVS_ERROR SetStart() = 0;
    /// Marks the bound device free. @return 0, 1 when unbound, 4 when not in use.
    virtual DVS_ERROR SetStop() = 0;
    /// One blocking read of up to len bytes into buf within the USB time-out; *transferred gets
    /// the count. @return 0, 14, 102, 107, 1 or 101 (see the transports).
    virtual DVS_ERROR ReadRawData(unsigned char* buf, unsigned int len,
                                  unsigned int* transferred) = 0;
    /// Queues a read of len bytes into buf under ring slot index; buf must stay valid until
    /// FinishRawXfer collects the slot. Only asynchronous transports override it.
    /// @return 0 here (nothing is queued).
    virtual DVS_ERROR BeginRawXfer(unsigned char* buf, unsigned int len, int index);
    /// Waits about timeout ms for the read of slot index and reports its byte count.
    /// @return here: ReadRawData(buf, len, transferred), timeout and index unused.
    virtual DVS_ERROR FinishRawXfer(unsigned char* buf, unsigned int len, unsigned int* transferred,
                                    int timeout, int index);

    /// Width in bytes of the value of a sensor register: 1 for every register. Virtual only so
    /// that tests can exercise the two-byte path of a transport.
    virtual int I2cValueLen(int reg) const;

    /// Bytes per transfer: PPX x the endpoint's packet size. Owner's thread.
    int GetReadSize() const { return mReadSize; }
    /// USB time-out in ms (DevReset may change it on the read thread).
    int GetTimeout() const { return mTimeout; }
    /// Device id of the bound camera, or 0xFFFFFFFF.
    uint32_t GetDVSID() const { return mDVSID; }
    /// Started and not yet stopped.
    bool IsRunning() const { return mRunningStatus; }
    /// The read thread has not ended (it ends at Stop, or by itself when the device is gone).
    bool IsReading() const { return mReading; }

  protected:
    /// asynchronous: the transport overrides BeginRawXfer and FinishRawXfer and keeps four
    /// transfers in flight; otherwise each transfer is one ReadRawData.
    explicit DeviceStream(bool asynchronous);

    /// Sets the sensor version the packets are stamped with. The bias file sets it; a test
    /// that needs a started stream derives from a transport and calls it (for example through
    /// a using-declaration).
    void SetSensorVersion(DVS_VERSION version) { mVersion = version; }
    /// Binds the stream to entry devId of table, holding lock for writing around the list
    /// checks; on success the endpoint's packet size becomes the PPX unit (a size that is not
    /// positive leaves the unit as it was, so that a transfer is never empty). entry receives
    /// the table entry once the list answers, even when the ids then disagree.
    /// @return 0; 1 for devId above 2; 101 for an absent entry or other ids; 100 when the
    ///         entry is in use; 201 while running; 102 when no camera is listed.
    DVS_ERROR BindDevice(UsbDeviceTable& table, RWLock& lock, unsigned int devId,
                         DevDBEntry*& entry);
    /// Stops the stream if running and joins the read thread in every case; the transports'
    /// destructors call it. Owner's thread.
    void EndReadThread();

    /// Identity stamped on the packets; 0xFFFFFFFF while unbound. Changed only while stopped.
    std::atomic<uint32_t> mDVSID{0xFFFFFFFFu};
    /// USB time-out in ms; the read thread's DevReset writes it too.
    std::atomic<int> mTimeout{static_cast<int>(kDefaultUsbTimeoutMs)};

  private:
    /// The read thread.
    void ReadLoop();
    /// Rate measurement and delivery of n bytes of buf. Read thread.
    void Deliver(const unsigned char* buf, unsigned int n);
    /// Copies len bytes into node and stamps it.
    void Fill(DVSPacket* node, const unsigned char* data, unsigned int len);
    /// Joins a thread that is stopping or has ended. @return false on the read thread itself.
    bool JoinReadThread();

    const bool mAsynchronous;
    std::atomic<DVS_VERSION> mVersion{SELECT_VERSION};
    std::thread mReadThread;  ///< owner's thread only
    /// Changed only while stopped; the read thread reads it once at its start.
    int32_t mReadSize = 2048;
    std::atomic<bool> mRunningStatus{false};
    std::atomic<bool> mReading{false};
    uint32_t mPPX = 2;         ///< changed only while stopped
    uint32_t mPPXUnit = 1024;  ///< changed only while stopped (binding)
    std::atomic<uint32_t> mSkipBytes{0};
    /// The parser's pool as the read thread sees it (the base's field is the owner's copy).
    std::atomic<PacketBuffer*> mMainPacketBuffer{nullptr};
    /// Handshake: the thread raises mSavingBusy before it loads mSavingPacketBuffer and lowers
    /// it after its last use; SetSavingPacketBuffer(null) stores null before it waits for the
    /// flag to fall. Both sequentially consistent, so one of the two sees the other.
    std::atomic<PacketBuffer*> mSavingPacketBuffer{nullptr};
    std::atomic<bool> mSavingBusy{false};

    std::mutex mCbkLock;  ///< guards the four callback fields below
    void (*mUsbDataRateCbk)(void*, double) = nullptr;
    void* mUsbDataRateUser = nullptr;
    void (*mPktBufDropCbk)(void*, unsigned long, unsigned long) = nullptr;
    void* mPktBufDropUser = nullptr;

    // Rate and drop periods: the read thread's own, reset by Reset only while stopped.
    uint64_t mRateBytes = 0;
    uint64_t mRateStart = 0;
    uint64_t mDropCount = 0;
    uint64_t mPacketCount = 0;
    uint64_t mDropStart = 0;
};

}  // namespace evcam

#endif  // EVCAM_SRC_STREAM_DEVICE_STREAM_H
