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

bool AllBytesAre(const uint8_t* p, size_t n, uint8_t v) {
    return std::all_of(p, p + n, [v](uint8_t b) { return b == v; });
}

template <typename T>
bool AllZero(const T* p, size_t n) {
    return AllBytesAre(reinterpret_cast<const uint8_t*>(p), n * sizeof(T), 0);
}

PackedEvent Packed(uint16_t x, uint16_t y, int polarity, uint32_t ts) {
    return PackedEvent{static_cast<uint16_t>(x | (polarity << 15)), y, ts};
}

// Fills the forms a frame node holds with recognisable content.
void FillFrame(DVSOutputData& node, COLOR_FORMAT format) {
    DVSUIData* d = node.mUIData;
    d->mDVSID = 7;
    d->mFrameIndex = 42;
    d->mTotalEvents = 3;
    if (d->mEvents != nullptr) {
        d->mEventCount = 3;
        for (int i = 0; i < 3; ++i) {
            d->mEvents[i] = Packed(static_cast<uint16_t>(i), 1, i & 1, 100u + i);
        }
    }
    for (int i = 0; i < kPixels; ++i) {
        if (d->mBinData != nullptr) {
            d->mBinData[i] = static_cast<uint8_t>(i % 2);
        }
        if (d->mTsData0 != nullptr) {
            d->mTsData0[i] = 1000u + i;
            d->mTsData1[i] = 2000u + i;
        }
    }
    d->mLastTimestamp = 555;
    d->mColorFormat = format;
    if (d->mImgData != nullptr) {
        for (int i = 0; i < kPixels * 3; ++i) {
            d->mImgData[i] = static_cast<uint8_t>(i + 1);
        }
    }
}

TEST(Packet, construction_and_resize) {
    DVSPacket empty(0);
    EXPECT_EQ(empty.mData, nullptr);
    EXPECT_EQ(empty.mBufferSize, 0);
    DVSPacket negative(-3);
    EXPECT_EQ(negative.mData, nullptr);
    EXPECT_EQ(negative.mBufferSize, 0);

    DVSPacket p(16);
    ASSERT_NE(p.mData, nullptr);
    EXPECT_EQ(p.mBufferSize, 16);
    EXPECT_EQ(p.mDataLen, 0);
    EXPECT_EQ(p.mVersion, SELECT_VERSION);
    EXPECT_EQ(p.mDVSID, 0xFFFFFFFFu);
    EXPECT_EQ(p.mNext, nullptr);

    p.mDataLen = 10;
    uint8_t* before = p.mData;
    EXPECT_EQ(p.Resize(-1), 16);
    EXPECT_EQ(p.mData, before);
    EXPECT_EQ(p.mDataLen, 10);

    EXPECT_EQ(p.Resize(64), 64);
    EXPECT_EQ(p.mBufferSize, 64);
    EXPECT_EQ(p.mDataLen, 0);
    memset(p.mData, 0xAB, 64);

    p.mDataLen = 5;
    EXPECT_EQ(p.Resize(0), 0);
    EXPECT_EQ(p.mBufferSize, 0);
    EXPECT_EQ(p.mDataLen, 0);
}

TEST(Pack, owns_its_packet_and_counts_never_go_negative) {
    DVSPack pack(8);
    EXPECT_EQ(pack.mPacket.mPack, &pack);
    EXPECT_EQ(pack.mPacket.mBufferSize, 8);
    EXPECT_EQ(pack.GetRefCount(), 0u);
    pack.SubtractRefCount();
    EXPECT_EQ(pack.GetRefCount(), 0u);
    pack.AddRefCount();
    pack.AddRefCount();
    EXPECT_EQ(pack.GetRefCount(), 2u);
    pack.SubtractRefCount();
    EXPECT_EQ(pack.GetRefCount(), 1u);
    pack.Reset();
    EXPECT_EQ(pack.GetRefCount(), 0u);
}

TEST(UIData, empty_record_refuses_reset_and_resize) {
    DVSUIData d;
    EXPECT_FALSE(d.mInitialized);
    EXPECT_EQ(d.mDVSID, -1);
    EXPECT_EQ(d.Reset(), ERR_NOT_INITIALIZED);
    EXPECT_EQ(d.ResizeEventContainer(10), ERR_NOT_INITIALIZED);
    EXPECT_EQ(d.mEvents, nullptr);
}

