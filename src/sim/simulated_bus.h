// The simulated camera bus: the UsbBackend that serves the transports from simulated cameras.
#ifndef EVCAM_SRC_SIM_SIMULATED_BUS_H
#define EVCAM_SRC_SIM_SIMULATED_BUS_H

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "evcam/sim.h"
#include "src/platform/usb_backend.h"
#include "src/sim/sim_camera.h"

namespace evcam {

/// Why a camera could not be plugged, in the terms of an EVCAM_SIM spec.
struct PlugError {
    std::string key;     ///< the offending key ("addr", "file", ...); empty when none is
    std::string value;   ///< its value as text
    std::string reason;  ///< what is wrong, e.g. "address taken on bus 1"
};

/// UsbBackend over simulated cameras, with libusb's contracts (see UsbBackend) and these
/// choices where libusb leaves things open or would misbehave:
/// - Each vendor and product id has a list of its own. Handles are tokens that are never
///   dereferenced nor reused. A handle of a closed list answers LIBUSB_ERROR_NO_DEVICE
///   (GetVendor/GetProduct: 0); a handle whose camera was unplugged still reports bus, address and
///   descriptor values, as libusb's cached descriptors do, while its transfers and requests fail
///   with no-device.
/// - Closing a list (Close, or Open closing that id's list left open) ends every transfer
///   queued on its handles at once with LIBUSB_TRANSFER_NO_DEVICE (synchronous reads return
///   LIBUSB_ERROR_NO_DEVICE), keeping the bytes already received: the handle they travelled
///   on is gone. Their callbacks run at the next event handling of their threads. Transfers
///   and reads on the handles of other lists go on undisturbed.
/// - A transfer's callback runs only on the thread that submitted it, inside its
///   HandleEventsTimeoutCompleted: each read thread thus sees only its own completion records,
///   which other threads never write. HandleEventsTimeoutCompleted returns
///   LIBUSB_ERROR_NO_DEVICE at once when the calling thread has no transfer queued or waiting
///   for its callback, since nothing it could wait for exists (its transfers were freed, or
///   never submitted); a null time-out gives LIBUSB_ERROR_INVALID_PARAM.
/// - CancelTransfer returns 0 for a transfer queued or waiting for its callback (the latter
///   keeps the status it reached), LIBUSB_ERROR_NOT_FOUND otherwise.
/// - FreeTransfer on a queued transfer withdraws it without a callback; on a transfer whose
///   callback is running, the free happens when the callback returns. A pointer the bus did
///   not allocate is ignored.
/// - The only endpoint is bulk IN 0x81: reads of other endpoints fail with LIBUSB_ERROR_IO,
///   other transfer types with LIBUSB_ERROR_INVALID_PARAM. Control transfers answer at once
///   (their time-out never matters).
///
/// Thread-safe: one mutex guards the cameras, the lists and the transfers; a condition variable
/// wakes waiting reads and event handlers. Callbacks run without the mutex held, so they may
/// submit, cancel or free transfers.
class SimulatedBus : public UsbBackend {
  public:
    SimulatedBus();
    /// Frees every transfer still allocated. No thread may be inside the bus.
    ~SimulatedBus() override;
    SimulatedBus(const SimulatedBus&) = delete;
    SimulatedBus& operator=(const SimulatedBus&) = delete;

    int Open(uint16_t vid, uint16_t pid) override;
    libusb_device_handle* GetHandle(uint16_t vid, uint16_t pid, int index) override;
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
    libusb_transfer* AllocTransfer() override;
    int SubmitTransfer(libusb_transfer* transfer) override;
    int CancelTransfer(libusb_transfer* transfer) override;
    void FreeTransfer(libusb_transfer* transfer) override;
    int HandleEventsTimeoutCompleted(timeval* timeout, int* completed) override;

    // -- The cameras (the operations behind evcam/sim.h; see there for the codes).

