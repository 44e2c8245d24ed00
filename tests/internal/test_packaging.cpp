#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <numeric>
#include <thread>
#include <tuple>
#include <vector>

#include "src/data/ui_data_buffer.h"
#include "src/process/packaging.h"
#include "tests/support/test_support.h"

namespace evcam {
namespace {

using namespace std::chrono_literals;

constexpr int kW = 8;
constexpr int kH = 6;
constexpr uint32_t kFileId = 2;
const DVSCommonColors kColors{{{{10, 20, 30, 0}}, {{40, 50, 60, 0}}, {{70, 80, 90, 0}}}};
const Event kFrameEnd{kEventFrameEnd};
const Event kEndOfPass{kEventEndOfPass};

// One pixel-event record as the parser sends it.
Event Px(uint32_t x, uint32_t y, int polarity = 0, uint32_t ts = 0, uint8_t channel = 0,
         uint32_t dvsId = 0) {
    return Event{kEventPixels, {Event::MakeCoord(x, y)}, polarity, dvsId, ts, channel, 1};
}

// The record e with one more coordinate.
Event And(Event e, uint32_t x, uint32_t y) {
    e.coords[e.count++] = Event::MakeCoord(x, y);
    return e;
}

size_t At(uint32_t x, uint32_t y) {
    return static_cast<size_t>(y) * kW + x;
}

Bytes Span(const uint8_t* p, size_t n) {
    return {p, p + n};
}

// What the frame callback saw, one entry per frame.
struct Delivery {
    int pass, tag;
    void* user;
    unsigned char count;
    int interval;
    uint32_t index[2], total[2];
    uint8_t firstPixel[2];
};

struct DeliverySink {
    std::vector<Delivery> Seen() {
        std::lock_guard<std::mutex> lock(m);
        return got;
    }
    // Waits up to 5 s for n deliveries. @return all seen so far.
    std::vector<Delivery> WaitFor(size_t n) {
        WaitUntil([&] { return Seen().size() >= n; });
        return Seen();
    }

    std::mutex m;
    std::vector<Delivery> got;  ///< guarded by m
    std::atomic<bool> hold{false};
    std::atomic<bool> entered{false};
};

std::atomic<int> gPasses{0};

template <int Tag>
void Deliver(DVSUIData* data, unsigned char count, void* user, int interval) {
    // Every timer expiry runs on a thread of its own, so a thread-local tells passes apart.
    thread_local const int pass = ++gPasses;
    auto* sink = static_cast<DeliverySink*>(user);
    Delivery d{pass, Tag, user, count, interval, {}, {}, {}};
    for (int i = 0; i < count && i < 2; ++i) {
        d.index[i] = data[i].mFrameIndex;
        d.total[i] = data[i].mTotalEvents;
        d.firstPixel[i] = data[i].mBinData != nullptr ? data[i].mBinData[0] : 0;
    }
    sink->entered = true;
    WaitUntil([&] { return !sink->hold; });
    std::lock_guard<std::mutex> lock(sink->m);
    sink->got.push_back(d);
}

// An output pool with one registered consumer, as the owner builds it for a run.
class PackagingTest : public ::testing::Test {
  protected:
    void MakePool(int nodes, uint32_t forms, DVS_VERSION version = MVT94QX) {
        mForms = forms;
        mPool = std::make_unique<UIDataBuffer>(nodes, version, forms, kW, kH);
        ASSERT_EQ(mPool->RegisterDataHandle(mHandle), ERR_SUCCESS);
        ASSERT_EQ(pack.SetUIDataBuffer(mPool.get(), mHandle), ERR_SUCCESS);
        pack.SetState(true);
        for (DVSUIData& r : got) {
            ASSERT_EQ(r.Initialize(version, forms, kW, kH), ERR_SUCCESS);
        }
    }
    // Never leave a parse-thread stand-in blocked or a frame callback held.
    void TearDown() override {
        pack.SetState(false);
        sink.hold = false;
    }

