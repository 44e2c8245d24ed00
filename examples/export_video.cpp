// Plays a recording once and exports its painted frames as a Motion-JPEG video.
//   export_video FILE.dvs PREFIX      (writes PREFIX<version>-<n>.avi)
#include <evcam/evcam.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

namespace {
std::atomic<bool> gReadOver{false};
void OnReadOver(void*) {
    gReadOver = true;
}
}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s FILE.dvs PREFIX\n", argv[0]);
        return 2;
    }
    using namespace evcam;
    DVS* dvs = DVSManager::CreateDVS(DVS_FILE);
    DVS_ERROR rc = DVSManager::BindDevice(dvs, argv[1]);
    // Work mode 3: no caller reads frames, the exporter alone does, writing video.
    uint32_t once = PLAY_ONCE, outType = OUT_IMAGE, workMode = 3, period = 40;
    dvs->SetParameter(PARA_PLAY_MODE, &once);
    dvs->SetParameter(PARA_OUT_TYPE, &outType);
    dvs->SetParameter(PARA_WORK_MODE, &workMode);
    dvs->SetParameter(PARA_FRAME_PERIOD, &period);
    dvs->SetCallBack(CALLBACK_READ_OVER, reinterpret_cast<void*>(&OnReadOver), nullptr);
    if (rc == ERR_SUCCESS) {
        rc = dvs->Start();
    }
    if (rc == ERR_SUCCESS) {
        rc = dvs->StartSaving(argv[2]);
    }
    if (rc != ERR_SUCCESS) {
        std::fprintf(stderr, "%s\n", GetErrorMsg(rc));
        DVSManager::DeleteDVS(dvs);
        return 1;
    }
    while (!gReadOver) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    dvs->StopSaving();  // drains the frames queued for the exporter and closes the video
    DVSManager::DeleteDVS(dvs);
    std::printf("exported to %s*.avi\n", argv[2]);
    return 0;
}
