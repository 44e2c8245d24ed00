#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "src/data/ui_data_buffer.h"
#include "src/process/packaging.h"

namespace evcam {
namespace {

using namespace std::chrono_literals;

constexpr int kW = 8;
constexpr int kH = 6;
constexpr uint32_t kFileId = 2;
constexpr uint32_t kLiveId = 0;
constexpr auto kWait = 5s;

// One pixel-event record as the parser sends it.
Event Pixels(std::initializer_list<std::pair<uint32_t, uint32_t>> xy, int polarity = 0,
             uint32_t ts = 0, uint8_t channel = 0, uint32_t dvsId = kLiveId) {
    Event e;
    e.type = 0;
    e.polarity = polarity;
    e.timestamp = ts;
    e.channel = channel;
    e.dvsId = dvsId;
    for (const auto& [x, y] : xy) {
        e.coords[e.count++] = Event::MakeCoord(x, y);
    }
    return e;
}

Event Px(uint32_t x, uint32_t y, int polarity = 0, uint32_t ts = 0, uint8_t channel = 0,
         uint32_t dvsId = kLiveId) {
    return Pixels({{x, y}}, polarity, ts, channel, dvsId);
}

Event FrameEnd() {
    Event e;
    e.type = 2;
    return e;
}

size_t At(uint32_t x, uint32_t y) {
    return static_cast<size_t>(y) * kW + x;
}

DVSCommonColors TestColors() {
    DVSCommonColors c{};
    c.colors[0] = {{10, 20, 30, 0}};
    c.colors[1] = {{40, 50, 60, 0}};
    c.colors[2] = {{70, 80, 90, 0}};
    return c;
}

// The records a polling caller hands to GetFrame.
struct Received {
    Received(DVS_VERSION version, uint32_t forms) {
        for (DVSUIData& r : rec) {
            r.Initialize(version, forms, kW, kH);
        }
    }
    DVSUIData rec[2];
    unsigned char count = 0;
};

// An output pool with one registered consumer, as the owner builds it for a run. The
// Packaging is declared after it so that it is destroyed first.
class PackagingTest : public ::testing::Test {
  protected:
    void MakePool(int nodes, uint32_t forms, DVS_VERSION version = MVT94QX) {
        mVersion = version;
        mForms = forms;
        mPool = std::make_unique<UIDataBuffer>(nodes, version, forms, kW, kH);
        ASSERT_EQ(mPool->RegisterDataHandle(mHandle), ERR_SUCCESS);
        ASSERT_EQ(pack.SetUIDataBuffer(mPool.get(), mHandle), ERR_SUCCESS);
        pack.SetState(true);
    }

    void TearDown() override {
        if (mPool) {
            mPool->UnregisterDataHandle(mHandle);
        }
    }

    DVS_ERROR Add(Event e) { return Packaging::AddEvent(&e, &pack); }

    // Fetches the next frame with every form the pool holds.
    std::unique_ptr<Received> Fetch() {
        auto out = std::make_unique<Received>(mVersion, mForms);
        const DVS_ERROR rc = pack.GetFrame(static_cast<OUT_TYPE>(mForms), out->rec, out->count);
        EXPECT_EQ(rc, ERR_SUCCESS);
        return rc == ERR_SUCCESS ? std::move(out) : nullptr;
    }

    DVS_ERROR NextFrameResult() {
        Received out(mVersion, mForms);
        return pack.GetFrame(static_cast<OUT_TYPE>(mForms), out.rec, out.count);
    }

    DVS_VERSION mVersion = MVT94QX;
    uint32_t mForms = 0;
    std::unique_ptr<UIDataBuffer> mPool;
    void* mHandle = nullptr;
    Packaging pack;
};

// ---------------------------------------------------------------------------------------------
// Frame rules

TEST_F(PackagingTest, defaults_close_at_first_pixel_event_after_second_frame_end) {
    MakePool(4, OUT_POLARITY);
    ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS);
    ASSERT_EQ(Add(FrameEnd()), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0)), ERR_SUCCESS);
    ASSERT_EQ(Add(FrameEnd()), ERR_SUCCESS);
    EXPECT_EQ(NextFrameResult(), ERR_NO_DATA) << "frame-end markers never close a frame";

    ASSERT_EQ(Add(Px(2, 0, 1)), ERR_SUCCESS);
    auto first = Fetch();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->count, 1);
    EXPECT_EQ(first->rec[0].mFrameIndex, 1u);
    EXPECT_EQ(first->rec[0].mTotalEvents, 2u);
    EXPECT_EQ(first->rec[0].mBinData[At(2, 0)], 0xFF) << "the closing event opens the next frame";

    ASSERT_EQ(Add(FrameEnd()), ERR_SUCCESS);
    ASSERT_EQ(Add(FrameEnd()), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(3, 0)), ERR_SUCCESS);
    auto second = Fetch();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->rec[0].mFrameIndex, 2u);
    EXPECT_EQ(second->rec[0].mTotalEvents, 1u);
    EXPECT_EQ(second->rec[0].mBinData[At(2, 0)], 1);
    EXPECT_EQ(second->rec[0].mBinData[At(0, 0)], 0xFF) << "each frame starts from a clean record";
}

