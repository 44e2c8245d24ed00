// Playback of recordings through the public interface, end to end: recordings of known
// content are made inside the test, played through DVSManager's file object, and what arrives
// by polling, by callback and as exported images is checked against what was encoded.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "evcam/evcam.h"
#include "src/record/recording_format.h"
#include "src/sim/scene_generator.h"
#include "tests/support/test_support.h"

namespace evcam {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// What a synthetic recording holds, as the generator counted it.
struct Recording {
    std::string path;
    uint64_t events = 0;
    uint64_t frameEnds = 0;
    uint32_t first = 0;
    uint32_t last = 0;
    size_t body = 0;
};

std::atomic<bool> gReadOver{false};
void OnReadOver(void*) {
    gReadOver = true;
}

class FilePlayback : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(dvs_, nullptr); }
    void TearDown() override { DVSManager::DeleteDVS(dvs_); }

    Recording MakeRecording(const std::string& name, SceneKind scene, bool stereo,
                            uint32_t durationUs, double eventRate = 200000) {
        SceneConfig config;
        config.scene = scene;
        config.eventRate = eventRate;
        config.frameEndRate = 100;
        config.stereo = stereo;
        SceneGenerator generator(config);
        std::vector<uint8_t> body;
        generator.Generate(durationUs, body);
        const Recording r{dir_.File(name),
                          generator.EventsEmitted(),
                          generator.FrameEndsEmitted(),
                          generator.FirstTimestamp(),
                          generator.LastTimestamp(),
                          body.size()};
        EXPECT_EQ(WriteRecordingFile(r.path.c_str(), generator.Version(), body.data(), body.size()),
                  ERR_SUCCESS);
        return r;
    }

    // Binds path and plays it once, or in a loop, watching for the read-over notice.
    void Bind(const std::string& path, PLAY_MODE mode = PLAY_ONCE) {
        ASSERT_EQ(DVSManager::BindDevice(dvs_, path.c_str()), ERR_SUCCESS);
        Set(PARA_PLAY_MODE, mode);
        ASSERT_EQ(
            dvs_->SetCallBack(CALLBACK_READ_OVER, reinterpret_cast<void*>(&OnReadOver), nullptr),
            ERR_SUCCESS);
        gReadOver = false;
    }

    void Set(PARA_TYPE type, uint32_t value, DVS_ERROR expected = ERR_SUCCESS) {
        EXPECT_EQ(dvs_->SetParameter(type, &value), expected) << "parameter " << type;
    }
    // Reads an unsigned 32-bit parameter, expecting success.
    uint32_t Get(PARA_TYPE type) {
        uint32_t u = 0xDEADu;
        EXPECT_EQ(dvs_->GetParameter(type, &u), ERR_SUCCESS) << "parameter " << type;
        return u;
    }
    // Whether the reader has reached the end of a play-once recording and the parser has taken
    // every byte of it.
    bool Parsed(uint64_t bytes) {
        uint64_t parsed = 0;
        dvs_->GetParameter(PARA_PARSED_BYTES, &parsed);
        return gReadOver && parsed >= bytes;
    }

    TempDir dir_;
    DVS* dvs_ = DVSManager::CreateDVS(DVS_FILE);
};

// Frames as the caller received them, in order.
struct Received {
    std::mutex lock;
    uint64_t events = 0;
    std::vector<uint32_t> indices;
    std::vector<std::pair<uint32_t, uint32_t>> spans;  // first and last stamp of each frame
    int counts[3] = {0, 0, 0};

    void Add(const DVSUIData* data, unsigned char count) {
        std::lock_guard<std::mutex> guard(lock);
        counts[count < 3 ? count : 0]++;
        indices.push_back(data[0].mFrameIndex);
        for (int i = 0; i < count; ++i) {
            events += data[i].mTotalEvents;
            if (data[i].mEvents != nullptr && data[i].mEventCount > 0) {
                spans.emplace_back(data[i].mEvents[0].timestamp,
                                   data[i].mEvents[data[i].mEventCount - 1].timestamp);
            }
        }
    }
};

void OnFrame(DVSUIData* data, unsigned char count, void* user, int) {
    static_cast<Received*>(user)->Add(data, count);
}

