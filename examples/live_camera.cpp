// Streams the first camera found for a few seconds, frames delivered to a callback, and prints
// the data rate the camera reports. With EVCAM_SIM set it runs on a simulated camera:
//   EVCAM_SIM=fx20 live_camera samples/single.bias
#include <evcam/evcam.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

namespace {
std::atomic<unsigned long> gFrames{0};
std::atomic<double> gKibPerSecond{0};

// Runs on the library's timer thread; the records are valid only during the call.
void OnFrame(evcam::DVSUIData* data, unsigned char count, void*, int) {
    (void)data;
    (void)count;
    ++gFrames;
}

void OnRate(void*, double kibPerSecond) {
    gKibPerSecond = kibPerSecond;
}
}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s BIAS_FILE\n", argv[0]);
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
    uint32_t mode = FRAME_MODE_CALLBACK;
    uint32_t period = 33;
    DVS_ERROR rc = DVSManager::BindDevice(cam, static_cast<int>(list[0].mDevId));
    if (rc == ERR_SUCCESS) {
        rc = cam->SetParameter(PARA_BIAS_FILE, argv[1]);
    }
    if (rc == ERR_SUCCESS) {
        cam->SetParameter(PARA_FRAME_MODE, &mode);
        cam->SetParameter(PARA_FRAME_PERIOD, &period);
        cam->SetCallBack(CALLBACK_FRAME, reinterpret_cast<void*>(&OnFrame), nullptr);
        cam->SetCallBack(CALLBACK_USB_DATA_RATE, reinterpret_cast<void*>(&OnRate), nullptr);
        rc = cam->Start();
    }
    if (rc != ERR_SUCCESS) {
        std::fprintf(stderr, "camera: %s\n", GetErrorMsg(rc));
        DVSManager::DeleteDVS(cam);
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::seconds(3));
    cam->Stop();
    DVSManager::DeleteDVS(cam);
    std::printf("%s: %lu frames in 3 s, %.0f KiB/s\n", list[0].mDescriptor, gFrames.load(),
                gKibPerSecond.load());
    return 0;
}