    DVS_ERROR Add(Event e) { return Packaging::AddEvent(&e, &pack); }
    // The first error, or 0 when every event was taken.
    DVS_ERROR Add(std::initializer_list<Event> events) {
        DVS_ERROR rc = ERR_SUCCESS;
        for (auto e = events.begin(); e != events.end() && rc == ERR_SUCCESS; ++e) {
            rc = Add(*e);
        }
        return rc;
    }
    // Takes the next frame, with every form the pool holds, into got.
    DVS_ERROR Next() { return pack.GetFrame(static_cast<OUT_TYPE>(mForms), got, count); }
    void StartDelivery(FrameCallback callback = Deliver<1>) {
        ASSERT_EQ(pack.SetFrameMode(FRAME_MODE_CALLBACK), ERR_SUCCESS);
        ASSERT_EQ(pack.SetCallback(callback, &sink), ERR_SUCCESS);
        ASSERT_EQ(pack.StartCallbackTimer(), ERR_SUCCESS);
    }

    uint32_t mForms = 0;
    std::unique_ptr<UIDataBuffer> mPool;
    void* mHandle = nullptr;
    DeliverySink sink;  ///< outlives pack, whose destructor stops the timer
    Packaging pack;
    DVSUIData got[2];
    unsigned char count = 0;
    /// A parse-thread stand-in blocked on a full pool; destroyed first, so TearDown frees it.
    std::future<DVS_ERROR> waiting;
};

TEST_F(PackagingTest, frame_end_and_event_count_rules_close_only_at_the_next_pixel_event) {
    MakePool(2, OUT_POLARITY);
    ASSERT_EQ(Add({Px(0, 0), kFrameEnd, Px(1, 0), kFrameEnd}), ERR_SUCCESS);
    EXPECT_EQ(Next(), ERR_NO_DATA) << "frame-end markers never close a frame";
    ASSERT_EQ(Add(Px(2, 0, 1)), ERR_SUCCESS);
    ASSERT_EQ(Next(), ERR_SUCCESS);
    EXPECT_EQ(got[0].mFrameIndex, 1u);
    EXPECT_EQ(got[0].mTotalEvents, 2u);
    EXPECT_EQ(got[0].mBinData[At(2, 0)], 0xFF) << "the closing event opens the next frame";
    ASSERT_EQ(Add({kFrameEnd, kFrameEnd, Px(3, 0)}), ERR_SUCCESS);
    ASSERT_EQ(Next(), ERR_SUCCESS);
    EXPECT_EQ(got[0].mFrameIndex, 2u);
    EXPECT_EQ(got[0].mTotalEvents, 1u);
    EXPECT_EQ(got[0].mBinData[At(2, 0)], 1);
    // The end of a played-once recording closes the open frame at once. That frame reuses the
    // first one's record, which must start clean.
    ASSERT_EQ(Add(kEndOfPass), ERR_SUCCESS);
    ASSERT_EQ(Next(), ERR_SUCCESS);
    EXPECT_EQ(got[0].mFrameIndex, 3u);
    EXPECT_EQ(got[0].mTotalEvents, 1u);
    EXPECT_EQ(got[0].mBinData[At(0, 0)], 0xFF);
    // The event count is checked between records, so two records of two make a frame of four.
    ASSERT_EQ(pack.SetEventCnt(3), ERR_SUCCESS);
    ASSERT_EQ(Add({And(Px(0, 0), 1, 0), And(Px(2, 0), 3, 0)}), ERR_SUCCESS);
    EXPECT_EQ(Next(), ERR_NO_DATA);
    ASSERT_EQ(Add(Px(4, 0)), ERR_SUCCESS);
    ASSERT_EQ(Next(), ERR_SUCCESS);
    EXPECT_EQ(got[0].mTotalEvents, 4u);
}

// Channel 0's clock wraps inside the first frame; channel 1's runs far ahead.
TEST_F(PackagingTest, period_is_kept_by_channel_0_only_and_checked_at_next_pixel_event) {
    constexpr uint32_t kT0 = 0xFFFFF000u;
    MakePool(4, OUT_POLARITY, MVT94QX_STEREO);
    ASSERT_EQ(pack.SetFramePeriod(10), ERR_SUCCESS);
    ASSERT_EQ(Add({Px(0, 0, 0, kT0, 0), Px(0, 0, 0, 900000, 1), Px(1, 0, 0, kT0 + 9999, 0),
                   kFrameEnd, Px(1, 0, 0, 950000, 1)}),
              ERR_SUCCESS);
    EXPECT_EQ(Next(), ERR_NO_DATA);
    ASSERT_EQ(Add(Px(2, 0, 0, kT0 + 10000, 0)), ERR_SUCCESS);
    ASSERT_EQ(Next(), ERR_SUCCESS);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(got[0].mTotalEvents, 2u);
    EXPECT_EQ(got[1].mTotalEvents, 2u);
}

// New colours wait for the next frame to open, so that a frame is painted in one set throughout.
TEST_F(PackagingTest, rejected_setters_keep_the_rule_colours_wait_and_reset_restores_defaults) {
    MakePool(4, OUT_IMAGE);
    ASSERT_EQ(pack.SetFramePeriod(5), ERR_SUCCESS);
    EXPECT_EQ(pack.SetFramePeriod(0), ERR_PARA_ERROR);
    EXPECT_EQ(pack.SetEventCnt(0), ERR_PARA_ERROR);
    EXPECT_EQ(pack.SetFrmEndCnt(0), ERR_PARA_ERROR);
    EXPECT_EQ(pack.SetFrameMode(static_cast<FRAME_MODE>(2)), ERR_PARA_ERROR);
    EXPECT_EQ(pack.SetColorFormat(static_cast<COLOR_FORMAT>(3)), ERR_PARA_ERROR);
    EXPECT_EQ(pack.SetColor(nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(pack.SetUIDataBuffer(nullptr, mHandle), ERR_PARA_ERROR);
    EXPECT_EQ(pack.SetFrameRateCallback(nullptr, &sink), ERR_PARA_ERROR);
    EXPECT_EQ(pack.SetCallback(nullptr, &sink), ERR_PARA_ERROR);
    ASSERT_EQ(Add(Px(0, 0, 0, 0)), ERR_SUCCESS);
    ASSERT_EQ(pack.SetColor(&kColors), ERR_SUCCESS);
    ASSERT_EQ(pack.SetColorFormat(COLOR_GRAY), ERR_SUCCESS);
    ASSERT_EQ(Add({Px(1, 0, 0, 4999), Px(2, 0, 0, 5000), Px(3, 0, 1, 9999), Px(4, 0, 0, 10000)}),
              ERR_SUCCESS);
    ASSERT_EQ(Next(), ERR_SUCCESS) << "still the 5 ms period on the same pool";
    EXPECT_EQ(got[0].mColorFormat, COLOR_RGB24);
    EXPECT_EQ(Span(got[0].mImgData, 9), (Bytes{255, 255, 255, 255, 255, 255, 128, 128, 128}));
    ASSERT_EQ(Next(), ERR_SUCCESS);
    EXPECT_EQ(got[0].mColorFormat, COLOR_GRAY);
    EXPECT_EQ(Span(got[0].mImgData, 5), (Bytes{70, 70, 10, 40, 70}))
        << "new colours, and frame one's pixels are gone";

    ASSERT_EQ(pack.SetFrameMode(FRAME_MODE_CALLBACK), ERR_SUCCESS);
    ASSERT_EQ(pack.Reset(), ERR_SUCCESS);
    EXPECT_EQ(Next(), ERR_NOT_START) << "the buffer is forgotten";
    ASSERT_EQ(pack.SetUIDataBuffer(mPool.get(), mHandle), ERR_SUCCESS);
    ASSERT_EQ(Add({Px(1, 0), Px(2, 0)}), ERR_SUCCESS);
    EXPECT_EQ(Next(), ERR_NO_DATA) << "back to two frame ends per frame, polled";
    ASSERT_EQ(Add({kFrameEnd, kFrameEnd, Px(3, 0)}), ERR_SUCCESS);
    ASSERT_EQ(Next(), ERR_SUCCESS);
    EXPECT_EQ(got[0].mColorFormat, COLOR_RGB24);
    EXPECT_EQ(Span(got[0].mImgData, 6), (Bytes{128, 128, 128, 255, 255, 255}));
}

// The only slot's list holds 4 events; later ones are counted but not listed. The polarity
// image and the time surfaces keep the last event per pixel; polarities -1 and 2 have no
// surface and leave them alone.
TEST_F(PackagingTest, forms_hold_packed_events_up_to_capacity_and_the_last_event_per_pixel) {
    MakePool(1, OUT_EVENTS | OUT_POLARITY | OUT_TIME_SURFACE);
    DVSOutputData* node = mPool->GetAFreeNode();
    ASSERT_NE(node, nullptr);
    ASSERT_EQ(node->mUIData->ResizeEventContainer(4), ERR_SUCCESS);
    ASSERT_EQ(mPool->PutANodeToDataList(node), ERR_SUCCESS);
    ASSERT_EQ(pack.DropFrame(), ERR_SUCCESS);
    ASSERT_EQ(pack.SetEventCnt(6), ERR_SUCCESS);
    ASSERT_EQ(Add({And(Px(5, 3, 1, 1234, 0, 77), 7, 2), Px(6, 5, -1, 99), Px(1, 1, 2, 5),
                   Px(5, 3, 0, 300), Px(3, 3, 2, 999, 0, 55)}),
              ERR_SUCCESS);
    EXPECT_EQ(Add(Px(0, 0)), ERR_NO_FREE_NODE) << "the single slot is waiting for the consumer";

    ASSERT_EQ(Next(), ERR_SUCCESS);
    const DVSUIData& r = got[0];
    EXPECT_EQ(r.mTotalEvents, 6u);
    EXPECT_EQ(r.mDVSID, 55) << "id of the last event";
    // x with the polarity's bit 0 on top (-1 and 2 give 1 and 0), y, time stamp.
    std::vector<std::tuple<int, int, uint32_t>> listed;
    for (int i = 0; i < r.mEventCount; ++i) {
        listed.emplace_back(r.mEvents[i].xp, r.mEvents[i].y, r.mEvents[i].timestamp);
    }
    EXPECT_EQ(listed, (std::vector<std::tuple<int, int, uint32_t>>{
                          {0x8005, 3, 1234}, {0x8007, 2, 1234}, {0x8006, 5, 99}, {0x0001, 1, 5}}));
    Bytes polarity(kW * kH, 0xFF);
    polarity[At(5, 3)] = 0;
    polarity[At(7, 2)] = 1;
    polarity[At(1, 1)] = 2;
    polarity[At(3, 3)] = 2;
    EXPECT_EQ(Span(r.mBinData, kW * kH), polarity);
    EXPECT_EQ(std::make_tuple(r.mTsData0[At(5, 3)], r.mTsData1[At(5, 3)], r.mTsData1[At(7, 2)],
                              r.mTsData0[At(7, 2)], r.mLastTimestamp),
              std::make_tuple(300u, 1234u, 1234u, 0u, 300u));
    for (size_t p : {At(6, 5), At(1, 1), At(3, 3)}) {
        EXPECT_EQ(r.mTsData0[p] + r.mTsData1[p], 0u) << p;
    }
}

// Pixel 1 gets polarity 0; pixel 2 an unknown polarity first and polarity 1 later; pixel 3 only
// the unknown one, which is reported once per event and paints nothing.
TEST_F(PackagingTest, paints_events_over_the_background_in_the_format_active_at_frame_open) {
    MakePool(2, OUT_IMAGE);
    ASSERT_EQ(pack.SetColor(&kColors), ERR_SUCCESS);
    const std::tuple<COLOR_FORMAT, Bytes, Bytes> cases[] = {
        // format, background of one pixel, pixels 1 and 2
        {COLOR_RGB24, {70, 80, 90}, {30, 20, 10, 60, 50, 40}},
        {COLOR_YUV, {70, 80, 90}, {10, 20, 30, 40, 50, 60}},
        {COLOR_GRAY, {70}, {10, 40}}};
    for (const auto& [format, background, painted] : cases) {
        ASSERT_EQ(pack.SetColorFormat(format), ERR_SUCCESS);
        ASSERT_EQ(Add(Px(1, 0, 0)), ERR_SUCCESS);
        ::testing::internal::CaptureStdout();
        ASSERT_EQ(Add(And(Px(2, 0, 2), 3, 0)), ERR_SUCCESS);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(),
                  "Error: Unknown polarity\nError: Unknown polarity\n");
        ASSERT_EQ(Add({Px(2, 0, 1), kEndOfPass}), ERR_SUCCESS);
        ASSERT_EQ(Next(), ERR_SUCCESS);
        Bytes expected;
        for (int i = 0; i < kW * kH; ++i) {
            expected.insert(expected.end(), background.begin(), background.end());
        }
        std::copy(painted.begin(), painted.end(), expected.begin() + background.size());
        EXPECT_EQ(got[0].mColorFormat, format);
        EXPECT_EQ(Span(got[0].mImgData, expected.size()), expected) << "format " << format;
    }
}

TEST_F(PackagingTest, bad_events_are_refused_and_lose_the_coordinates_from_the_bad_one_on) {
    Event e = Px(5, 5);
    EXPECT_EQ(Packaging::AddEvent(nullptr, &pack), ERR_PARA_ERROR);
    EXPECT_EQ(Packaging::AddEvent(&e, nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(Add(e), ERR_NO_UIDATA_BUFFER);
    EXPECT_EQ(Add(kFrameEnd), ERR_SUCCESS) << "markers are counted without a pool";
    MakePool(2, OUT_POLARITY);
    ASSERT_EQ(pack.SetEventCnt(10), ERR_SUCCESS);
    EXPECT_EQ(Add(Px(5, 5, 0, 0, 1)), ERR_READ_DATA) << "no record for channel 1";
    e.count = 9;
    EXPECT_EQ(Add(e), ERR_READ_DATA);
    EXPECT_EQ(Add(And(And(Px(1, 1), kW, 0), 2, 2)), ERR_READ_DATA);
    EXPECT_EQ(Add(And(Px(3, 3), 0, kH)), ERR_READ_DATA);
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS);
    ASSERT_EQ(Next(), ERR_SUCCESS);
    const uint8_t* bin = got[0].mBinData;
    EXPECT_EQ(got[0].mTotalEvents, 2u);
    EXPECT_EQ((Bytes{bin[At(1, 1)], bin[At(3, 3)], bin[At(2, 2)], bin[At(5, 5)]}),
              (Bytes{0, 0, 0xFF, 0xFF}));
}

// Live data is refused with 19; file data waits until a frame is released or the state clears.
TEST_F(PackagingTest, full_pool_refuses_live_data_and_holds_file_data_back) {
    EXPECT_EQ(pack.DropFrame(), ERR_NOT_START);
    MakePool(2, OUT_POLARITY);
    EXPECT_EQ(pack.DropFrame(), ERR_NO_DATA);
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    ASSERT_EQ(Add({Px(0, 0), Px(1, 0)}), ERR_SUCCESS);
    EXPECT_EQ(Add(Px(2, 0)), ERR_NO_FREE_NODE);
    EXPECT_EQ(Add(Px(3, 0)), ERR_NO_FREE_NODE);
    for (const DVS_ERROR expected : {ERR_SUCCESS, ERR_NO_FREE_NODE}) {
        waiting =
            std::async(std::launch::async, [this] { return Add(Px(4, 0, 0, 0, 0, kFileId)); });
        EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
        if (expected == ERR_SUCCESS) {
            ASSERT_EQ(pack.DropFrame(), ERR_SUCCESS);
        } else {
            pack.SetState(false);
        }
        ASSERT_EQ(waiting.wait_for(5s), std::future_status::ready);
        EXPECT_EQ(waiting.get(), expected);
    }
    ASSERT_EQ(Next(), ERR_SUCCESS) << "the oldest frame was dropped";
    EXPECT_EQ(got[0].mFrameIndex, 2u);
    EXPECT_EQ(got[0].mBinData[At(1, 0)], 0);
}

// With one slot, the next frame can open only once the last one has been released.
TEST_F(PackagingTest, get_frame_checks_arguments_pool_and_mode_and_releases_failed_frames) {
    EXPECT_EQ(pack.GetFrame(OUT_POLARITY, got, count), ERR_NOT_START);
    MakePool(1, OUT_POLARITY);
    EXPECT_EQ(pack.GetFrame(static_cast<OUT_TYPE>(0), got, count), ERR_PARA_ERROR);
    EXPECT_EQ(pack.GetFrame(static_cast<OUT_TYPE>(16), got, count), ERR_PARA_ERROR);
    EXPECT_EQ(pack.GetFrame(OUT_POLARITY, nullptr, count), ERR_PARA_ERROR);
    EXPECT_EQ(Next(), ERR_NO_DATA);
    EXPECT_EQ(count, 1) << "the record count is given even when no frame waits";
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS);
    ASSERT_EQ(Add(Px(1, 0)), ERR_NO_FREE_NODE);
    ASSERT_EQ(pack.SetFrameMode(FRAME_MODE_CALLBACK), ERR_SUCCESS);
    count = 99;
    EXPECT_EQ(Next(), ERR_FRAME_MODE);
    EXPECT_EQ(count, 99);
    ASSERT_EQ(pack.SetFrameMode(FRAME_MODE_POLLING), ERR_SUCCESS);

    DVSUIData eventsOnly(MVT94QX, OUT_EVENTS, kW, kH);
    DVSUIData empty;
    const std::tuple<OUT_TYPE, DVSUIData*, DVS_ERROR> requests[] = {
        {OUT_POLARITY, got, ERR_SUCCESS},
        {OUT_EVENTS, &eventsOnly, ERR_NO_SPECIFIED_DATA},
        {OUT_POLARITY, &eventsOnly, ERR_TYPE_MISMATCH},
        {OUT_POLARITY, &empty, ERR_PARA_ERROR}};
    for (const auto& [type, out, expected] : requests) {
        EXPECT_EQ(pack.GetFrame(type, out, count), expected);
        ASSERT_EQ(Add(Px(0, 0)), ERR_SUCCESS) << "the frame was released";
        ASSERT_EQ(Add(Px(1, 0)), ERR_NO_FREE_NODE);
    }
}

// The first callback ever set stays for the object's life; the user pointer follows the last call.
TEST_F(PackagingTest, stereo_frames_reach_the_first_callback_through_the_copy_area) {
    DeliverySink other;
    ASSERT_EQ(pack.SetCallback(Deliver<1>, &other), ERR_SUCCESS);
    ASSERT_EQ(pack.Reset(), ERR_SUCCESS);
    MakePool(4, OUT_POLARITY | OUT_EVENTS, MVT94QX_STEREO);
    ASSERT_EQ(pack.SetEventCnt(2), ERR_SUCCESS);
    StartDelivery(Deliver<2>);
    for (uint32_t f = 0; f < 3; ++f) {
        ASSERT_EQ(Add({Px(0, 0, static_cast<int>(f & 1), f, 0), And(Px(1, 1, 1, f, 1), 2, 2)}),
                  ERR_SUCCESS);
    }
    ASSERT_EQ(Add(Px(5, 5)), ERR_SUCCESS);
    const std::vector<Delivery> seen = sink.WaitFor(3);
    ASSERT_EQ(seen.size(), 3u);
    for (uint32_t f = 0; f < 3; ++f) {
        const Delivery& d = seen[f];
        // Callback and user; records per frame; frame index, events and pixel (0,0) per camera.
        EXPECT_EQ(
            std::make_tuple(d.tag, d.user, d.count, d.index[0], d.index[1], d.total[0], d.total[1],
                            d.firstPixel[0], d.firstPixel[1]),
            std::make_tuple(1, static_cast<void*>(&sink), 2, f + 1, f + 1, 1u, 2u, f & 1, 0xFF))
            << "frame " << f;
    }
    EXPECT_TRUE(other.Seen().empty());
    ASSERT_EQ(pack.StopCallbackTimer(), ERR_SUCCESS);
    int freeSlots = 0;
    while (mPool->GetAFreeNode() != nullptr) {
        ++freeSlots;
    }
    EXPECT_EQ(freeSlots, 3) << "delivered frames were released; the fourth slot is still open";
}

struct BurstCase {
    const char* name;
    uint32_t period;  ///< 0: event-count frames
    std::vector<int> perPass;
};

class PackagingBurstTest : public PackagingTest, public ::testing::WithParamInterface<BurstCase> {};

// All frames wait before the timer starts, so each pass takes a full burst while it can. Only
// the one-second period delivers long enough for the interval between frames to be measured.
TEST_P(PackagingBurstTest, each_pass_takes_at_most_its_burst_of_waiting_frames) {
    const BurstCase& c = GetParam();
    MakePool(10, OUT_POLARITY);
    const int frames = std::accumulate(c.perPass.begin(), c.perPass.end(), 0);
    ASSERT_EQ(c.period == 0 ? pack.SetEventCnt(1) : pack.SetFramePeriod(c.period), ERR_SUCCESS);
    for (int f = 0; f <= frames; ++f) {
        ASSERT_EQ(Add(Px(0, 0, 0, static_cast<uint32_t>(f) * c.period * 1000)), ERR_SUCCESS);
    }
    StartDelivery();
    const std::vector<Delivery> seen = sink.WaitFor(static_cast<size_t>(frames));
    std::vector<int> perPass;
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].index[0], i + 1);
        if (i == 0 || seen[i].pass != seen[i - 1].pass) {
            perPass.push_back(0);
        }
        ++perPass.back();
    }
    EXPECT_EQ(perPass, c.perPass);
    // One frame measures nothing; a timer never fires early, so a gap cannot be much shorter.
    EXPECT_EQ(seen.front().interval, 0);
    EXPECT_GE(seen.back().interval, c.period == 1000 ? 900 : 0);
    EXPECT_EQ(pack.GetFrameInterval(), seen.back().interval);
}

