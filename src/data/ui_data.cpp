#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

#include "evcam/records.h"

namespace evcam {

namespace {

// Zeroed array of n elements, or null when memory is short (n 0 gives an empty array).
template <typename T>
T* NewZeroed(size_t n) {
    return new (std::nothrow) T[n]();
}

}  // namespace

DVSUIData::DVSUIData(DVS_VERSION version, uint32_t outType, int width, int height) {
    mWidth = width;
    mHeight = height;
    mImgWidth = static_cast<uint32_t>(width);
    mImgHeight = static_cast<uint32_t>(height);
    Initialize(version, outType, width, height);
}

DVSUIData::~DVSUIData() {
    delete[] mEvents;
    delete[] mBinData;
    delete[] mTsData0;
    delete[] mTsData1;
    delete[] mImgData;
}

DVS_ERROR DVSUIData::Initialize(DVS_VERSION version, uint32_t outType, int width, int height) {
    if (version != MVT94QX && version != MVT94QX_STEREO) {
        return ERR_PARA_ERROR;
    }
    if (outType < 1 || outType > 15 || width < 1 || height < 1) {
        return ERR_PARA_ERROR;
    }
    // Image sizes are kept in 32-bit fields: refuse what would not fit rather than wrap.
    const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    if (pixels * 3 > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
        return ERR_PARA_ERROR;
    }
    if (mInitialized) {
        return ERR_ALREADY_DONE;
    }

    PackedEvent* events = nullptr;
    uint8_t* bin = nullptr;
    uint32_t* ts0 = nullptr;
    uint32_t* ts1 = nullptr;
    uint8_t* img = nullptr;
    bool ok = true;
    if (outType & OUT_EVENTS) {
        ok = ok && (events = NewZeroed<PackedEvent>(kDefaultEventCapacity)) != nullptr;
    }
    if (outType & OUT_POLARITY) {
        ok = ok && (bin = new (std::nothrow) uint8_t[pixels]) != nullptr;
    }
    if (outType & OUT_TIME_SURFACE) {
        ok = ok && (ts0 = NewZeroed<uint32_t>(pixels)) != nullptr;
        ok = ok && (ts1 = NewZeroed<uint32_t>(pixels)) != nullptr;
    }
    if (outType & OUT_IMAGE) {
        ok = ok && (img = NewZeroed<uint8_t>(pixels * 3)) != nullptr;
    }
    if (!ok) {
        delete[] events;
        delete[] bin;
        delete[] ts0;
        delete[] ts1;
        delete[] img;
        return ERR_BUFFER_INIT;
    }

    mOutputType = outType;
    mVersion = version;
    mWidth = width;
    mHeight = height;
    mTotalEvents = 0;
    if (events != nullptr) {
        mEvents = events;
        mEventCount = 0;
        mEventCapacity = kDefaultEventCapacity;
    }
    if (bin != nullptr) {
        memset(bin, 0xFF, pixels);
        mBinData = bin;
        mBinSize = static_cast<int32_t>(pixels);
    }
    if (ts0 != nullptr) {
        mLastTimestamp = 0;
        mTsSize = static_cast<uint32_t>(pixels);
        mTsData0 = ts0;
        mTsData1 = ts1;
    }
    if (img != nullptr) {
        mImgWidth = static_cast<uint32_t>(width);
        mImgHeight = static_cast<uint32_t>(height);
        mImgData = img;
    }
    mInitialized = true;
    return ERR_SUCCESS;
}

namespace {

// Clears a frame record. eventEntries bounds the zeroing of the event list and zeroImage says
// whether the painted image is cleared.
DVS_ERROR ResetRecord(DVSUIData& d, size_t eventEntries, bool zeroImage) {
    if (!d.mInitialized) {
        return ERR_NOT_INITIALIZED;
    }
    d.mFrameIndex = 0;
    d.mTotalEvents = 0;
    if ((d.mOutputType & OUT_EVENTS) && d.mEvents != nullptr) {
        d.mEventCount = 0;
        memset(d.mEvents, 0, sizeof(PackedEvent) * eventEntries);
    }
    if ((d.mOutputType & OUT_POLARITY) && d.mBinData != nullptr) {
        memset(d.mBinData, 0xFF, static_cast<size_t>(d.mBinSize));
    }
    if ((d.mOutputType & OUT_TIME_SURFACE) && d.mTsData0 != nullptr && d.mTsData1 != nullptr) {
        d.mLastTimestamp = 0;
        // Bounded by mBinSize as the record always has been: without the polarity image the
        // surfaces keep their stamps across a reset.
        memset(d.mTsData0, 0, sizeof(uint32_t) * static_cast<size_t>(d.mBinSize));
        memset(d.mTsData1, 0, sizeof(uint32_t) * static_cast<size_t>(d.mBinSize));
    }
    if (zeroImage && (d.mOutputType & OUT_IMAGE) && d.mImgData != nullptr) {
        memset(d.mImgData, 0, static_cast<size_t>(d.mImgWidth) * d.mImgHeight * 3);
    }
    return ERR_SUCCESS;
}

}  // namespace

DVS_ERROR DVSUIData::Reset() {
    return ResetRecord(*this, static_cast<size_t>(mEventCapacity), true);
}

DVS_ERROR ReuseFrameRecord(DVSUIData& record, bool imageRepainted) {
    // Only the packager writes pool records, and it only appends events: entries past the
    // count are still zero, so clearing the used ones leaves the whole list zeroed.
    const size_t used = static_cast<size_t>(std::max(record.mEventCount, 0));
    return ResetRecord(record, std::min(used, static_cast<size_t>(record.mEventCapacity)),
                       !imageRepainted);
}

DVS_ERROR DVSUIData::ResizeEventContainer(int n) {
    if (!mInitialized) {
        return ERR_NOT_INITIALIZED;
    }
    if (n < 0 || n > kMaxEventCapacity) {
        return ERR_PARA_ERROR;
    }
    PackedEvent* events = NewZeroed<PackedEvent>(static_cast<size_t>(n));
    if (events == nullptr) {
        return ERR_BUFFER_INIT;
    }
    delete[] mEvents;
    mEvents = events;
    mEventCapacity = n;
    return ERR_SUCCESS;
}

}  // namespace evcam
