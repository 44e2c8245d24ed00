// The per-controller-kind USB state shared by every stream of that kind: the device list
// opened through cyusb, the table that gives cameras stable device ids, the control and bulk
// requests on a listed device, and discovery. FX20Stream and FX3Stream each own one table; the
// code is the same, only the product id, the locks and the transfer release differ.
#ifndef EVCAM_SRC_STREAM_USB_DEVICE_TABLE_H
#define EVCAM_SRC_STREAM_USB_DEVICE_TABLE_H

#include <libusb-1.0/libusb.h>

#include <atomic>
#include <cstdint>

#include "evcam/dvs_error.h"
#include "evcam/platform.h"
#include "evcam/usb_device.h"

namespace evcam {

/// Vendor id of both controller kinds.
constexpr uint16_t kCameraVendorId = 0x04B4;
/// Bulk IN endpoint that carries the sensor data.
constexpr unsigned char kDataEndpoint = 0x81;
/// Entries of a device table; only the first two are ever filled.
constexpr int kDevTableSize = 3;
/// Cameras of one kind a scan accepts.
constexpr int kMaxCamerasPerKind = 2;
/// Time-out of register requests and of the transfer time-out a reset restores, in ms.
constexpr unsigned int kDefaultUsbTimeoutMs = 5000;

/// One camera known to a table. Fields are atomic because the read threads check them while a
/// scan on another thread may rewrite them.
struct DevDBEntry {
    std::atomic<uint32_t> mLocation{0};  ///< bus number x 100 + device address
    std::atomic<uint8_t> mCyIndex{0};    ///< index in the device list as of the latest scan
    std::atomic<uint8_t> mPresent{0};    ///< 1 while the latest scan found the camera
    std::atomic<uint8_t> mInUse{0};      ///< 1 while a stream is started on it
};

/// What a scan learnt about one list index.
struct DevUSBItem {
    int32_t mHubId = 0;   ///< bus number
    int32_t mPortId = 0;  ///< device address
    bool mValid = false;  ///< right ids, and both numbers read
};

/// One control request. data is not owned.
struct DataInfo {
    uint8_t bmRequestType;  ///< bit 7 set: device-to-host
    uint8_t bRequest;
    uint16_t wValue;
    uint16_t wIndex;
    uint8_t* data;
    uint16_t wLength;
};

/// Kind of register request.
enum RegReqType : int32_t { REG_READ = 0, REG_WRITE = 1 };

/// Holds an RWLock for reading for the life of the guard.
class RwReadGuard {
  public:
    explicit RwReadGuard(RWLock& lock) : mLock(lock) { mLock.rdlock(); }
    ~RwReadGuard() { mLock.unlock(); }
    RwReadGuard(const RwReadGuard&) = delete;
    RwReadGuard& operator=(const RwReadGuard&) = delete;

  private:
    RWLock& mLock;
};

/// Holds an RWLock for writing for the life of the guard.
class RwWriteGuard {
  public:
    explicit RwWriteGuard(RWLock& lock) : mLock(lock) { mLock.wrlock(); }
    ~RwWriteGuard() { mLock.unlock(); }
    RwWriteGuard(const RwWriteGuard&) = delete;
    RwWriteGuard& operator=(const RwWriteGuard&) = delete;

  private:
    RWLock& mLock;
};

/// The USB state of one controller kind. One instance per kind lives for the whole process.
///
/// Locking: the device list and the last fetched handle follow the cyusb model, one list per
/// vendor and product id that every open of this kind replaces (the other kind's list, handles
/// and transfers are left alone); the DVS* operations take no lock of their own, and the
/// callers hold the lock their kind uses (ScanLock() for everything of an FX20 stream and for
/// FX3 scans, an FX3 stream's own lock otherwise). The entries are atomic, so a scan racing a
/// read thread gives stale answers at worst, never a data race.
class UsbDeviceTable {
  public:
    /// Releases the asynchronous transfers of one list index (0..2); called by DVSClose and
    /// DVSCloseAll before the list closes. Runs with the table's users' lock held.
    using TransferRelease = void (*)(int cyIndex);

    /// productId is the kind's product id; release is null for a kind without asynchronous
    /// transfers.
    UsbDeviceTable(uint16_t productId, TransferRelease release);
    UsbDeviceTable(const UsbDeviceTable&) = delete;
    UsbDeviceTable& operator=(const UsbDeviceTable&) = delete;

    uint16_t ProductId() const { return mProductId; }
    /// The kind's scan lock; FX20 streams also guard register access, reads and binding with it.
    RWLock& ScanLock() { return mScanLock; }
    /// Entry devId (0..2); nothing is checked beyond the range, which the caller ensures.
    DevDBEntry& Entry(unsigned int devId) { return mDevDB[devId]; }
    /// The handle of the last handle fetch of this table (possibly null or stale).
    libusb_device_handle* LastHandle() const { return mHandle.load(); }
    /// Whether this kind has the list open.
    bool IsOpen() const { return mDevOpen.load(); }

    // -- Device list. None of these blocks beyond the USB request it makes.

    /// Closes the list if this kind had it open, then opens it for this kind's ids.
    /// @return the number of cameras (0 or negative when none).
    int DVSDeviceCount();
    /// Opens the list if needed and fetches the handle of idx (0..1). @return true for a handle.
    bool DVSOpen(int idx);
    /// Releases the transfers of idx (0..2 only), then closes the list whatever idx is.
    void DVSClose(int idx);
    /// Releases the transfers of every index, then closes the list.
    void DVSCloseAll();
    /// The handle of idx in this kind's list, remembered as the last fetched handle (null
    /// included).
    libusb_device_handle* FetchHandle(int idx);

