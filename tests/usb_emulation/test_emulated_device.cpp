// The public device object over the real libusb backend, against emulated cameras of both
// kinds: scan and bind, a bias settings file written to the camera's registers in order,
// frames from the camera's stream, and a raw recording byte-exact against what it sent.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>
#include <tuple>
#include <vector>

#include "emulation_fixture.h"
#include "evcam/evcam.h"
#include "tests/support/test_support.h"

namespace evcam {
namespace {

namespace fs = std::filesystem;

// A register write as the camera logged it, in its own kind's convention: slave, register,
// value, or -1s for anything else.
using Register = std::tuple<int, int, int>;
Register WrittenRegister(sim::Kind kind, const sim::ControlRequest& r) {
    const bool write = r.bmRequestType == 0x40 && r.bRequest == 0xBA && r.result == r.wLength;
    if (write && kind == sim::Kind::kFX20 && r.data.size() == 4) {
        return {r.data[0], r.data[1] << 8 | r.data[2], r.data[3]};
    }
    if (write && kind == sim::Kind::kFX3 && r.data.size() == 1) {
        return {r.wValue, r.wIndex, r.data[0]};
    }
    return {-1, -1, -1};
}

class EmulatedDevice : public EmulationTest, public ::testing::WithParamInterface<sim::Kind> {};

INSTANTIATE_TEST_SUITE_P(Kinds, EmulatedDevice,
                         ::testing::Values(sim::Kind::kFX20, sim::Kind::kFX3),
                         [](const auto& info) {
                             return info.param == sim::Kind::kFX3 ? "fx3" : "fx20";
                         });

TEST_P(EmulatedDevice, binds_writes_the_bias_file_streams_frames_and_records_byte_exact) {
    const int id = PlugCamera(GetParam());
    UsbdevfsCamera& camera = EmulatedBus::Instance().Camera(id);
    USBDevice* list = nullptr;
    int count = 0;
    ASSERT_EQ(DVSManager::ScanAllDevices(&list, count), ERR_SUCCESS);
    const uint32_t type = GetParam() == sim::Kind::kFX3 ? DVS_FX3 : DVS_FX20;
    ASSERT_EQ(count, 1);
    EXPECT_EQ(list[0].mDevType, type);
    EXPECT_EQ(list[0].mLocation, static_cast<uint32_t>(EmulatedBus::Instance().LocationKey(id)));
    DVS* dvs = DVSManager::CreateDVS(static_cast<DVS_TYPE>(type));
    ASSERT_NE(dvs, nullptr);
    std::unique_ptr<DVS, void (*)(DVS*)> owner(dvs, DVSManager::DeleteDVS);
    ASSERT_EQ(DVSManager::BindDevice(dvs, static_cast<int>(list[0].mDevId)), ERR_SUCCESS);

    // The register lines of samples/single.bias, in order.
    camera.ClearControlLog();
    ASSERT_EQ(
        dvs->SetParameter(PARA_BIAS_FILE, const_cast<char*>(EVCAM_SAMPLES_DIR "/single.bias")),
        ERR_SUCCESS);
    std::vector<Register> written;
    for (const sim::ControlRequest& r : camera.ControlLog()) {
        written.push_back(WrittenRegister(GetParam(), r));
    }
    EXPECT_EQ(written, (std::vector<Register>{{0x20, 0x0010, 0x00},
                                              {0x20, 0x0031, 0x2C},
                                              {0x20, 0x0032, 0x18},
                                              {0x20, 0x0033, 0x40},
                                              {0x20, 0x0034, 0x0A},
                                              {0x20, 0x0010, 0x01}}));
    EXPECT_EQ(camera.ReadRegister(0x20, 0x0033), 0x40);
    uint32_t u = 0;
    EXPECT_EQ(dvs->GetParameter(PARA_VERSION, &u), ERR_SUCCESS);
    EXPECT_EQ(u, static_cast<uint32_t>(MVT94QX));

    for (const auto& [para, value] :
         {std::make_pair(PARA_PPX, 8u), std::make_pair(PARA_OUT_TYPE, uint32_t{OUT_EVENTS}),
          std::make_pair(PARA_FRAME_PERIOD, 10u)}) {
        u = value;
        ASSERT_EQ(dvs->SetParameter(para, &u), ERR_SUCCESS) << para;
    }
    TempDir dir;
    camera.StartCapture();
    ASSERT_EQ(dvs->Start(), ERR_SUCCESS);
    ASSERT_EQ(dvs->StartSaving(dir.path().c_str()), ERR_SUCCESS);
    // Frames that hold events, every event on the pixel array.
    DVSUIData frame(MVT94QX, OUT_EVENTS, 960, 720);
    int frames = 0;
    EXPECT_TRUE(WaitUntil([&] {
        unsigned char n = 0;
        if (dvs->GetFrame(OUT_EVENTS, &frame, n) == ERR_SUCCESS && n == 1) {
            frames += frame.mEventCount > 0 ? 1 : 0;
            for (int i = 0; i < frame.mEventCount; ++i) {
                EXPECT_LT(frame.mEvents[i].X(), 960);
                EXPECT_LT(frame.mEvents[i].y, 720);
            }
        }
        return frames >= 10;
    }));
    EXPECT_EQ(dvs->Stop(), ERR_SUCCESS);  // ends the recording too
    const Bytes sent = camera.TakeCapture();

    // Behind the 8-byte header, one unbroken stretch of what the camera sent.
    std::vector<fs::path> files{fs::directory_iterator(dir.path()), fs::directory_iterator()};
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].extension(), ".dvs");
    const Bytes file = ReadFileBytes(files[0]);
    ASSERT_GT(file.size(), 8u + 100000u);
    EXPECT_NE(std::search(sent.begin(), sent.end(), file.begin() + 8, file.end()), sent.end());
}

}  // namespace
}  // namespace evcam
