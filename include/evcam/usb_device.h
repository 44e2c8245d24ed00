// A camera found on the USB bus, as listed by DVSManager's scans.
#ifndef EVCAM_USB_DEVICE_H
#define EVCAM_USB_DEVICE_H

#include <cstdint>

namespace evcam {

/// One camera reported by a scan. Records live in a list owned by the library and stay valid
/// until the next scan of the same kind.
struct USBDevice {
    uint32_t mDevId;        ///< device id to pass to DVSManager::BindDevice
    uint32_t mLocation;     ///< bus number x 100 + device address; 0 marks an empty record
    char mDescriptor[100];  ///< NUL-terminated description text
    uint32_t mDevType;      ///< controller kind: 0 FX20, 1 FX3
};

}  // namespace evcam

#endif  // EVCAM_USB_DEVICE_H
