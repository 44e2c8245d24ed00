// Live cameras through the public interface, end to end on simulated cameras of both kinds:
// binding, bias files, frames by polling and by callback, rate and drop notices, raw recording
// checked byte for byte against what the camera sent, unplugging and two cameras at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "evcam/evcam.h"
#include "evcam/sim.h"
#include "tests/support/test_support.h"

namespace evcam {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

constexpr uint64_t kRate = 2000000;  // bytes per second of every simulated camera here

// Polls frames of the given forms until pred() holds, for at most limit; every frame goes to
// onFrame. @return whether pred() came true.
template <typename OnFrame, typename Pred>
bool PollUntil(DVS* dvs, uint32_t form, OnFrame onFrame, Pred pred, Ms limit = Ms(8000)) {
    DVSUIData records[2] = {{MVT94QX, form, 960, 720}, {MVT94QX, form, 960, 720}};
    return WaitUntil(
        [&] {
            unsigned char count = 0;
            while (!pred() && dvs->GetFrame(static_cast<OUT_TYPE>(form), records, count) == 0) {
                onFrame(records, count);
            }
            return pred();
        },
        limit);
}

// The one recording made in dir.
fs::path OnlyRecording(const fs::path& dir) {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(dir)) {
        if (entry.path().extension() == ".dvs") {
            found.push_back(entry.path());
        }
    }
    EXPECT_EQ(found.size(), 1u);
    return found.empty() ? fs::path() : found[0];
}

// A recording's bytes behind its 8-byte header.
Bytes Body(const fs::path& file) {
    const Bytes bytes = ReadFileBytes(file);
    return bytes.size() > 8 ? Bytes(bytes.begin() + 8, bytes.end()) : Bytes();
}

// Whether body is one unbroken piece of what the camera sent.
bool IsRunOf(const Bytes& sent, const Bytes& body) {
    return !body.empty() &&
           std::search(sent.begin(), sent.end(), body.begin(), body.end()) != sent.end();
}

// x, y, polarity, time stamp of each event the frames held, in order.
using EventKey = std::tuple<uint16_t, uint16_t, int, uint32_t>;
void AppendEvents(const DVSUIData* data, unsigned char count, std::vector<EventKey>& out) {
    for (int i = 0; i < count; ++i) {
        for (int k = 0; k < data[i].mEventCount; ++k) {
            const PackedEvent& e = data[i].mEvents[k];
            out.emplace_back(e.X(), e.y, e.Polarity(), e.timestamp);
        }
    }
}

// Whether playback (which starts mid-stream and needs a few words to find its place) shows,
// from its first run of 64 events found in live on, exactly the live events in order.
bool PlaysTheLiveEvents(const std::vector<EventKey>& live, const std::vector<EventKey>& played) {
    constexpr size_t kAnchor = 64;
    for (size_t p = 0; p < 2000 && p + kAnchor < played.size(); ++p) {
        const auto at =
            std::search(live.begin(), live.end(), played.begin() + p, played.begin() + p + kAnchor);
        if (at != live.end()) {
            const size_t common = std::min(played.size() - p, static_cast<size_t>(live.end() - at));
            return common > played.size() * 9 / 10 &&
                   std::equal(played.begin() + p, played.begin() + p + common, at);
        }
    }
    return false;
}

struct Notices {
    std::atomic<int> frames{0}, frameRates{0}, rates{0}, drops{0};
    std::atomic<double> lastRate{0};
    std::atomic<unsigned long> dropped{0}, offered{0};
    std::atomic<bool> slow{false};
};

class LiveDevice : public ::testing::TestWithParam<sim::Kind> {
  protected:
    void SetUp() override {
        ASSERT_EQ(sim::Enable(), ERR_SUCCESS);
        bias_ = dir_.Write("camera.bias",
                           "//@ DVS_VERSION MVT94QX\n//@ Single\n//@ Description test\n"
                           "20 3A 0F\n21 10 7F\n");
    }
    void TearDown() override {
        for (DVS* dvs : objects_) {
            DVSManager::DeleteDVS(dvs);
        }
        sim::UnplugAll();
    }

