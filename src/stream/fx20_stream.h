// The device stream of a camera behind an FX20 controller (04B4:00F0): a ring of four
// asynchronous bulk transfers, register requests that carry the addresses in the payload of a
// write, and the kind's discovery.
#ifndef EVCAM_SRC_STREAM_FX20_STREAM_H
#define EVCAM_SRC_STREAM_FX20_STREAM_H

#include <libusb-1.0/libusb.h>

#include <atomic>
#include <cstdint>
#include <vector>

#include "evcam/usb_device.h"
#include "src/stream/device_stream.h"
#include "src/stream/usb_device_table.h"

namespace evcam {

/// Product id of the FX20 controller.
constexpr uint16_t kFX20ProductId = 0x00F0;

/// Completion record of one ring transfer, written by BulkTransferCallback on whichever thread
/// handles events and read by FinishRawXfer on the read thread; hence atomic.
struct TransferCtx {
    std::atomic<int32_t> mDone{0};    ///< 1 once completed, cancelled or refused at submission
    std::atomic<int32_t> mStatus{0};  ///< libusb_transfer_status, or a submission's error code
    std::atomic<uint32_t> mActualLength{0};
    /// Set by a successful submission, cleared when FinishRawXfer collects the slot: the
    /// transfer and its record belong to the read thread meanwhile, so DVSClose only cancels
    /// it (freeing it would leave USB writing into freed memory, and clearing the record would
    /// lose its result).
    std::atomic<bool> mClaimed{false};
};

/// FX20 transport. All FX20 streams share the kind's table (Table()), its transfers and its
/// scan lock, which guards device enumeration, binding, register access, synchronous reads
/// and, held for reading, the submission and cancellation of ring transfers (so that a register
/// access or a scan that re-opens the device list never interleaves with them).
///
/// A register access while the ring streams closes and re-opens the device list. The libusb
/// backend keeps the handle of a camera still attached, so the ring's transfers go on
/// undisturbed; where a backend ends them instead (the simulated bus: no-device), their bytes
/// are lost and the read thread re-queues each slot on the new list and goes on streaming. A
/// scan cancels the transfers a read thread still has to collect, and frees only the others:
/// they are lost the same way.
class FX20Stream : public DeviceStream {
  public:
    FX20Stream();
    /// Stops the stream and joins its read thread. Transfers stay allocated for the next
    /// stream of the same list index until DVSClose releases them.
    ~FX20Stream() override;