    // -- Requests on a listed device.

    /// One control transfer on idx, blocking up to timeoutMs. @return 0 when the whole data
    /// stage moved; 1 for null info or no handle; else 106 for a device-to-host request, 105
    /// for host-to-device.
    DVS_ERROR DVSControlTransfer(int idx, DataInfo* info, unsigned int timeoutMs);
    /// One synchronous read of endpoint 0x81 into buf, blocking up to timeoutMs; *actual gets
    /// the bytes moved. A stall clears the endpoint's halt before returning.
    /// @return 0; 14 time-out; 102 device gone; 107 other failures (a stall included); 1 for
    ///         null pointers, idx < 0, a negative time-out or no handle.
    DVS_ERROR DVSBulkTransfer(int idx, unsigned char* buf, unsigned int len, unsigned int* actual,
                              int timeoutMs);
    /// Vendor and product ids; 0 for idx < 0 or no handle.
    uint16_t DVSGetVendor(int idx);
    uint16_t DVSGetProduct(int idx);
    /// Bus number and device address; -1 when there is no handle.
    int DVSGetHubID(int idx);
    int DVSGetPortID(int idx);
    /// Device address; 0 for idx < 0 or no handle.
    int DVSGetDeviceAddress(int idx);
    /// Maximum packet size of endpoint ep; 0 for idx outside 0..1 or no handle.
    int DVSGetPktSize(int idx, unsigned char ep);

    // -- What the streams share.

    /// The checks that open every register request: re-opens the list with lock held for
    /// writing, then checks the binding. @return 0; 102 when no camera is listed; 101 when
    /// dvsId is the unbound id.
    DVS_ERROR CheckRegisterAccess(RWLock& lock, uint32_t dvsId);
    /// A register read on idx with lock held for reading: up to three attempts of 5000 ms.
    /// @return 0, or 106 after the third failure.
    DVS_ERROR ReadRegister(RWLock& lock, int idx, const DataInfo& info);
    /// A register write on idx with lock held for writing, one attempt of 5000 ms.
    /// @return 0, 105, or 1 when there is no handle.
    DVS_ERROR WriteRegister(RWLock& lock, int idx, const DataInfo& info);
    /// A synchronous data read of the bound entry with lock held for reading.
    /// @return as DVSBulkTransfer; 101 for a null entry.
    DVS_ERROR ReadData(RWLock& lock, const DevDBEntry* entry, unsigned char* buf, unsigned int len,
                       unsigned int* actual, int timeoutMs);
    /// Marks entry as taken by a started stream (inUse true) or free again.
    /// @return 0; 1 for a null entry; 4 when it already was so.
    static DVS_ERROR SetInUse(DevDBEntry* entry, bool inUse);
    /// Clears a halt of endpoint 0x81 on the last fetched handle of the table, which need not
    /// belong to entry (the clear-halt result is ignored). @return 0; 1 for a null entry or a
    /// list index above 1.
    DVS_ERROR ClearDataHalt(const DevDBEntry* entry);

    // -- Discovery.

    /// Re-opens the list, keeps the ids of cameras seen before at the same bus and address,
    /// gives free ids to newcomers and lists the cameras. *list points at this table's record
    /// array (valid until its next scan) on every path past the null check.
    /// @return 0 (count cameras, possibly 0); 1 for a null list; 102 for a failed list; 103
    ///         for more than two cameras (the table is left as it was). Blocks on USB requests
    ///         with the scan lock held for writing.
    DVS_ERROR ScanDVSDevice(USBDevice** list, int& count);
    /// Writes "Hub - <bus> - Port - <address> - 0x<ADDRESS>, <packet size> Bytes" into text
    /// (at least 100 bytes). @return false, writing nothing, for cyIndex above 2, a device
    /// address of 0 or a packet size of 0.
    bool GetDevDescriptor(unsigned int cyIndex, const DevUSBItem& item, char* text);
    /// List index of device id devId. @return 0, or 1 for devId outside 0..1.
    DVS_ERROR GetCypressDevID(int devId, unsigned char& cyIndex);

    /// Scans the FX20 kind, then the FX3 kind, into one array of three records shared by all
    /// callers (valid until the next call): records are taken in order while fewer than two
    /// are listed, with mDevType 0 for fx20's and 1 for fx3's. *list points at the array and
    /// count is 0 before any scan. @return 0; 1 for a null list; 103 as soon as either scan
    /// gives it (other failures of a scan just list nothing for it). Serialised between
    /// callers.
    static DVS_ERROR ScanAllKinds(UsbDeviceTable& fx20, UsbDeviceTable& fx3, USBDevice** list,
                                  int& count);

  private:
    /// Entry index (0 or 1) present at location key, entry 0 first; -1 when none.
    int FindPresent(uint32_t key) const;
    /// The transfer release hook for idx, when the kind has one.
    void ReleaseTransfers(int idx);

    const uint16_t mProductId;
    const TransferRelease mRelease;
    DevDBEntry mDevDB[kDevTableSize];
    std::atomic<libusb_device_handle*> mHandle{nullptr};
    std::atomic<bool> mDevOpen{false};
    RWLock mScanLock;
    /// The records of the latest scan; written under mScanLock, read by the scan's callers.
    USBDevice mRecords[kDevTableSize] = {};
};

}  // namespace evcam

#endif  // EVCAM_SRC_STREAM_USB_DEVICE_TABLE_H
