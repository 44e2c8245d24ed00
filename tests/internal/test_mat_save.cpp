#include "src/record/mat_save.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include "src/data/output_data.h"
#include "src/data/ui_data_buffer.h"
#include "tests/support/test_support.h"

namespace evcam {
namespace {

namespace fs = std::filesystem;
using Colour = std::array<uint8_t, 3>;
using Names = std::vector<std::string>;

constexpr int kW = 64;
constexpr int kH = 48;
constexpr int32_t kLiveId = 0;
constexpr int32_t kFileId = 2;

void PutPixel(DVSUIData& r, int x, int y, Colour c) {
    const int bytes = r.mColorFormat == COLOR_GRAY ? 1 : 3;
    std::copy(c.begin(), c.begin() + bytes, r.mImgData + (y * r.mWidth + x) * bytes);
}

void Fill(DVSUIData& r, Colour c) {
    for (int i = 0; i < r.mWidth * r.mHeight; ++i) {
        PutPixel(r, i, 0, c);
    }
}

// Plays the packager: waits for a free slot as file playback does, paints every record of it
// (the second argument is its channel) and appends it.
bool Push(UIDataBuffer& pool, COLOR_FORMAT format, int32_t dvsId,
          const std::function<void(DVSUIData&, int)>& paint) {
    DVSOutputData* slot = nullptr;
    if (!WaitUntil([&] { return (slot = pool.GetAFreeNode()) != nullptr; })) {
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

// One grey level all over, so that the file on disk tells which frame it came from.
bool PushNumbered(UIDataBuffer& pool, int32_t dvsId, uint8_t n) {
    return Push(pool, COLOR_RGB24, dvsId, [&](DVSUIData& r, int) { Fill(r, {n, n, n}); });
}

int FreeSlots(UIDataBuffer& pool) {
    int count = 0;
    while (pool.GetAFreeNode() != nullptr) {
        ++count;
    }
    return count;
}

// Stands in for a disk that stalls: every write waits until the test opens the gate.
class GatedMatSave : public MatSave {
  public:
    ~GatedMatSave() override {
        Open();
        StopSaving();
    }
    void Open() {
        std::call_once(mOnce, [this] { mGate.set_value(); });
    }
    std::atomic<int> entered{0};

  protected:
    bool WriteImage(const cv::Mat& image) override {
        ++entered;
        mOpened.wait();
        return MatSave::WriteImage(image);
    }

  private:
    std::promise<void> mGate;
    std::shared_future<void> mOpened = mGate.get_future().share();
    std::once_flag mOnce;
};

class MatSaveTest : public ::testing::Test {
  protected:
    std::string Path(const std::string& name) const { return mDir.File(name); }
    Names Files() const {
        Names names;
        for (const auto& entry : fs::directory_iterator(mDir.path())) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    // Starts save in the given mode with the path prefix p on pool.
    void Start(MatSave& save, UIDataBuffer& pool, const std::string& p,
               int mode = MatSave::kSaveImages) {
        ASSERT_EQ(save.SetSaveMode(mode), ERR_SUCCESS);
        ASSERT_EQ(save.StartSaving(Path(p).c_str(), &pool), ERR_SUCCESS);
    }

  private:
    TempDir mDir;
};

// A start refused for an unwritable path leaves nothing running, and the exporter usable.
TEST_F(MatSaveTest, refuses_bad_settings_bad_starts_and_changes_while_saving) {
    UIDataBuffer pool(4, MVT94QX, OUT_IMAGE, kW, kH);
    MatSave save;
    EXPECT_EQ(save.SetSaveMode(0), ERR_PARA_ERROR);
    EXPECT_EQ(save.SetSaveMode(3), ERR_PARA_ERROR);
    EXPECT_EQ(save.SetVideoFps(-1), ERR_PARA_ERROR);
    EXPECT_EQ(save.SetVideoFps(0), ERR_SUCCESS);
    for (const auto& [w, h, rc] :
         {std::make_tuple(0, 48, ERR_PARA_ERROR), std::make_tuple(961, 720, ERR_PARA_ERROR),
          std::make_tuple(960, 721, ERR_PARA_ERROR), std::make_tuple(960, 720, ERR_SUCCESS),
          std::make_tuple(0, 0, ERR_SUCCESS)}) {
        EXPECT_EQ(save.SetResolution(w, h), rc) << w << "x" << h;
    }
    EXPECT_EQ(save.SetVersion(static_cast<DVS_VERSION>(5)), ERR_PARA_ERROR);
    const std::string prefix = Path("v");
    EXPECT_EQ(save.StartSaving(prefix.c_str(), &pool), ERR_PARA_ERROR) << "no mode set";
    ASSERT_EQ(save.SetSaveMode(MatSave::kSaveVideo), ERR_SUCCESS);
    EXPECT_EQ(save.StartSaving(nullptr, &pool), ERR_PARA_ERROR);
    EXPECT_EQ(save.StartSaving("", &pool), ERR_PARA_ERROR);
    EXPECT_EQ(save.StartSaving(prefix.c_str(), nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(pool.GetHandleCount(), 0);

    ASSERT_EQ(save.StartSaving(prefix.c_str(), &pool), ERR_SUCCESS);
    EXPECT_TRUE(Files().empty()) << "the writability check leaves no file behind";
    EXPECT_EQ(save.StartSaving(prefix.c_str(), &pool), ERR_ALREADY_DONE);
    EXPECT_EQ(save.SetSaveMode(MatSave::kSaveImages), ERR_RUNNING);
    EXPECT_EQ(save.SetVideoFps(10), ERR_RUNNING);
    EXPECT_EQ(save.SetResolution(32, 24), ERR_RUNNING);
    EXPECT_EQ(save.SetVersion(MVT94QX), ERR_RUNNING);
    EXPECT_EQ(pool.GetHandleCount(), 1);
    EXPECT_EQ(save.StopSaving(), ERR_SUCCESS);

    for (int mode : {MatSave::kSaveImages, MatSave::kSaveVideo}) {
        ASSERT_EQ(save.SetSaveMode(mode), ERR_SUCCESS);
        EXPECT_EQ(save.StartSaving(Path("no/such/dir/frame_").c_str(), &pool), ERR_OPEN_FILE);
        EXPECT_FALSE(save.IsSaving());
        EXPECT_EQ(pool.GetHandleCount(), 0);
        EXPECT_EQ(save.StopSaving(), ERR_ALREADY_DONE) << "mode " << mode;
    }
    EXPECT_EQ(save.StartSaving(Path("ok_").c_str(), &pool), ERR_SUCCESS);
    EXPECT_EQ(save.StopSaving(), ERR_SUCCESS);
    EXPECT_TRUE(Files().empty());
}

// The colour format may change from frame to frame while a camera runs. A stereo frame puts
// the second camera on the right, each scaled to the size set.
TEST_F(MatSaveTest, images_are_written_in_opencv_order_under_counted_names_and_side_by_side) {
    UIDataBuffer pool(4, MVT94QX, OUT_IMAGE, kW, kH);
    MatSave save;
    Start(save, pool, "frame_");
    const std::pair<COLOR_FORMAT, Colour> frames[] = {
        {COLOR_RGB24, {10, 20, 30}}, {COLOR_YUV, {100, 128, 200}}, {COLOR_GRAY, {200, 0, 0}}};
    for (const auto& [format, marker] : frames) {
        ASSERT_TRUE(Push(pool, format, kFileId, [&](DVSUIData& r, int) {
            Fill(r, {77, 128, 128});
            PutPixel(r, 5, 3, marker);
        }));
    }
    ASSERT_EQ(save.StopSaving(), ERR_SUCCESS);
    EXPECT_EQ(Files(), (Names{"frame_0.bmp", "frame_1.bmp", "frame_2.bmp"}));
    EXPECT_EQ(save.GetLastFilePath(), Path("frame_2.bmp"));
    const cv::Mat rgb = cv::imread(Path("frame_0.bmp"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(rgb.type(), CV_8UC3);
    ASSERT_EQ(rgb.size(), cv::Size(kW, kH));
    EXPECT_EQ(rgb.at<cv::Vec3b>(3, 5), cv::Vec3b(30, 20, 10));
    const cv::Mat yuv = cv::imread(Path("frame_1.bmp"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(yuv.type(), CV_8UC3);
    // Y 100, U 0, V +72: R = Y + 1.140 V, G = Y - 0.581 V, B = Y.
    const cv::Vec3b p = yuv.at<cv::Vec3b>(3, 5);
    EXPECT_NEAR(p[0], 100, 2);
    EXPECT_NEAR(p[1], 58, 2);
    EXPECT_NEAR(p[2], 182, 2);
    const cv::Mat grey = cv::imread(Path("frame_2.bmp"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(grey.type(), CV_8UC1);
    EXPECT_EQ(grey.at<uint8_t>(0, 0), 77);
    EXPECT_EQ(grey.at<uint8_t>(3, 5), 200);

    UIDataBuffer stereo(2, MVT94QX_STEREO, OUT_IMAGE, kW, kH);
    MatSave pair;
    ASSERT_EQ(pair.SetResolution(kW / 2, kH / 2), ERR_SUCCESS);
    Start(pair, stereo, "s");
    ASSERT_TRUE(Push(stereo, COLOR_RGB24, kLiveId, [](DVSUIData& r, int channel) {
        Fill(r, channel == 0 ? Colour{255, 0, 0} : Colour{0, 0, 255});
    }));
    ASSERT_EQ(pair.StopSaving(), ERR_SUCCESS);
    const cv::Mat image = cv::imread(Path("s0.bmp"));
    ASSERT_EQ(image.size(), cv::Size(kW, kH / 2));
    EXPECT_EQ(image.at<cv::Vec3b>(5, kW / 2 - 1), cv::Vec3b(0, 0, 255));
    EXPECT_EQ(image.at<cv::Vec3b>(5, kW / 2), cv::Vec3b(255, 0, 0));
}

// File frames are never dropped to keep up, so each one goes through the export and must be
// released there, painted or not, for the next to find a slot. Destroying an exporter that is
// saving stops it.
TEST_F(MatSaveTest, frames_without_an_image_are_skipped_and_stops_and_destruction_are_harmless) {
    UIDataBuffer polarity(2, MVT94QX, OUT_POLARITY, kW, kH);
    MatSave skipper;
    Start(skipper, polarity, "p");
    for (int k = 0; k < 3; ++k) {
        ASSERT_TRUE(Push(polarity, COLOR_RGB24, kFileId, [](DVSUIData&, int) {}));
    }
    ASSERT_EQ(skipper.StopSaving(), ERR_SUCCESS);
    EXPECT_EQ(skipper.GetWrittenCount(), 0u);
    EXPECT_EQ(skipper.GetSkippedCount(), 3u);
    EXPECT_TRUE(skipper.GetLastFilePath().empty());
    EXPECT_TRUE(Files().empty());

    UIDataBuffer pool(4, MVT94QX, OUT_IMAGE, kW, kH);
    {
        MatSave save;
        EXPECT_EQ(save.StopSaving(), ERR_ALREADY_DONE);
        Start(save, pool, "t");
        ASSERT_TRUE(PushNumbered(pool, kLiveId, 1));
        EXPECT_EQ(save.StopSaving(), ERR_SUCCESS);
        EXPECT_EQ(save.StopSaving(), ERR_ALREADY_DONE);
        EXPECT_EQ(save.GetWrittenCount(), 1u);
        ASSERT_EQ(save.StartSaving(Path("u").c_str(), &pool), ERR_SUCCESS);
        EXPECT_EQ(save.GetWrittenCount(), 0u);
        ASSERT_TRUE(PushNumbered(pool, kLiveId, 2));
    }
    EXPECT_EQ(pool.GetHandleCount(), 0);
    EXPECT_EQ(FreeSlots(pool), 4);
    EXPECT_EQ(Files(), (Names{"t0.bmp", "u0.bmp"}));
}

// Grey frames go in as BGR because one video cannot switch channel count; a second run takes
// the next free name instead of overwriting the first.
TEST_F(MatSaveTest, stereo_video_holds_every_frame_side_by_side_in_bgr_at_the_set_rate) {
    UIDataBuffer pool(4, MVT94QX_STEREO, OUT_IMAGE, kW, kH);
    const std::tuple<COLOR_FORMAT, int, Colour> runs[] = {{COLOR_GRAY, 3, {200, 200, 200}},
                                                          {COLOR_RGB24, 1, {20, 100, 200}}};
    for (int run = 0; run < 2; ++run) {
        const auto& [format, frames, bgr] = runs[run];
        const std::string path = Path("stMVT94QX_STEREO-" + std::to_string(run) + ".avi");
        {
            MatSave save;
            ASSERT_EQ(save.SetVersion(MVT94QX_STEREO), ERR_SUCCESS);
            ASSERT_EQ(save.SetVideoFps(25), ERR_SUCCESS);
            Start(save, pool, "st", MatSave::kSaveVideo);
            for (int k = 0; k < frames; ++k) {
                ASSERT_TRUE(Push(pool, format, kFileId, [](DVSUIData& r, int) {
                    Fill(r, {200, 100, 20});
                }));
            }
            ASSERT_EQ(save.StopSaving(), ERR_SUCCESS);
            EXPECT_EQ(save.GetLastFilePath(), path);
        }
        cv::VideoCapture capture(path, cv::CAP_OPENCV_MJPEG);
        EXPECT_NEAR(capture.get(cv::CAP_PROP_FPS), 25.0, 0.01);
        cv::Mat frame;
        ASSERT_TRUE(capture.read(frame));
        EXPECT_EQ(frame.size(), cv::Size(2 * kW, kH));
        ASSERT_EQ(frame.channels(), 3);
        // Motion JPEG is lossy: the flat colour comes back close.
        const cv::Vec3b p = frame.at<cv::Vec3b>(kH / 2, kW + 1);
        for (int c = 0; c < 3; ++c) {
            EXPECT_NEAR(p[c], bgr[c], 12) << "run " << run << " channel " << c;
        }
        int read = 1;
        while (capture.read(frame)) {
            ++read;
        }
        EXPECT_EQ(read, frames);
    }
}

// The exporter stalls in its first write while the producer fills the pool; once the write
// returns, live frames beyond the backlog (8 slots / 4 = 2) are released unwritten, oldest
// first, while file frames are all written and playback waits for the writer.
TEST_F(MatSaveTest, a_stalled_writer_drops_old_live_frames_but_keeps_every_file_frame) {
    for (int32_t id : {kLiveId, kFileId}) {
        SCOPED_TRACE(id);
        UIDataBuffer pool(8, MVT94QX, OUT_IMAGE, kW, kH);
        GatedMatSave save;
        const std::string prefix = id == kLiveId ? "b" : "f";
        Start(save, pool, prefix);
        ASSERT_TRUE(PushNumbered(pool, id, 0));
        ASSERT_TRUE(WaitUntil([&] { return save.entered >= 1; }));
        for (uint8_t k = 1; k < 8; ++k) {
            ASSERT_TRUE(PushNumbered(pool, id, k));
        }
        EXPECT_EQ(pool.GetAFreeNode(), nullptr);
        save.Open();
        std::vector<uint8_t> kept = {0, 1, 2, 3, 4, 5, 6, 7, 8};
        if (id == kLiveId) {
            // Stopping drains without dropping, so the trim is awaited before the stop.
            ASSERT_TRUE(WaitUntil([&] { return save.GetSkippedCount() == 5u; }));
            EXPECT_GE(FreeSlots(pool), 5) << "dropped frames go back to the pool";
            kept = {0, 6, 7};
        } else {
            ASSERT_TRUE(PushNumbered(pool, id, 8)) << "the writer frees slots as it goes";
        }
        // Frames still queued when the stop comes are written, and every slot is handed back.
        ASSERT_EQ(save.StopSaving(), ERR_SUCCESS);
        EXPECT_EQ(pool.GetHandleCount(), 0);
        EXPECT_EQ(save.GetWrittenCount(), kept.size());
        for (size_t i = 0; i <= kept.size(); ++i) {
            const cv::Mat image = cv::imread(Path(prefix + std::to_string(i) + ".bmp"));
            ASSERT_EQ(image.empty(), i == kept.size()) << i;
            EXPECT_TRUE(image.empty() || image.at<cv::Vec3b>(0, 0)[0] == kept[i]) << i;
        }
        EXPECT_TRUE(id == kLiveId || FreeSlots(pool) == 8);
    }
}

}  // namespace
}  // namespace evcam
