// The simulated camera bus: develop and test an application without a camera. Once it is in
// use, every USB operation of the kit goes to simulated cameras instead of libusb, and the
// live path (discovery, register requests, streaming) runs unchanged on them.
//
// The bus is chosen once per process: when the environment variable EVCAM_SIM is set, or when
// one of Enable, Configure or Plug is called before the kit's first USB operation. After that
// first operation the choice is fixed; a process that went to libusb cannot switch.
//
// Every function may be called from any thread, also while cameras stream. None waits for the
// stream: each holds the bus's lock only briefly (opening or reading a recording included).
#ifndef EVCAM_SIM_H
#define EVCAM_SIM_H

#include <cstdint>
#include <string>
#include <vector>

#include "evcam/dvs_error.h"
#include "evcam/export.h"

namespace evcam {
namespace sim {

/// The camera's USB controller: kFX20 enumerates as 04B4:00F0, kFX3 as 04B4:00F1. Each kind
/// answers register requests in its own convention.
enum class Kind { kFX20, kFX3 };

/// maxPacketSize value of an endpoint whose descriptor reports a packet size of 0 (it never
/// delivers data). In an EVCAM_SIM spec this is `pkt=0`.
constexpr int kZeroPacketSize = -1;

/// Upper limit of CameraConfig::byteRate.
constexpr uint64_t kMaxByteRate = 10000000000ULL;

/// One simulated camera.
struct CameraConfig {
    Kind kind = Kind::kFX20;
    int bus = 1;                ///< USB bus number, 1..255
    int address = 0;            ///< device address 1..127; 0 = the next free address of the bus
    int maxPacketSize = 0;      ///< bulk packet bytes 1..1024; 0 = 512 (kFX20) or 1024 (kFX3);
                                ///< kZeroPacketSize for a broken descriptor
    std::string scene = "bar";  ///< "bar", "disc", "noise" or "still" (time and frame ends only)
    std::string file;  ///< a recording (.dvs: its body) or raw sensor dump to stream instead of
                       ///< the scene, looped; the file's own version decides mono or stereo
    uint64_t byteRate = 8000000;  ///< bytes per second; 0 = as fast as the host reads
    bool stereo = false;          ///< scene of the two-channel sensor
    int unplugAfterMs = -1;       ///< unplug this long after streaming starts; -1 = never
};

/// One control request as the camera received it.
struct ControlRequest {
    uint8_t bmRequestType;
    uint8_t bRequest;
    uint16_t wValue;
    uint16_t wIndex;
    uint16_t wLength;
    /// Host-to-device: the data stage received. Device-to-host: the bytes the camera answered
    /// with (empty when it failed).
    std::vector<uint8_t> data;
    /// What the control transfer returned: bytes of the data stage, or a negative libusb error
    /// (LIBUSB_ERROR_PIPE for a request the camera stalls, LIBUSB_ERROR_IO for an injected
    /// failure).
    int result;
};

/// Faults on demand. Counted faults hit the next `count` submissions of a bulk read (both
/// asynchronous transfers and synchronous reads) or control requests; one submission takes at
/// most one fault, checked in the order kSubmitError, kTransferError, kTimeout,
/// kShortTransfer.
enum class Fault {
    kStall,          ///< the endpoint halts now: reads end with a stall until the host clears
                     ///< the halt (count ignored); the stream pauses meanwhile and resumes
                     ///< with the next read
    kTimeout,        ///< the read gets no data and times out; the endpoint sends nothing
                     ///< meanwhile (a read without time-out ends at once)
    kTransferError,  ///< the read ends with a transfer error and no data
    kShortTransfer,  ///< the read ends with a short packet at half its length
    kSubmitError,    ///< the submission is refused (LIBUSB_ERROR_IO)
    kControlError,   ///< a control request fails (LIBUSB_ERROR_IO) and changes nothing
};

/// Chooses the simulated bus for this process (the cameras of EVCAM_SIM are plugged then).
/// @return 0, also when already chosen; 21 "Function is disabled." when the kit already uses
///         libusb.
EVCAM_API DVS_ERROR Enable();

/// Enables the bus and plugs the cameras of an EVCAM_SIM-style spec (syntax in the README).
/// Either all cameras of the string are plugged or none; cameras plugged before stay.
/// @return 0; 1 for a null or malformed spec, or a camera that cannot be plugged (a message
///         naming the camera and the key goes to standard error); 21 as Enable.
EVCAM_API DVS_ERROR Configure(const char* spec);

/// Enables the bus and plugs one camera. It appears on the next device scan.
/// @return the camera id (>= 0, never reused in the process), or -1 for a bad configuration
///         (a message goes to standard error), an address already taken on the bus, a file
///         that cannot be streamed, or when the kit already uses libusb.
EVCAM_API int Plug(const CameraConfig& config);

/// Unplugs a camera now: its pending and later transfers end with no-device, and it is
/// missing from later scans. Its register file and logs stay readable.
/// @return 0; 1 for an unknown id; 4 "The specified operation has been done." when it is
///         already unplugged.
EVCAM_API DVS_ERROR Unplug(int camera);

/// Unplugs every camera.
EVCAM_API void UnplugAll();

/// A register of the camera's register file (what a write request last stored; 0 when never
/// written). The key is the slave address (low 8 bits) and the register address (low 16 bits).
/// @return 0, or 1 for an unknown camera.
EVCAM_API DVS_ERROR ReadRegister(int camera, int slave, int reg, int& value);

/// Presets a register (value 0..0xFFFF) without a control request.
/// @return 0, or 1 for an unknown camera or a value out of range.
EVCAM_API DVS_ERROR WriteRegister(int camera, int slave, int reg, int value);

/// Every control request the camera received since it was plugged or the log was cleared, in
/// order. Empty for an unknown camera.
EVCAM_API std::vector<ControlRequest> ControlLog(int camera);

/// Empties the control log (nothing for an unknown camera).
EVCAM_API void ClearControlLog(int camera);

/// Arms a fault; counts add up. @return 0, or 1 for an unknown camera or a count below 1
///         (kStall ignores the count). A stall on an unplugged camera does nothing.
EVCAM_API DVS_ERROR InjectFault(int camera, Fault fault, int count = 1);

/// Starts recording every byte the camera delivers to the host from now on (earlier captured
/// bytes are dropped). Memory grows with the stream until TakeCapture.
/// @return 0, or 1 for an unknown camera.
EVCAM_API DVS_ERROR StartCapture(int camera);

/// Hands over the bytes captured since StartCapture and stops capturing.
/// @return 0; 1 for an unknown camera; 2 "System is not started." when no capture runs
///         (bytes is then emptied).
EVCAM_API DVS_ERROR TakeCapture(int camera, std::vector<uint8_t>& bytes);

/// Bytes the camera has delivered to the host since it was plugged; 0 for an unknown camera.
EVCAM_API uint64_t BytesSent(int camera);

}  // namespace sim
}  // namespace evcam

#endif  // EVCAM_SIM_H