    /// Binds to device id devId (see DeviceStream::BindDevice). @return 0, 1, 101, 100, 201,
    /// 102. Blocks on USB requests under the scan lock.
    DVS_ERROR SetDVSID(unsigned int devId) override;
    /// DevSendRegReq(REG_READ, ...), through the virtual slot.
    DVS_ERROR ReadI2CReg(int slvAddr, int addr, int& val) override;
    /// DevSendRegReq(REG_WRITE, ...), through the virtual slot.
    DVS_ERROR WriteI2CReg(int slvAddr, int addr, int val) override;
    /// Time-out back to 5000 ms, then a clear-halt of endpoint 0x81 on the kind's last fetched
    /// handle. @return 0; 1 when unbound or the list index is above 1.
    DVS_ERROR DevReset() override;
    /// Marks the device in use; nothing is sent to it. @return 0, 1 when unbound, 4 when in use.
    DVS_ERROR SetStart() override;
    /// Marks the device free. @return 0, 1 when unbound, 4 when not in use.
    DVS_ERROR SetStop() override;
    /// One synchronous bulk read under the scan lock (held for reading); a stall clears the
    /// endpoint's halt. @return 0; 14; 102; 107 (a stall included); 1 for null pointers or no
    /// handle; 101 when unbound.
    DVS_ERROR ReadRawData(unsigned char* buf, unsigned int len, unsigned int* actual) override;
    /// Submits the slot's transfer (allocated once per list index and slot) for len bytes,
    /// which FinishRawXfer copies into buf; buf must stay valid until then. @return 0; 1 for null
    /// buf, slot outside 0..3 or no handle; 101 when unbound, absent or the list index is above 2;
    /// 4 when the slot is still in flight; 107 when the transfer cannot be allocated or submitted
    /// (the next FinishRawXfer then answers 107).
    DVS_ERROR BeginRawXfer(unsigned char* buf, unsigned int len, int slot) override;
    /// Waits for the slot's transfer in 1 ms event polls (at least one, at most polls) and
    /// copies its bytes into the buffer BeginRawXfer was given for the slot. On time-out (or
    /// when the event loop reports the device gone) cancels it and waits until the
    /// cancellation completes, so that the transfer is never reused while USB owns it. A
    /// stalled transfer clears the endpoint's halt before returning. buf is only checked for
    /// null and len is unused. The calling thread must be the one that called BeginRawXfer;
    /// completion callbacks run on it or on any other thread that handles USB events.
    /// @return 0 with bytes; 14 for a time-out, a cancellation or no bytes (*actual 0 after a
    ///         time-out); 102 when the device is gone; 107 for other failures, including a
    ///         refused submission; 1 for null pointers, a bad slot or no transfer; 101 as
    ///         BeginRawXfer.
    DVS_ERROR FinishRawXfer(unsigned char* buf, unsigned int len, unsigned int* actual, int polls,
                            int slot) override;
    /// Register read (three attempts, the trace line on success) or write of one byte.
    /// @return 0; 102 when no camera is listed; 101 when unbound; 1 for a type above 1 or a
    ///         value width other than 1, or no handle for a write; 106 / 105 when the request
    ///         fails. Blocks on USB requests.
    virtual DVS_ERROR DevSendRegReq(RegReqType type, int slvAddr, int addr, int& val);

    /// The FX20 table, made on first use and kept for the life of the process.
    static UsbDeviceTable& Table();
    /// Discovery over the FX20 table (UsbDeviceTable::ScanDVSDevice).
    static DVS_ERROR ScanDVSDevice(USBDevice** list, int& count);
    static bool GetDevDescriptor(unsigned int cyIndex, DevUSBItem& item, char* text);
    static DVS_ERROR GetCypressDevID(int devId, unsigned char& cyIndex);
    /// Completion callback of the ring transfers: fills the TransferCtx in user_data.
    static void BulkTransferCallback(libusb_transfer* transfer);

  private:
    /// Releases the four transfers of list index idx: one a read thread has still to collect is
    /// only cancelled; the others are freed and their records cleared. Runs under the scan
    /// lock held for writing (or with no read thread alive); never waits for another thread.
    static void ReleaseTransfers(int idx);

    DevDBEntry* mDevEntry = nullptr;  ///< changed only while stopped (binding)
    /// List index each ring slot was last submitted on; -1 before. Read thread only.
    int mSlotIndex[kRingSlots] = {-1, -1, -1, -1};
    /// The caller's buffer of each ring slot, filled when the slot is collected. Read thread
    /// only.
    unsigned char* mSlotTarget[kRingSlots] = {};

    /// Guarded by the scan lock: written with it held for writing, or for reading by the one
    /// read thread that owns the slot.
    static libusb_transfer* mTransfers[kDevTableSize][kRingSlots];
    static TransferCtx mTransferCtx[kDevTableSize][kRingSlots];
    /// What USB fills for each transfer. The caller's buffer gets the bytes only when the
    /// slot is collected: any thread that handles USB events may complete a transfer, and the
    /// read thread re-queues a slot before it copies the slot's data out. Each buffer belongs
    /// to the read thread that has its transfer claimed; it only grows, while unclaimed.
    static std::vector<unsigned char> mSlotBuffers[kDevTableSize][kRingSlots];
};

}  // namespace evcam

#endif  // EVCAM_SRC_STREAM_FX20_STREAM_H
