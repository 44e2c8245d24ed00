#include "src/record/mat_save.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include "evcam/platform.h"
#include "src/data/output_data.h"
#include "src/data/ui_data_buffer.h"


namespace evcam {
namespace {

namespace fs = std::filesystem;
using Colour = std::array<uint8_t, 3>;
using Painter = std::function<void(DVSUIData&, int channel)>;

constexpr int kW = 64;
constexpr int kH = 48;
constexpr int32_t kLiveId = 0;
constexpr int32_t kFileId = 2;

class TempDir {
  public:
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "evcam_mat_save_XXXXXX").string();
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        if (mkdtemp(name.data()) != nullptr) {
            mPath = name.data();
        }
    }
    ~TempDir() {
        std::error_code ignored;
        fs::remove_all(mPath, ignored);
    }
    std::string Prefix(const std::string& name) const { return mPath + "/" + name; }
    std::vector<std::string> Files() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(mPath)) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

  private:
    std::string mPath;
};

bool WaitUntil(const std::function<bool()>& condition) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        DVSSleep(1);
    }
    return true;
}

// The packager's role: the producer waits for a free slot as file playback does.
DVSOutputData* WaitForFreeSlot(UIDataBuffer& pool) {
    DVSOutputData* slot = nullptr;
    WaitUntil([&] { return (slot = pool.GetAFreeNode()) != nullptr; });
    return slot;
}

void PutPixel(DVSUIData& r, int x, int y, Colour c) {
    if (r.mColorFormat == COLOR_GRAY) {
        r.mImgData[y * r.mWidth + x] = c[0];
        return;
    }
    uint8_t* p = r.mImgData + (y * r.mWidth + x) * 3;
    p[0] = c[0];
    p[1] = c[1];
    p[2] = c[2];
}

void Fill(DVSUIData& r, Colour c) {
    for (int y = 0; y < r.mHeight; ++y) {
        for (int x = 0; x < r.mWidth; ++x) {
            PutPixel(r, x, y, c);
        }
    }
}

bool PushFrame(UIDataBuffer& pool, COLOR_FORMAT format, int32_t dvsId, const Painter& paint) {
    DVSOutputData* slot = WaitForFreeSlot(pool);
    if (slot == nullptr) {
        return false;
    }
    for (int i = 0; i < pool.GetSlotNodes(); ++i) {
        DVSUIData& record = *slot[i].mUIData;
        record.Reset();
        record.mColorFormat = format;
        record.mDVSID = dvsId;
        paint(record, i);
    }
    return pool.PutANodeToDataList(slot) == ERR_SUCCESS;
}

// A frame painted all over with one grey level, so that the image that reaches the disk tells
// which frame it came from.
bool PushNumberedFrame(UIDataBuffer& pool, int32_t dvsId, uint8_t number) {
    return PushFrame(pool, COLOR_RGB24, dvsId, [&](DVSUIData& r, int) {
        Fill(r, {number, number, number});
    });
}

int FreeSlots(UIDataBuffer& pool) {
    int count = 0;
    while (pool.GetAFreeNode() != nullptr) {
        ++count;
    }
    return count;
}

int ReadVideoFrames(const std::string& path, cv::Size& size, int& channels) {
    cv::VideoCapture capture(path, cv::CAP_OPENCV_MJPEG);
    int frames = 0;
    cv::Mat frame;
    while (capture.isOpened() && capture.read(frame)) {
        size = frame.size();
        channels = frame.channels();
        ++frames;
    }
    return frames;
}

// Stands in for a disk that stalls: every write waits until the test opens the gate.
class GatedMatSave : public MatSave {
  public:
    ~GatedMatSave() override {
        Open();
        StopSaving();
    }
    void Open() {
        std::lock_guard<std::mutex> lock(mMutex);
        mOpen = true;
        mChanged.notify_all();
    }
    bool WaitUntilWriting(int writes) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, std::chrono::seconds(5), [&] { return mEntered >= writes; });
    }

  protected:
    bool WriteImage(const cv::Mat& image) override {
        {
            std::unique_lock<std::mutex> lock(mMutex);
            ++mEntered;
            mChanged.notify_all();
            mChanged.wait(lock, [&] { return mOpen; });
        }
        return MatSave::WriteImage(image);
    }

  private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    int mEntered = 0;    ///< guarded by mMutex
    bool mOpen = false;  ///< guarded by mMutex
};