TEST(UIData, initialize_rejects_bad_arguments) {
    DVSUIData d;
    EXPECT_EQ(d.Initialize(SELECT_VERSION, 1, kW, kH), ERR_PARA_ERROR);
    EXPECT_EQ(d.Initialize(static_cast<DVS_VERSION>(16), 1, kW, kH), ERR_PARA_ERROR);
    EXPECT_EQ(d.Initialize(static_cast<DVS_VERSION>(2), 1, kW, kH), ERR_PARA_ERROR);
    EXPECT_EQ(d.Initialize(MVT94QX, 0, kW, kH), ERR_PARA_ERROR);
    EXPECT_EQ(d.Initialize(MVT94QX, 16, kW, kH), ERR_PARA_ERROR);
    EXPECT_EQ(d.Initialize(MVT94QX, 1, 0, kH), ERR_PARA_ERROR);
    EXPECT_EQ(d.Initialize(MVT94QX, 1, kW, 0), ERR_PARA_ERROR);
    EXPECT_EQ(d.Initialize(MVT94QX, 2, 0x10000, 0x10000), ERR_PARA_ERROR);
    EXPECT_FALSE(d.mInitialized);
    EXPECT_EQ(d.mEvents, nullptr);
    EXPECT_EQ(d.mBinData, nullptr);
}

TEST(UIData, initialize_allocates_exactly_the_forms_asked_for) {
    DVSUIData all(MVT94QX, kAllForms, kW, kH);
    ASSERT_TRUE(all.mInitialized);
    EXPECT_EQ(all.mOutputType, kAllForms);
    EXPECT_EQ(all.mVersion, MVT94QX);
    EXPECT_EQ(all.mWidth, kW);
    EXPECT_EQ(all.mHeight, kH);
    EXPECT_EQ(all.mEventCapacity, kDefaultEventCapacity);
    EXPECT_EQ(all.mEventCount, 0);
    EXPECT_TRUE(AllZero(all.mEvents, kDefaultEventCapacity));
    EXPECT_EQ(all.mBinSize, kPixels);
    EXPECT_TRUE(AllBytesAre(all.mBinData, kPixels, 0xFF));
    EXPECT_EQ(all.mTsSize, static_cast<uint32_t>(kPixels));
    EXPECT_TRUE(AllZero(all.mTsData0, kPixels));
    EXPECT_TRUE(AllZero(all.mTsData1, kPixels));
    EXPECT_EQ(all.mImgWidth, static_cast<uint32_t>(kW));
    EXPECT_EQ(all.mImgHeight, static_cast<uint32_t>(kH));
    EXPECT_TRUE(AllZero(all.mImgData, kPixels * 3));

    DVSUIData image(MVT94QX_STEREO, OUT_IMAGE, kW, kH);
    ASSERT_TRUE(image.mInitialized);
    EXPECT_EQ(image.mEvents, nullptr);
    EXPECT_EQ(image.mBinData, nullptr);
    EXPECT_EQ(image.mTsData0, nullptr);
    EXPECT_EQ(image.mTsData1, nullptr);
    ASSERT_NE(image.mImgData, nullptr);
    memset(image.mImgData, 0x5A, kPixels * 3);
    image.mFrameIndex = 9;
    EXPECT_EQ(image.Reset(), ERR_SUCCESS);
    EXPECT_TRUE(AllZero(image.mImgData, kPixels * 3));
    EXPECT_EQ(image.mFrameIndex, 0u);
}

TEST(UIData, second_initialize_gives_4_and_keeps_the_old_stores) {
    DVSUIData d(MVT94QX, OUT_POLARITY, kW, kH);
    uint8_t* bin = d.mBinData;
    EXPECT_EQ(d.Initialize(MVT94QX, kAllForms, kW * 2, kH * 2), ERR_ALREADY_DONE);
    EXPECT_EQ(d.mBinData, bin);
    EXPECT_EQ(d.mOutputType, static_cast<uint32_t>(OUT_POLARITY));
    EXPECT_EQ(d.mEvents, nullptr);
    EXPECT_EQ(d.mBinSize, kPixels);
}

