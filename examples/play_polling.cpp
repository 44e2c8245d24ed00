// Plays a recording once and pulls its frames with GetFrame.
//   play_polling FILE.dvs
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
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FILE.dvs\n", argv[0]);
        return 2;
    }
    using namespace evcam;
    DVS* dvs = DVSManager::CreateDVS(DVS_FILE);
    DVS_ERROR rc = DVSManager::BindDevice(dvs, argv[1]);
    if (rc != ERR_SUCCESS) {
        std::fprintf(stderr, "bind: %s\n", GetErrorMsg(rc));
        DVSManager::DeleteDVS(dvs);
        return 1;
    }
    uint32_t once = PLAY_ONCE;
    uint32_t outType = OUT_EVENTS | OUT_POLARITY;
    dvs->SetParameter(PARA_PLAY_MODE, &once);
    dvs->SetParameter(PARA_OUT_TYPE, &outType);
    dvs->SetCallBack(CALLBACK_READ_OVER, reinterpret_cast<void*>(&OnReadOver), nullptr);

    uint32_t version = 0;
    int32_t size[2] = {0, 0};
    dvs->GetParameter(PARA_VERSION, &version);
    dvs->GetParameter(PARA_RESOLUTION, size);
    // Room for a stereo frame: the second record receives the second camera.
    DVSUIData frame[2] = {{static_cast<DVS_VERSION>(version), outType, size[0], size[1]},
                          {static_cast<DVS_VERSION>(version), outType, size[0], size[1]}};

    rc = dvs->Start();
    if (rc != ERR_SUCCESS) {
        std::fprintf(stderr, "start: %s\n", GetErrorMsg(rc));
        DVSManager::DeleteDVS(dvs);
        return 1;
    }
    unsigned long frames = 0, events = 0;
    auto idleSince = std::chrono::steady_clock::now();
    while (!gReadOver ||
           std::chrono::steady_clock::now() - idleSince < std::chrono::milliseconds(200)) {
        unsigned char count = 0;
        if (dvs->GetFrame(OUT_EVENTS, frame, count) == ERR_SUCCESS) {
            ++frames;
            for (int i = 0; i < count; ++i) {
                events += static_cast<unsigned long>(frame[i].mEventCount);
            }
            idleSince = std::chrono::steady_clock::now();
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    dvs->Stop();
    DVSManager::DeleteDVS(dvs);
    std::printf("%lu frames, %lu events\n", frames, events);
    return 0;
}