    int Plug(sim::Kind kind, uint64_t rate = kRate, bool stereo = false) {
        sim::CameraConfig config;
        config.kind = kind;
        config.byteRate = rate;
        config.stereo = stereo;
        const int camera = sim::Plug(config);
        EXPECT_GE(camera, 0);
        return camera;
    }
    DVS* Create(DVS_TYPE type) {
        DVS* dvs = DVSManager::CreateDVS(type);
        EXPECT_NE(dvs, nullptr);
        objects_.push_back(dvs);
        return dvs;
    }
    // A device object of the camera's kind, bound to the newest camera of that kind listed,
    // with the bias file loaded when configured.
    DVS* Open(sim::Kind kind, bool configured = true) {
        USBDevice* list = nullptr;
        int count = 0;
        EXPECT_EQ(DVSManager::ScanAllDevices(&list, count), ERR_SUCCESS);
        const uint32_t type = kind == sim::Kind::kFX3 ? 1 : 0;
        DVS* dvs = Create(static_cast<DVS_TYPE>(type));
        int bound = -1;
        for (int i = 0; i < count; ++i) {
            bound = list[i].mDevType == type ? static_cast<int>(list[i].mDevId) : bound;
        }
        EXPECT_EQ(DVSManager::BindDevice(dvs, bound), ERR_SUCCESS) << "camera listed as " << bound;
        if (configured) {
            EXPECT_EQ(dvs->SetParameter(PARA_BIAS_FILE, bias_.data()), ERR_SUCCESS);
        }
        return dvs;
    }
    static void Set(DVS* dvs, PARA_TYPE type, uint32_t value, DVS_ERROR expected = ERR_SUCCESS) {
        EXPECT_EQ(dvs->SetParameter(type, &value), expected) << "parameter " << type;
    }
    static uint32_t Get(DVS* dvs, PARA_TYPE type, DVS_ERROR expected = ERR_SUCCESS) {
        uint32_t u = 0;
        EXPECT_EQ(dvs->GetParameter(type, &u), expected) << "parameter " << type;
        return u;
    }

    TempDir dir_;
    std::string bias_;
    std::vector<DVS*> objects_;
};

INSTANTIATE_TEST_SUITE_P(Kinds, LiveDevice, ::testing::Values(sim::Kind::kFX20, sim::Kind::kFX3),
                         [](const auto& info) {
                             return info.param == sim::Kind::kFX3 ? "fx3" : "fx20";
                         });

