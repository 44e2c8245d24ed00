// The emulated USB bus of a test process: a umockdev testbed whose cameras libusb finds through
// sysfs and talks to through their usbdevfs nodes, so that the real libusb backend runs
// unchanged against them. Only for test binaries started under the umockdev preload library.
#ifndef EVCAM_TESTS_USB_EMULATION_EMULATED_BUS_H
#define EVCAM_TESTS_USB_EMULATION_EMULATED_BUS_H

#include <umockdev.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "evcam/sim.h"
#include "usbdevfs_camera.h"

namespace evcam {

/// One testbed for the whole process (libusb reads it only if it exists when libusb starts,
/// and libusb is started once per process). Cameras are plugged at fresh addresses (an address
/// is never given twice in a process) and stay known after an unplug, so that their logs can
/// still be read and the handler still answers libusb's handles opened before.
///
/// Thread-safe; Plug and Unplug block only on the testbed's file work.
class EmulatedBus {
  public:
    /// The process's bus, made at the first call; the first call must come before the
    /// process's first USB operation. Never destroyed.
    static EmulatedBus& Instance();
    /// Whether the umockdev preload library redirects this process's device access; without
    /// it libusb would see the machine's real bus.
    static bool Preloaded();

    /// Plugs a camera: kind, bus, address (0 = the next fresh one of the bus), packet size
    /// (0 = 512 for FX20, 1024 for FX3; sim::kZeroPacketSize for a descriptor reporting 0),
    /// and the sensor words (scene or file) at byteRate. unplugAfterMs is ignored.
    /// @return the camera id (>= 0), or -1 for an address in use, an unknown scene or a file
    ///         that cannot be streamed.
    int Plug(const sim::CameraConfig& config);
    /// Unplugs: the URBs in flight end with no-device, then the device leaves sysfs with a
    /// "remove" uevent, so libusb's next enumeration misses it. Nothing for an unplugged or
    /// unknown id.
    void Unplug(int id);
    void UnplugAll();
    /// The camera of id; it must exist.
    UsbdevfsCamera& Camera(int id);
    /// Location key of the camera (bus x 100 + address), as the kit computes it.
    int LocationKey(int id);

  private:
    struct Plugged {
        std::unique_ptr<UsbdevfsCamera> camera;
        std::string sysPath;
        bool present;
    };

    EmulatedBus();

    UMockdevTestbed* mTestbed;
    std::mutex mMutex;
    // Guarded by mMutex:
    std::map<int, Plugged> mCameras;
    std::map<int, int> mNextAddress;  ///< per bus
    int mNextId = 0;
};

}  // namespace evcam

#endif  // EVCAM_TESTS_USB_EMULATION_EMULATED_BUS_H
