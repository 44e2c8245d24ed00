// Live cameras through the public interface, end to end on simulated cameras of both kinds:
// binding, bias files, frames by polling and by callback, rate and drop notices, raw recording
// checked byte for byte against what the camera sent, unplugging and two cameras at once.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "evcam/evcam.h"
#include "evcam/sim.h"

namespace evcam {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

constexpr uint64_t kRate = 2000000;  // bytes per second of every simulated camera here

// x, y, polarity, time stamp: what a frame says of one event.
using EventKey = std::tuple<uint16_t, uint16_t, int, uint32_t>;

void AppendEvents(const DVSUIData* data, unsigned char count, std::vector<EventKey>& out) {
    for (int i = 0; i < count; ++i) {
        for (int k = 0; k < data[i].mEventCount; ++k) {
            const PackedEvent& e = data[i].mEvents[k];
            out.emplace_back(e.X(), e.y, e.Polarity(), e.timestamp);
        }
    }
}

// Polls frames until pred() holds or the time is up; every frame goes to onFrame.
template <typename OnFrame, typename Pred>
bool PollUntil(DVS* dvs, uint32_t form, OnFrame onFrame, Pred pred, Ms limit = Ms(8000)) {
    DVSUIData records[2];
    for (auto& r : records) {
        r.Initialize(MVT94QX, form, 960, 720);
    }
    const auto deadline = Clock::now() + limit;
    while (!pred()) {
        if (Clock::now() > deadline) {
            return false;
        }
        unsigned char count = 0;
        if (dvs->GetFrame(static_cast<OUT_TYPE>(form), records, count) == ERR_SUCCESS) {
            onFrame(records, count);
        } else {
            std::this_thread::sleep_for(Ms(1));
        }
    }
    return true;
}

template <typename Pred>
bool WaitFor(Pred pred, Ms limit = Ms(8000)) {
    const auto deadline = Clock::now() + limit;
    while (!pred()) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(Ms(2));
    }
    return true;
}

std::vector<uint8_t> ReadBody(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    return bytes.size() > 8 ? std::vector<uint8_t>(bytes.begin() + 8, bytes.end())
                            : std::vector<uint8_t>();
}

// The one recording a test made in dir.
fs::path OnlyRecording(const std::string& dir) {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(dir)) {
        if (entry.path().extension() == ".dvs") {
            found.push_back(entry.path());
        }
    }
    EXPECT_EQ(found.size(), 1u);
    return found.empty() ? fs::path() : found.front();
}

// Where body starts inside what the camera sent, or npos when it is not one unbroken piece.
size_t FindRun(const std::vector<uint8_t>& sent, const std::vector<uint8_t>& body) {
    if (body.empty()) {
        return std::string::npos;
    }
    const auto at = std::search(sent.begin(), sent.end(), body.begin(), body.end());
    return at == sent.end() ? std::string::npos : static_cast<size_t>(at - sent.begin());
}

class LiveDevice : public ::testing::TestWithParam<sim::Kind> {
  protected:
    void SetUp() override {
        ASSERT_EQ(sim::Enable(), ERR_SUCCESS);
        char pattern[] = "/tmp/evcam-live-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        bias_ = dir_ + "/camera.bias";
        std::ofstream(bias_) << "//@ DVS_VERSION MVT94QX\n//@ Single\n//@ Description test\n"
                                "20 3A 0F\n21 10 7F\n";
    }
    void TearDown() override {
        for (DVS* dvs : objects_) {
            DVSManager::DeleteDVS(dvs);
        }
        sim::UnplugAll();
        fs::remove_all(dir_);
    }

    int Plug(sim::Kind kind, uint64_t rate = kRate) {
        sim::CameraConfig config;
        config.kind = kind;
        config.byteRate = rate;
        const int camera = sim::Plug(config);
        EXPECT_GE(camera, 0);
        return camera;
    }

    // A device object of the camera's kind, bound to the newest camera of that kind listed.
    DVS* Open(sim::Kind kind) {
        USBDevice* list = nullptr;
        int count = 0;
        EXPECT_EQ(DVSManager::ScanAllDevices(&list, count), ERR_SUCCESS);
        const uint32_t type = kind == sim::Kind::kFX3 ? 1 : 0;
        DVS* dvs = DVSManager::CreateDVS(static_cast<DVS_TYPE>(type));
        EXPECT_NE(dvs, nullptr);
        objects_.push_back(dvs);
        int bound = -1;
        for (int i = 0; i < count; ++i) {
            if (list[i].mDevType == type) {
                bound = static_cast<int>(list[i].mDevId);
            }
        }
        EXPECT_GE(bound, 0) << "no camera of the kind listed";
        EXPECT_EQ(DVSManager::BindDevice(dvs, bound), ERR_SUCCESS);
        return dvs;
    }