TEST_P(LiveDevice, refuses_operations_out_of_order_and_checks_parameters) {
    const int camera = Plug(GetParam());
    DVS* unbound = Create(GetParam() == sim::Kind::kFX3 ? DVS_FX3 : DVS_FX20);
    EXPECT_EQ(unbound->Start(), ERR_INVALID_DEVICE);
    DVS* dvs = Open(GetParam(), false);
    EXPECT_EQ(dvs->Start(), ERR_NO_BIAS_FILE);
    Get(dvs, PARA_VERSION, ERR_NO_BIAS_FILE);
    EXPECT_EQ(dvs->SetSavingNoneSpaceCbk([](void*) {}, nullptr), ERR_DATASAVE_NOT_READY);
    DVSUIData frame(MVT94QX, OUT_IMAGE, 960, 720);
    unsigned char count = 0;
    EXPECT_EQ(dvs->GetFrame(OUT_IMAGE, &frame, count), ERR_NOT_START);
    EXPECT_EQ(dvs->DropFrame(), ERR_NOT_START);
    Set(dvs, PARA_PPX, 0, ERR_PARA_ERROR);
    Set(dvs, PARA_PACKET_COUNT, 513, ERR_PARA_ERROR);
    Set(dvs, PARA_TIMEOUT, 10001, ERR_PARA_ERROR);
    Set(dvs, PARA_WORK_MODE, 2, ERR_PARA_ERROR);
    Set(dvs, PARA_FILE_PATH, 0, ERR_NOT_SUPPORT);

    // An invalid bias file writes nothing; a valid one writes its registers and sets the version.
    std::string bad = dir_.Write("bad.bias", "// my settings\n20 3A 0F\n");
    sim::ClearControlLog(camera);
    EXPECT_EQ(dvs->SetParameter(PARA_BIAS_FILE, bad.data()), ERR_INVALID_FILE);
    EXPECT_TRUE(sim::ControlLog(camera).empty());
    ASSERT_EQ(dvs->SetParameter(PARA_BIAS_FILE, bias_.data()), ERR_SUCCESS);
    int reg[2] = {0, 0};
    EXPECT_EQ(sim::ReadRegister(camera, 0x20, 0x3A, reg[0]), ERR_SUCCESS);
    EXPECT_EQ(sim::ReadRegister(camera, 0x21, 0x10, reg[1]), ERR_SUCCESS);
    EXPECT_EQ(std::make_pair(reg[0], reg[1]), std::make_pair(0x0F, 0x7F));
    EXPECT_EQ(Get(dvs, PARA_VERSION), static_cast<uint32_t>(MVT94QX));
    EXPECT_EQ(Get(dvs, PARA_SENSOR_COUNT), 1u);
    int32_t size[2] = {0, 0};
    EXPECT_EQ(dvs->GetParameter(PARA_RESOLUTION, size), ERR_SUCCESS);
    EXPECT_EQ(std::make_pair(size[0], size[1]), std::make_pair(960, 720));

    ASSERT_EQ(dvs->Start(), ERR_SUCCESS);
    EXPECT_EQ(dvs->Start(), ERR_ALREADY_DONE);
    Set(dvs, PARA_PPX, 4, ERR_RUNNING);
    Set(dvs, PARA_PACKET_COUNT, 8, ERR_RUNNING);
    Set(dvs, PARA_OUT_TYPE, OUT_EVENTS, ERR_RUNNING);
    Set(dvs, PARA_FRAME_PERIOD, 20);  // takes effect at once
    Set(dvs, PARA_FRAME_MODE, FRAME_MODE_CALLBACK);
    EXPECT_EQ(dvs->GetFrame(OUT_IMAGE, &frame, count), ERR_FRAME_MODE);
    Set(dvs, PARA_FRAME_MODE, FRAME_MODE_POLLING);
    EXPECT_EQ(dvs->SetParameter(PARA_BIAS_FILE, bias_.data()), ERR_DEVICE_IN_USE);
    EXPECT_EQ(DVSManager::UnbindDevice(dvs), ERR_NOT_SUPPORT);
    EXPECT_EQ(dvs->Pause(), ERR_NOT_SUPPORT);
    EXPECT_EQ(dvs->Resume(), ERR_NOT_SUPPORT);
    EXPECT_EQ(dvs->StartFrameSaving("", 1), ERR_PARA_ERROR);
    EXPECT_EQ(dvs->Stop(), ERR_SUCCESS);
    EXPECT_EQ(dvs->Stop(), ERR_ALREADY_DONE);
    EXPECT_EQ(dvs->StartSaving(dir_.path().c_str()), ERR_NOT_START);

    // Re-binding restores the defaults: the bias file must be loaded again.
    Set(dvs, PARA_PPX, 8);
    ASSERT_EQ(DVSManager::BindDevice(dvs, 0), ERR_SUCCESS);
    Get(dvs, PARA_VERSION, ERR_NO_BIAS_FILE);
    EXPECT_EQ(Get(dvs, PARA_PPX), 2u);
    EXPECT_EQ(dvs->Start(), ERR_NO_BIAS_FILE);
}

