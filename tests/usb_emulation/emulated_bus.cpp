#include "emulated_bus.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "src/sim/scene_generator.h"

namespace evcam {

namespace {

constexpr int kMaxAddress = 127;
constexpr int kFX20Packet = 512;
constexpr int kFX3Packet = 1024;

void AppendLE16(std::vector<uint8_t>& bytes, int value) {
    bytes.push_back(static_cast<uint8_t>(value & 0xFF));
    bytes.push_back(static_cast<uint8_t>((value >> 8) & 0xFF));
}

// The device descriptor, then configuration 1 with one vendor interface whose only endpoint
// is bulk IN 0x81. The FX3 camera runs at SuperSpeed, so its endpoint carries a companion
// descriptor.
std::string Descriptors(bool superSpeed, uint16_t productId, int packetSize) {
    std::vector<uint8_t> d = {18, LIBUSB_DT_DEVICE};
    AppendLE16(d, superSpeed ? 0x0300 : 0x0200);
    d.insert(d.end(), {0x00, 0x00, 0x00, static_cast<uint8_t>(superSpeed ? 9 : 64)});
    AppendLE16(d, SimCamera::kVendorId);
    AppendLE16(d, productId);
    AppendLE16(d, 0x0100);
    d.insert(d.end(), {0, 0, 0, 1});

    const int total = 9 + 9 + 7 + (superSpeed ? 6 : 0);
    d.insert(d.end(), {9, LIBUSB_DT_CONFIG});
    AppendLE16(d, total);
    d.insert(d.end(), {1, 1, 0, 0x80, 50});
    d.insert(d.end(), {9, LIBUSB_DT_INTERFACE, 0, 0, 1, 0xFF, 0, 0, 0});
    d.insert(d.end(), {7, LIBUSB_DT_ENDPOINT, SimCamera::kDataEndpoint, LIBUSB_TRANSFER_TYPE_BULK});
    AppendLE16(d, packetSize);
    d.push_back(0);
    if (superSpeed) {
        d.insert(d.end(), {6, LIBUSB_DT_SS_ENDPOINT_COMPANION, 0, 0, 0, 0});
    }
    std::string hex;
    char byte[3];
    for (uint8_t b : d) {
        std::snprintf(byte, sizeof byte, "%02x", b);
        hex += byte;
    }
    return hex;
}

std::unique_ptr<StreamSource> MakeSource(const sim::CameraConfig& config) {
    if (!config.file.empty()) {
        std::string why;
        std::unique_ptr<StreamSource> source = FileSource::Open(config.file, why);
        if (source == nullptr) {
            std::fprintf(stderr, "emulated camera: %s\n", why.c_str());
        }
        return source;
    }
    SceneKind scene;
    if (ParseSceneKind(config.scene.c_str(), scene) != ERR_SUCCESS) {
        return nullptr;
    }
    return std::make_unique<SceneSource>(scene, config.stereo);
}

}  // namespace

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define EVCAM_THREAD_SANITIZER 1
#endif
#endif
#if defined(__SANITIZE_THREAD__) || defined(EVCAM_THREAD_SANITIZER)
// umockdev's testbed thread and libudev (under libusb's hotplug thread) synchronise through
// glib's locks and their own, which work on futexes that ThreadSanitizer cannot see, so their
// internal accesses look like races. Only reports with a frame inside those two libraries are
// exempt; these add to the suppressions file of the run.
extern "C" const char* __tsan_default_suppressions() {
    return "race:libumockdev.so.0\nrace:libudev.so.1\n";
}
#endif

EmulatedBus& EmulatedBus::Instance() {
    static EmulatedBus* bus = new EmulatedBus();
    return *bus;
}

bool EmulatedBus::Preloaded() {
    return umockdev_in_mock_environment() != FALSE;
}

EmulatedBus::EmulatedBus() : mTestbed(umockdev_testbed_new()) {}

int EmulatedBus::Plug(const sim::CameraConfig& config) {
    std::lock_guard<std::mutex> lock(mMutex);
    sim::CameraConfig resolved = config;
    resolved.unplugAfterMs = -1;
    const bool fx3 = config.kind == sim::Kind::kFX3;
    if (resolved.maxPacketSize == 0) {
        resolved.maxPacketSize = fx3 ? kFX3Packet : kFX20Packet;
    }
    // Address 1 is the root hub's.
    int& next = mNextAddress.emplace(config.bus, 2).first->second;
    if (resolved.address == 0) {
        resolved.address = next;
    }
    if (resolved.address < 2 || resolved.address > kMaxAddress || resolved.address < next) {
        return -1;
    }
    next = resolved.address + 1;
    std::unique_ptr<StreamSource> source = MakeSource(resolved);
    if (source == nullptr) {
        return -1;
    }

    char node[32];
    std::snprintf(node, sizeof node, "bus/usb/%03d/%03d", resolved.bus, resolved.address);
    char sysPath[64];
    std::snprintf(sysPath, sizeof sysPath, "/sys/devices/usb%d/%d-%d", resolved.bus, resolved.bus,
                  resolved.address);
    const int packet = resolved.maxPacketSize == sim::kZeroPacketSize ? 0 : resolved.maxPacketSize;
    const uint16_t product = fx3 ? SimCamera::kFX3ProductId : SimCamera::kFX20ProductId;

    auto camera = std::make_unique<UsbdevfsCamera>(resolved, std::move(source));
    GError* error = nullptr;
    const std::string devNode = std::string("/dev/") + node;
    if (!umockdev_testbed_attach_ioctl(mTestbed, devNode.c_str(), camera->Handler(), &error)) {
        std::fprintf(stderr, "emulated camera: %s\n", error->message);
        g_error_free(error);
        return -1;
    }
    char record[1024];
    std::snprintf(record, sizeof record,
                  "P: %s\nN: %s\n"
                  "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DRIVER=usb\n"
                  "E: BUSNUM=%03d\nE: DEVNUM=%03d\nE: DEVNAME=/dev/%s\n"
                  "A: busnum=%d\\n\nA: devnum=%d\\n\nA: speed=%s\\n\n"
                  "A: bConfigurationValue=1\\n\n"
                  "H: descriptors=%s\n",
                  sysPath + 4, node, resolved.bus, resolved.address, node, resolved.bus,
                  resolved.address, fx3 ? "5000" : "480",
                  Descriptors(fx3, product, packet).c_str());
    if (!umockdev_testbed_add_from_string(mTestbed, record, &error)) {
        std::fprintf(stderr, "emulated camera: %s\n", error->message);
        g_error_free(error);
        umockdev_testbed_detach_ioctl(mTestbed, devNode.c_str(), nullptr);
        return -1;
    }
    const int id = mNextId++;
    mCameras.emplace(id, Plugged{std::move(camera), sysPath, true});
    return id;
}

void EmulatedBus::Unplug(int id) {
    std::lock_guard<std::mutex> lock(mMutex);
    const auto it = mCameras.find(id);
    if (it == mCameras.end() || !it->second.present) {
        return;
    }
    Plugged& plugged = it->second;
    plugged.present = false;
    plugged.camera->Unplug();
    umockdev_testbed_uevent(mTestbed, plugged.sysPath.c_str(), "remove");
    umockdev_testbed_remove_device(mTestbed, plugged.sysPath.c_str());
}

void EmulatedBus::UnplugAll() {
    std::vector<int> ids;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (const auto& entry : mCameras) {
            ids.push_back(entry.first);
        }
    }
    for (int id : ids) {
        Unplug(id);
    }
}

UsbdevfsCamera& EmulatedBus::Camera(int id) {
    std::lock_guard<std::mutex> lock(mMutex);
    return *mCameras.at(id).camera;
}

int EmulatedBus::LocationKey(int id) {
    std::lock_guard<std::mutex> lock(mMutex);
    const sim::CameraConfig& config = mCameras.at(id).camera->Config();
    return config.bus * 100 + config.address;
}

}  // namespace evcam