TEST_F(PackagingTest, period_is_kept_by_channel_0_only_and_checked_at_next_pixel_event) {
    MakePool(4, OUT_POLARITY, MVT94QX_STEREO);
    ASSERT_EQ(pack.SetFramePeriod(10), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(0, 0, 0, 1000, 0)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(0, 0, 0, 900000, 1)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0, 0, 10999, 0)), ERR_SUCCESS);
    ASSERT_EQ(Add(FrameEnd()), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0, 0, 950000, 1)), ERR_SUCCESS);
    EXPECT_EQ(NextFrameResult(), ERR_NO_DATA);

    ASSERT_EQ(Add(Px(2, 0, 0, 11000, 0)), ERR_SUCCESS);
    auto frame = Fetch();
    ASSERT_TRUE(frame);
    ASSERT_EQ(frame->count, 2);
    EXPECT_EQ(frame->rec[0].mTotalEvents, 2u);
    EXPECT_EQ(frame->rec[1].mTotalEvents, 2u);
    EXPECT_EQ(frame->rec[1].mFrameIndex, 1u);
}

TEST_F(PackagingTest, period_survives_sensor_clock_wrap) {
    MakePool(4, OUT_POLARITY);
    ASSERT_EQ(pack.SetFramePeriod(10), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(0, 0, 0, 0xFFFFFF00u)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0, 0, 0x100)), ERR_SUCCESS);
    EXPECT_EQ(NextFrameResult(), ERR_NO_DATA);
    ASSERT_EQ(Add(Px(2, 0, 0, 0xFFFFFF00u + 10000)), ERR_SUCCESS);
    EXPECT_EQ(NextFrameResult(), ERR_SUCCESS);
}

TEST_F(PackagingTest, event_count_is_checked_between_records) {
    MakePool(4, OUT_POLARITY);
    ASSERT_EQ(pack.SetEventCnt(3), ERR_SUCCESS);
    ASSERT_EQ(Add(Pixels({{0, 0}, {1, 0}})), ERR_SUCCESS);
    ASSERT_EQ(Add(Pixels({{2, 0}, {3, 0}})), ERR_SUCCESS);
    EXPECT_EQ(NextFrameResult(), ERR_NO_DATA);
    ASSERT_EQ(Add(Px(4, 0)), ERR_SUCCESS);
    auto frame = Fetch();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->rec[0].mTotalEvents, 4u);
}

TEST_F(PackagingTest, rejected_setters_keep_the_rule_in_force) {
    MakePool(4, OUT_POLARITY);
    ASSERT_EQ(pack.SetFramePeriod(5), ERR_SUCCESS);
    EXPECT_EQ(pack.SetFramePeriod(0), ERR_PARA_ERROR);
    EXPECT_EQ(pack.SetEventCnt(0), ERR_PARA_ERROR);
    EXPECT_EQ(pack.SetFrmEndCnt(0), ERR_PARA_ERROR);
    EXPECT_EQ(pack.SetFrameMode(static_cast<FRAME_MODE>(2)), ERR_PARA_ERROR);
    EXPECT_EQ(pack.SetColorFormat(static_cast<COLOR_FORMAT>(3)), ERR_PARA_ERROR);
    EXPECT_EQ(pack.SetColor(nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(pack.SetUIDataBuffer(nullptr, mHandle), ERR_PARA_ERROR);

    ASSERT_EQ(Add(Px(0, 0, 0, 0)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0, 0, 5000)), ERR_SUCCESS);
    EXPECT_EQ(NextFrameResult(), ERR_SUCCESS) << "still the 5 ms period on the same pool";
}

TEST_F(PackagingTest, reset_restores_default_rule_colours_and_polling) {
    MakePool(4, OUT_IMAGE);
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    ASSERT_EQ(pack.SetFrameMode(FRAME_MODE_CALLBACK), ERR_SUCCESS);
    DVSCommonColors colors = TestColors();
    ASSERT_EQ(pack.SetColor(&colors), ERR_SUCCESS);
    ASSERT_EQ(pack.SetColorFormat(COLOR_GRAY), ERR_SUCCESS);
    ASSERT_EQ(pack.Reset(), ERR_SUCCESS);
    unsigned char count = 0;
    DVSUIData out;
    EXPECT_EQ(pack.GetFrame(OUT_IMAGE, &out, count), ERR_NOT_START) << "the buffer is forgotten";

    ASSERT_EQ(pack.SetUIDataBuffer(mPool.get(), mHandle), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(2, 0)), ERR_SUCCESS);
    EXPECT_EQ(NextFrameResult(), ERR_NO_DATA) << "back to two frame ends per frame";
    ASSERT_EQ(Add(FrameEnd()), ERR_SUCCESS);
    ASSERT_EQ(Add(FrameEnd()), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(3, 0)), ERR_SUCCESS);
    auto frame = Fetch();
    ASSERT_TRUE(frame);
    const uint8_t* img = frame->rec[0].mImgData;
    EXPECT_EQ(frame->rec[0].mColorFormat, COLOR_RGB24);
    EXPECT_EQ(std::vector<uint8_t>(img + At(1, 0) * 3, img + At(1, 0) * 3 + 3),
              (std::vector<uint8_t>{255, 255, 255}));
    EXPECT_EQ(std::vector<uint8_t>(img, img + 3), (std::vector<uint8_t>{128, 128, 128}));
}

// ---------------------------------------------------------------------------------------------
// Forms written into a frame