TEST(UIData, reset_clears_every_form_held) {
    DVSUIData d(MVT94QX, kAllForms, kW, kH);
    d.mFrameIndex = 3;
    d.mTotalEvents = 77;
    d.mEventCount = 2;
    d.mEvents[0] = Packed(1, 2, 1, 3);
    d.mEvents[kDefaultEventCapacity - 1] = Packed(1, 2, 1, 3);
    memset(d.mBinData, 1, kPixels);
    d.mLastTimestamp = 99;
    d.mTsData0[0] = 5;
    d.mTsData1[kPixels - 1] = 6;
    d.mImgData[kPixels * 3 - 1] = 200;

    EXPECT_EQ(d.Reset(), ERR_SUCCESS);
    EXPECT_EQ(d.mFrameIndex, 0u);
    EXPECT_EQ(d.mTotalEvents, 0u);
    EXPECT_EQ(d.mEventCount, 0);
    EXPECT_TRUE(AllZero(d.mEvents, kDefaultEventCapacity));
    EXPECT_TRUE(AllBytesAre(d.mBinData, kPixels, 0xFF));
    EXPECT_EQ(d.mLastTimestamp, 0u);
    EXPECT_TRUE(AllZero(d.mTsData0, kPixels));
    EXPECT_TRUE(AllZero(d.mTsData1, kPixels));
    EXPECT_TRUE(AllZero(d.mImgData, kPixels * 3));
}

TEST(UIData, reset_without_polarity_image_keeps_time_surfaces) {
    DVSUIData d(MVT94QX, OUT_TIME_SURFACE, kW, kH);
    d.mLastTimestamp = 99;
    d.mTsData0[0] = 5;
    d.mTsData1[3] = 6;
    EXPECT_EQ(d.Reset(), ERR_SUCCESS);
    EXPECT_EQ(d.mLastTimestamp, 0u);
    EXPECT_EQ(d.mTsData0[0], 5u);
    EXPECT_EQ(d.mTsData1[3], 6u);
}

TEST(UIData, resize_event_container_bounds_and_keeps_the_count) {
    DVSUIData d(MVT94QX, OUT_EVENTS, kW, kH);
    d.mEventCount = 5;
    d.mEvents[0] = Packed(1, 1, 1, 1);
    EXPECT_EQ(d.ResizeEventContainer(kMaxEventCapacity + 1), ERR_PARA_ERROR);
    EXPECT_EQ(d.ResizeEventContainer(-1), ERR_PARA_ERROR);
    EXPECT_EQ(d.mEventCapacity, kDefaultEventCapacity);

    EXPECT_EQ(d.ResizeEventContainer(1000), ERR_SUCCESS);
    EXPECT_EQ(d.mEventCapacity, 1000);
    EXPECT_EQ(d.mEventCount, 5);
    EXPECT_TRUE(AllZero(d.mEvents, 1000));

    EXPECT_EQ(d.ResizeEventContainer(kMaxEventCapacity), ERR_SUCCESS);
    EXPECT_EQ(d.mEventCapacity, kMaxEventCapacity);
    d.mEvents[kMaxEventCapacity - 1] = Packed(1, 1, 1, 1);

    // A record built without an event list gains one.
    DVSUIData image(MVT94QX, OUT_IMAGE, kW, kH);
    EXPECT_EQ(image.ResizeEventContainer(4), ERR_SUCCESS);
    ASSERT_NE(image.mEvents, nullptr);
    EXPECT_EQ(image.mEventCapacity, 4);
}

TEST(OutputData, owns_and_replaces_its_record_and_counts_stop_at_zero) {
    DVSOutputData empty;
    EXPECT_EQ(empty.mUIData, nullptr);
    EXPECT_EQ(empty.GetRefCount(), 0u);

    DVSOutputData node(MVT94QX, OUT_EVENTS, kW, kH);
    ASSERT_NE(node.mUIData, nullptr);
    EXPECT_TRUE(node.mUIData->mInitialized);
    EXPECT_EQ(node.GetContainerSize(), kDefaultEventCapacity);
    node.AddEventCount();
    node.AddEventCount();
    node.AddEventCountInEvtArray();
    EXPECT_EQ(node.GetEventCount(), 2u);
    EXPECT_EQ(node.GetEventCountInEvtArray(), 1);

    EXPECT_EQ(node.Initialize(MVT94QX_STEREO, OUT_POLARITY, kW, kH), ERR_SUCCESS);
    EXPECT_EQ(node.mUIData->mVersion, MVT94QX_STEREO);
    EXPECT_EQ(node.mUIData->mEvents, nullptr);
    EXPECT_EQ(node.GetEventCount(), 0u);

    node.SubtractRefCount();
    EXPECT_EQ(node.GetRefCount(), 0u);
    node.AddRefCount();
    node.AddRefCount();
    node.SubtractRefCount();
    EXPECT_EQ(node.GetRefCount(), 1u);
}

