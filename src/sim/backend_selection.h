// Which UsbBackend the process uses: chosen once, at the first USB operation or the first
// use of evcam/sim.h, and kept for the life of the process. ActiveUsbBackend() itself is
// declared in src/platform/usb_backend.h.
#ifndef EVCAM_SRC_SIM_BACKEND_SELECTION_H
#define EVCAM_SRC_SIM_BACKEND_SELECTION_H

#include <string>

#include "src/sim/simulated_bus.h"

namespace evcam {

/// The process's simulated bus. It exists whichever backend is chosen, but carries the
/// transports' traffic only when chosen. Never destroyed, so that threads still streaming at
/// exit never meet a dead bus. Any thread.
SimulatedBus& ProcessSimulatedBus();

/// Chooses the simulated bus unless the libusb backend is chosen already; the first choice
/// plugs the cameras of EVCAM_SIM (a malformed spec is reported on standard error and plugs
/// none). @return true when the process uses the simulated bus. Any thread.
bool UseSimulatedBus();

/// One line for standard error about a camera that could not be plugged, e.g.
/// "EVCAM_SIM: bad value '5' for key 'addr' in camera 2 (address taken on bus 1)".
/// camera counts from 1; 0 leaves out the " in camera" part. source names what was parsed.
std::string FormatPlugError(const char* source, const PlugError& error, size_t camera);

}  // namespace evcam

#endif  // EVCAM_SRC_SIM_BACKEND_SELECTION_H