    /// Plugs one camera. @return its id (>= 0), or -1 with error filled.
    int Plug(const sim::CameraConfig& config, PlugError& error);
    /// Plugs all cameras or none. @return true, or false with failed (index into configs)
    ///         and error filled.
    bool PlugAll(const std::vector<sim::CameraConfig>& configs, size_t& failed, PlugError& error);
    DVS_ERROR Unplug(int camera);
    void UnplugAll();
    DVS_ERROR ReadRegister(int camera, int slave, int reg, int& value);
    DVS_ERROR WriteRegister(int camera, int slave, int reg, int value);
    std::vector<sim::ControlRequest> ControlLog(int camera);
    void ClearControlLog(int camera);
    DVS_ERROR InjectFault(int camera, sim::Fault fault, int count);
    DVS_ERROR StartCapture(int camera);
    DVS_ERROR TakeCapture(int camera, std::vector<uint8_t>& bytes);
    uint64_t BytesSent(int camera);

  private:
    using TimePoint = SimCamera::TimePoint;

    struct Transfer {
        SimCamera::InRequest request;
        enum class State { kIdle, kQueued } state = State::kIdle;
        SimCamera* camera = nullptr;
        libusb_device_handle* handle = nullptr;
        std::thread::id owner;
        uint64_t sequence = 0;  ///< submission order, to order callbacks due at one instant
        bool inCallback = false;
        bool freeAfterCallback = false;
        libusb_transfer transfer{};  ///< last: libusb's struct ends in a zero-sized array
    };
    /// One open device of a list.
    struct Listed {
        libusb_device_handle* handle;
        SimCamera* camera;
    };
    /// Vendor and product id of a list.
    using ListKey = std::pair<uint16_t, uint16_t>;
    /// A synchronous read in progress, so that Close can end it.
    struct SyncRead {
        SimCamera::InRequest request;
        SimCamera* camera;
        libusb_device_handle* handle;
    };

    static TimePoint Now() { return SimCamera::Clock::now(); }
    /// The camera behind a handle of any open list, or null.
    SimCamera* CameraOfLocked(libusb_device_handle* handle);
    /// Closes the list of key, when open, ending the requests on its handles.
    void CloseLocked(const ListKey& key, TimePoint now);
    /// Builds a camera for config, resolving its address against the present cameras, the
    /// ones in pending and the per-bus counters in nextAddress. @return null with error.
    std::unique_ptr<SimCamera> PrepareLocked(const sim::CameraConfig& config,
                                             const std::vector<std::unique_ptr<SimCamera>>& pending,
                                             std::map<int, int>& nextAddress, PlugError& error);
    bool AddressTakenLocked(int bus, int address,
                            const std::vector<std::unique_ptr<SimCamera>>& pending);
    SimCamera* FindLocked(int camera);
    Transfer* FindTransferLocked(libusb_transfer* transfer);
    /// A due transfer of the calling thread (earliest completion first), or null; with
    /// anyQueued telling whether the thread has any transfer queued, and next the earliest
    /// time something of them may change.
    Transfer* NextDueLocked(std::thread::id self, TimePoint now, bool& anyQueued, TimePoint& next);

    // Lock order: mMutex only; never held while a callback runs.
    std::mutex mMutex;
    std::condition_variable mChanged;  ///< notified on every change a waiter may care about
    // Guarded by mMutex:
    std::unordered_map<libusb_transfer*, std::unique_ptr<Transfer>> mTransfers;
    std::vector<SyncRead*> mSyncReads;
    std::map<int, std::unique_ptr<SimCamera>> mCameras;  ///< kept after unplug, for the logs
    int mNextCameraId = 0;
    std::map<int, int> mNextAddress;  ///< per bus: where the search for a free address starts
    std::map<ListKey, std::vector<Listed>> mLists;  ///< the open lists, an empty one included
    uintptr_t mNextToken;
    uint64_t mNextSequence = 0;
};

}  // namespace evcam

#endif  // EVCAM_SRC_SIM_SIMULATED_BUS_H