TEST(CopyTo, copies_every_form_wanted_and_held) {
    DVSOutputData src(MVT94QX, kAllForms, kW, kH);
    FillFrame(src, COLOR_RGB24);
    DVSUIData dst(MVT94QX, kAllForms, kW, kH);
    dst.mOutputType = 0;

    ASSERT_EQ(src.CopyTo(kAllForms, &dst), ERR_SUCCESS);
    EXPECT_EQ(dst.mOutputType, kAllForms);
    EXPECT_EQ(dst.mDVSID, 7);
    EXPECT_EQ(dst.mFrameIndex, 42u);
    EXPECT_EQ(dst.mTotalEvents, 3u);
    EXPECT_EQ(dst.mEventCount, 3);
    EXPECT_EQ(memcmp(dst.mEvents, src.mUIData->mEvents, 3 * sizeof(PackedEvent)), 0);
    EXPECT_EQ(dst.mEvents[2].X(), 2);
    EXPECT_EQ(dst.mEvents[1].Polarity(), 1);
    EXPECT_EQ(memcmp(dst.mBinData, src.mUIData->mBinData, kPixels), 0);
    EXPECT_EQ(dst.mLastTimestamp, 555u);
    EXPECT_EQ(memcmp(dst.mTsData0, src.mUIData->mTsData0, kPixels * 4), 0);
    EXPECT_EQ(memcmp(dst.mTsData1, src.mUIData->mTsData1, kPixels * 4), 0);
    EXPECT_EQ(dst.mImgSize, static_cast<uint32_t>(kPixels * 3));
    EXPECT_EQ(memcmp(dst.mImgData, src.mUIData->mImgData, kPixels * 3), 0);
}

TEST(CopyTo, copies_only_the_wanted_forms) {
    DVSOutputData src(MVT94QX, kAllForms, kW, kH);
    FillFrame(src, COLOR_RGB24);
    DVSUIData dst(MVT94QX, kAllForms, kW, kH);

    ASSERT_EQ(src.CopyTo(OUT_EVENTS | OUT_TIME_SURFACE, &dst), ERR_SUCCESS);
    EXPECT_EQ(dst.mOutputType, static_cast<uint32_t>(OUT_EVENTS | OUT_TIME_SURFACE));
    EXPECT_TRUE(AllBytesAre(dst.mBinData, kPixels, 0xFF));
    EXPECT_TRUE(AllZero(dst.mImgData, kPixels * 3));
    EXPECT_EQ(dst.mTsData1[0], 2000u);
}

TEST(CopyTo, copies_forms_only_where_the_destination_has_the_store) {
    DVSOutputData src(MVT94QX, kAllForms, kW, kH);
    FillFrame(src, COLOR_RGB24);
    DVSUIData dst(MVT94QX, OUT_EVENTS | OUT_POLARITY, kW, kH);

    ASSERT_EQ(src.CopyTo(kAllForms, &dst), ERR_SUCCESS);
    EXPECT_EQ(dst.mOutputType, static_cast<uint32_t>(OUT_EVENTS | OUT_POLARITY));
    EXPECT_EQ(dst.mBinData[1], 1);
}

TEST(CopyTo, grey_image_uses_one_byte_per_pixel) {
    DVSOutputData src(MVT94QX, OUT_IMAGE, kW, kH);
    FillFrame(src, COLOR_GRAY);
    DVSUIData dst(MVT94QX, OUT_IMAGE, kW, kH);
    ASSERT_EQ(src.CopyTo(OUT_IMAGE, &dst), ERR_SUCCESS);
    EXPECT_EQ(dst.mColorFormat, COLOR_GRAY);
    EXPECT_EQ(dst.mImgSize, static_cast<uint32_t>(kPixels));
    EXPECT_EQ(memcmp(dst.mImgData, src.mUIData->mImgData, kPixels), 0);
    EXPECT_EQ(dst.mImgData[kPixels], 0);

    src.mUIData->mColorFormat = COLOR_YUV;
    ASSERT_EQ(src.CopyTo(OUT_IMAGE, &dst), ERR_SUCCESS);
    EXPECT_EQ(dst.mColorFormat, COLOR_YUV);
    EXPECT_EQ(dst.mImgSize, static_cast<uint32_t>(kPixels * 3));
}

