// The USB access calls of the transports: a device list per vendor and product id, handles by
// index in a list, requests on a handle, and the asynchronous transfer calls. Each forwards to the
// process's UsbBackend (usb_backend.h), so that the transports run unchanged on real hardware
// and on the simulated camera bus.
#ifndef EVCAM_SRC_PLATFORM_CYUSB_H
#define EVCAM_SRC_PLATFORM_CYUSB_H

#include <libusb-1.0/libusb.h>
#include <sys/time.h>

#include <cstdint>

namespace evcam {

/// Opens every attached device with this vendor and product id, closing that id's list first
/// when it is open; the lists of other ids, their handles and transfers are left alone.
/// @return their number, addressed by index 0..n-1 of this id's list from now on; 0 or
/// negative when none.
int cyusb_open(unsigned short vid, unsigned short pid);
/// The open handle of device index of this id's list, or null.
libusb_device_handle* cyusb_gethandle(unsigned short vid, unsigned short pid, int index);
/// Closes every device of this id's list; its earlier handles become invalid.
void cyusb_close(unsigned short vid, unsigned short pid);
/// One control transfer. @return bytes moved in the data stage, or a negative error.
int cyusb_control_transfer(libusb_device_handle* h, unsigned char bmRequestType,
                           unsigned char bRequest, unsigned short wValue, unsigned short wIndex,
                           unsigned char* data, unsigned short wLength, unsigned int timeout);
/// One synchronous bulk transfer. @return 0 or a negative libusb error (-7 time-out, -4 no
/// device).
int cyusb_bulk_transfer(libusb_device_handle* h, unsigned char endpoint, unsigned char* data,
                        int length, int* transferred, int timeout);
/// Clears a halt or stall on the endpoint.
int cyusb_clear_halt(libusb_device_handle* h, unsigned char endpoint);
int cyusb_get_busnumber(libusb_device_handle* h);
int cyusb_get_devaddr(libusb_device_handle* h);
int cyusb_get_max_packet_size(libusb_device_handle* h, unsigned char endpoint);
int cyusb_getvendor(libusb_device_handle* h);
int cyusb_getproduct(libusb_device_handle* h);

/// The asynchronous transfer calls, with libusb's contracts (see UsbBackend).
libusb_transfer* usb_alloc_transfer(int isoPackets);
int usb_submit_transfer(libusb_transfer* transfer);
int usb_cancel_transfer(libusb_transfer* transfer);
void usb_free_transfer(libusb_transfer* transfer);
/// ctx must be null (the default context): the transports use no other.
int usb_handle_events_timeout_completed(libusb_context* ctx, timeval* tv, int* completed);

}  // namespace evcam

#endif  // EVCAM_SRC_PLATFORM_CYUSB_H