TEST_F(PackagingTest, event_list_packs_x_polarity_y_and_timestamp) {
    MakePool(2, OUT_EVENTS);
    ASSERT_EQ(pack.SetEventCnt(1000), ERR_SUCCESS);
    ASSERT_EQ(Add(Pixels({{5, 3}, {7, 2}}, 1, 1234, 0, 77)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(6, 5, -1, 99)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 1, 2, 5, 0, 55)), ERR_SUCCESS);
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS);

    auto frame = Fetch();
    ASSERT_TRUE(frame);
    const DVSUIData& r = frame->rec[0];
    ASSERT_EQ(r.mEventCount, 4);
    EXPECT_EQ(r.mTotalEvents, 4u);
    EXPECT_EQ(r.mDVSID, 55) << "id of the last event";
    EXPECT_EQ(r.mEvents[0].xp, 0x8000 | 5);
    EXPECT_EQ(r.mEvents[0].y, 3);
    EXPECT_EQ(r.mEvents[0].timestamp, 1234u);
    EXPECT_EQ(r.mEvents[1].xp, 0x8000 | 7);
    EXPECT_EQ(r.mEvents[1].y, 2);
    EXPECT_EQ(r.mEvents[2].X(), 6);
    EXPECT_EQ(r.mEvents[2].Polarity(), 1) << "bit 0 of the background polarity -1";
    EXPECT_EQ(r.mEvents[2].timestamp, 99u);
    EXPECT_EQ(r.mEvents[3].Polarity(), 0) << "bit 0 of raw-bitmap polarity 2";
}

TEST_F(PackagingTest, event_list_is_capped_by_capacity_while_totals_count_everything) {
    mPool = std::make_unique<UIDataBuffer>(1, MVT94QX, OUT_EVENTS, kW, kH);
    // Shrink the only slot's list, then hand the slot back before anyone consumes.
    DVSOutputData* node = mPool->GetAFreeNode();
    ASSERT_NE(node, nullptr);
    ASSERT_EQ(node->mUIData->ResizeEventContainer(2), ERR_SUCCESS);
    ASSERT_EQ(mPool->PutANodeToDataList(node), ERR_SUCCESS);
    ASSERT_EQ(mPool->RegisterDataHandle(mHandle), ERR_SUCCESS);
    ASSERT_EQ(pack.SetUIDataBuffer(mPool.get(), mHandle), ERR_SUCCESS);
    mVersion = MVT94QX;
    mForms = OUT_EVENTS;
    ASSERT_EQ(pack.SetEventCnt(3), ERR_SUCCESS);

    ASSERT_EQ(Add(Pixels({{1, 0}, {2, 0}, {3, 0}})), ERR_SUCCESS);
    EXPECT_EQ(Add(Px(4, 0)), ERR_NO_FREE_NODE) << "the single slot is waiting for the consumer";
    auto frame = Fetch();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->rec[0].mEventCount, 2);
    EXPECT_EQ(frame->rec[0].mTotalEvents, 3u);
    EXPECT_EQ(frame->rec[0].mEvents[1].X(), 2);
}

TEST_F(PackagingTest, polarity_image_keeps_last_polarity_over_ff_background) {
    MakePool(2, OUT_POLARITY);
    ASSERT_EQ(pack.SetEventCnt(5), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 1, 1)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 1, 0)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(2, 0, 1)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(3, 0, 2)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(7, 5, 1)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS);

    auto frame = Fetch();
    ASSERT_TRUE(frame);
    std::vector<uint8_t> expected(kW * kH, 0xFF);
    expected[At(1, 1)] = 0;
    expected[At(2, 0)] = 1;
    expected[At(3, 0)] = 2;
    expected[At(7, 5)] = 1;
    const uint8_t* bin = frame->rec[0].mBinData;
    EXPECT_EQ(std::vector<uint8_t>(bin, bin + kW * kH), expected);
}

TEST_F(PackagingTest, time_surfaces_hold_last_time_per_polarity_and_ignore_others) {
    MakePool(2, OUT_POLARITY | OUT_TIME_SURFACE);
    ASSERT_EQ(pack.SetEventCnt(4), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0, 0, 100)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0, 1, 200)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0, 0, 300)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(2, 0, 2, 400)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS);

    auto frame = Fetch();
    ASSERT_TRUE(frame);
    const DVSUIData& r = frame->rec[0];
    EXPECT_EQ(r.mTsData0[At(1, 0)], 300u);
    EXPECT_EQ(r.mTsData1[At(1, 0)], 200u);
    EXPECT_EQ(r.mTsData0[At(2, 0)], 0u);
    EXPECT_EQ(r.mTsData1[At(2, 0)], 0u);
    EXPECT_EQ(r.mLastTimestamp, 300u) << "polarity 2 leaves the surfaces alone";
    EXPECT_EQ(r.mTsData0[At(0, 0)], 0u);
}

class PackagingPaintTest : public PackagingTest,
                           public ::testing::WithParamInterface<COLOR_FORMAT> {};