    DVS* OpenConfigured(sim::Kind kind) {
        DVS* dvs = Open(kind);
        EXPECT_EQ(dvs->SetParameter(PARA_BIAS_FILE, const_cast<char*>(bias_.c_str())), ERR_SUCCESS);
        return dvs;
    }

    static void Set(DVS* dvs, PARA_TYPE type, uint32_t value, DVS_ERROR expected = ERR_SUCCESS) {
        EXPECT_EQ(dvs->SetParameter(type, &value), expected) << "parameter " << type;
    }

    std::string dir_;
    std::string bias_;
    std::vector<DVS*> objects_;
};

INSTANTIATE_TEST_SUITE_P(Kinds, LiveDevice, ::testing::Values(sim::Kind::kFX20, sim::Kind::kFX3),
                         [](const auto& info) {
                             return info.param == sim::Kind::kFX3 ? "fx3" : "fx20";
                         });

TEST_P(LiveDevice, refuses_operations_out_of_order_and_checks_parameters) {
    const int camera = Plug(GetParam());
    DVS* unbound = DVSManager::CreateDVS(GetParam() == sim::Kind::kFX3 ? DVS_FX3 : DVS_FX20);
    EXPECT_EQ(unbound->Start(), ERR_INVALID_DEVICE);
    DVSManager::DeleteDVS(unbound);
    DVS* dvs = Open(GetParam());
    uint32_t u = 0;
    EXPECT_EQ(dvs->Start(), ERR_NO_BIAS_FILE);
    EXPECT_EQ(dvs->GetParameter(PARA_VERSION, &u), ERR_NO_BIAS_FILE);
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
    const std::string bad = dir_ + "/bad.bias";
    std::ofstream(bad) << "// my settings\n20 3A 0F\n";
    sim::ClearControlLog(camera);
    EXPECT_EQ(dvs->SetParameter(PARA_BIAS_FILE, const_cast<char*>(bad.c_str())), ERR_INVALID_FILE);
    EXPECT_TRUE(sim::ControlLog(camera).empty());
    ASSERT_EQ(dvs->SetParameter(PARA_BIAS_FILE, const_cast<char*>(bias_.c_str())), ERR_SUCCESS);
    int reg = 0;
    EXPECT_EQ(sim::ReadRegister(camera, 0x20, 0x3A, reg), ERR_SUCCESS);
    EXPECT_EQ(reg, 0x0F);
    EXPECT_EQ(sim::ReadRegister(camera, 0x21, 0x10, reg), ERR_SUCCESS);
    EXPECT_EQ(reg, 0x7F);
    EXPECT_EQ(dvs->GetParameter(PARA_VERSION, &u), ERR_SUCCESS);
    EXPECT_EQ(u, static_cast<uint32_t>(MVT94QX));
    EXPECT_EQ(dvs->GetParameter(PARA_SENSOR_COUNT, &u), ERR_SUCCESS);
    EXPECT_EQ(u, 1u);
    int32_t size[2] = {0, 0};
    EXPECT_EQ(dvs->GetParameter(PARA_RESOLUTION, size), ERR_SUCCESS);
    EXPECT_EQ(size[0], 960);
    EXPECT_EQ(size[1], 720);

    ASSERT_EQ(dvs->Start(), ERR_SUCCESS);
    EXPECT_EQ(dvs->Start(), ERR_ALREADY_DONE);
    Set(dvs, PARA_PPX, 4, ERR_RUNNING);
    Set(dvs, PARA_PACKET_COUNT, 8, ERR_RUNNING);
    Set(dvs, PARA_OUT_TYPE, OUT_EVENTS, ERR_RUNNING);
    Set(dvs, PARA_FRAME_PERIOD, 20);  // takes effect at once
    Set(dvs, PARA_FRAME_MODE, FRAME_MODE_CALLBACK);
    EXPECT_EQ(dvs->GetFrame(OUT_IMAGE, &frame, count), ERR_FRAME_MODE);
    Set(dvs, PARA_FRAME_MODE, FRAME_MODE_POLLING);
    EXPECT_EQ(dvs->SetParameter(PARA_BIAS_FILE, const_cast<char*>(bias_.c_str())),
              ERR_DEVICE_IN_USE);
    EXPECT_EQ(DVSManager::UnbindDevice(dvs), ERR_NOT_SUPPORT);
    EXPECT_EQ(dvs->Pause(), ERR_NOT_SUPPORT);
    EXPECT_EQ(dvs->Resume(), ERR_NOT_SUPPORT);
    EXPECT_EQ(dvs->StartFrameSaving("", 1), ERR_PARA_ERROR);
    EXPECT_EQ(dvs->Stop(), ERR_SUCCESS);
    EXPECT_EQ(dvs->Stop(), ERR_ALREADY_DONE);
    EXPECT_EQ(dvs->StartSaving(dir_.c_str()), ERR_NOT_START);

    // Re-binding restores the defaults: the bias file must be loaded again.
    Set(dvs, PARA_PPX, 8);
    ASSERT_EQ(DVSManager::BindDevice(dvs, 0), ERR_SUCCESS);
    EXPECT_EQ(dvs->GetParameter(PARA_VERSION, &u), ERR_NO_BIAS_FILE);
    EXPECT_EQ(dvs->GetParameter(PARA_PPX, &u), ERR_SUCCESS);
    EXPECT_EQ(u, 2u);
    EXPECT_EQ(dvs->Start(), ERR_NO_BIAS_FILE);
}