TEST(CopyTo, type_sharing_no_bit_with_the_frame_gives_11_and_touches_nothing) {
    DVSOutputData src(MVT94QX, OUT_EVENTS, kW, kH);
    FillFrame(src, COLOR_RGB24);
    DVSUIData dst(MVT94QX, kAllForms, kW, kH);
    EXPECT_EQ(src.CopyTo(OUT_POLARITY | OUT_IMAGE, &dst), ERR_NO_SPECIFIED_DATA);
    EXPECT_EQ(dst.mFrameIndex, 0u);
    EXPECT_EQ(dst.mOutputType, kAllForms);
}

TEST(CopyTo, destination_without_stores_gives_1) {
    DVSOutputData src(MVT94QX, OUT_EVENTS | OUT_POLARITY, kW, kH);
    DVSUIData imageOnly(MVT94QX, OUT_IMAGE, kW, kH);
    EXPECT_EQ(src.CopyTo(OUT_EVENTS, &imageOnly), ERR_PARA_ERROR);
    EXPECT_EQ(imageOnly.mOutputType, static_cast<uint32_t>(OUT_IMAGE));
    EXPECT_EQ(src.CopyTo(OUT_EVENTS, nullptr), ERR_PARA_ERROR);

    // The same empty destination is not refused when the frame has an image to offer; it
    // then fails on the forms instead.
    DVSOutputData image(MVT94QX, OUT_IMAGE | OUT_EVENTS, kW, kH);
    DVSUIData empty;
    EXPECT_EQ(image.CopyTo(OUT_EVENTS, &empty), ERR_TYPE_MISMATCH);
}

TEST(CopyTo, nothing_copied_gives_15_with_the_header_copied) {
    DVSOutputData src(MVT94QX, OUT_POLARITY, kW, kH);
    FillFrame(src, COLOR_RGB24);
    DVSUIData dst(MVT94QX, OUT_EVENTS, kW, kH);
    EXPECT_EQ(src.CopyTo(OUT_POLARITY, &dst), ERR_TYPE_MISMATCH);
    EXPECT_EQ(dst.mOutputType, 0u);
    EXPECT_EQ(dst.mFrameIndex, 42u);
    EXPECT_EQ(dst.mDVSID, 7);
    EXPECT_EQ(dst.mWidth, kW);

    // Time surfaces need the frame's second surface as well as the destination's store.
    DVSOutputData ts(MVT94QX, OUT_TIME_SURFACE, kW, kH);
    delete[] ts.mUIData->mTsData1;
    ts.mUIData->mTsData1 = nullptr;
    DVSUIData tsDst(MVT94QX, OUT_TIME_SURFACE, kW, kH);
    EXPECT_EQ(ts.CopyTo(OUT_TIME_SURFACE, &tsDst), ERR_TYPE_MISMATCH);
}

TEST(CopyTo, destination_smaller_than_the_frame_is_never_overrun) {
    DVSOutputData src(MVT94QX, kAllForms, kW, kH);
    FillFrame(src, COLOR_RGB24);

    DVSUIData fewEvents(MVT94QX, OUT_EVENTS, kW, kH);
    ASSERT_EQ(fewEvents.ResizeEventContainer(2), ERR_SUCCESS);
    ASSERT_EQ(src.CopyTo(OUT_EVENTS, &fewEvents), ERR_SUCCESS);
    EXPECT_EQ(fewEvents.mEventCount, 2);
    EXPECT_EQ(fewEvents.mTotalEvents, 3u);

    DVSUIData small(MVT94QX, OUT_POLARITY | OUT_TIME_SURFACE | OUT_IMAGE, kW - 1, kH);
    EXPECT_EQ(src.CopyTo(kAllForms, &small), ERR_TYPE_MISMATCH);
    EXPECT_EQ(small.mOutputType, 0u);

    // A larger destination takes the frame and reports the frame's size.
    DVSUIData large(MVT94QX, OUT_IMAGE, kW * 2, kH);
    ASSERT_EQ(src.CopyTo(OUT_IMAGE, &large), ERR_SUCCESS);
    EXPECT_EQ(large.mImgWidth, static_cast<uint32_t>(kW));
    EXPECT_EQ(large.mImgSize, static_cast<uint32_t>(kPixels * 3));
}

}  // namespace
}  // namespace evcam