TEST(MatSaveSettings, refuses_out_of_range_values) {
    MatSave save;
    EXPECT_EQ(save.SetSaveMode(0), ERR_PARA_ERROR);
    EXPECT_EQ(save.SetSaveMode(3), ERR_PARA_ERROR);
    EXPECT_EQ(save.SetSaveMode(MatSave::kSaveVideo), ERR_SUCCESS);
    EXPECT_EQ(save.SetVideoFps(-1), ERR_PARA_ERROR);
    EXPECT_EQ(save.SetVideoFps(0), ERR_SUCCESS);
    EXPECT_EQ(save.SetResolution(0, 48), ERR_PARA_ERROR);
    EXPECT_EQ(save.SetResolution(-1, 48), ERR_PARA_ERROR);
    EXPECT_EQ(save.SetResolution(961, 720), ERR_PARA_ERROR);
    EXPECT_EQ(save.SetResolution(960, 721), ERR_PARA_ERROR);
    EXPECT_EQ(save.SetResolution(960, 720), ERR_SUCCESS);
    EXPECT_EQ(save.SetResolution(0, 0), ERR_SUCCESS);
    EXPECT_EQ(save.SetVersion(static_cast<DVS_VERSION>(5)), ERR_PARA_ERROR);
    EXPECT_EQ(save.SetVersion(MVT94QX_STEREO), ERR_SUCCESS);
}