// A fresh object ends frames by sensor frame ends; then by period; then by event count; then
// frames and notices come by callback.
TEST_P(LiveDevice, frames_arrive_under_each_frame_rule_by_polling_and_by_callback) {
    Plug(GetParam());
    DVS* dvs = Open(GetParam());
    Set(dvs, PARA_OUT_TYPE, OUT_EVENTS | OUT_POLARITY);
    const std::pair<PARA_TYPE, uint32_t> rules[] = {
        {PARA_WORK_MODE, 1}, {PARA_FRAME_PERIOD, 5}, {PARA_EVENT_COUNT, 1000}};
    for (const auto& [para, value] : rules) {
        Set(dvs, para, value);
        ASSERT_EQ(dvs->Start(), ERR_SUCCESS);
        int frames = 0;
        int32_t largest = 0;
        EXPECT_TRUE(PollUntil(
            dvs, OUT_EVENTS | OUT_POLARITY,
            [&](const DVSUIData* data, unsigned char n) {
                EXPECT_EQ(n, 1);
                frames += data[0].mEventCount > 0 ? 1 : 0;
                largest = std::max(largest, data[0].mEventCount);
            },
            [&] { return frames >= 5; }))
            << "rule set by parameter " << para;
        EXPECT_LE(largest, para == PARA_EVENT_COUNT ? 1000 : 1 << 30);
        EXPECT_EQ(dvs->Stop(), ERR_SUCCESS);
    }

    Notices n;
    auto onFrame =
        +[](DVSUIData*, unsigned char, void* user, int) { static_cast<Notices*>(user)->frames++; };
    auto onRate = +[](void* user, double kib) {
        static_cast<Notices*>(user)->lastRate = kib;
        static_cast<Notices*>(user)->rates++;
    };
    auto onFrameRate = +[](void* user, int) { static_cast<Notices*>(user)->frameRates++; };
    ASSERT_EQ(dvs->SetCallBack(CALLBACK_FRAME, reinterpret_cast<void*>(onFrame), &n), 0);
    ASSERT_EQ(dvs->SetCallBack(CALLBACK_USB_DATA_RATE, reinterpret_cast<void*>(onRate), &n), 0);
    ASSERT_EQ(dvs->SetCallBack(CALLBACK_FRAME_RATE, reinterpret_cast<void*>(onFrameRate), &n), 0);
    EXPECT_EQ(dvs->SetCallBack(CALLBACK_READ_OVER, reinterpret_cast<void*>(onFrame), &n),
              ERR_PARA_ERROR);
    Set(dvs, PARA_FRAME_MODE, FRAME_MODE_CALLBACK);
    Set(dvs, PARA_FRAME_PERIOD, 10);
    ASSERT_EQ(dvs->Start(), ERR_SUCCESS);
    EXPECT_TRUE(
        WaitUntil([&] { return n.rates >= 2 && n.frameRates >= 1 && n.frames >= 20; }, Ms(8000)));
    EXPECT_EQ(dvs->Stop(), ERR_SUCCESS);
    // KiB per second of the camera's steady byte rate.
    EXPECT_NEAR(n.lastRate.load(), kRate / 1024.0, kRate / 1024.0 * 0.2);
}

TEST_P(LiveDevice, a_stalled_consumer_drops_packets_and_the_pipeline_recovers) {
    Plug(GetParam(), 2 * kRate);
    DVS* dvs = Open(GetParam());
    Notices n;
    n.slow = true;
    // The totals notice runs on the parse thread: while it blocks, the parser stands still.
    auto onTotals = +[](void* user, unsigned long, unsigned long) {
        while (static_cast<Notices*>(user)->slow) {
            std::this_thread::sleep_for(Ms(1));
        }
    };
    auto onDrop = +[](void* user, unsigned long dropped, unsigned long offered) {
        auto* notices = static_cast<Notices*>(user);
        notices->dropped = dropped;
        notices->offered = offered;
        notices->drops++;
    };
    ASSERT_EQ(dvs->SetCallBack(CALLBACK_TOTAL_COUNT, reinterpret_cast<void*>(onTotals), &n), 0);
    ASSERT_EQ(dvs->SetCallBack(CALLBACK_PKT_BUF_DROP, reinterpret_cast<void*>(onDrop), &n), 0);
    Set(dvs, PARA_PPX, 8);
    Set(dvs, PARA_PACKET_COUNT, 16);
    Set(dvs, PARA_OUT_TYPE, OUT_EVENTS);
    ASSERT_EQ(dvs->Start(), ERR_SUCCESS);
    // Nobody takes frames meanwhile either.
    EXPECT_TRUE(WaitUntil([&] { return n.drops >= 2; }, Ms(8000)));
    EXPECT_GT(n.dropped.load(), 0u);
    EXPECT_LE(n.dropped.load(), n.offered.load());

    n.slow = false;
    int fresh = 0;
    EXPECT_TRUE(PollUntil(
        dvs, OUT_EVENTS,
        [&](const DVSUIData* data, unsigned char) { fresh += data[0].mEventCount > 0 ? 1 : 0; },
        [&] { return fresh >= 50; }));
    // Once caught up, drops stop: no notice comes, or (on a loaded machine) one for a few.
    std::this_thread::sleep_for(Ms(1500));
    const int settled = n.drops;
    std::this_thread::sleep_for(Ms(2000));
    EXPECT_TRUE(n.drops == settled || n.dropped < n.offered / 2);
    EXPECT_EQ(dvs->Stop(), ERR_SUCCESS);
}