INSTANTIATE_TEST_SUITE_P(Periods, PackagingBurstTest,
                         ::testing::Values(BurstCase{"period_10ms", 10, {3, 3, 1}},
                                           BurstCase{"period_33ms", 33, {1, 1, 1}},
                                           BurstCase{"period_2ms", 2, {4, 4, 1}},
                                           BurstCase{"event_count", 0, {4, 3}},
                                           BurstCase{"period_1s_measures_interval", 1000, {1, 1}}),
                         [](const auto& info) { return info.param.name; });

// Stopping a timer that was never started must not wait for a pass that never comes; a
// started one returns only after the running pass, and Reset is refused until then.
TEST_F(PackagingTest, stop_waits_for_the_running_pass_but_not_for_a_timer_never_started) {
    auto stopped = std::async(std::launch::async, [this] { return pack.StopCallbackTimer(); });
    ASSERT_EQ(stopped.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(stopped.get(), ERR_SUCCESS);

    MakePool(4, OUT_POLARITY);
    ASSERT_EQ(pack.SetEventCnt(1), ERR_SUCCESS);
    ASSERT_EQ(Add({Px(0, 0), Px(1, 0)}), ERR_SUCCESS);
    sink.hold = true;
    StartDelivery();
    ASSERT_TRUE(WaitUntil([&] { return sink.entered.load(); }));
    EXPECT_EQ(pack.Reset(), ERR_RUNNING);
    stopped = std::async(std::launch::async, [this] { return pack.StopCallbackTimer(); });
    EXPECT_EQ(stopped.wait_for(50ms), std::future_status::timeout);
    sink.hold = false;
    ASSERT_EQ(stopped.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(stopped.get(), ERR_SUCCESS);
    bool over = false;
    ASSERT_EQ(pack.GetTimerOverFlag(over), ERR_SUCCESS);
    EXPECT_TRUE(over) << "the running pass must have ended the chain";
    ASSERT_EQ(Add(Px(2, 0)), ERR_SUCCESS);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(sink.Seen().size(), 1u) << "no pass runs after the stop";
    EXPECT_EQ(pack.Reset(), ERR_SUCCESS);
}

}  // namespace
}  // namespace evcam
