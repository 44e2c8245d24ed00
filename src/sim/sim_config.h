// The EVCAM_SIM spec: which simulated cameras a process gets.
//
//   spec   := camera { ";" camera }
//   camera := KIND [ ":" key "=" value { "," key "=" value } ]
//
// KIND is fx20 or fx3; keys are bus, addr, pkt, scene, file, rate, stereo and unplug_ms.
// Blanks around names and values are ignored, and so are empty cameras (a trailing ";").
#ifndef EVCAM_SRC_SIM_SIM_CONFIG_H
#define EVCAM_SRC_SIM_SIM_CONFIG_H

#include <string>
#include <vector>

#include "evcam/sim.h"

namespace evcam {

/// Name of the environment variable that selects the simulated bus.
constexpr const char* kSimEnvironmentVariable = "EVCAM_SIM";

/// Parses spec into one configuration per camera, in spec order. Values are checked for
/// syntax and range; whether a file can be streamed or an address is free is the bus's
/// business. Any thread; no side effects.
/// @return true, or false with cameras emptied and error holding one line naming the camera
///         (counted from 1) and the key, e.g.
///         "EVCAM_SIM: bad value 'x' for key 'rate' in camera 2". A null spec is malformed;
///         an empty one gives no camera.
bool ParseSimSpec(const char* spec, std::vector<sim::CameraConfig>& cameras, std::string& error);

}  // namespace evcam

#endif  // EVCAM_SRC_SIM_SIM_CONFIG_H