// Work mode 0 builds no pipeline: nothing to poll or export, but raw data is recorded; there
// Stop ends the recording too.
TEST_P(LiveDevice, recording_is_byte_exact_with_and_without_a_pipeline) {
    const int camera = Plug(GetParam(), kRate / 2);
    DVS* dvs = Open(GetParam());
    Set(dvs, PARA_OUT_TYPE, OUT_EVENTS);
    for (uint32_t mode : {1u, 0u}) {
        SCOPED_TRACE(mode);
        TempDir out;
        Set(dvs, PARA_WORK_MODE, mode);
        ASSERT_EQ(sim::StartCapture(camera), ERR_SUCCESS);
        ASSERT_EQ(dvs->Start(), ERR_SUCCESS);
        ASSERT_EQ(dvs->StartSaving(out.path().c_str()), ERR_SUCCESS);
        EXPECT_EQ(dvs->StartSaving(out.path().c_str()), ERR_ALREADY_DONE);
        EXPECT_EQ(dvs->SetSavingNoneSpaceCbk([](void*) {}, nullptr), ERR_SUCCESS);
        DVSUIData frame(MVT94QX, OUT_EVENTS, 960, 720);
        unsigned char count = 0;
        if (mode == 0) {
            EXPECT_EQ(dvs->GetFrame(OUT_EVENTS, &frame, count), ERR_NOT_START);
            EXPECT_EQ(dvs->DropFrame(), ERR_NOT_START);
            EXPECT_EQ(dvs->StartFrameSaving(out.File("f").c_str(), 1), ERR_NOT_START);
        }
        std::vector<EventKey> live;
        auto keep = [&](const DVSUIData* d, unsigned char c) { AppendEvents(d, c, live); };
        const auto until = Clock::now() + Ms(1000);
        PollUntil(dvs, OUT_EVENTS, keep, [&] { return Clock::now() > until; });
        if (mode == 1) {
            EXPECT_EQ(dvs->StopSaving(), ERR_SUCCESS);
            EXPECT_EQ(dvs->StopSaving(), ERR_ALREADY_DONE);
            // Frames still queued were made from bytes sent while recording.
            PollUntil(dvs, OUT_EVENTS, keep, [&] { return Clock::now() > until + Ms(300); });
        }
        EXPECT_EQ(dvs->Stop(), ERR_SUCCESS);
        Bytes sent;
        ASSERT_EQ(sim::TakeCapture(camera, sent), ERR_SUCCESS);
        const fs::path file = OnlyRecording(out.path());
        const Bytes body = Body(file);
        EXPECT_GT(body.size(), kRate / 4);  // about 1 s at 1 MB/s
        EXPECT_TRUE(IsRunOf(sent, body)) << "the recording is not what was sent";
        if (mode == 0) {
            continue;
        }
        // Played back through the file object, the recording gives the events live frames saw.
        DVS* player = Create(DVS_FILE);
        ASSERT_EQ(DVSManager::BindDevice(player, file.c_str()), ERR_SUCCESS);
        Set(player, PARA_OUT_TYPE, OUT_EVENTS);
        Set(player, PARA_PLAY_MODE, PLAY_ONCE);
        ASSERT_EQ(player->Start(), ERR_SUCCESS);
        std::vector<EventKey> played;
        uint64_t parsed = 0;
        PollUntil(
            player, OUT_EVENTS,
            [&](const DVSUIData* d, unsigned char c) { AppendEvents(d, c, played); },
            [&] {
                player->GetParameter(PARA_PARSED_BYTES, &parsed);
                return parsed >= body.size();
            });
        PollUntil(
            player, OUT_EVENTS,
            [&](const DVSUIData* d, unsigned char c) { AppendEvents(d, c, played); },
            [] { return false; }, Ms(300));
        EXPECT_EQ(player->Stop(), ERR_SUCCESS);
        EXPECT_GT(played.size(), 1000u);
        EXPECT_TRUE(PlaysTheLiveEvents(live, played));
    }
}

