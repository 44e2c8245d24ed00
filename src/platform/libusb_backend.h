// The real USB backend: libusb-1.0 on its default context.
#ifndef EVCAM_SRC_PLATFORM_LIBUSB_BACKEND_H
#define EVCAM_SRC_PLATFORM_LIBUSB_BACKEND_H

#include <condition_variable>
#include <cstdint>
#include <map>
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
/// Guards against what libusb would turn into use of freed memory:
/// - Every operation on a handle checks that it belongs to an open list (else
///   LIBUSB_ERROR_NO_DEVICE, or 0 for GetVendor/GetProduct) and keeps that list from closing
///   until it returns.
/// - Closing a list marks it closing (later operations on its handles fail with
///   LIBUSB_ERROR_NO_DEVICE), waits for operations in progress on its handles (a synchronous
///   read may take up to its time-out), cancels every transfer still queued on them and
///   handles events on the calling thread until all have completed, their callbacks included
///   (for at most 2 s; a transfer that never completes is left to libusb's own close). Only
///   then are the interfaces released, detached kernel drivers re-attached and the handles
///   closed.
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
    /// order; for each, opens it, detaches an active kernel driver from interface 0 and claims
    /// the interface. A device that fails any step is skipped. @return the devices kept, or the
    /// negative libusb error of initialising or enumerating.
    int Open(uint16_t vid, uint16_t pid) override;
    libusb_device_handle* GetHandle(uint16_t vid, uint16_t pid, int index) override;
    /// Blocks until the list's operations in progress and transfers are done (see above).
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
        uint8_t bus;
        uint8_t address;
        uint16_t vendor;
        uint16_t product;
        bool driverDetached;
    };
    /// Vendor and product id of a list.
    using ListKey = std::pair<uint16_t, uint16_t>;
    /// The open devices of one id.
    struct List {
        std::vector<Device> devices;
        bool closing = false;
        int users = 0;  ///< operations in progress on its handles
    };
    /// Keeps the list open while an operation uses one of its handles.
    class Use {
      public:
        Use(LibusbBackend& backend, libusb_device_handle* handle);
        ~Use();
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        /// The device of the handle, or null when it is not of an open list (or its list is
        /// closing).
        const Device* device() const { return mDevice; }

      private:
        LibusbBackend& mBackend;
        List* mList = nullptr;
        const Device* mDevice = nullptr;
    };

    /// Closes the list of key, when open; with mListChange held.
    void CloseList(const ListKey& key);
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
    std::condition_variable mIdle;  ///< notified when the users of a list drop
    // Guarded by mMutex; entries are added and erased only with mListChange held too, so a
    // List stays where it is while a Use or a close refers to it:
    std::map<ListKey, List> mLists;
};

}  // namespace evcam

#endif  // EVCAM_SRC_PLATFORM_LIBUSB_BACKEND_H
