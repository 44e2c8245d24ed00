// What the commands that drive a live camera (devices, record, live) share: choosing and
// configuring the camera, the notices it sends, and an interrupt that ends a run cleanly.
#ifndef EVCAM_TOOLS_EVCAM_LIVE_CAMERA_H
#define EVCAM_TOOLS_EVCAM_LIVE_CAMERA_H

#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <string>

#include "frame_options.h"

namespace evcam::tool {

struct CameraOptions {
    std::string bias;
    int device = -1;   ///< device id as `evcam devices` lists it; -1 = the first camera listed
    std::string type;  ///< "fx20", "fx3" or empty (the kind of the camera chosen)
    uint32_t ppx = 0;  ///< USB packets per transfer when not 0
    double seconds = 0;
};

/// Registers --bias (required), --device, --type and --ppx on cmd.
void AddCameraOptions(CLI::App& cmd, CameraOptions& options);

/// Scans, creates the device object of the chosen camera's kind, binds it, sets PPX and loads
/// the bias file. Prints what failed. @return the object, or null.
DvsHandle OpenCamera(const CameraOptions& options, const char* command);

/// Rate and drop notices from the read thread.
struct LinkNotices {
    std::atomic<double> kibPerSecond{0};
    std::atomic<unsigned long> dropped{0};  ///< in the latest notice's second
    std::atomic<unsigned long> offered{0};
    std::atomic<uint64_t> droppedTotal{0};
    std::atomic<bool> diskFull{false};
    /// Bytes the rate notices account for: each notice's rate times the time it covers.
    std::atomic<double> bytes{0};
    std::atomic<double> lastNotice{0};  ///< seconds since Attach at the latest notice
    std::chrono::steady_clock::time_point attached;

    /// "12.3 MB/s" as the latest notice said, or "-" before the first one (about a second).
    std::string RateText() const;
    /// Registers the rate and drop callbacks on dvs. @return true when both took.
    bool Attach(DVS* dvs, const char* command);
};

/// Installs SIGINT/SIGTERM handlers that ask the run to end. @return the flag they raise.
const std::atomic<bool>& InterruptFlag();

/// Seconds since start.
double Since(std::chrono::steady_clock::time_point start);

}  // namespace evcam::tool

#endif  // EVCAM_TOOLS_EVCAM_LIVE_CAMERA_H
