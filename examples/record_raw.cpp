// Records the first camera's raw data into a folder for a number of seconds; the recording
// plays back with the file object (see play_polling).
//   EVCAM_SIM=fx3 record_raw samples/single.bias /tmp 2
#include <evcam/evcam.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {
std::atomic<bool> gDiskFull{false};
void OnDiskFull(void*) {
    gDiskFull = true;
}
}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s BIAS_FILE DIR SECONDS\n", argv[0]);
        return 2;
    }
    using namespace evcam;
    USBDevice* list = nullptr;
    int count = 0;
    if (DVSManager::ScanAllDevices(&list, count) != ERR_SUCCESS || count == 0) {
        std::fprintf(stderr, "no camera found\n");
        return 1;
    }
    DVS* cam = DVSManager::CreateDVS(static_cast<DVS_TYPE>(list[0].mDevType));
    uint32_t rawOnly = 0;  // no decoding: the whole machine goes to recording
    DVS_ERROR rc = DVSManager::BindDevice(cam, static_cast<int>(list[0].mDevId));
    if (rc == ERR_SUCCESS) {
        rc = cam->SetParameter(PARA_BIAS_FILE, argv[1]);
    }
    if (rc == ERR_SUCCESS) {
        cam->SetParameter(PARA_WORK_MODE, &rawOnly);
        rc = cam->Start();
    }
    if (rc == ERR_SUCCESS) {
        rc = cam->StartSaving(argv[2]);
        if (rc != ERR_SUCCESS) {
            cam->Stop();
        }
    }
    if (rc != ERR_SUCCESS) {
        std::fprintf(stderr, "camera: %s\n", GetErrorMsg(rc));
        DVSManager::DeleteDVS(cam);
        return 1;
    }
    // Set once the recorder exists; it runs on the recorder's thread.
    cam->SetSavingNoneSpaceCbk(&OnDiskFull, nullptr);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(std::atoi(argv[3]));
    while (std::chrono::steady_clock::now() < until && !gDiskFull) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    cam->StopSaving();
    cam->Stop();
    DVSManager::DeleteDVS(cam);
    if (gDiskFull) {
        std::fprintf(stderr, "disk full: recording stopped\n");
        return 1;
    }
    std::printf("recorded into %s\n", argv[2]);
    return 0;
}
