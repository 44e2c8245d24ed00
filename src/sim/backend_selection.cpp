#include "src/sim/backend_selection.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "src/platform/libusb_backend.h"
#include "src/platform/usb_backend.h"
#include "src/sim/sim_config.h"

namespace evcam {

namespace {

enum Choice : int { kUndecided, kSimulated, kReal };

// Written under ChoiceMutex(), read without it once decided.
std::atomic<int> gChoice{kUndecided};

std::mutex& ChoiceMutex() {
    static std::mutex mutex;
    return mutex;
}

// Called once, with the choice mutex held, when the simulated bus is chosen.
void PlugEnvironmentCameras() {
    const char* spec = std::getenv(kSimEnvironmentVariable);
    if (spec == nullptr) {
        return;
    }
    std::vector<sim::CameraConfig> cameras;
    std::string error;
    if (ParseSimSpec(spec, cameras, error)) {
        size_t failed = 0;
        PlugError plugError;
        if (ProcessSimulatedBus().PlugAll(cameras, failed, plugError)) {
            return;
        }
        error = FormatPlugError(kSimEnvironmentVariable, plugError, failed + 1);
    }
    std::fprintf(stderr, "%s\n%s: no camera is simulated\n", error.c_str(),
                 kSimEnvironmentVariable);
    std::fflush(stderr);
}

LibusbBackend& ProcessLibusbBackend() {
    // Never destroyed, for the same reason as the simulated bus.
    static LibusbBackend* backend = new LibusbBackend();
    return *backend;
}

}  // namespace

SimulatedBus& ProcessSimulatedBus() {
    static SimulatedBus* bus = new SimulatedBus();
    return *bus;
}

bool UseSimulatedBus() {
    if (gChoice.load(std::memory_order_acquire) == kUndecided) {
        std::lock_guard<std::mutex> lock(ChoiceMutex());
        if (gChoice.load(std::memory_order_relaxed) == kUndecided) {
            PlugEnvironmentCameras();
            gChoice.store(kSimulated, std::memory_order_release);
        }
    }
    return gChoice.load(std::memory_order_acquire) == kSimulated;
}

UsbBackend& ActiveUsbBackend() {
    int choice = gChoice.load(std::memory_order_acquire);
    if (choice == kUndecided) {
        std::lock_guard<std::mutex> lock(ChoiceMutex());
        choice = gChoice.load(std::memory_order_relaxed);
        if (choice == kUndecided) {
            if (std::getenv(kSimEnvironmentVariable) != nullptr) {
                PlugEnvironmentCameras();
                choice = kSimulated;
            } else {
                choice = kReal;
            }
            gChoice.store(choice, std::memory_order_release);
        }
    }
    if (choice == kSimulated) {
        return ProcessSimulatedBus();
    }
    return ProcessLibusbBackend();
}

std::string FormatPlugError(const char* source, const PlugError& error, size_t camera) {
    std::string line =
        std::string(source) + ": bad value '" + error.value + "' for key '" + error.key + "'";
    if (camera > 0) {
        line += " in camera " + std::to_string(camera);
    }
    if (!error.reason.empty()) {
        line += " (" + error.reason + ")";
    }
    return line;
}

}  // namespace evcam