// Polls until 300 ms pass without a frame once the whole file has been parsed.
void PollAll(DVS* dvs, Received& got, DVSUIData* records, uint32_t form, uint64_t body) {
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    auto quietSince = Clock::now();
    while (Clock::now() < deadline) {
        unsigned char count = 0;
        const DVS_ERROR rc = dvs->GetFrame(static_cast<OUT_TYPE>(form), records, count);
        if (rc == ERR_SUCCESS) {
            got.Add(records, count);
            quietSince = Clock::now();
            continue;
        }
        ASSERT_EQ(rc, ERR_NO_DATA);
        uint64_t parsed = 0;
        dvs->GetParameter(PARA_PARSED_BYTES, &parsed);
        if (gReadOver && parsed >= body &&
            Clock::now() - quietSince > std::chrono::milliseconds(300)) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    FAIL() << "playback did not finish";
}

TEST_F(FilePlayback, polling_delivers_every_encoded_event_in_frame_order_mono_and_stereo) {
    for (bool stereo : {false, true}) {
        SCOPED_TRACE(stereo ? "stereo" : "mono");
        const Recording rec =
            MakeRecording(stereo ? "stereo.dvs" : "mono.dvs", SceneKind::kBar, stereo, 300000);
        ASSERT_GT(rec.events, 10000u);
        Bind(rec.path);
        dvs_->ResetTotalCount();  // totals survive re-binding
        Set(PARA_OUT_TYPE, OUT_EVENTS | OUT_POLARITY);
        const DVS_VERSION version = stereo ? MVT94QX_STEREO : MVT94QX;
        DVSUIData records[2] = {{version, OUT_EVENTS | OUT_POLARITY, 960, 720},
                                {version, OUT_EVENTS | OUT_POLARITY, 960, 720}};
        ASSERT_EQ(dvs_->Start(), ERR_SUCCESS);
        Received got;
        PollAll(dvs_, got, records, OUT_EVENTS, rec.body);
        EXPECT_EQ(dvs_->Stop(), ERR_SUCCESS);

        EXPECT_EQ(got.events, rec.events);
        EXPECT_EQ(got.counts[stereo ? 2 : 1], static_cast<int>(got.indices.size()));
        for (size_t i = 1; i < got.indices.size(); ++i) {
            ASSERT_EQ(got.indices[i], got.indices[i - 1] + 1);
        }
        ASSERT_FALSE(got.spans.empty());
        EXPECT_GE(got.spans.front().first, rec.first);
        EXPECT_LE(got.spans.back().second, rec.last);
        // 10 ms frames over 300 ms of a steadily moving scene.
        EXPECT_NEAR(static_cast<double>(got.indices.size()), 30.0, 3.0);
        unsigned long events = 0, frames = 0;
        dvs_->GetTotalCounts(events, frames);
        EXPECT_EQ(events, rec.events);
        EXPECT_EQ(frames, rec.frameEnds);
        EXPECT_EQ(DVSManager::UnbindDevice(dvs_), ERR_SUCCESS);
    }
}

TEST_F(FilePlayback, callback_delivers_every_encoded_event_once) {
    const Recording rec = MakeRecording("cb.dvs", SceneKind::kDisc, false, 500000);
    Bind(rec.path);
    Set(PARA_OUT_TYPE, OUT_IMAGE);
    Set(PARA_FRAME_MODE, FRAME_MODE_CALLBACK);
    Set(PARA_FRAME_PERIOD, 20);
    Received got;
    ASSERT_EQ(dvs_->SetCallBack(CALLBACK_FRAME, reinterpret_cast<void*>(&OnFrame), &got),
              ERR_SUCCESS);
    ASSERT_EQ(dvs_->Start(), ERR_SUCCESS);
    DVSUIData unused(MVT94QX, OUT_IMAGE, 960, 720);
    unsigned char count = 0;
    EXPECT_EQ(dvs_->GetFrame(OUT_IMAGE, &unused, count), ERR_FRAME_MODE);
    ASSERT_TRUE(WaitUntil([&] { return Parsed(rec.body); }, std::chrono::seconds(20)));
    WaitUntil([&] {
        std::lock_guard<std::mutex> guard(got.lock);
        return got.events >= rec.events;
    });
    EXPECT_EQ(dvs_->Stop(), ERR_SUCCESS);
    std::lock_guard<std::mutex> guard(got.lock);
    EXPECT_EQ(got.events, rec.events);
    EXPECT_NEAR(static_cast<double>(got.indices.size()), 25.0, 3.0);
    for (size_t i = 1; i < got.indices.size(); ++i) {
        ASSERT_LT(got.indices[i - 1], got.indices[i]);
    }
}

TEST_F(FilePlayback, exported_images_show_background_and_scene_colours) {
    const Recording rec = MakeRecording("export.dvs", SceneKind::kBar, false, 200000, 400000);
    Bind(rec.path);
    Set(PARA_OUT_TYPE, OUT_IMAGE);
    Set(PARA_WORK_MODE, 2);  // only the exporter reads frames, as images
    Set(PARA_FRAME_PERIOD, 50);
    ASSERT_EQ(dvs_->Start(), ERR_SUCCESS);
    const std::string prefix = dir_.File("frame_");
    ASSERT_EQ(dvs_->StartSaving(prefix.c_str()), ERR_SUCCESS);
    EXPECT_EQ(dvs_->StartSaving(prefix.c_str()), ERR_ALREADY_DONE);
    ASSERT_TRUE(WaitUntil([&] { return Parsed(rec.body); }, std::chrono::seconds(20)));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(dvs_->StopSaving(), ERR_SUCCESS);
    EXPECT_EQ(dvs_->StopSaving(), ERR_ALREADY_DONE);
    EXPECT_EQ(dvs_->Stop(), ERR_SUCCESS);

    // 200 ms in 50 ms frames.
    EXPECT_TRUE(fs::exists(prefix + "2.bmp"));
    const cv::Mat image = cv::imread(prefix + "1.bmp", cv::IMREAD_UNCHANGED);
    ASSERT_FALSE(image.empty());
    EXPECT_EQ(image.size(), cv::Size(960, 720));
    ASSERT_EQ(image.channels(), 3);
    // Only the background and the two event colours appear; a bar covers a small part.
    int counts[4] = {0, 0, 0, 0};  // background, polarity 0, polarity 1, anything else
    const cv::Vec3b colours[] = {{128, 128, 128}, {255, 255, 255}, {0, 0, 0}};
    for (auto p = image.begin<cv::Vec3b>(); p != image.end<cv::Vec3b>(); ++p) {
        ++counts[std::find(std::begin(colours), std::end(colours), *p) - std::begin(colours)];
    }
    EXPECT_EQ(counts[3], 0);
    EXPECT_GT(counts[1] + counts[2], 1000);
    EXPECT_GT(counts[0], counts[1] + counts[2]);
}

TEST_F(FilePlayback, state_rules_of_start_pause_resume_and_stop) {
    EXPECT_EQ(dvs_->Start(), ERR_NO_FILE);
    EXPECT_EQ(dvs_->Pause(), ERR_NOT_START);
    EXPECT_EQ(dvs_->Resume(), ERR_NOT_START);
    EXPECT_EQ(dvs_->Stop(), ERR_ALREADY_DONE);
    EXPECT_EQ(dvs_->UnbindDevice(), ERR_NO_FILE);

    const Recording rec = MakeRecording("state.dvs", SceneKind::kNoise, false, 200000);
    Bind(rec.path, PLAY_LOOP);
    ASSERT_EQ(dvs_->Start(), ERR_SUCCESS);
    EXPECT_EQ(dvs_->Start(), ERR_ALREADY_DONE);
    EXPECT_EQ(dvs_->Resume(), ERR_ALREADY_DONE);
    Set(PARA_OUT_TYPE, OUT_IMAGE, ERR_RUNNING);
    Set(PARA_PPX, 4, ERR_RUNNING);
    Set(PARA_FRAME_PERIOD, 20);  // takes effect at once
    EXPECT_EQ(dvs_->UnbindDevice(), ERR_RUNNING);
    EXPECT_EQ(DVSManager::BindDevice(dvs_, rec.path.c_str()), ERR_RUNNING);
    uint8_t valid = 0;
    EXPECT_EQ(dvs_->GetParameter(PARA_FILE_VALID, &valid), ERR_RUNNING);

    EXPECT_EQ(dvs_->Pause(), ERR_SUCCESS);
    EXPECT_EQ(dvs_->Pause(), ERR_ALREADY_DONE);
    Set(PARA_OUT_TYPE, OUT_IMAGE);  // a paused object may be reconfigured
    DVSUIData frame(MVT94QX, OUT_IMAGE, 960, 720);
    unsigned char count = 0;
    EXPECT_EQ(dvs_->GetFrame(OUT_IMAGE, &frame, count), ERR_NOT_START);
    EXPECT_EQ(dvs_->Resume(), ERR_SUCCESS);
    EXPECT_EQ(dvs_->GetFrame(OUT_IMAGE, nullptr, count), ERR_PARA_ERROR);
    EXPECT_EQ(dvs_->DropFrame(), ERR_SUCCESS);
    // Looping plays on past the end of the file.
    uint64_t parsed = 0;
    EXPECT_TRUE(WaitUntil(
        [&] {
            dvs_->GetFrame(OUT_IMAGE, &frame, count);
            dvs_->GetParameter(PARA_PARSED_BYTES, &parsed);
            return parsed > 2 * rec.body;
        },
        std::chrono::seconds(20)));
    EXPECT_EQ(dvs_->Stop(), ERR_SUCCESS);
    EXPECT_EQ(dvs_->GetFrame(OUT_IMAGE, &frame, count), ERR_NOT_START);
    EXPECT_EQ(dvs_->GetParameter(PARA_FILE_VALID, &valid), ERR_SUCCESS);
    EXPECT_EQ(valid, 1);
}

TEST_F(FilePlayback, parameters_are_checked_and_read_back) {
    uint32_t u = 0;
    int32_t size[2] = {0, 0};
    EXPECT_EQ(dvs_->SetParameter(PARA_PPX, nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(dvs_->SetParameter(PARA_PARSED_BYTES, &u), ERR_NOT_SUPPORT);
    EXPECT_EQ(dvs_->GetParameter(static_cast<PARA_TYPE>(21), &u), ERR_NOT_SUPPORT);
    for (PARA_TYPE p :
         {PARA_BIAS_FILE, PARA_TIMEOUT, PARA_FILE_VALID, PARA_SENSOR_COUNT, PARA_SENSOR_SIZE}) {
        EXPECT_EQ(dvs_->SetParameter(p, &u), ERR_NOT_SUPPORT) << p;
    }
    for (PARA_TYPE p : {PARA_BIAS_FILE, PARA_FILE_PATH, PARA_TIMEOUT, PARA_SENSOR_COUNT,
                        PARA_EVENT_COUNT, PARA_FRAME_END_COUNT, PARA_WORK_MODE}) {
        EXPECT_EQ(dvs_->GetParameter(p, &u), ERR_NOT_SUPPORT) << p;
    }
    // Values just outside each range are refused; the packet count has no upper bound here.
    const std::pair<PARA_TYPE, uint32_t> refused[] = {{PARA_PPX, 0},
                                                      {PARA_PPX, 513},
                                                      {PARA_PACKET_COUNT, 0},
                                                      {PARA_FRAME_PERIOD, 0},
                                                      {PARA_FRAME_PERIOD, 1001},
                                                      {PARA_OUT_TYPE, 16},
                                                      {PARA_FRAME_MODE, 2},
                                                      {PARA_EVENT_COUNT, 999},
                                                      {PARA_EVENT_COUNT, 300001},
                                                      {PARA_FRAME_END_COUNT, 101},
                                                      {PARA_WORK_MODE, 1},
                                                      {PARA_WORK_MODE, 6},
                                                      {PARA_COLOR_FORMAT, 3},
                                                      {PARA_PLAY_MODE, 2}};
    for (const auto& [para, value] : refused) {
        Set(para, value, ERR_PARA_ERROR);
    }
    Set(PARA_PPX, 512);
    Set(PARA_PACKET_COUNT, 100000);
    Set(PARA_VERSION, 1, ERR_NO_FILE);
    EXPECT_EQ(dvs_->GetParameter(PARA_SENSOR_SIZE, size), ERR_UNKNOWN_VERSION);
    EXPECT_EQ(dvs_->GetParameter(PARA_RESOLUTION, size), ERR_UNKNOWN_VERSION);
    EXPECT_EQ(dvs_->GetParameter(PARA_FILE_VALID, &u), ERR_NO_FILE);

    const Recording rec = MakeRecording("params.dvs", SceneKind::kNoise, true, 50000);
    Bind(rec.path);
    EXPECT_EQ(Get(PARA_VERSION), static_cast<uint32_t>(MVT94QX_STEREO));
    EXPECT_EQ(Get(PARA_PLAY_MODE), static_cast<uint32_t>(PLAY_ONCE));
    Set(PARA_VERSION, 2, ERR_PARA_ERROR);
    Set(PARA_VERSION, 1, ERR_NOT_SUPPORT);  // a recording's version comes from its header
    EXPECT_EQ(dvs_->GetParameter(PARA_SENSOR_SIZE, size), ERR_SUCCESS);
    EXPECT_EQ(size[0], 960);
    EXPECT_EQ(size[1], 720);
    int32_t wanted[2] = {320, 240};
    EXPECT_EQ(dvs_->SetParameter(PARA_RESOLUTION, wanted), ERR_SUCCESS);
    EXPECT_EQ(dvs_->GetParameter(PARA_RESOLUTION, size), ERR_SUCCESS);
    EXPECT_EQ(size[0], 320);
    int32_t tooWide[2] = {961, 240};
    EXPECT_EQ(dvs_->SetParameter(PARA_RESOLUTION, tooWide), ERR_PARA_ERROR);
    DVSCommonColors colors = {{{{10, 20, 30, 0}}, {{40, 50, 60, 0}}, {{70, 80, 90, 0}}}};
    EXPECT_EQ(dvs_->SetParameter(PARA_COLORS, &colors), ERR_SUCCESS);
    DVSCommonColors back{};
    EXPECT_EQ(dvs_->GetParameter(PARA_COLORS, &back), ERR_SUCCESS);
    EXPECT_EQ(back.colors[2].c[1], 80);
    float fraction = 2.0f;
    EXPECT_EQ(dvs_->SetParameter(PARA_FILE_PERCENT, &fraction), ERR_PARA_ERROR);
    fraction = 0.5f;
    EXPECT_EQ(dvs_->SetParameter(PARA_FILE_PERCENT, &fraction), ERR_SUCCESS);
    uint8_t valid = 0;
    EXPECT_EQ(dvs_->GetParameter(PARA_FILE_VALID, &valid), ERR_SUCCESS);
    EXPECT_EQ(valid, 1);
    // The callbacks of a live camera are refused on a recording.
    auto rate = [](void*, double) {};
    EXPECT_EQ(dvs_->SetCallBack(CALLBACK_USB_DATA_RATE, reinterpret_cast<void*>(+rate), nullptr),
              ERR_PARA_ERROR);
    EXPECT_EQ(dvs_->SetCallBack(CALLBACK_PKT_BUF_DROP, reinterpret_cast<void*>(+rate), nullptr),
              ERR_PARA_ERROR);
    EXPECT_EQ(dvs_->SetCallBack(CALLBACK_FRAME, nullptr, nullptr), ERR_PARA_ERROR);

    // Unbinding restores the defaults (all but the packet count).
    EXPECT_EQ(DVSManager::UnbindDevice(dvs_), ERR_SUCCESS);
    EXPECT_EQ(Get(PARA_VERSION), 0u);
    EXPECT_EQ(Get(PARA_PACKET_COUNT), 100000u);
    EXPECT_EQ(Get(PARA_OUT_TYPE), static_cast<uint32_t>(OUT_POLARITY));
    EXPECT_EQ(Get(PARA_PPX), 2u);
}

TEST_F(FilePlayback, headerless_dump_needs_its_version) {
    const Recording rec = MakeRecording("take.dvs", SceneKind::kNoise, false, 50000);
    // The same bytes without the header, under a name without ".dvs".
    const Bytes bytes = ReadFileBytes(rec.path);
    ASSERT_GT(bytes.size(), 8u);
    Bind(dir_.Write("take.raw", std::string(bytes.begin() + 8, bytes.end())));
    EXPECT_EQ(dvs_->Start(), ERR_UNKNOWN_VERSION);
    uint8_t valid = 0;
    EXPECT_EQ(dvs_->GetParameter(PARA_FILE_VALID, &valid), ERR_UNKNOWN_VERSION);
    Set(PARA_VERSION, MVT94QX);
    EXPECT_EQ(dvs_->GetParameter(PARA_FILE_VALID, &valid), ERR_SUCCESS);
    EXPECT_EQ(valid, 1);
    ASSERT_EQ(dvs_->Start(), ERR_SUCCESS);
    DVSUIData frame(MVT94QX, OUT_POLARITY, 960, 720);
    Received got;
    PollAll(dvs_, got, &frame, OUT_POLARITY, rec.body);
    EXPECT_EQ(got.events, rec.events);
}

TEST_F(FilePlayback, frame_export_needs_a_running_object_with_painted_frames) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(dvs_->StartFrameSaving("x", 1), ERR_NOT_START);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("[StartFrameSaving] FAIL: ERR_NOT_START\n"), std::string::npos) << out;

    Bind(MakeRecording("fs.dvs", SceneKind::kNoise, false, 100000).path, PLAY_LOOP);
    ASSERT_EQ(dvs_->Start(), ERR_SUCCESS);
    testing::internal::CaptureStdout();
    EXPECT_EQ(dvs_->StartFrameSaving("", 1), ERR_PARA_ERROR);
    EXPECT_EQ(dvs_->StartFrameSaving(dir_.File("f").c_str(), 1), ERR_NO_SPECIFIED_DATA);
    out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("mRunningStatus=1 mOutputType=2 mVersion=1\n"), std::string::npos) << out;
    EXPECT_NE(out.find("[StartFrameSaving] FAIL: ERR_PARA_ERROR (savePath)\n"), std::string::npos);
    EXPECT_NE(out.find("[StartFrameSaving] FAIL: ERR_NO_SPECIFIED_DATA (mOutputType=2)\n"),
              std::string::npos);
    EXPECT_EQ(dvs_->StartSaving(dir_.File("s").c_str()), ERR_NO_SPECIFIED_DATA);
    EXPECT_EQ(dvs_->StopFrameSaving(), ERR_ALREADY_DONE);
    EXPECT_EQ(dvs_->Stop(), ERR_SUCCESS);

    Set(PARA_OUT_TYPE, OUT_IMAGE);
    ASSERT_EQ(dvs_->Start(), ERR_SUCCESS);
    testing::internal::CaptureStdout();
    EXPECT_EQ(dvs_->StartFrameSaving(dir_.File("missing/dir/f").c_str(), 1), ERR_OPEN_FILE);
    EXPECT_EQ(dvs_->StartFrameSaving(dir_.File("v").c_str(), 2), ERR_SUCCESS);
    EXPECT_EQ(dvs_->StartFrameSaving(dir_.File("v").c_str(), 2), ERR_ALREADY_DONE);
    testing::internal::GetCapturedStdout();
    // The caller's handle holds every frame it has not taken: frames must be taken, or a full
    // pool stalls playback before the exporter sees one.
    DVSUIData frame(MVT94QX, OUT_IMAGE, 960, 720);
    unsigned char count = 0;
    const std::string video = dir_.File("vMVT94QX-0.avi");
    WaitUntil([&] {
        dvs_->GetFrame(OUT_IMAGE, &frame, count);
        return fs::exists(video);
    });
    EXPECT_EQ(dvs_->Pause(), ERR_SUCCESS);  // ends the export too
    EXPECT_EQ(dvs_->StopFrameSaving(), ERR_ALREADY_DONE);
    EXPECT_EQ(dvs_->Stop(), ERR_SUCCESS);
    EXPECT_TRUE(fs::exists(video));
}

}  // namespace
}  // namespace evcam
