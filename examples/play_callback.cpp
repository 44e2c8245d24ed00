// Plays a recording once and receives painted frames through the frame callback.
//   play_callback FILE.dvs
#include <evcam/evcam.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

namespace {
std::atomic<bool> gReadOver{false};
std::atomic<unsigned long> gFrames{0};

void OnReadOver(void*) {
    gReadOver = true;
}

// Runs on a timer thread; the records are valid only during the call.
void OnFrame(evcam::DVSUIData* data, unsigned char count, void*, int intervalMs) {
    if (gFrames++ % 50 == 0) {
        std::printf("frame %u: %d x %d, %u events, %d records, %d ms apart\n", data[0].mFrameIndex,
                    data[0].mImgWidth, data[0].mImgHeight, data[0].mTotalEvents, count, intervalMs);
    }
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
    uint32_t once = PLAY_ONCE, outType = OUT_IMAGE, mode = FRAME_MODE_CALLBACK, period = 33;
    dvs->SetParameter(PARA_PLAY_MODE, &once);
    dvs->SetParameter(PARA_OUT_TYPE, &outType);
    dvs->SetParameter(PARA_FRAME_MODE, &mode);
    dvs->SetParameter(PARA_FRAME_PERIOD, &period);
    dvs->SetCallBack(CALLBACK_FRAME, reinterpret_cast<void*>(&OnFrame), nullptr);
    dvs->SetCallBack(CALLBACK_READ_OVER, reinterpret_cast<void*>(&OnReadOver), nullptr);
    if (rc == ERR_SUCCESS) {
        rc = dvs->Start();
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
    DVSManager::DeleteDVS(dvs);  // stops first
    std::printf("%lu frames\n", gFrames.load());
    return 0;
}
