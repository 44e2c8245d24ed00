#include "live_camera.h"

#include <csignal>
#include <cstdio>

#include "progress_line.h"

namespace evcam::tool {

namespace {
std::atomic<bool> gInterrupted{false};
extern "C" void OnSignal(int) {
    gInterrupted = true;
}

const char* KindName(uint32_t type) {
    return type == 1 ? "fx3" : "fx20";
}
}  // namespace

void AddCameraOptions(CLI::App& cmd, CameraOptions& o) {
    cmd.add_option("--bias", o.bias, "Bias settings file")->required()->check(CLI::ExistingFile);
    cmd.add_option("--device", o.device, "Device id as `evcam devices` lists it")
        ->check(CLI::Range(0, 1));
    cmd.add_option("--type", o.type, "Controller kind: fx20 or fx3")
        ->check(CLI::IsMember({"fx20", "fx3"}));
    cmd.add_option("--ppx", o.ppx, "USB packets per transfer (1..512)")->check(CLI::Range(1, 512));
}

DvsHandle OpenCamera(const CameraOptions& o, const char* command) {
    USBDevice* list = nullptr;
    int count = 0;
    if (!Check(DVSManager::ScanAllDevices(&list, count), command, "scan")) {
        return nullptr;
    }
    const USBDevice* chosen = nullptr;
    for (int i = 0; i < count && chosen == nullptr; ++i) {
        const bool kindMatches = o.type.empty() || o.type == KindName(list[i].mDevType);
        const bool idMatches = o.device < 0 || static_cast<uint32_t>(o.device) == list[i].mDevId;
        if (kindMatches && idMatches) {
            chosen = &list[i];
        }
    }
    if (chosen == nullptr) {
        std::fprintf(stderr, "evcam %s: no such camera (%d listed; see `evcam devices`)\n", command,
                     count);
        return nullptr;
    }
    DvsHandle dvs(DVSManager::CreateDVS(static_cast<DVS_TYPE>(chosen->mDevType)));
    if (!dvs) {
        std::fprintf(stderr, "evcam %s: no device object is free\n", command);
        return nullptr;
    }
    uint32_t ppx = o.ppx;
    if (!Check(DVSManager::BindDevice(dvs.get(), static_cast<int>(chosen->mDevId)), command,
               "bind") ||
        (ppx != 0 && !Check(dvs->SetParameter(PARA_PPX, &ppx), command, "ppx")) ||
        !Check(dvs->SetParameter(PARA_BIAS_FILE, const_cast<char*>(o.bias.c_str())), command,
               o.bias.c_str())) {
        return nullptr;
    }
    std::printf("camera %u (%s) %s\n", chosen->mDevId, KindName(chosen->mDevType),
                chosen->mDescriptor);
    return dvs;
}

std::string LinkNotices::RateText() const {
    return lastNotice > 0 ? HumanBytes(kibPerSecond * 1024) + "/s" : "-";
}

bool LinkNotices::Attach(DVS* dvs, const char* command) {
    attached = std::chrono::steady_clock::now();
    auto onRate = +[](void* user, double kib) {
        auto* n = static_cast<LinkNotices*>(user);
        const double now = Since(n->attached);
        n->bytes = n->bytes + kib * 1024 * (now - n->lastNotice);
        n->lastNotice = now;
        n->kibPerSecond = kib;
    };
    auto onDrop = +[](void* user, unsigned long dropped, unsigned long offered) {
        auto* n = static_cast<LinkNotices*>(user);
        n->dropped = dropped;
        n->offered = offered;
        n->droppedTotal += dropped;
    };
    return Check(dvs->SetCallBack(CALLBACK_USB_DATA_RATE, reinterpret_cast<void*>(onRate), this),
                 command, "rate callback") &&
           Check(dvs->SetCallBack(CALLBACK_PKT_BUF_DROP, reinterpret_cast<void*>(onDrop), this),
                 command, "drop callback");
}

const std::atomic<bool>& InterruptFlag() {
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
    return gInterrupted;
}

double Since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace evcam::tool