TEST_P(PackagingPaintTest, paints_events_over_background_in_active_format) {
    const COLOR_FORMAT format = GetParam();
    MakePool(2, OUT_IMAGE);
    DVSCommonColors colors = TestColors();
    ASSERT_EQ(pack.SetColor(&colors), ERR_SUCCESS);
    ASSERT_EQ(pack.SetColorFormat(format), ERR_SUCCESS);
    ASSERT_EQ(pack.SetEventCnt(4), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0, 0)), ERR_SUCCESS);
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(Add(Pixels({{2, 0}, {3, 0}}, 2)), ERR_SUCCESS);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Error: Unknown polarity\nError: Unknown polarity\n");
    ASSERT_EQ(Add(Px(2, 0, 1)), ERR_SUCCESS);
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS);

    auto frame = Fetch();
    ASSERT_TRUE(frame);
    const DVSUIData& r = frame->rec[0];
    EXPECT_EQ(r.mColorFormat, format);
    const uint8_t* img = r.mImgData;
    if (format == COLOR_GRAY) {
        EXPECT_EQ(r.mImgSize, static_cast<uint32_t>(kW * kH));
        EXPECT_EQ(std::vector<uint8_t>(img, img + 5), (std::vector<uint8_t>{70, 10, 40, 70, 70}));
        EXPECT_EQ(img[kW * kH - 1], 70);
        return;
    }
    EXPECT_EQ(r.mImgSize, static_cast<uint32_t>(kW * kH * 3));
    const std::vector<uint8_t> p0 =
        format == COLOR_RGB24 ? std::vector<uint8_t>{30, 20, 10} : std::vector<uint8_t>{10, 20, 30};
    EXPECT_EQ(std::vector<uint8_t>(img + 3, img + 6), p0);
    // Pixel (2,0) had an unknown polarity first and polarity 1 later: the later one shows.
    const std::vector<uint8_t> p1 =
        format == COLOR_RGB24 ? std::vector<uint8_t>{60, 50, 40} : std::vector<uint8_t>{40, 50, 60};
    EXPECT_EQ(std::vector<uint8_t>(img + 6, img + 9), p1);
    EXPECT_EQ(std::vector<uint8_t>(img + 9, img + 12), (std::vector<uint8_t>{70, 80, 90}));
    const uint8_t* last = img + (kW * kH - 1) * 3;
    EXPECT_EQ(std::vector<uint8_t>(last, last + 3), (std::vector<uint8_t>{70, 80, 90}));
}

INSTANTIATE_TEST_SUITE_P(AllFormats, PackagingPaintTest,
                         ::testing::Values(COLOR_RGB24, COLOR_YUV, COLOR_GRAY));

TEST_F(PackagingTest, colour_changes_take_effect_when_the_next_frame_opens) {
    MakePool(3, OUT_IMAGE);
    ASSERT_EQ(pack.SetEventCnt(2), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0, 0)), ERR_SUCCESS);
    DVSCommonColors colors = TestColors();
    ASSERT_EQ(pack.SetColor(&colors), ERR_SUCCESS);
    ASSERT_EQ(pack.SetColorFormat(COLOR_GRAY), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(2, 0, 0)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(3, 0, 1)), ERR_SUCCESS);
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(4, 0, 0)), ERR_SUCCESS);

    auto first = Fetch();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->rec[0].mColorFormat, COLOR_RGB24);
    const uint8_t* img = first->rec[0].mImgData;
    EXPECT_EQ(std::vector<uint8_t>(img + 6, img + 9), (std::vector<uint8_t>{255, 255, 255}));
    EXPECT_EQ(std::vector<uint8_t>(img, img + 3), (std::vector<uint8_t>{128, 128, 128}));

    auto second = Fetch();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->rec[0].mColorFormat, COLOR_GRAY);
    EXPECT_EQ(std::vector<uint8_t>(second->rec[0].mImgData, second->rec[0].mImgData + 4),
              (std::vector<uint8_t>{70, 70, 70, 40}))
        << "new colours, and frame one's pixels are gone";
}

// ---------------------------------------------------------------------------------------------
// Routing and rejected events

TEST_F(PackagingTest, stereo_channel_1_goes_to_second_record) {
    MakePool(2, OUT_POLARITY, MVT94QX_STEREO);
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(2, 2, 1, 0, 1, 9)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS);
    auto frame = Fetch();
    ASSERT_TRUE(frame);
    ASSERT_EQ(frame->count, 2);
    EXPECT_EQ(frame->rec[0].mTotalEvents, 0u);
    EXPECT_EQ(frame->rec[0].mBinData[At(2, 2)], 0xFF);
    EXPECT_EQ(frame->rec[1].mTotalEvents, 1u);
    EXPECT_EQ(frame->rec[1].mBinData[At(2, 2)], 1);
    EXPECT_EQ(frame->rec[1].mDVSID, 9);
    EXPECT_EQ(frame->rec[0].mFrameIndex, frame->rec[1].mFrameIndex);
}

TEST_F(PackagingTest, channel_without_record_gives_20) {
    MakePool(2, OUT_POLARITY);
    EXPECT_EQ(Add(Px(0, 0, 0, 0, 1)), ERR_READ_DATA);
    Event tooMany = Px(0, 0);
    tooMany.count = 9;
    EXPECT_EQ(Add(tooMany), ERR_READ_DATA);

    Packaging stereo;
    UIDataBuffer pool(2, MVT94QX_STEREO, OUT_POLARITY, kW, kH);
    ASSERT_EQ(stereo.SetUIDataBuffer(&pool, nullptr), ERR_SUCCESS);
    Event e = Px(0, 0, 0, 0, 2);
    EXPECT_EQ(Packaging::AddEvent(&e, &stereo), ERR_READ_DATA);
}

