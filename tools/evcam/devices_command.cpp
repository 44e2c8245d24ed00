// evcam devices: lists the cameras on the USB bus (or the simulated ones under EVCAM_SIM).
#include <cstdio>

#include "commands.h"
#include "evcam/evcam.h"
#include "frame_options.h"

namespace evcam::tool {

namespace {
int RunDevices() {
    USBDevice* list = nullptr;
    int count = 0;
    if (!Check(DVSManager::ScanAllDevices(&list, count), "devices", "scan")) {
        return 1;
    }
    if (count == 0) {
        std::printf("no camera found\n");
        return 0;
    }
    std::printf("%-3s %-5s %-9s %s\n", "id", "kind", "bus:addr", "description");
    for (int i = 0; i < count; ++i) {
        const USBDevice& d = list[i];
        char where[16];
        std::snprintf(where, sizeof(where), "%03u:%03u", d.mLocation / 100, d.mLocation % 100);
        std::printf("%-3u %-5s %-9s %s\n", d.mDevId, d.mDevType == 1 ? "fx3" : "fx20", where,
                    d.mDescriptor);
    }
    return 0;
}
}  // namespace

void AddDevicesCommand(CLI::App& app, int* status) {
    CLI::App* cmd = app.add_subcommand("devices", "List the cameras attached");
    cmd->callback([status] { *status = RunDevices(); });
}

}  // namespace evcam::tool
