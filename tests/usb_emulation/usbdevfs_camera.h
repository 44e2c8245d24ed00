// One emulated camera at the kernel's USB interface: the usbdevfs ioctls that libusb sends to
// the camera's device node, answered by the same camera model (SimCamera) that serves the
// simulated bus, so both speak the same registers and stream the same sensor words.
#ifndef EVCAM_TESTS_USB_EMULATION_USBDEVFS_CAMERA_H
#define EVCAM_TESTS_USB_EMULATION_USBDEVFS_CAMERA_H

#include <umockdev.h>

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "evcam/sim.h"
#include "src/sim/sim_camera.h"
#include "src/sim/stream_source.h"

namespace evcam {

/// Node requests the handler counts; control requests are logged by the model instead.
enum class UsbdevfsCall { kClaim, kRelease, kClearHalt, kDiscard, kBulkSubmit };

/// The ioctl handler of one camera's usbdevfs node (attach Handler() to the node's path).
///
/// What it answers: capabilities (no packet size limit and scatter-gather, so libusb sends
/// each transfer as one URB), driver query (none), claim and release of interface 0,
/// clear-halt and reset of an endpoint, control URBs on endpoint 0 (the 8-byte setup packet
/// first; vendor requests go to the model's register file and log), bulk IN URBs on 0x81
/// (filled by the model, paced at its byte rate), reaping without delay, and discarding (which
/// is how libusb's time-outs and cancellations complete). The device never times a URB out
/// itself: libusb does, by discarding it.
///
/// Faults: the model's (sim::Fault: stall, time-out, transfer error, short transfer, refused
/// submission, failed control request) and an unplug; they reach libusb as URB status -EPIPE
/// (stall), -EOVERFLOW (a packet larger than the room left), -EPROTO (transfer or control
/// error), -ENODEV (unplugged while in flight), or as submissions and requests refused with
/// EIO or ENODEV.
///
/// Threads: umockdev calls the handler on its own thread; the test calls the rest from any
/// thread. One mutex guards the model and the URBs.
class UsbdevfsCamera {
  public:
    /// config is resolved (address set); source must not be null.
    UsbdevfsCamera(const sim::CameraConfig& config, std::unique_ptr<StreamSource> source);
    /// Releases the handler and the URBs still held. The node must no longer be in use.
    ~UsbdevfsCamera();
    UsbdevfsCamera(const UsbdevfsCamera&) = delete;
    UsbdevfsCamera& operator=(const UsbdevfsCamera&) = delete;

    /// The handler object, owned by this camera.
    UMockdevIoctlBase* Handler() const { return mHandler; }
    const sim::CameraConfig& Config() const { return mConfig; }

    /// Every control request that reached the present camera, in order.
    std::vector<sim::ControlRequest> ControlLog();
    void ClearControlLog();
    /// The register file (slave address, register address), as SimCamera keeps it.
    int ReadRegister(int slave, int reg);
    void WriteRegister(int slave, int reg, int value);
    /// Arms a model fault (see sim::Fault); a stall ends the URBs in flight at once.
    void InjectFault(sim::Fault fault, int count = 1);
    /// Starts recording the bytes put into bulk URBs from now on.
    void StartCapture();
    /// The bytes recorded since StartCapture (empty when none runs); stops recording.
    std::vector<uint8_t> TakeCapture();
    /// Times the handler answered a call of this kind.
    int Calls(UsbdevfsCall call);
    /// Bulk URBs submitted and not yet handed back to libusb.
    int UrbsHeld();
    /// Unplugs the model now: URBs in flight end with -ENODEV, every later submission and
    /// request is refused with ENODEV.
    void Unplug();

  private:
    /// A bulk IN URB the model is filling. Kept in a list, so that the request the model
    /// points at never moves.
    struct Urb {
        UMockdevIoctlData* urb;     ///< the client's usbdevfs_urb (one reference held)
        UMockdevIoctlData* buffer;  ///< its data buffer (one reference held)
        SimCamera::InRequest request;
    };

    static gboolean OnIoctl(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, gpointer self);
    /// Answers one request; false for one libusb is not expected to send. With mMutex held.
    bool HandleLocked(UMockdevIoctlClient* client);
    void SubmitLocked(UMockdevIoctlClient* client, UMockdevIoctlData* arg);
    void ReapLocked(UMockdevIoctlClient* client, UMockdevIoctlData* arg);
    void DiscardLocked(UMockdevIoctlClient* client, UMockdevIoctlData* arg);
    /// Moves the URBs the model has finished to the reap queue, with their status.
    void CollectLocked();

    const sim::CameraConfig mConfig;
    UMockdevIoctlBase* mHandler;

    std::mutex mMutex;
    // Guarded by mMutex:
    std::unique_ptr<SimCamera> mCamera;
    std::list<Urb> mInFlight;                                             ///< in submission order
    std::deque<std::pair<UMockdevIoctlData*, UMockdevIoctlData*>> mDone;  ///< urb, buffer
    std::map<UsbdevfsCall, int> mCalls;
};

}  // namespace evcam

#endif  // EVCAM_TESTS_USB_EMULATION_USBDEVFS_CAMERA_H