TEST_F(PackagingTest, coordinate_outside_record_gives_20_and_loses_the_rest) {
    MakePool(2, OUT_POLARITY);
    ASSERT_EQ(pack.SetEventCnt(10), ERR_SUCCESS);
    EXPECT_EQ(Add(Pixels({{1, 1}, {kW, 0}, {2, 2}})), ERR_READ_DATA);
    EXPECT_EQ(Add(Pixels({{3, 3}, {0, kH}})), ERR_READ_DATA);
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS);
    auto frame = Fetch();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->rec[0].mTotalEvents, 2u);
    EXPECT_EQ(frame->rec[0].mBinData[At(1, 1)], 0);
    EXPECT_EQ(frame->rec[0].mBinData[At(3, 3)], 0);
    EXPECT_EQ(frame->rec[0].mBinData[At(2, 2)], 0xFF);
}

TEST_F(PackagingTest, add_event_refuses_missing_arguments_and_missing_pool) {
    Event e = Px(0, 0);
    EXPECT_EQ(Packaging::AddEvent(nullptr, &pack), ERR_PARA_ERROR);
    EXPECT_EQ(Packaging::AddEvent(&e, nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(Add(e), ERR_NO_UIDATA_BUFFER);
    EXPECT_EQ(Add(FrameEnd()), ERR_SUCCESS) << "markers are counted without a pool";
}

// ---------------------------------------------------------------------------------------------
// A full pool

TEST_F(PackagingTest, full_pool_refuses_live_data_with_19_until_a_frame_is_released) {
    MakePool(2, OUT_POLARITY);
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0)), ERR_SUCCESS);
    EXPECT_EQ(Add(Px(2, 0)), ERR_NO_FREE_NODE);
    EXPECT_EQ(Add(Px(3, 0)), ERR_NO_FREE_NODE);

    ASSERT_EQ(pack.DropFrame(), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(4, 0)), ERR_SUCCESS);
    auto frame = Fetch();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->rec[0].mFrameIndex, 2u);
    EXPECT_EQ(frame->rec[0].mBinData[At(1, 0)], 0);
}

class FullPoolWithFileData : public PackagingTest {
  protected:
    void SetUp() override {
        MakePool(2, OUT_POLARITY);
        ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
        ASSERT_EQ(Add(Px(0, 0, 0, 0, 0, kFileId)), ERR_SUCCESS);
        ASSERT_EQ(Add(Px(1, 0, 0, 0, 0, kFileId)), ERR_SUCCESS);
        waiting =
            std::async(std::launch::async, [this] { return Add(Px(2, 0, 0, 0, 0, kFileId)); });
    }

    void TearDown() override {
        // Never leave the parse-thread stand-in blocked.
        pack.SetState(false);
        if (waiting.valid()) {
            waiting.wait();
        }
        PackagingTest::TearDown();
    }

    std::future<DVS_ERROR> waiting;
};

TEST_F(FullPoolWithFileData, waits_until_a_frame_is_released) {
    EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
    ASSERT_EQ(pack.DropFrame(), ERR_SUCCESS);
    ASSERT_EQ(waiting.wait_for(kWait), std::future_status::ready);
    EXPECT_EQ(waiting.get(), ERR_SUCCESS);
}

TEST_F(FullPoolWithFileData, gives_up_with_19_when_state_is_cleared) {
    EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
    pack.SetState(false);
    ASSERT_EQ(waiting.wait_for(kWait), std::future_status::ready);
    EXPECT_EQ(waiting.get(), ERR_NO_FREE_NODE);
}

// ---------------------------------------------------------------------------------------------
// Polling

TEST_F(PackagingTest, get_frame_checks_arguments_pool_and_mode) {
    Received out(MVT94QX, OUT_POLARITY);
    out.count = 99;
    EXPECT_EQ(pack.GetFrame(OUT_POLARITY, out.rec, out.count), ERR_NOT_START);
    MakePool(2, OUT_POLARITY);
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    EXPECT_EQ(pack.GetFrame(static_cast<OUT_TYPE>(0), out.rec, out.count), ERR_PARA_ERROR);
    EXPECT_EQ(pack.GetFrame(static_cast<OUT_TYPE>(16), out.rec, out.count), ERR_PARA_ERROR);
    EXPECT_EQ(pack.GetFrame(OUT_POLARITY, nullptr, out.count), ERR_PARA_ERROR);
    EXPECT_EQ(pack.GetFrame(OUT_POLARITY, out.rec, out.count), ERR_NO_DATA);
    EXPECT_EQ(out.count, 1) << "the record count is given even when no frame waits";

    ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0)), ERR_SUCCESS);
    ASSERT_EQ(pack.SetFrameMode(FRAME_MODE_CALLBACK), ERR_SUCCESS);
    out.count = 99;
    EXPECT_EQ(pack.GetFrame(OUT_POLARITY, out.rec, out.count), ERR_FRAME_MODE);
    EXPECT_EQ(out.count, 99);
    ASSERT_EQ(pack.SetFrameMode(FRAME_MODE_POLLING), ERR_SUCCESS);
    EXPECT_EQ(pack.GetFrame(OUT_POLARITY, out.rec, out.count), ERR_SUCCESS)
        << "callback mode left the frame in the pool";
    EXPECT_EQ(out.rec[0].mFrameIndex, 1u);
}