TEST(MatSaveStart, refuses_bad_arguments_a_second_start_and_settings_while_saving) {
    TempDir dir;
    UIDataBuffer pool(4, MVT94QX, OUT_IMAGE, kW, kH);
    MatSave save;
    EXPECT_EQ(save.StartSaving(dir.Prefix("v").c_str(), &pool), ERR_PARA_ERROR);  // no mode
    ASSERT_EQ(save.SetSaveMode(MatSave::kSaveVideo), ERR_SUCCESS);
    EXPECT_EQ(save.StartSaving(nullptr, &pool), ERR_PARA_ERROR);
    EXPECT_EQ(save.StartSaving("", &pool), ERR_PARA_ERROR);
    EXPECT_EQ(save.StartSaving(dir.Prefix("v").c_str(), nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(pool.GetHandleCount(), 0);

    ASSERT_EQ(save.StartSaving(dir.Prefix("v").c_str(), &pool), ERR_SUCCESS);
    // The writability check leaves no empty file behind.
    EXPECT_TRUE(dir.Files().empty());
    EXPECT_EQ(save.StartSaving(dir.Prefix("v").c_str(), &pool), ERR_ALREADY_DONE);
    EXPECT_EQ(save.SetSaveMode(MatSave::kSaveImages), ERR_RUNNING);
    EXPECT_EQ(save.SetVideoFps(10), ERR_RUNNING);
    EXPECT_EQ(save.SetResolution(32, 24), ERR_RUNNING);
    EXPECT_EQ(save.SetVersion(MVT94QX), ERR_RUNNING);
    EXPECT_EQ(pool.GetHandleCount(), 1);
    EXPECT_EQ(save.StopSaving(), ERR_SUCCESS);
    EXPECT_EQ(save.SetSaveMode(MatSave::kSaveImages), ERR_SUCCESS);
}

TEST(MatSaveStart, unwritable_path_gives_202_and_leaves_nothing_running) {
    TempDir dir;
    UIDataBuffer pool(4, MVT94QX, OUT_IMAGE, kW, kH);
    std::string missing = dir.Prefix("no/such/dir/frame_");
    for (int mode : {MatSave::kSaveImages, MatSave::kSaveVideo}) {
        MatSave save;
        ASSERT_EQ(save.SetSaveMode(mode), ERR_SUCCESS);
        EXPECT_EQ(save.StartSaving(missing.c_str(), &pool), ERR_OPEN_FILE) << "mode " << mode;
        EXPECT_FALSE(save.IsSaving());
        EXPECT_EQ(pool.GetHandleCount(), 0);
        EXPECT_EQ(save.StopSaving(), ERR_ALREADY_DONE);
        // Not left half-started: it can still be configured and started elsewhere.
        EXPECT_EQ(save.SetVideoFps(10), ERR_SUCCESS);
        EXPECT_EQ(save.StartSaving(dir.Prefix("ok_").c_str(), &pool), ERR_SUCCESS);
        EXPECT_EQ(save.StopSaving(), ERR_SUCCESS);
    }
    EXPECT_TRUE(dir.Files().empty());
}

// One run whose colour format changes from frame to frame, as it may while a camera runs.
TEST(MatSaveImages, each_colour_format_is_written_in_opencv_order_under_a_counted_name) {
    TempDir dir;
    UIDataBuffer pool(4, MVT94QX, OUT_IMAGE, kW, kH);
    MatSave save;
    ASSERT_EQ(save.SetSaveMode(MatSave::kSaveImages), ERR_SUCCESS);
    ASSERT_EQ(save.StartSaving(dir.Prefix("frame_").c_str(), &pool), ERR_SUCCESS);
    ASSERT_TRUE(PushFrame(pool, COLOR_RGB24, kFileId, [](DVSUIData& r, int) {
        Fill(r, {10, 20, 30});
        PutPixel(r, 5, 3, {200, 100, 50});
    }));
    ASSERT_TRUE(PushFrame(pool, COLOR_YUV, kFileId, [](DVSUIData& r, int) {
        Fill(r, {128, 128, 128});
        PutPixel(r, 5, 3, {100, 128, 200});
    }));
    ASSERT_TRUE(PushFrame(pool, COLOR_GRAY, kFileId, [](DVSUIData& r, int) {
        Fill(r, {77, 0, 0});
        PutPixel(r, 5, 3, {200, 0, 0});
    }));
    ASSERT_EQ(save.StopSaving(), ERR_SUCCESS);

    EXPECT_EQ(dir.Files(), (std::vector<std::string>{"frame_0.bmp", "frame_1.bmp", "frame_2.bmp"}));
    EXPECT_EQ(save.GetWrittenCount(), 3u);
    EXPECT_EQ(save.GetSkippedCount(), 0u);
    EXPECT_EQ(save.GetLastFilePath(), dir.Prefix("frame_2.bmp"));

    cv::Mat rgb = cv::imread(dir.Prefix("frame_0.bmp"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(rgb.type(), CV_8UC3);
    ASSERT_EQ(rgb.size(), cv::Size(kW, kH));
    EXPECT_EQ(rgb.at<cv::Vec3b>(0, 0), cv::Vec3b(30, 20, 10));
    EXPECT_EQ(rgb.at<cv::Vec3b>(3, 5), cv::Vec3b(50, 100, 200));

    cv::Mat yuv = cv::imread(dir.Prefix("frame_1.bmp"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(yuv.type(), CV_8UC3);
    EXPECT_EQ(yuv.at<cv::Vec3b>(0, 0), cv::Vec3b(128, 128, 128));
    // Y 100, U 0, V +72: R = Y + 1.140 V, G = Y - 0.581 V, B = Y.
    cv::Vec3b p = yuv.at<cv::Vec3b>(3, 5);
    EXPECT_NEAR(p[0], 100, 2);
    EXPECT_NEAR(p[1], 58, 2);
    EXPECT_NEAR(p[2], 182, 2);

    cv::Mat grey = cv::imread(dir.Prefix("frame_2.bmp"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(grey.type(), CV_8UC1);
    EXPECT_EQ(grey.at<uint8_t>(0, 0), 77);
    EXPECT_EQ(grey.at<uint8_t>(3, 5), 200);
}

TEST(MatSaveImages, stereo_frames_put_the_second_camera_on_the_right_at_the_set_size) {
    TempDir dir;
    UIDataBuffer pool(2, MVT94QX_STEREO, OUT_IMAGE, kW, kH);
    MatSave save;
    ASSERT_EQ(save.SetSaveMode(MatSave::kSaveImages), ERR_SUCCESS);
    ASSERT_EQ(save.SetResolution(kW / 2, kH / 2), ERR_SUCCESS);
    ASSERT_EQ(save.StartSaving(dir.Prefix("s").c_str(), &pool), ERR_SUCCESS);
    ASSERT_TRUE(PushFrame(pool, COLOR_RGB24, kLiveId, [](DVSUIData& r, int channel) {
        Fill(r, channel == 0 ? Colour{255, 0, 0} : Colour{0, 0, 255});
    }));
    ASSERT_EQ(save.StopSaving(), ERR_SUCCESS);

    cv::Mat image = cv::imread(dir.Prefix("s0.bmp"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(image.size(), cv::Size(kW, kH / 2));
    EXPECT_EQ(image.at<cv::Vec3b>(5, kW / 2 - 1), cv::Vec3b(0, 0, 255));
    EXPECT_EQ(image.at<cv::Vec3b>(5, kW / 2), cv::Vec3b(255, 0, 0));
}

TEST(MatSaveImages, frames_without_an_image_are_skipped_and_released) {
    TempDir dir;
    UIDataBuffer pool(2, MVT94QX, OUT_POLARITY, kW, kH);
    MatSave save;
    ASSERT_EQ(save.SetSaveMode(MatSave::kSaveImages), ERR_SUCCESS);
    ASSERT_EQ(save.StartSaving(dir.Prefix("p").c_str(), &pool), ERR_SUCCESS);
    for (int k = 0; k < 5; ++k) {
        ASSERT_TRUE(PushFrame(pool, COLOR_RGB24, kLiveId, [](DVSUIData&, int) {}));
    }
    ASSERT_EQ(save.StopSaving(), ERR_SUCCESS);
    EXPECT_EQ(save.GetWrittenCount(), 0u);
    EXPECT_EQ(save.GetSkippedCount(), 5u);
    EXPECT_TRUE(save.GetLastFilePath().empty());
    EXPECT_TRUE(dir.Files().empty());
}

TEST(MatSaveVideo, avi_holds_every_frame_at_the_frame_size_and_rate) {
    TempDir dir;
    UIDataBuffer pool(4, MVT94QX, OUT_IMAGE, kW, kH);
    MatSave save;
    ASSERT_EQ(save.SetSaveMode(MatSave::kSaveVideo), ERR_SUCCESS);
    ASSERT_EQ(save.SetVersion(MVT94QX), ERR_SUCCESS);
    ASSERT_EQ(save.SetVideoFps(25), ERR_SUCCESS);
    ASSERT_EQ(save.StartSaving(dir.Prefix("clip").c_str(), &pool), ERR_SUCCESS);
    for (int k = 0; k < 5; ++k) {
        ASSERT_TRUE(PushFrame(pool, COLOR_RGB24, kFileId, [](DVSUIData& r, int) {
            Fill(r, {200, 100, 20});
        }));
    }
    ASSERT_EQ(save.StopSaving(), ERR_SUCCESS);

    std::string path = dir.Prefix("clipMVT94QX-0.avi");
    EXPECT_EQ(save.GetLastFilePath(), path);
    cv::Size size;
    int channels = 0;
    EXPECT_EQ(ReadVideoFrames(path, size, channels), 5);
    EXPECT_EQ(size, cv::Size(kW, kH));
    EXPECT_EQ(channels, 3);
    cv::VideoCapture capture(path, cv::CAP_OPENCV_MJPEG);
    EXPECT_NEAR(capture.get(cv::CAP_PROP_FPS), 25.0, 0.01);
    cv::Mat frame;
    ASSERT_TRUE(capture.read(frame));
    cv::Vec3b p = frame.at<cv::Vec3b>(kH / 2, kW / 2);
    // Motion JPEG is lossy: the flat colour comes back close, in BGR order.
    EXPECT_NEAR(p[0], 20, 12);
    EXPECT_NEAR(p[1], 100, 12);
    EXPECT_NEAR(p[2], 200, 12);
}

TEST(MatSaveVideo, stereo_grey_video_is_bgr_side_by_side_and_never_overwritten) {
    TempDir dir;
    UIDataBuffer pool(4, MVT94QX_STEREO, OUT_IMAGE, kW, kH);
    for (int run = 0; run < 2; ++run) {
        MatSave save;
        ASSERT_EQ(save.SetSaveMode(MatSave::kSaveVideo), ERR_SUCCESS);
        ASSERT_EQ(save.SetVersion(MVT94QX_STEREO), ERR_SUCCESS);
        ASSERT_EQ(save.StartSaving(dir.Prefix("st").c_str(), &pool), ERR_SUCCESS);
        for (int k = 0; k <= run; ++k) {
            ASSERT_TRUE(PushFrame(pool, COLOR_GRAY, kFileId, [](DVSUIData& r, int) {
                Fill(r, {90, 0, 0});
            }));
        }
        ASSERT_EQ(save.StopSaving(), ERR_SUCCESS);
    }
    EXPECT_EQ(dir.Files(),
              (std::vector<std::string>{"stMVT94QX_STEREO-0.avi", "stMVT94QX_STEREO-1.avi"}));
    for (int run = 0; run < 2; ++run) {
        cv::Size size;
        int channels = 0;
        std::string path = dir.Prefix("stMVT94QX_STEREO-" + std::to_string(run) + ".avi");
        EXPECT_EQ(ReadVideoFrames(path, size, channels), run + 1);
        EXPECT_EQ(size, cv::Size(2 * kW, kH));
        EXPECT_EQ(channels, 3);
    }
}

TEST(MatSaveStop, stop_writes_every_frame_queued_before_it_and_frees_the_pool) {
    TempDir dir;
    UIDataBuffer pool(32, MVT94QX, OUT_IMAGE, kW, kH);
    GatedMatSave save;
    ASSERT_EQ(save.SetSaveMode(MatSave::kSaveImages), ERR_SUCCESS);
    ASSERT_EQ(save.StartSaving(dir.Prefix("d").c_str(), &pool), ERR_SUCCESS);
    ASSERT_TRUE(PushNumberedFrame(pool, kLiveId, 0));
    ASSERT_TRUE(save.WaitUntilWriting(1));
    for (uint8_t k = 1; k < 6; ++k) {
        ASSERT_TRUE(PushNumberedFrame(pool, kLiveId, k));
    }
    save.Open();
    ASSERT_EQ(save.StopSaving(), ERR_SUCCESS);

    EXPECT_EQ(save.GetWrittenCount(), 6u);
    EXPECT_EQ(save.GetSkippedCount(), 0u);
    EXPECT_EQ(dir.Files().size(), 6u);
    EXPECT_EQ(pool.GetHandleCount(), 0);
    EXPECT_EQ(FreeSlots(pool), 32);
}

TEST(MatSaveStop, stopping_twice_or_destroying_while_saving_is_harmless) {
    TempDir dir;
    UIDataBuffer pool(4, MVT94QX, OUT_IMAGE, kW, kH);
    {
        MatSave save;
        EXPECT_EQ(save.StopSaving(), ERR_ALREADY_DONE);
        ASSERT_EQ(save.SetSaveMode(MatSave::kSaveImages), ERR_SUCCESS);
        ASSERT_EQ(save.StartSaving(dir.Prefix("t").c_str(), &pool), ERR_SUCCESS);
        ASSERT_TRUE(PushNumberedFrame(pool, kLiveId, 1));
        EXPECT_EQ(save.StopSaving(), ERR_SUCCESS);
        EXPECT_EQ(save.StopSaving(), ERR_ALREADY_DONE);
        EXPECT_EQ(save.GetWrittenCount(), 1u);

        ASSERT_EQ(save.StartSaving(dir.Prefix("u").c_str(), &pool), ERR_SUCCESS);
        EXPECT_EQ(save.GetWrittenCount(), 0u);
        ASSERT_TRUE(PushNumberedFrame(pool, kLiveId, 2));
    }
    EXPECT_EQ(pool.GetHandleCount(), 0);
    EXPECT_EQ(FreeSlots(pool), 4);
    EXPECT_EQ(dir.Files(), (std::vector<std::string>{"t0.bmp", "u0.bmp"}));
}

// The exporter is stalled in its first write while the producer fills the pool; once the write
// returns, the frames that piled up are released down to the backlog (8 slots / 4 = 2).
TEST(MatSaveBackPressure, live_frames_beyond_the_backlog_are_released_unwritten) {
    TempDir dir;
    UIDataBuffer pool(8, MVT94QX, OUT_IMAGE, kW, kH);
    GatedMatSave save;
    ASSERT_EQ(save.SetSaveMode(MatSave::kSaveImages), ERR_SUCCESS);
    ASSERT_EQ(save.StartSaving(dir.Prefix("b").c_str(), &pool), ERR_SUCCESS);
    ASSERT_TRUE(PushNumberedFrame(pool, kLiveId, 0));
    ASSERT_TRUE(save.WaitUntilWriting(1));
    for (uint8_t k = 1; k < 8; ++k) {
        ASSERT_TRUE(PushNumberedFrame(pool, kLiveId, k));
    }
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);

    save.Open();
    // Stopping drains without dropping, so the trim is awaited before the stop.
    ASSERT_TRUE(WaitUntil([&] { return save.GetSkippedCount() == 5u; }));
    EXPECT_NE(pool.GetAFreeNode(), nullptr);
    ASSERT_EQ(save.StopSaving(), ERR_SUCCESS);

    EXPECT_EQ(save.GetWrittenCount(), 3u);
    EXPECT_EQ(save.GetSkippedCount(), 5u);
    ASSERT_EQ(dir.Files(), (std::vector<std::string>{"b0.bmp", "b1.bmp", "b2.bmp"}));
    const uint8_t kept[] = {0, 6, 7};
    for (int i = 0; i < 3; ++i) {
        cv::Mat image = cv::imread(dir.Prefix("b" + std::to_string(i) + ".bmp"));
        EXPECT_EQ(image.at<cv::Vec3b>(0, 0), cv::Vec3b(kept[i], kept[i], kept[i])) << i;
    }
}

TEST(MatSaveBackPressure, file_frames_are_all_written_at_the_writers_pace) {
    TempDir dir;
    UIDataBuffer pool(8, MVT94QX, OUT_IMAGE, kW, kH);
    GatedMatSave save;
    ASSERT_EQ(save.SetSaveMode(MatSave::kSaveImages), ERR_SUCCESS);
    ASSERT_EQ(save.StartSaving(dir.Prefix("f").c_str(), &pool), ERR_SUCCESS);
    ASSERT_TRUE(PushNumberedFrame(pool, kFileId, 0));
    ASSERT_TRUE(save.WaitUntilWriting(1));
    for (uint8_t k = 1; k < 8; ++k) {
        ASSERT_TRUE(PushNumberedFrame(pool, kFileId, k));
    }
    save.Open();
    // The producer goes on as soon as the writer frees slots.
    ASSERT_TRUE(PushNumberedFrame(pool, kFileId, 8));
    ASSERT_EQ(save.StopSaving(), ERR_SUCCESS);

    EXPECT_EQ(save.GetWrittenCount(), 9u);
    EXPECT_EQ(save.GetSkippedCount(), 0u);
    for (int i = 0; i < 9; ++i) {
        cv::Mat image = cv::imread(dir.Prefix("f" + std::to_string(i) + ".bmp"));
        ASSERT_FALSE(image.empty()) << i;
        EXPECT_EQ(image.at<cv::Vec3b>(0, 0)[0], i);
    }
}

TEST(MatSaveBackPressure, a_producer_outrunning_the_writer_always_finds_free_slots) {
    TempDir dir;
    UIDataBuffer pool(4, MVT94QX, OUT_IMAGE, kW, kH);
    MatSave save;
    ASSERT_EQ(save.SetSaveMode(MatSave::kSaveVideo), ERR_SUCCESS);
    ASSERT_EQ(save.StartSaving(dir.Prefix("race").c_str(), &pool), ERR_SUCCESS);
    int pushed = 0;
    std::thread producer([&] {
        for (int k = 0; k < 60; ++k) {
            if (!PushNumberedFrame(pool, kLiveId, static_cast<uint8_t>(k))) {
                return;
            }
            ++pushed;
        }
    });
    producer.join();
    ASSERT_EQ(save.StopSaving(), ERR_SUCCESS);
    EXPECT_EQ(pushed, 60);
    EXPECT_EQ(save.GetWrittenCount() + save.GetSkippedCount(), 60u);
    EXPECT_GE(save.GetWrittenCount(), 1u);
}

}  // namespace
}  // namespace evcam
