// The seam beneath the USB transports. Every USB operation the transports make (the cyusb
// calls of cyusb.h and the asynchronous transfer calls) goes through one UsbBackend, chosen
// once per process: the real one over libusb-1.0, or the simulated camera bus. The transports'
// own code therefore runs unchanged on either.
#ifndef EVCAM_SRC_PLATFORM_USB_BACKEND_H
#define EVCAM_SRC_PLATFORM_USB_BACKEND_H

#include <libusb-1.0/libusb.h>
#include <sys/time.h>

#include <cstdint>

namespace evcam {

/// One implementation of the USB operations the transports use. Handles
/// (libusb_device_handle*) are opaque to the callers: the simulated bus hands out pointers of
/// its own, which only it may dereference. Transfers (libusb_transfer) are allocated by the
/// backend that submits them; callers fill their public fields (dev_handle, endpoint, type,
/// timeout, length, callback, user_data, buffer) and read status and actual_length.
///
/// Return conventions are libusb's: 0 or a positive count on success, a negative
/// LIBUSB_ERROR_* code on failure. Every operation may be called from any thread unless it
/// says otherwise; the backend guards its own state.
class UsbBackend {
  public:
    virtual ~UsbBackend() = default;

    // -- Device lists (the cyusb model: one list of open devices per vendor and product id).
    // The lists are independent: opening or closing one never touches another list, its
    // handles or the transfers queued on them.

    /// Closes this id's list if it is open, then opens every attached device with this vendor
    /// and product id. @return their number (0 when none), or a negative error. Devices are
    /// then addressed by index 0..n-1 in a stable bus order.
    virtual int Open(uint16_t vid, uint16_t pid) = 0;
    /// The open handle of device index of this id's list, or null (list not open, bad index).
    virtual libusb_device_handle* GetHandle(uint16_t vid, uint16_t pid, int index) = 0;
    /// Closes every device of this id's list (nothing when it is not open); its handles become
    /// invalid for requests (a later call with one fails with LIBUSB_ERROR_NO_DEVICE or is
    /// ignored, it never crashes). Transfers still queued on them either complete with
    /// LIBUSB_TRANSFER_NO_DEVICE or LIBUSB_TRANSFER_CANCELLED, or, in a backend that keeps the
    /// handle of a device that is still attached, go on: the next Open then hands the same
    /// handle back for that device (the libusb backend does this; the simulated bus ends them).
    virtual void Close(uint16_t vid, uint16_t pid) = 0;

    // -- Requests on a handle of an open list.

    /// One control transfer. @return bytes moved in the data stage, or a negative error.
    /// Blocks up to timeoutMs.
    virtual int ControlTransfer(libusb_device_handle* handle, uint8_t bmRequestType,
                                uint8_t bRequest, uint16_t wValue, uint16_t wIndex,
                                unsigned char* data, uint16_t wLength, unsigned int timeoutMs) = 0;
    /// One synchronous bulk transfer; *transferred receives the bytes moved (also on a
    /// time-out). @return 0, LIBUSB_ERROR_TIMEOUT, LIBUSB_ERROR_NO_DEVICE, LIBUSB_ERROR_PIPE
    /// (stall), LIBUSB_ERROR_OVERFLOW or another negative error. Blocks up to timeoutMs
    /// (0 = no limit).
    virtual int BulkTransfer(libusb_device_handle* handle, uint8_t endpoint, unsigned char* data,
                             int length, int* transferred, unsigned int timeoutMs) = 0;
    /// Clears a halt or stall of the endpoint. @return 0 or a negative error.
    virtual int ClearHalt(libusb_device_handle* handle, uint8_t endpoint) = 0;
    /// Bus number and device address of the device. @return them, or a negative error.
    virtual int GetBusNumber(libusb_device_handle* handle) = 0;
    virtual int GetDeviceAddress(libusb_device_handle* handle) = 0;
    /// Maximum packet size of an endpoint. @return it, or a negative error.
    virtual int GetMaxPacketSize(libusb_device_handle* handle, uint8_t endpoint) = 0;
    /// Vendor and product id from the device descriptor; 0 when they cannot be read.
    virtual uint16_t GetVendor(libusb_device_handle* handle) = 0;
    virtual uint16_t GetProduct(libusb_device_handle* handle) = 0;

    // -- Asynchronous transfers, with libusb's contracts.

    /// A zeroed transfer with no isochronous packets, or null.
    virtual libusb_transfer* AllocTransfer() = 0;
    /// Queues a filled transfer. Its callback runs later, on a thread inside
    /// HandleEventsTimeoutCompleted. @return 0, LIBUSB_ERROR_NO_DEVICE, LIBUSB_ERROR_BUSY
    /// (already queued) or another negative error.
    virtual int SubmitTransfer(libusb_transfer* transfer) = 0;
    /// Asks for a queued transfer to end; its callback still runs (status CANCELLED, or the
    /// status it reached first). @return 0, or LIBUSB_ERROR_NOT_FOUND when not queued.
    virtual int CancelTransfer(libusb_transfer* transfer) = 0;
    /// Frees a transfer that is not queued (null is ignored).
    virtual void FreeTransfer(libusb_transfer* transfer) = 0;
    /// Runs the completion callbacks that are due, waiting up to *timeout for one, and
    /// returns early once *completed is non-zero (when completed is not null).
    /// @return 0, or a negative error (LIBUSB_ERROR_NO_DEVICE once the device is gone and
    /// nothing is left to complete, as the real event loop may report).
    virtual int HandleEventsTimeoutCompleted(timeval* timeout, int* completed) = 0;
};

/// The backend of this process: the simulated bus when EVCAM_SIM is set in the environment or
/// a simulated camera was plugged through evcam/sim.h before the first USB call, the libusb
/// one otherwise. Chosen at the first call and kept for the life of the process.
UsbBackend& ActiveUsbBackend();

}  // namespace evcam

#endif  // EVCAM_SRC_PLATFORM_USB_BACKEND_H