// Frames are exported as images while raw data is recorded, until the camera goes.
TEST_P(LiveDevice, unplugging_while_streaming_ends_the_stream_without_a_hang) {
    const int camera = Plug(GetParam());
    DVS* dvs = Open(GetParam());
    Set(dvs, PARA_OUT_TYPE, OUT_EVENTS | OUT_IMAGE);
    ASSERT_EQ(dvs->Start(), ERR_SUCCESS);
    ASSERT_EQ(dvs->StartSaving(dir_.path().c_str()), ERR_SUCCESS);
    const std::string prefix = dir_.File("frame");
    ASSERT_EQ(dvs->StartFrameSaving(prefix.c_str(), 1), ERR_SUCCESS);
    EXPECT_EQ(dvs->StartFrameSaving(prefix.c_str(), 1), ERR_ALREADY_DONE);
    int frames = 0;
    ASSERT_TRUE(PollUntil(
        dvs, OUT_EVENTS | OUT_IMAGE, [&](const DVSUIData*, unsigned char) { ++frames; },
        [&] { return frames >= 3 && fs::exists(prefix + "2.bmp"); }));
    ASSERT_EQ(sim::Unplug(camera), ERR_SUCCESS);
    std::this_thread::sleep_for(Ms(300));
    const auto before = Clock::now();
    EXPECT_EQ(dvs->Stop(), ERR_SUCCESS);
    EXPECT_LT(Clock::now() - before, Ms(3000));
    EXPECT_EQ(dvs->StopFrameSaving(), ERR_ALREADY_DONE) << "the stop ended the export";
    USBDevice* list = nullptr;
    int count = -1;
    EXPECT_EQ(DVSManager::ScanAllDevices(&list, count), ERR_SUCCESS);
    EXPECT_EQ(count, 0);
    EXPECT_GT(Body(OnlyRecording(dir_.path())).size(), 0u);
}

// A stereo camera of each kind, streaming pairs of records at once.
using LiveDevices = LiveDevice;
TEST_F(LiveDevices, two_cameras_stream_at_once) {
    bias_ = dir_.Write("stereo.bias",
                       "//@ DVS_VERSION MVT94QX\n//@ Stereo\n//@ Description pair\n20 3A 0F\n");
    Plug(sim::Kind::kFX20, kRate, true);
    Plug(sim::Kind::kFX3, kRate, true);
    DVS* dvs[2] = {Open(sim::Kind::kFX20), Open(sim::Kind::kFX3)};
    for (DVS* d : dvs) {
        Set(d, PARA_OUT_TYPE, OUT_POLARITY);
        EXPECT_EQ(Get(d, PARA_SENSOR_COUNT), 2u);
        ASSERT_EQ(d->Start(), ERR_SUCCESS);
    }
    int pairs[2] = {0, 0};
    auto poll = [&](int i) {
        PollUntil(
            dvs[i], OUT_POLARITY, [&](const DVSUIData*, unsigned char c) { pairs[i] += c == 2; },
            [&] { return pairs[i] >= 10; });
    };
    std::thread other(poll, 1);
    poll(0);
    other.join();
    EXPECT_GE(pairs[0], 10);
    EXPECT_GE(pairs[1], 10);
    for (DVS* d : dvs) {
        EXPECT_EQ(d->Stop(), ERR_SUCCESS);
    }
}

}  // namespace
}  // namespace evcam