TEST_F(PackagingTest, get_frame_returns_copy_errors_after_releasing_the_frame) {
    MakePool(1, OUT_POLARITY);
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    // With one slot, the next frame can open only once the failed one has been released.
    auto fillTheOnlySlot = [this] {
        ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS);
        ASSERT_EQ(Add(Px(1, 0)), ERR_NO_FREE_NODE);
    };
    unsigned char count = 0;

    fillTheOnlySlot();
    DVSUIData eventsOnly(MVT94QX, OUT_EVENTS, kW, kH);
    EXPECT_EQ(pack.GetFrame(OUT_EVENTS, &eventsOnly, count), ERR_NO_SPECIFIED_DATA);

    fillTheOnlySlot();
    EXPECT_EQ(pack.GetFrame(OUT_POLARITY, &eventsOnly, count), ERR_TYPE_MISMATCH);

    fillTheOnlySlot();
    DVSUIData empty;
    EXPECT_EQ(pack.GetFrame(OUT_POLARITY, &empty, count), ERR_PARA_ERROR);

    fillTheOnlySlot();
    EXPECT_EQ(NextFrameResult(), ERR_SUCCESS);
}

TEST_F(PackagingTest, drop_frame_discards_the_oldest_frame) {
    EXPECT_EQ(pack.DropFrame(), ERR_NOT_START);
    MakePool(4, OUT_POLARITY);
    EXPECT_EQ(pack.DropFrame(), ERR_NO_DATA);
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(2, 0)), ERR_SUCCESS);
    EXPECT_EQ(pack.DropFrame(), ERR_SUCCESS);
    auto frame = Fetch();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->rec[0].mFrameIndex, 2u);
    EXPECT_EQ(pack.DropFrame(), ERR_NO_DATA);
}

// ---------------------------------------------------------------------------------------------
// Frame-rate report

struct RateSink {
    std::vector<std::pair<void*, int>> calls;
};

void RecordRate(void* user, int rate) {
    static_cast<RateSink*>(user)->calls.push_back({user, rate});
}

TEST_F(PackagingTest, frame_rate_is_reported_after_a_second_of_markers) {
    RateSink sink;
    EXPECT_EQ(pack.SetFrameRateCallback(nullptr, &sink), ERR_PARA_ERROR);
    ASSERT_EQ(pack.SetFrameRateCallback(RecordRate, &sink), ERR_SUCCESS);
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(Add(FrameEnd()), ERR_SUCCESS);
    }
    EXPECT_TRUE(sink.calls.empty());
    std::this_thread::sleep_for(1050ms);
    ASSERT_EQ(Add(FrameEnd()), ERR_SUCCESS);
    ASSERT_EQ(sink.calls.size(), 1u);
    EXPECT_EQ(sink.calls[0].first, &sink);
    EXPECT_GE(sink.calls[0].second, 1);
    EXPECT_LE(sink.calls[0].second, 51) << "51 markers over at least a second";
    ASSERT_EQ(Add(FrameEnd()), ERR_SUCCESS);
    EXPECT_EQ(sink.calls.size(), 1u) << "the next marker opens a new window";
}

// ---------------------------------------------------------------------------------------------
// Callback delivery through the real timer

struct Delivery {
    int pass;
    int tag;
    void* user;
    unsigned char count;
    int interval;
    uint32_t index[2];
    uint32_t total[2];
    uint8_t firstPixel[2];
};

struct DeliverySink {
    std::mutex m;
    std::condition_variable cv;
    std::vector<Delivery> got;
    std::atomic<bool> hold{false};
    std::atomic<bool> entered{false};

    bool WaitFor(size_t n) {
        std::unique_lock<std::mutex> lock(m);
        return cv.wait_for(lock, kWait, [&] { return got.size() >= n; });
    }
    std::vector<Delivery> Snapshot() {
        std::lock_guard<std::mutex> lock(m);
        return got;
    }
};

std::atomic<int> gPasses{0};

void Deliver(int tag, DVSUIData* data, unsigned char count, void* user, int interval) {
    // Every timer expiry runs on a thread of its own, so a thread-local tells passes apart.
    thread_local const int pass = ++gPasses;
    auto* sink = static_cast<DeliverySink*>(user);
    Delivery d{pass, tag, user, count, interval, {}, {}, {}};
    for (int i = 0; i < count && i < 2; ++i) {
        d.index[i] = data[i].mFrameIndex;
        d.total[i] = data[i].mTotalEvents;
        d.firstPixel[i] = data[i].mBinData != nullptr ? data[i].mBinData[0] : 0;
    }
    sink->entered = true;
    for (int i = 0; i < 5000 && sink->hold; ++i) {
        std::this_thread::sleep_for(1ms);
    }
    std::lock_guard<std::mutex> lock(sink->m);
    sink->got.push_back(d);
    sink->cv.notify_all();
}

void DeliverOne(DVSUIData* d, unsigned char c, void* u, int i) {
    Deliver(1, d, c, u, i);
}
void DeliverTwo(DVSUIData* d, unsigned char c, void* u, int i) {
    Deliver(2, d, c, u, i);
}

