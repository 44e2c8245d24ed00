#include "src/platform/cyusb.h"

#include "src/platform/usb_backend.h"

namespace evcam {

int cyusb_open(unsigned short vid, unsigned short pid) {
    return ActiveUsbBackend().Open(vid, pid);
}

libusb_device_handle* cyusb_gethandle(unsigned short vid, unsigned short pid, int index) {
    return ActiveUsbBackend().GetHandle(vid, pid, index);
}

void cyusb_close(unsigned short vid, unsigned short pid) {
    ActiveUsbBackend().Close(vid, pid);
}

int cyusb_control_transfer(libusb_device_handle* h, unsigned char bmRequestType,
                           unsigned char bRequest, unsigned short wValue, unsigned short wIndex,
                           unsigned char* data, unsigned short wLength, unsigned int timeout) {
    return ActiveUsbBackend().ControlTransfer(h, bmRequestType, bRequest, wValue, wIndex, data,
                                              wLength, timeout);
}

int cyusb_bulk_transfer(libusb_device_handle* h, unsigned char endpoint, unsigned char* data,
                        int length, int* transferred, int timeout) {
    return ActiveUsbBackend().BulkTransfer(h, endpoint, data, length, transferred,
                                           timeout < 0 ? 0u : static_cast<unsigned int>(timeout));
}

int cyusb_clear_halt(libusb_device_handle* h, unsigned char endpoint) {
    return ActiveUsbBackend().ClearHalt(h, endpoint);
}

int cyusb_get_busnumber(libusb_device_handle* h) {
    return ActiveUsbBackend().GetBusNumber(h);
}

int cyusb_get_devaddr(libusb_device_handle* h) {
    return ActiveUsbBackend().GetDeviceAddress(h);
}

int cyusb_get_max_packet_size(libusb_device_handle* h, unsigned char endpoint) {
    return ActiveUsbBackend().GetMaxPacketSize(h, endpoint);
}

int cyusb_getvendor(libusb_device_handle* h) {
    return ActiveUsbBackend().GetVendor(h);
}

int cyusb_getproduct(libusb_device_handle* h) {
    return ActiveUsbBackend().GetProduct(h);
}

libusb_transfer* usb_alloc_transfer(int isoPackets) {
    // The transports use bulk transfers only.
    return isoPackets == 0 ? ActiveUsbBackend().AllocTransfer() : nullptr;
}

int usb_submit_transfer(libusb_transfer* transfer) {
    return ActiveUsbBackend().SubmitTransfer(transfer);
}

int usb_cancel_transfer(libusb_transfer* transfer) {
    return ActiveUsbBackend().CancelTransfer(transfer);
}

void usb_free_transfer(libusb_transfer* transfer) {
    ActiveUsbBackend().FreeTransfer(transfer);
}

int usb_handle_events_timeout_completed(libusb_context* ctx, timeval* tv, int* completed) {
    return ctx == nullptr ? ActiveUsbBackend().HandleEventsTimeoutCompleted(tv, completed)
                          : LIBUSB_ERROR_INVALID_PARAM;
}

}  // namespace evcam
