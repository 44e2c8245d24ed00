#include "src/data/output_data.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace evcam {

DVSOutputData::DVSOutputData(DVS_VERSION version, uint32_t outType, int width, int height) {
    Initialize(version, outType, width, height);
}

DVSOutputData::~DVSOutputData() {
    delete mUIData;
}

DVS_ERROR DVSOutputData::Initialize(DVS_VERSION version, uint32_t outType, int width, int height) {
    delete mUIData;
    mUIData = new (std::nothrow) DVSUIData(version, outType, width, height);
    return ERR_SUCCESS;
}

uint32_t DVSOutputData::GetRefCount() {
    mLock.Lock();
    const uint32_t count = mRefCount;
    mLock.Unlock();
    return count;
}

void DVSOutputData::AddRefCount() {
    mLock.Lock();
    ++mRefCount;
    mLock.Unlock();
}

void DVSOutputData::SubtractRefCount() {
    mLock.Lock();
    if (mRefCount > 0) {
        --mRefCount;
    }
    mLock.Unlock();
}

DVS_ERROR DVSOutputData::CopyTo(uint32_t type, DVSUIData* dst) const {
    if (dst == nullptr) {
        return ERR_PARA_ERROR;
    }
    const DVSUIData* src = mUIData;
    if (src == nullptr) {
        return ERR_NOT_INITIALIZED;
    }
    if ((type & src->mOutputType) == 0) {
        return ERR_NO_SPECIFIED_DATA;
    }
    if (dst->mEvents == nullptr && dst->mBinData == nullptr && dst->mTsData0 == nullptr &&
        src->mTsData1 == nullptr && src->mImgData == nullptr) {
        return ERR_PARA_ERROR;
    }

    dst->mWidth = src->mWidth;
    dst->mHeight = src->mHeight;
    dst->mDVSID = src->mDVSID;
    dst->mVersion = src->mVersion;
    dst->mFrameIndex = src->mFrameIndex;
    dst->mTotalEvents = src->mTotalEvents;
    dst->mOutputType = 0;

    const uint32_t wanted = type & src->mOutputType;
    // Every store of the caller's record is checked against what it can hold: a record built
    // for a smaller frame gets a shortened event list, and a pixel form it cannot hold is not
    // copied, instead of writing past the caller's memory.
    if ((wanted & OUT_EVENTS) && src->mEvents != nullptr && dst->mEvents != nullptr) {
        const int32_t n = std::max(0, std::min(src->mEventCount, dst->mEventCapacity));
        memcpy(dst->mEvents, src->mEvents, sizeof(PackedEvent) * static_cast<size_t>(n));
        dst->mEventCount = n;
        dst->mOutputType |= OUT_EVENTS;
    }
    if ((wanted & OUT_POLARITY) && src->mBinData != nullptr && dst->mBinData != nullptr &&
        src->mBinSize <= dst->mBinSize) {
        memcpy(dst->mBinData, src->mBinData, static_cast<size_t>(src->mBinSize));
        dst->mOutputType |= OUT_POLARITY;
    }
    if ((wanted & OUT_TIME_SURFACE) && src->mTsData0 != nullptr && src->mTsData1 != nullptr &&
        dst->mTsData0 != nullptr && dst->mTsData1 != nullptr && src->mTsSize <= dst->mTsSize) {
        dst->mLastTimestamp = src->mLastTimestamp;
        dst->mTsSize = src->mTsSize;
        memcpy(dst->mTsData0, src->mTsData0, sizeof(uint32_t) * src->mTsSize);
        memcpy(dst->mTsData1, src->mTsData1, sizeof(uint32_t) * src->mTsSize);
        dst->mOutputType |= OUT_TIME_SURFACE;
    }
    if ((wanted & OUT_IMAGE) && src->mImgData != nullptr && dst->mImgData != nullptr) {
        const size_t pixels = static_cast<size_t>(src->mImgWidth) * src->mImgHeight;
        const size_t bytes = src->mColorFormat == COLOR_GRAY ? pixels : pixels * 3;
        // Compared in pixels so the caller's image size never grows past what it allocated.
        if (pixels <= static_cast<size_t>(dst->mImgWidth) * dst->mImgHeight) {
            dst->mImgWidth = src->mImgWidth;
            dst->mImgHeight = src->mImgHeight;
            dst->mColorFormat = src->mColorFormat;
            dst->mImgSize = static_cast<uint32_t>(bytes);
            memcpy(dst->mImgData, src->mImgData, bytes);
            dst->mOutputType |= OUT_IMAGE;
        }
    }
    return dst->mOutputType != 0 ? ERR_SUCCESS : ERR_TYPE_MISMATCH;
}

}  // namespace evcam
