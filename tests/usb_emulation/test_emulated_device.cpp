// The public device object over the real libusb backend, against emulated cameras of both
// kinds: scan and bind, a bias settings file written to the camera's registers in order,
// frames from the camera's stream, and a raw recording byte-exact against what it sent.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "emulation_fixture.h"
#include "evcam/evcam.h"

namespace evcam {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

// The register lines of samples/single.bias: slave, register, value.
using Register = std::tuple<int, int, int>;
const std::vector<Register> kSingleBias = {{0x20, 0x0010, 0x00}, {0x20, 0x0031, 0x2C},
                                           {0x20, 0x0032, 0x18}, {0x20, 0x0033, 0x40},
                                           {0x20, 0x0034, 0x0A}, {0x20, 0x0010, 0x01}};

// A register write as the camera logged it, in its own kind's convention.
Register WrittenRegister(sim::Kind kind, const sim::ControlRequest& r) {
    if (r.bmRequestType != 0x40 || r.bRequest != 0xBA || r.result != r.wLength) {
        return {-1, -1, -1};
    }
    if (kind == sim::Kind::kFX20) {
        return r.data.size() == 4 ? Register(r.data[0], r.data[1] << 8 | r.data[2], r.data[3])
                                  : Register(-1, -1, -1);
    }
    return r.data.size() == 1 ? Register(r.wValue, r.wIndex, r.data[0]) : Register(-1, -1, -1);
}

class EmulatedDevice : public EmulationTest, public ::testing::WithParamInterface<sim::Kind> {
  protected:
    void SetUp() override {
        EmulationTest::SetUp();
        char pattern[] = "/tmp/evcam-emulated-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        mDir = pattern;
    }
    void TearDown() override {
        if (mDvs != nullptr) {
            DVSManager::DeleteDVS(mDvs);
        }
        fs::remove_all(mDir);
        EmulationTest::TearDown();
    }

    // Plugs a camera of the test's kind, finds it in the public scan and binds a device object.
    // @return the camera id.
    int PlugAndBind(uint64_t byteRate = 2000000) {
        const int id = PlugCamera(GetParam(), byteRate);
        USBDevice* list = nullptr;
        int count = 0;
        EXPECT_EQ(DVSManager::ScanAllDevices(&list, count), ERR_SUCCESS);
        const uint32_t type = GetParam() == sim::Kind::kFX3 ? DVS_FX3 : DVS_FX20;
        EXPECT_EQ(count, 1);
        EXPECT_EQ(list[0].mDevType, type);
        EXPECT_EQ(list[0].mLocation,
                  static_cast<uint32_t>(EmulatedBus::Instance().LocationKey(id)));
        mDvs = DVSManager::CreateDVS(static_cast<DVS_TYPE>(type));
        EXPECT_NE(mDvs, nullptr);
        EXPECT_EQ(DVSManager::BindDevice(mDvs, static_cast<int>(list[0].mDevId)), ERR_SUCCESS);
        return id;
    }

    DVS_ERROR LoadBias() {
        return mDvs->SetParameter(PARA_BIAS_FILE,
                                  const_cast<char*>(EVCAM_SAMPLES_DIR "/single.bias"));
    }

    void Set(PARA_TYPE type, uint32_t value) {
        EXPECT_EQ(mDvs->SetParameter(type, &value), ERR_SUCCESS) << "parameter " << type;
    }

    // Polls event frames until wanted of them held events, for at most 5 s. Every event must
    // lie on the pixel array. @return the frames that held events.
    int PollEventFrames(int wanted) {
        DVSUIData frame(MVT94QX, OUT_EVENTS, 960, 720);
        int frames = 0;
        const auto until = Clock::now() + Ms(5000);
        while (frames < wanted && Clock::now() < until) {
            unsigned char count = 0;
            if (mDvs->GetFrame(OUT_EVENTS, &frame, count) != ERR_SUCCESS || count != 1) {
                std::this_thread::sleep_for(Ms(1));
                continue;
            }
            frames += frame.mEventCount > 0 ? 1 : 0;
            for (int i = 0; i < frame.mEventCount; ++i) {
                EXPECT_LT(frame.mEvents[i].X(), 960);
                EXPECT_LT(frame.mEvents[i].y, 720);
            }
        }
        return frames;
    }

    std::string mDir;
    DVS* mDvs = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Kinds, EmulatedDevice,
                         ::testing::Values(sim::Kind::kFX20, sim::Kind::kFX3),
                         [](const auto& info) {
                             return info.param == sim::Kind::kFX3 ? "fx3" : "fx20";
                         });

TEST_P(EmulatedDevice, bias_file_writes_its_registers_in_order) {
    const int id = PlugAndBind();
    UsbdevfsCamera& camera = EmulatedBus::Instance().Camera(id);
    camera.ClearControlLog();
    ASSERT_EQ(LoadBias(), ERR_SUCCESS);
    std::vector<Register> written;
    for (const sim::ControlRequest& r : camera.ControlLog()) {
        written.push_back(WrittenRegister(GetParam(), r));
    }
    EXPECT_EQ(written, kSingleBias);
    EXPECT_EQ(camera.ReadRegister(0x20, 0x0033), 0x40);
    uint32_t version = 0;
    EXPECT_EQ(mDvs->GetParameter(PARA_VERSION, &version), ERR_SUCCESS);
    EXPECT_EQ(version, static_cast<uint32_t>(MVT94QX));
}

TEST_P(EmulatedDevice, frames_arrive_from_the_camera_stream) {
    PlugAndBind();
    ASSERT_EQ(LoadBias(), ERR_SUCCESS);
    Set(PARA_PPX, 8);
    Set(PARA_OUT_TYPE, OUT_EVENTS);
    Set(PARA_FRAME_PERIOD, 10);
    ASSERT_EQ(mDvs->Start(), ERR_SUCCESS);
    EXPECT_EQ(PollEventFrames(10), 10);
    EXPECT_EQ(mDvs->Stop(), ERR_SUCCESS);
}

TEST_P(EmulatedDevice, raw_recording_is_byte_exact_against_what_the_camera_sent) {
    const int id = PlugAndBind();
    UsbdevfsCamera& camera = EmulatedBus::Instance().Camera(id);
    ASSERT_EQ(LoadBias(), ERR_SUCCESS);
    Set(PARA_PPX, 8);
    Set(PARA_OUT_TYPE, OUT_EVENTS);
    Set(PARA_FRAME_PERIOD, 10);
    camera.StartCapture();
    ASSERT_EQ(mDvs->Start(), ERR_SUCCESS);
    ASSERT_EQ(mDvs->StartSaving(mDir.c_str()), ERR_SUCCESS);
    EXPECT_EQ(PollEventFrames(10), 10);
    EXPECT_EQ(mDvs->Stop(), ERR_SUCCESS);  // ends the recording too
    const Bytes sent = camera.TakeCapture();

    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(mDir)) {
        files.push_back(entry.path());
    }
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].extension(), ".dvs");
    std::ifstream in(files[0], std::ios::binary);
    const Bytes file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // Behind the 8-byte header, one unbroken stretch of what the camera sent.
    ASSERT_GT(file.size(), 8u + 100000u);
    const Bytes body(file.begin() + 8, file.end());
    EXPECT_NE(std::search(sent.begin(), sent.end(), body.begin(), body.end()), sent.end());
}

}  // namespace
}  // namespace evcam
