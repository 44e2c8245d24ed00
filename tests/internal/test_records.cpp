#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "evcam/records.h"
#include "src/data/dvs_packet.h"
#include "src/data/output_data.h"

namespace evcam {
namespace {

constexpr int kW = 6;
constexpr int kH = 4;
constexpr int kPixels = kW * kH;
constexpr uint32_t kAllForms = OUT_EVENTS | OUT_POLARITY | OUT_TIME_SURFACE | OUT_IMAGE;

bool AllBytesAre(const void* p, size_t bytes, uint8_t v) {
    const auto* b = static_cast<const uint8_t*>(p);
    return std::all_of(b, b + bytes, [v](uint8_t x) { return x == v; });
}

// The forms whose stores a record holds.
uint32_t StoresHeld(const DVSUIData& d) {
    return (d.mEvents != nullptr ? OUT_EVENTS : 0u) | (d.mBinData != nullptr ? OUT_POLARITY : 0u) |
           (d.mTsData0 != nullptr && d.mTsData1 != nullptr ? OUT_TIME_SURFACE : 0u) |
           (d.mImgData != nullptr ? OUT_IMAGE : 0u);
}

// Checks that the stores of forms are as Initialize leaves them and Reset restores them.
void ExpectEmpty(const DVSUIData& d, uint32_t forms) {
    forms &= StoresHeld(d);
    EXPECT_TRUE(
        !(forms & OUT_EVENTS) ||
        (d.mEventCount == 0 && AllBytesAre(d.mEvents, sizeof(PackedEvent) * d.mEventCapacity, 0)));
    EXPECT_TRUE(!(forms & OUT_POLARITY) || AllBytesAre(d.mBinData, d.mBinSize, 0xFF));
    EXPECT_TRUE(!(forms & OUT_TIME_SURFACE) ||
                (d.mLastTimestamp == 0 && AllBytesAre(d.mTsData0, 4 * d.mTsSize, 0) &&
                 AllBytesAre(d.mTsData1, 4 * d.mTsSize, 0)));
    EXPECT_TRUE(!(forms & OUT_IMAGE) || AllBytesAre(d.mImgData, d.mImgWidth * d.mImgHeight * 3, 0));
}

// Fills a frame node: its header, three events and every pixel form it holds, with a pattern
// that is never 0 or 0xFF.
void FillFrame(DVSOutputData& node, COLOR_FORMAT format) {
    DVSUIData& d = *node.mUIData;
    d.mDVSID = 7;
    d.mFrameIndex = 42;
    d.mTotalEvents = 3;
    d.mLastTimestamp = 555;
    d.mColorFormat = format;
    d.mEventCount = d.mEvents != nullptr ? 3 : 0;
    const std::pair<void*, size_t> stores[] = {{d.mEvents, 3 * sizeof(PackedEvent)},
                                               {d.mBinData, kPixels},
                                               {d.mTsData0, kPixels * 4},
                                               {d.mTsData1, kPixels * 4},
                                               {d.mImgData, kPixels * 3}};
    for (const auto& [store, bytes] : stores) {
        for (size_t i = 0; store != nullptr && i < bytes; ++i) {
            static_cast<uint8_t*>(store)[i] = static_cast<uint8_t>(i % 250 + 1);
        }
    }
}

// A count that went below zero would end at 0 (or wrap) instead of 1.
template <typename Node>
void ExpectCountStopsAtZero(Node& node) {
    node.SubtractRefCount();
    node.AddRefCount();
    node.AddRefCount();
    node.SubtractRefCount();
    EXPECT_EQ(node.GetRefCount(), 1u);
}

TEST(Packet, store_follows_construction_and_resize_and_pool_nodes_count_down_to_zero) {
    for (int size : {0, -3}) {
        DVSPacket none(size);
        EXPECT_EQ(none.mData, nullptr);
        EXPECT_EQ(none.mBufferSize, 0);
    }
    DVSPacket p(16);
    ASSERT_NE(p.mData, nullptr);
    EXPECT_EQ(p.mBufferSize, 16);
    EXPECT_EQ(p.mDVSID, 0xFFFFFFFFu);  // no device: 2 would mark file data
    p.mDataLen = 10;
    uint8_t* before = p.mData;
    EXPECT_EQ(p.Resize(-1), 16);
    EXPECT_EQ(p.mData, before);
    EXPECT_EQ(p.mDataLen, 10);
    EXPECT_EQ(p.Resize(64), 64);
    EXPECT_EQ(p.mBufferSize, 64);
    EXPECT_EQ(p.mDataLen, 0);
    memset(p.mData, 0xAB, 64);
    EXPECT_EQ(p.Resize(0), 0);
    EXPECT_EQ(p.mBufferSize, 0);

    DVSPack pack(8);
    EXPECT_EQ(pack.mPacket.mPack, &pack);
    ExpectCountStopsAtZero(pack);
    pack.Reset();
    EXPECT_EQ(pack.GetRefCount(), 0u);
    DVSOutputData node(MVT94QX, OUT_EVENTS, kW, kH);
    ExpectCountStopsAtZero(node);
    EXPECT_EQ(node.Initialize(MVT94QX_STEREO, OUT_POLARITY, kW, kH), ERR_SUCCESS);
    EXPECT_EQ(node.mUIData->mVersion, MVT94QX_STEREO);
    EXPECT_EQ(StoresHeld(*node.mUIData), static_cast<uint32_t>(OUT_POLARITY));
}

// Store sizes are checked through CopyTo below, which copies by them.
TEST(UIData, initialize_allocates_empty_stores_for_exactly_the_forms_asked_for_once) {
    DVSUIData d;
    EXPECT_EQ(d.Reset(), ERR_NOT_INITIALIZED);
    EXPECT_EQ(d.ResizeEventContainer(10), ERR_NOT_INITIALIZED);
    const std::tuple<int, uint32_t, int, int> refused[] = {{SELECT_VERSION, 1, kW, kH},
                                                           {16, 1, kW, kH},
                                                           {2, 1, kW, kH},
                                                           {MVT94QX, 0, kW, kH},
                                                           {MVT94QX, 16, kW, kH},
                                                           {MVT94QX, 1, 0, kH},
                                                           {MVT94QX, 1, kW, 0},
                                                           {MVT94QX, 2, 0x10000, 0x10000}};
    for (const auto& [version, forms, width, height] : refused) {
        EXPECT_EQ(d.Initialize(static_cast<DVS_VERSION>(version), forms, width, height),
                  ERR_PARA_ERROR);
    }
    EXPECT_FALSE(d.mInitialized);
    EXPECT_EQ(StoresHeld(d), 0u);

    for (uint32_t forms : {1u, 2u, 4u, 8u, kAllForms}) {
        SCOPED_TRACE(forms);
        DVSUIData d(MVT94QX_STEREO, forms, kW, kH);
        ASSERT_TRUE(d.mInitialized);
        EXPECT_EQ(d.mVersion, MVT94QX_STEREO);
        EXPECT_EQ(d.mEventCapacity, forms & OUT_EVENTS ? kDefaultEventCapacity : 0);
        // A second Initialize gives 4 and keeps the old stores.
        uint8_t* bin = d.mBinData;
        EXPECT_EQ(d.Initialize(MVT94QX, kAllForms, kW * 2, kH * 2), ERR_ALREADY_DONE);
        EXPECT_EQ(d.mBinData, bin);
        EXPECT_EQ(d.mOutputType, forms);
        EXPECT_EQ(StoresHeld(d), forms);
        ExpectEmpty(d, forms);
    }
}

TEST(UIData, reset_clears_every_form_held_and_resize_bounds_the_event_list) {
    for (uint32_t forms : {static_cast<uint32_t>(OUT_IMAGE), kAllForms}) {
        SCOPED_TRACE(forms);
        DVSOutputData node(MVT94QX_STEREO, forms, kW, kH);
        FillFrame(node, COLOR_RGB24);
        DVSUIData& d = *node.mUIData;
        if (d.mEvents != nullptr) {
            d.mEvents[kDefaultEventCapacity - 1] = PackedEvent{1, 2, 3};
        }
        EXPECT_EQ(d.Reset(), ERR_SUCCESS);
        EXPECT_EQ(d.mFrameIndex, 0u);
        EXPECT_EQ(d.mTotalEvents, 0u);
        ExpectEmpty(d, forms);
    }
    // The surfaces are cleared over the polarity image's size: without it they keep their stamps.
    DVSUIData ts(MVT94QX, OUT_TIME_SURFACE, kW, kH);
    ts.mLastTimestamp = 99;
    ts.mTsData0[0] = 5;
    ts.mTsData1[kPixels - 1] = 6;
    EXPECT_EQ(ts.Reset(), ERR_SUCCESS);
    EXPECT_EQ(ts.mLastTimestamp, 0u);
    EXPECT_EQ(ts.mTsData0[0], 5u);
    EXPECT_EQ(ts.mTsData1[kPixels - 1], 6u);

    DVSUIData d(MVT94QX, OUT_EVENTS, kW, kH);
    d.mEventCount = 5;
    EXPECT_EQ(d.ResizeEventContainer(kMaxEventCapacity + 1), ERR_PARA_ERROR);
    EXPECT_EQ(d.ResizeEventContainer(-1), ERR_PARA_ERROR);
    EXPECT_EQ(d.mEventCapacity, kDefaultEventCapacity);
    EXPECT_EQ(d.ResizeEventContainer(1000), ERR_SUCCESS);
    EXPECT_EQ(d.mEventCapacity, 1000);
    EXPECT_EQ(d.mEventCount, 5);
    EXPECT_TRUE(AllBytesAre(d.mEvents, sizeof(PackedEvent) * 1000, 0));
    EXPECT_EQ(d.ResizeEventContainer(kMaxEventCapacity), ERR_SUCCESS);
    d.mEvents[kMaxEventCapacity - 1] = PackedEvent{1, 1, 1};
    // A record built without an event list gains one.
    DVSUIData image(MVT94QX, OUT_IMAGE, kW, kH);
    EXPECT_EQ(image.ResizeEventContainer(4), ERR_SUCCESS);
    ASSERT_NE(image.mEvents, nullptr);
    EXPECT_EQ(image.mEventCapacity, 4);
}

TEST(CopyTo, copies_each_form_wanted_held_and_storable) {
    struct Case {
        const char* what;
        uint32_t held, dstForms, wanted;
        DVS_ERROR rc;
        uint32_t dstType;  // mOutputType afterwards
        int dstWidth = kW;
    };
    const uint32_t kEvTs = OUT_EVENTS | OUT_TIME_SURFACE;
    const uint32_t kEvPol = OUT_EVENTS | OUT_POLARITY;
    const uint32_t kPixelForms = OUT_POLARITY | OUT_TIME_SURFACE | OUT_IMAGE;
    const Case cases[] = {
        {"every form", kAllForms, kAllForms, kAllForms, ERR_SUCCESS, kAllForms},
        {"only the wanted forms", kAllForms, kAllForms, kEvTs, ERR_SUCCESS, kEvTs},
        {"only where the destination has a store", kAllForms, kEvPol, kAllForms, ERR_SUCCESS,
         kEvPol},
        {"nothing the frame holds fits", OUT_POLARITY, OUT_EVENTS, OUT_POLARITY, ERR_TYPE_MISMATCH,
         0},
        {"destination too narrow", kAllForms, kPixelForms, kAllForms, ERR_TYPE_MISMATCH, 0, kW - 1},
        {"no bit shared with the frame", OUT_EVENTS, kAllForms, OUT_POLARITY | OUT_IMAGE,
         ERR_NO_SPECIFIED_DATA, kAllForms},
        {"destination without stores", kEvPol, OUT_IMAGE, OUT_EVENTS, ERR_PARA_ERROR, OUT_IMAGE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        DVSOutputData src(MVT94QX, c.held, kW, kH);
        FillFrame(src, COLOR_RGB24);
        const DVSUIData& s = *src.mUIData;
        DVSUIData dst(MVT94QX, c.dstForms, c.dstWidth, kH);
        ASSERT_EQ(src.CopyTo(c.wanted, &dst), c.rc);
        EXPECT_EQ(dst.mOutputType, c.dstType);
        // A refused copy touches nothing; otherwise the header is copied even when no form is.
        const bool refused = c.rc == ERR_NO_SPECIFIED_DATA || c.rc == ERR_PARA_ERROR;
        EXPECT_EQ(dst.mFrameIndex, refused ? 0u : 42u);
        EXPECT_EQ(dst.mDVSID, refused ? -1 : 7);
        EXPECT_EQ(dst.mTotalEvents, refused ? 0u : 3u);
        const uint32_t copied = refused ? 0 : c.dstType;
        ExpectEmpty(dst, ~copied);
        EXPECT_TRUE(
            !(copied & OUT_EVENTS) ||
            (dst.mEventCount == 3 && memcmp(dst.mEvents, s.mEvents, 3 * sizeof(PackedEvent)) == 0));
        EXPECT_TRUE(!(copied & OUT_POLARITY) || memcmp(dst.mBinData, s.mBinData, kPixels) == 0);
        EXPECT_TRUE(!(copied & OUT_TIME_SURFACE) ||
                    (dst.mLastTimestamp == 555u &&
                     memcmp(dst.mTsData0, s.mTsData0, kPixels * 4) == 0 &&
                     memcmp(dst.mTsData1, s.mTsData1, kPixels * 4) == 0));
        EXPECT_TRUE(!(copied & OUT_IMAGE) || (dst.mImgSize == static_cast<uint32_t>(kPixels * 3) &&
                                              memcmp(dst.mImgData, s.mImgData, kPixels * 3) == 0));
    }
}

TEST(CopyTo, sizes_follow_the_frame_and_never_overrun_the_destination) {
    DVSOutputData src(MVT94QX, kAllForms, kW, kH);
    FillFrame(src, COLOR_GRAY);
    EXPECT_EQ(src.CopyTo(OUT_EVENTS, nullptr), ERR_PARA_ERROR);
    // A grey image takes one byte per pixel.
    DVSUIData grey(MVT94QX, OUT_IMAGE, kW, kH);
    ASSERT_EQ(src.CopyTo(OUT_IMAGE, &grey), ERR_SUCCESS);
    EXPECT_EQ(grey.mColorFormat, COLOR_GRAY);
    EXPECT_EQ(grey.mImgSize, static_cast<uint32_t>(kPixels));
    EXPECT_EQ(memcmp(grey.mImgData, src.mUIData->mImgData, kPixels), 0);
    EXPECT_EQ(grey.mImgData[kPixels], 0);
    // A short event list takes what fits.
    DVSUIData fewEvents(MVT94QX, OUT_EVENTS, kW, kH);
    ASSERT_EQ(fewEvents.ResizeEventContainer(2), ERR_SUCCESS);
    ASSERT_EQ(src.CopyTo(OUT_EVENTS, &fewEvents), ERR_SUCCESS);
    EXPECT_EQ(fewEvents.mEventCount, 2);
    EXPECT_EQ(fewEvents.mTotalEvents, 3u);
    // An empty destination is not refused when the frame has an image to offer: nothing fits.
    DVSUIData empty;
    EXPECT_EQ(src.CopyTo(OUT_EVENTS, &empty), ERR_TYPE_MISMATCH);
    // Time surfaces need the frame's second surface as well as the destination's store.
    delete[] src.mUIData->mTsData1;
    src.mUIData->mTsData1 = nullptr;
    DVSUIData ts(MVT94QX, OUT_TIME_SURFACE, kW, kH);
    EXPECT_EQ(src.CopyTo(OUT_TIME_SURFACE, &ts), ERR_TYPE_MISMATCH);
}

}  // namespace
}  // namespace evcam