TEST_P(LiveDevice, frames_arrive_by_polling_under_each_frame_rule) {
    Plug(GetParam());
    DVS* dvs = OpenConfigured(GetParam());
    Set(dvs, PARA_OUT_TYPE, OUT_EVENTS | OUT_POLARITY);
    // A fresh object ends frames by sensor frame ends; then by period; then by event count.
    const std::vector<std::pair<PARA_TYPE, uint32_t>> rules = {
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
        if (para == PARA_EVENT_COUNT) {
            EXPECT_LE(largest, 1000);
        }
        EXPECT_EQ(dvs->Stop(), ERR_SUCCESS);
    }
}

struct Notices {
    std::atomic<int> frames{0};
    std::atomic<int> frameRates{0};
    std::atomic<int> rates{0};
    std::atomic<double> lastRate{0};
    std::atomic<int> drops{0};
    std::atomic<unsigned long> dropped{0};
    std::atomic<unsigned long> offered{0};
    std::atomic<bool> slow{false};
};

TEST_P(LiveDevice, frames_arrive_by_callback_with_rate_notices) {
    Plug(GetParam());
    DVS* dvs = OpenConfigured(GetParam());
    Notices n;
    auto onFrame =
        +[](DVSUIData*, unsigned char, void* user, int) { static_cast<Notices*>(user)->frames++; };
    auto onRate = +[](void* user, double kib) {
        auto* notices = static_cast<Notices*>(user);
        notices->lastRate = kib;
        notices->rates++;
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
    EXPECT_TRUE(WaitFor([&] { return n.rates >= 2 && n.frameRates >= 1 && n.frames >= 20; }));
    EXPECT_EQ(dvs->Stop(), ERR_SUCCESS);
    // KiB per second of the camera's steady byte rate.
    EXPECT_NEAR(n.lastRate.load(), kRate / 1024.0, kRate / 1024.0 * 0.2);
}

TEST_P(LiveDevice, a_stalled_consumer_drops_packets_and_the_pipeline_recovers) {
    Plug(GetParam(), 2 * kRate);
    DVS* dvs = OpenConfigured(GetParam());
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
    EXPECT_TRUE(WaitFor([&] { return n.drops >= 2; }));
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
    if (n.drops > settled) {
        EXPECT_LT(n.dropped.load(), n.offered.load() / 2);
    }
    EXPECT_EQ(dvs->Stop(), ERR_SUCCESS);
}

TEST_P(LiveDevice, recording_is_byte_exact_and_plays_back_the_live_events) {
    const int camera = Plug(GetParam(), kRate / 2);
    DVS* dvs = OpenConfigured(GetParam());
    Set(dvs, PARA_OUT_TYPE, OUT_EVENTS);
    Set(dvs, PARA_FRAME_PERIOD, 10);
    ASSERT_EQ(sim::StartCapture(camera), ERR_SUCCESS);
    ASSERT_EQ(dvs->Start(), ERR_SUCCESS);
    ASSERT_EQ(dvs->StartSaving(dir_.c_str()), ERR_SUCCESS);
    EXPECT_EQ(dvs->StartSaving(dir_.c_str()), ERR_ALREADY_DONE);
    EXPECT_EQ(dvs->SetSavingNoneSpaceCbk([](void*) {}, nullptr), ERR_SUCCESS);
    std::vector<EventKey> live;
    const auto until = Clock::now() + Ms(1500);
    PollUntil(
        dvs, OUT_EVENTS, [&](const DVSUIData* d, unsigned char c) { AppendEvents(d, c, live); },
        [&] { return Clock::now() > until; });
    EXPECT_EQ(dvs->StopSaving(), ERR_SUCCESS);
    EXPECT_EQ(dvs->StopSaving(), ERR_ALREADY_DONE);
    // Frames still queued were packaged from bytes sent while recording.
    PollUntil(
        dvs, OUT_EVENTS, [&](const DVSUIData* d, unsigned char c) { AppendEvents(d, c, live); },
        [&] { return Clock::now() > until + Ms(300); });
    EXPECT_EQ(dvs->Stop(), ERR_SUCCESS);
    std::vector<uint8_t> sent;
    ASSERT_EQ(sim::TakeCapture(camera, sent), ERR_SUCCESS);

    const fs::path file = OnlyRecording(dir_);
    const std::vector<uint8_t> body = ReadBody(file);
    EXPECT_GT(body.size(), kRate / 2);  // about 1.5 s at 1 MB/s
    EXPECT_NE(FindRun(sent, body), std::string::npos) << "the recording is not what was sent";

    DVS* player = DVSManager::CreateDVS(DVS_FILE);
    ASSERT_NE(player, nullptr);
    objects_.push_back(player);
    ASSERT_EQ(DVSManager::BindDevice(player, file.c_str()), ERR_SUCCESS);
    Set(player, PARA_OUT_TYPE, OUT_EVENTS);
    Set(player, PARA_WORK_MODE, 4);
    uint32_t once = PLAY_ONCE;
    ASSERT_EQ(player->SetParameter(PARA_PLAY_MODE, &once), ERR_SUCCESS);
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

    // The recording starts mid-stream: the player needs a few words to find its place, after
    // which every event it sees is the live one, in order.
    ASSERT_GT(played.size(), 1000u);
    constexpr size_t kAnchor = 64;
    size_t liveAt = std::string::npos;
    size_t playedAt = 0;
    for (; playedAt < 2000 && liveAt == std::string::npos; ++playedAt) {
        const auto hit = std::search(live.begin(), live.end(), played.begin() + playedAt,
                                     played.begin() + playedAt + kAnchor);
        if (hit != live.end()) {
            liveAt = static_cast<size_t>(hit - live.begin());
        }
    }
    ASSERT_NE(liveAt, std::string::npos) << "no played event run is found in the live frames";
    --playedAt;
    const size_t common = std::min(played.size() - playedAt, live.size() - liveAt);
    EXPECT_GT(common, played.size() * 9 / 10);
    EXPECT_TRUE(std::equal(played.begin() + playedAt, played.begin() + playedAt + common,
                           live.begin() + liveAt));
}

TEST_P(LiveDevice, work_mode_0_records_without_a_pipeline) {
    const int camera = Plug(GetParam());
    DVS* dvs = OpenConfigured(GetParam());
    Set(dvs, PARA_WORK_MODE, 0);
    ASSERT_EQ(sim::StartCapture(camera), ERR_SUCCESS);
    ASSERT_EQ(dvs->Start(), ERR_SUCCESS);
    DVSUIData frame(MVT94QX, OUT_IMAGE, 960, 720);
    unsigned char count = 0;
    EXPECT_EQ(dvs->GetFrame(OUT_IMAGE, &frame, count), ERR_NOT_START);
    EXPECT_EQ(dvs->DropFrame(), ERR_NOT_START);
    EXPECT_EQ(dvs->StartFrameSaving((dir_ + "/f").c_str(), 1), ERR_NOT_START);
    ASSERT_EQ(dvs->StartSaving(dir_.c_str()), ERR_SUCCESS);
    std::this_thread::sleep_for(Ms(500));
    EXPECT_EQ(dvs->Stop(), ERR_SUCCESS);  // ends the recording too
    std::vector<uint8_t> sent;
    ASSERT_EQ(sim::TakeCapture(camera, sent), ERR_SUCCESS);
    const std::vector<uint8_t> body = ReadBody(OnlyRecording(dir_));
    EXPECT_GT(body.size(), kRate / 8);
    EXPECT_NE(FindRun(sent, body), std::string::npos);
}

TEST_P(LiveDevice, exports_frames_as_images_while_running) {
    Plug(GetParam());
    DVS* dvs = OpenConfigured(GetParam());
    Set(dvs, PARA_FRAME_PERIOD, 20);
    ASSERT_EQ(dvs->Start(), ERR_SUCCESS);
    const std::string prefix = dir_ + "/frame";
    ASSERT_EQ(dvs->StartFrameSaving(prefix.c_str(), 1), ERR_SUCCESS);
    EXPECT_EQ(dvs->StartFrameSaving(prefix.c_str(), 1), ERR_ALREADY_DONE);
    EXPECT_TRUE(WaitFor([&] { return fs::exists(prefix + "3.bmp"); }));
    EXPECT_EQ(dvs->StopFrameSaving(), ERR_SUCCESS);
    EXPECT_EQ(dvs->StopFrameSaving(), ERR_ALREADY_DONE);
    EXPECT_EQ(dvs->Stop(), ERR_SUCCESS);
}

TEST_P(LiveDevice, unplugging_while_streaming_ends_the_stream_without_a_hang) {
    const int camera = Plug(GetParam());
    DVS* dvs = OpenConfigured(GetParam());
    Set(dvs, PARA_OUT_TYPE, OUT_EVENTS);
    ASSERT_EQ(dvs->Start(), ERR_SUCCESS);
    ASSERT_EQ(dvs->StartSaving(dir_.c_str()), ERR_SUCCESS);
    int frames = 0;
    ASSERT_TRUE(PollUntil(
        dvs, OUT_EVENTS, [&](const DVSUIData*, unsigned char) { ++frames; },
        [&] { return frames >= 3; }));
    ASSERT_EQ(sim::Unplug(camera), ERR_SUCCESS);
    std::this_thread::sleep_for(Ms(300));
    const auto before = Clock::now();
    EXPECT_EQ(dvs->Stop(), ERR_SUCCESS);
    EXPECT_LT(Clock::now() - before, Ms(3000));
    USBDevice* list = nullptr;
    int count = -1;
    EXPECT_EQ(DVSManager::ScanAllDevices(&list, count), ERR_SUCCESS);
    EXPECT_EQ(count, 0);
    EXPECT_GT(ReadBody(OnlyRecording(dir_)).size(), 0u);
}

TEST(LiveDevices, two_cameras_stream_at_once) {
    ASSERT_EQ(sim::Enable(), ERR_SUCCESS);
    char pattern[] = "/tmp/evcam-live-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string bias = std::string(pattern) + "/stereo.bias";
    std::ofstream(bias) << "//@ DVS_VERSION MVT94QX\n//@ Stereo\n//@ Description pair\n20 3A 0F\n";
    sim::CameraConfig config;
    config.byteRate = kRate;
    config.stereo = true;
    config.kind = sim::Kind::kFX20;
    ASSERT_GE(sim::Plug(config), 0);
    config.kind = sim::Kind::kFX3;
    ASSERT_GE(sim::Plug(config), 0);
    USBDevice* list = nullptr;
    int count = 0;
    ASSERT_EQ(DVSManager::ScanAllDevices(&list, count), ERR_SUCCESS);
    ASSERT_EQ(count, 2);
    DVS* dvs[2] = {};
    for (int i = 0; i < 2; ++i) {
        dvs[i] = DVSManager::CreateDVS(static_cast<DVS_TYPE>(list[i].mDevType));
        ASSERT_NE(dvs[i], nullptr);
        ASSERT_EQ(DVSManager::BindDevice(dvs[i], static_cast<int>(list[i].mDevId)), 0);
        ASSERT_EQ(dvs[i]->SetParameter(PARA_BIAS_FILE, const_cast<char*>(bias.c_str())), 0);
        uint32_t u = OUT_POLARITY;
        ASSERT_EQ(dvs[i]->SetParameter(PARA_OUT_TYPE, &u), 0);
        ASSERT_EQ(dvs[i]->GetParameter(PARA_SENSOR_COUNT, &u), 0);
        EXPECT_EQ(u, 2u);
    }
    for (DVS* d : dvs) {
        ASSERT_EQ(d->Start(), ERR_SUCCESS);
    }
    int pairs[2] = {0, 0};
    std::thread other([&] {
        PollUntil(
            dvs[1], OUT_POLARITY, [&](const DVSUIData*, unsigned char c) { pairs[1] += c == 2; },
            [&] { return pairs[1] >= 10; });
    });
    PollUntil(
        dvs[0], OUT_POLARITY, [&](const DVSUIData*, unsigned char c) { pairs[0] += c == 2; },
        [&] { return pairs[0] >= 10; });
    other.join();
    EXPECT_GE(pairs[0], 10);
    EXPECT_GE(pairs[1], 10);
    for (DVS* d : dvs) {
        EXPECT_EQ(d->Stop(), ERR_SUCCESS);
        DVSManager::DeleteDVS(d);
    }
    sim::UnplugAll();
    fs::remove_all(pattern);
}

}  // namespace
}  // namespace evcam