// Frames delivered by each pass, in order of the passes.
std::vector<int> PerPass(const std::vector<Delivery>& got) {
    std::vector<int> out;
    int last = -1;
    for (const Delivery& d : got) {
        if (d.pass != last) {
            out.push_back(0);
            last = d.pass;
        }
        ++out.back();
    }
    return out;
}

class PackagingTimerTest : public PackagingTest {
  protected:
    void TearDown() override {
        sink.hold = false;
        pack.StopCallbackTimer();
        PackagingTest::TearDown();
    }

    DeliverySink sink;
};

TEST_F(PackagingTimerTest, stereo_frames_reach_the_callback_through_the_copy_area) {
    MakePool(6, OUT_POLARITY | OUT_EVENTS, MVT94QX_STEREO);
    ASSERT_EQ(pack.SetFrameMode(FRAME_MODE_CALLBACK), ERR_SUCCESS);
    ASSERT_EQ(pack.SetCallback(DeliverOne, &sink), ERR_SUCCESS);
    ASSERT_EQ(pack.SetEventCnt(2), ERR_SUCCESS);
    ASSERT_EQ(pack.StartCallbackTimer(), ERR_SUCCESS);
    for (uint32_t f = 0; f < 4; ++f) {
        ASSERT_EQ(Add(Px(0, 0, static_cast<int>(f & 1), f, 0)), ERR_SUCCESS);
        ASSERT_EQ(Add(Pixels({{1, 1}, {2, 2}}, 1, f, 1)), ERR_SUCCESS);
    }
    ASSERT_EQ(Add(Px(5, 5)), ERR_SUCCESS);
    ASSERT_TRUE(sink.WaitFor(4));
    ASSERT_EQ(pack.StopCallbackTimer(), ERR_SUCCESS);

    const std::vector<Delivery> got = sink.Snapshot();
    ASSERT_EQ(got.size(), 4u);
    for (uint32_t f = 0; f < 4; ++f) {
        SCOPED_TRACE(f);
        EXPECT_EQ(got[f].count, 2);
        EXPECT_EQ(got[f].user, &sink);
        EXPECT_EQ(got[f].index[0], f + 1);
        EXPECT_EQ(got[f].index[1], f + 1);
        EXPECT_EQ(got[f].total[0], 1u);
        EXPECT_EQ(got[f].total[1], 2u);
        EXPECT_EQ(got[f].firstPixel[0], f & 1);
        EXPECT_EQ(got[f].firstPixel[1], 0xFF);
    }
    EXPECT_EQ(pack.DropFrame(), ERR_NO_DATA) << "delivered frames were released";
}

struct BurstCase {
    const char* name;
    uint32_t period;  // 0: event-count frames
    std::vector<int> perPass;
};

class PackagingBurstTest : public PackagingTimerTest,
                           public ::testing::WithParamInterface<BurstCase> {};

TEST_P(PackagingBurstTest, each_pass_takes_at_most_its_burst_of_waiting_frames) {
    const BurstCase& c = GetParam();
    MakePool(10, OUT_POLARITY);
    int frames = 0;
    for (int n : c.perPass) {
        frames += n;
    }
    if (c.period == 0) {
        ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    } else {
        ASSERT_EQ(pack.SetFramePeriod(c.period), ERR_SUCCESS);
    }
    for (int f = 0; f <= frames; ++f) {
        ASSERT_EQ(Add(Px(0, 0, 0, static_cast<uint32_t>(f) * c.period * 1000)), ERR_SUCCESS);
    }
    ASSERT_EQ(pack.SetFrameMode(FRAME_MODE_CALLBACK), ERR_SUCCESS);
    ASSERT_EQ(pack.SetCallback(DeliverOne, &sink), ERR_SUCCESS);
    ASSERT_EQ(pack.StartCallbackTimer(), ERR_SUCCESS);
    ASSERT_TRUE(sink.WaitFor(static_cast<size_t>(frames)));
    ASSERT_EQ(pack.StopCallbackTimer(), ERR_SUCCESS);

    const std::vector<Delivery> got = sink.Snapshot();
    EXPECT_EQ(PerPass(got), c.perPass);
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].index[0], i + 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Periods, PackagingBurstTest,
                         ::testing::Values(BurstCase{"period_10ms", 10, {3, 3, 1}},
                                           BurstCase{"period_33ms", 33, {1, 1, 1}},
                                           BurstCase{"period_2ms", 2, {4, 4, 1}},
                                           BurstCase{"event_count", 0, {4, 3}}),
                         [](const ::testing::TestParamInfo<BurstCase>& info) {
                             return info.param.name;
                         });

