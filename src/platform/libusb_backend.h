// The real USB backend: libusb-1.0 on its default context.
#ifndef EVCAM_SRC_PLATFORM_LIBUSB_BACKEND_H
#define EVCAM_SRC_PLATFORM_LIBUSB_BACKEND_H

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "src/platform/usb_backend.h"

namespace evcam {

/// UsbBackend over libusb-1.0. libusb is initialised on the default context at the first
/// operation that needs it (and released by the destructor); the transfer calls and the event
/// handling pass straight to libusb, so callbacks run on whichever thread handles events.
///
/// Each vendor and product id has a list of its own; closing one leaves the others, their
/// handles and their transfers alone.
///
/// Closing and re-opening a list keeps the cameras that are still attached: the transports
/// re-open their list on every register access and scan, also while a camera streams, and a
/// camera's interface is not given up and its queued transfers are not cut short for that.
/// - Close parks the list's handles: from then on they are refused like unknown handles
///   (LIBUSB_ERROR_NO_DEVICE, or 0 for GetVendor/GetProduct, and GetHandle gives null), but
///   they stay open with their interface claimed, and their queued transfers go on and
///   complete as usual. Operations already in progress on them finish normally.
/// - Open lists the attached devices of the id; a device whose parked handle is still open
///   gets that same handle back, so handles fetched before the close work again and transfers
///   queued on them never noticed. Only a parked handle whose device is no longer attached (or
///   no longer has this id) is really closed.
/// - Really closing a handle waits for the operations in progress on it (a synchronous read
///   may take up to its time-out), cancels every transfer still queued on it and handles
///   events on the calling thread until all have completed, their callbacks included (for at
///   most 2 s; a transfer that never completes is left to libusb's own close). Only then is
///   the interface released, a detached kernel driver re-attached and the handle closed.
/// - FreeTransfer on a transfer still queued cancels it and reaps it the same way first; one
///   that cannot be reaped in 2 s is leaked rather than freed under libusb.
/// Thread-safe; no lock is held while a callback runs.
class LibusbBackend : public UsbBackend {
  public:
    LibusbBackend() = default;
    /// Closes every list and releases libusb. No thread may be inside the backend.
    ~LibusbBackend() override;
    LibusbBackend(const LibusbBackend&) = delete;
    LibusbBackend& operator=(const LibusbBackend&) = delete;

    /// Closes this id's list, then enumerates the devices with this id in (bus, address)
    /// order; each takes back its parked handle, or is opened: an active kernel driver is
    /// detached from interface 0 and the interface claimed. A device that fails any step is
    /// skipped. Parked handles left over are closed (see above), which may block.
    /// @return the devices listed, or the negative libusb error of initialising or
    ///         enumerating (the parked handles then stay parked).
    int Open(uint16_t vid, uint16_t pid) override;
    libusb_device_handle* GetHandle(uint16_t vid, uint16_t pid, int index) override;
    /// Parks the list's handles (see above). Does not block.
    void Close(uint16_t vid, uint16_t pid) override;
    int ControlTransfer(libusb_device_handle* handle, uint8_t bmRequestType, uint8_t bRequest,
                        uint16_t wValue, uint16_t wIndex, unsigned char* data, uint16_t wLength,
                        unsigned int timeoutMs) override;
    int BulkTransfer(libusb_device_handle* handle, uint8_t endpoint, unsigned char* data,
                     int length, int* transferred, unsigned int timeoutMs) override;
    int ClearHalt(libusb_device_handle* handle, uint8_t endpoint) override;
    int GetBusNumber(libusb_device_handle* handle) override;
    int GetDeviceAddress(libusb_device_handle* handle) override;
    int GetMaxPacketSize(libusb_device_handle* handle, uint8_t endpoint) override;
    uint16_t GetVendor(libusb_device_handle* handle) override;
    uint16_t GetProduct(libusb_device_handle* handle) override;
    /// Null when libusb cannot be initialised.
    libusb_transfer* AllocTransfer() override;
    /// Also LIBUSB_ERROR_NO_DEVICE when the transfer's handle is not of an open list.
    int SubmitTransfer(libusb_transfer* transfer) override;
    int CancelTransfer(libusb_transfer* transfer) override;
    void FreeTransfer(libusb_transfer* transfer) override;
    /// libusb's own; the initialisation error when libusb cannot be initialised.
    int HandleEventsTimeoutCompleted(timeval* timeout, int* completed) override;

  private:
    struct Device {
        libusb_device_handle* handle;
        libusb_device* device;  ///< the handle's device, to recognise it at the next open
        uint8_t bus;
        uint8_t address;
        uint16_t vendor;
        uint16_t product;
        bool driverDetached;
        int users = 0;  ///< operations in progress on the handle
    };
    /// Vendor and product id of a list.
    using ListKey = std::pair<uint16_t, uint16_t>;
    /// The handles of one id.
    struct List {
        /// Every handle still open for this id, listed or parked; a Device never moves.
        std::vector<std::unique_ptr<Device>> devices;
        /// The open list by index; empty while the list is closed (every handle parked).
        std::vector<Device*> listed;
    };
    /// Keeps a listed handle from being really closed while an operation uses it.
    class Use {
      public:
        Use(LibusbBackend& backend, libusb_device_handle* handle);
        ~Use();
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        /// The device of the handle, or null when it is not in an open list.
        const Device* device() const { return mDevice; }

      private:
        LibusbBackend& mBackend;
        Device* mDevice = nullptr;
    };

    /// Really closes the devices of key's list that are not listed; with mListChange held.
    void CloseParked(const ListKey& key);
    /// Opens dev and claims its interface. @return the device, or null when a step fails.
    static std::unique_ptr<Device> OpenDevice(libusb_device* dev, uint16_t vid, uint16_t pid);
    /// libusb_init of the default context, once. @return 0 or its error.
    int EnsureInit();
    /// Cancels the queued transfers that match and handles events until they are reaped.
    /// @return true when none is left.
    bool ReapTransfers(libusb_device_handle* const* handles, size_t count, libusb_transfer* only);
    static void LIBUSB_CALL Completed(libusb_transfer* transfer);

    std::once_flag mInitOnce;
    int mInitResult = LIBUSB_ERROR_OTHER;
    // Lock order: mListChange, mMutex, then the transfer registry's lock; none is held while
    // libusb runs callbacks of the transports.
    std::mutex mListChange;  ///< serialises Open and Close, of every id
    std::mutex mMutex;
    std::condition_variable mIdle;  ///< notified when the users of a handle drop
    // Guarded by mMutex; devices are added and erased only with mListChange held too, so a
    // Device stays where it is while a Use or a close refers to it:
    std::map<ListKey, List> mLists;
};

}  // namespace evcam

#endif  // EVCAM_SRC_PLATFORM_LIBUSB_BACKEND_H