TEST_F(PackagingTimerTest, stop_returns_only_after_the_running_pass) {
    MakePool(4, OUT_POLARITY);
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0)), ERR_SUCCESS);
    ASSERT_EQ(pack.SetFrameMode(FRAME_MODE_CALLBACK), ERR_SUCCESS);
    ASSERT_EQ(pack.SetCallback(DeliverOne, &sink), ERR_SUCCESS);
    sink.hold = true;
    ASSERT_EQ(pack.StartCallbackTimer(), ERR_SUCCESS);
    for (int i = 0; i < 5000 && !sink.entered; ++i) {
        std::this_thread::sleep_for(1ms);
    }
    ASSERT_TRUE(sink.entered);

    auto stopped = std::async(std::launch::async, [this] { return pack.StopCallbackTimer(); });
    EXPECT_EQ(stopped.wait_for(50ms), std::future_status::timeout);
    sink.hold = false;
    ASSERT_EQ(stopped.wait_for(kWait), std::future_status::ready);
    EXPECT_EQ(stopped.get(), ERR_SUCCESS);
    bool over = false;
    ASSERT_EQ(pack.GetTimerOverFlag(over), ERR_SUCCESS);
    EXPECT_TRUE(over);
    const size_t delivered = sink.Snapshot().size();
    EXPECT_EQ(delivered, 1u);

    ASSERT_EQ(Add(Px(2, 0)), ERR_SUCCESS);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(sink.Snapshot().size(), delivered) << "no pass runs after the stop";
}

TEST_F(PackagingTimerTest, stop_waits_for_a_pass_that_is_armed_but_not_yet_due) {
    MakePool(2, OUT_POLARITY);
    ASSERT_EQ(pack.SetFramePeriod(200), ERR_SUCCESS);
    ASSERT_EQ(pack.SetFrameMode(FRAME_MODE_CALLBACK), ERR_SUCCESS);
    ASSERT_EQ(pack.SetCallback(DeliverOne, &sink), ERR_SUCCESS);
    ASSERT_EQ(pack.StartCallbackTimer(), ERR_SUCCESS);
    ASSERT_EQ(pack.StopCallbackTimer(), ERR_SUCCESS);
    bool over = false;
    ASSERT_EQ(pack.GetTimerOverFlag(over), ERR_SUCCESS);
    EXPECT_TRUE(over) << "the armed pass must have run and ended the chain";
}

TEST_F(PackagingTimerTest, reset_is_refused_while_the_timer_runs) {
    MakePool(2, OUT_POLARITY);
    ASSERT_EQ(pack.SetFrameMode(FRAME_MODE_CALLBACK), ERR_SUCCESS);
    ASSERT_EQ(pack.SetCallback(DeliverOne, &sink), ERR_SUCCESS);
    ASSERT_EQ(pack.StartCallbackTimer(), ERR_SUCCESS);
    EXPECT_EQ(pack.Reset(), ERR_RUNNING);
    ASSERT_EQ(pack.StopCallbackTimer(), ERR_SUCCESS);
    EXPECT_EQ(pack.Reset(), ERR_SUCCESS);
}

TEST_F(PackagingTest, stop_callback_timer_without_start_returns_at_once) {
    auto stopped = std::async(std::launch::async, [this] { return pack.StopCallbackTimer(); });
    ASSERT_EQ(stopped.wait_for(kWait), std::future_status::ready);
    EXPECT_EQ(stopped.get(), ERR_SUCCESS);
}

TEST_F(PackagingTimerTest, first_callback_stays_for_life_and_user_pointer_follows_last_call) {
    DeliverySink other;
    ASSERT_EQ(pack.SetCallback(DeliverOne, &other), ERR_SUCCESS);
    ASSERT_EQ(pack.Reset(), ERR_SUCCESS);
    EXPECT_EQ(pack.SetCallback(nullptr, &other), ERR_PARA_ERROR);
    ASSERT_EQ(pack.SetCallback(DeliverTwo, &sink), ERR_SUCCESS);

    MakePool(2, OUT_POLARITY);
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0)), ERR_SUCCESS);
    ASSERT_EQ(pack.SetFrameMode(FRAME_MODE_CALLBACK), ERR_SUCCESS);
    ASSERT_EQ(pack.StartCallbackTimer(), ERR_SUCCESS);
    ASSERT_TRUE(sink.WaitFor(1));
    ASSERT_EQ(pack.StopCallbackTimer(), ERR_SUCCESS);
    const std::vector<Delivery> got = sink.Snapshot();
    EXPECT_EQ(got[0].tag, 1);
    EXPECT_EQ(got[0].user, &sink);
    EXPECT_TRUE(other.Snapshot().empty());
}

TEST_F(PackagingTimerTest, delivery_interval_is_measured_and_passed_on) {
    MakePool(4, OUT_POLARITY);
    ASSERT_EQ(pack.SetFramePeriod(1000), ERR_SUCCESS);
    for (uint32_t f = 0; f < 3; ++f) {
        ASSERT_EQ(Add(Px(0, 0, 0, f * 1000000)), ERR_SUCCESS);
    }
    ASSERT_EQ(pack.SetFrameMode(FRAME_MODE_CALLBACK), ERR_SUCCESS);
    ASSERT_EQ(pack.SetCallback(DeliverOne, &sink), ERR_SUCCESS);
    EXPECT_EQ(pack.GetFrameInterval(), 0);
    ASSERT_EQ(pack.StartCallbackTimer(), ERR_SUCCESS);
    ASSERT_TRUE(sink.WaitFor(2));
    ASSERT_EQ(pack.StopCallbackTimer(), ERR_SUCCESS);

    const std::vector<Delivery> got = sink.Snapshot();
    EXPECT_EQ(got[0].interval, 0) << "one frame measures nothing";
    // Passes one second apart; a timer never fires early, so the gap cannot be much shorter.
    EXPECT_GE(got[1].interval, 900);
    EXPECT_EQ(pack.GetFrameInterval(), got[1].interval);
}

}  // namespace
}  // namespace evcam
