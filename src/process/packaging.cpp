#include "src/process/packaging.h"

#include "src/process/fill_color.h"

namespace evcam {

namespace {

// File data is never dropped: the packager waits for a free node instead.
constexpr uint32_t kFileDataId = 2;
constexpr uint32_t kDefaultFramePeriod = 10;
constexpr uint32_t kDefaultEventCnt = 3000;
constexpr uint32_t kDefaultFrmEndCnt = 2;
constexpr uint32_t kRulePeriod = 0;
constexpr uint32_t kRuleEventCount = 1;
constexpr uint32_t kRuleFrameEnds = 2;
constexpr int kMaxCoords = 8;
// Delivery spans and the rate window are long enough to average out timer jitter.
constexpr uint64_t kIntervalSpanMs = 1100;
constexpr uint64_t kRateWindowMs = 1000;

class LockGuard {
  public:
    explicit LockGuard(DVSLock& lock) : mLock(lock) { mLock.Lock(); }
    ~LockGuard() { mLock.Unlock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

  private:
    DVSLock& mLock;
};

class WriteGuard {
  public:
    explicit WriteGuard(RWLock& lock) : mLock(lock) { mLock.wrlock(); }
    ~WriteGuard() { mLock.unlock(); }
    WriteGuard(const WriteGuard&) = delete;
    WriteGuard& operator=(const WriteGuard&) = delete;

  private:
    RWLock& mLock;
};

using Painter = DVS_ERROR (FillColor::*)(DVSUIData*, const Event*, unsigned int,
                                         const DVSCommonColors*) const;

Painter PainterFor(COLOR_FORMAT format) {
    switch (format) {
        case COLOR_YUV:
            return &FillColor::FillColorYUV;
        case COLOR_GRAY:
            return &FillColor::FillColorGray;
        default:
            return &FillColor::FillColorRGB24;
    }
}

}  // namespace

Packaging::Packaging() = default;

Packaging::~Packaging() {
    if (mTimerLive) {
        StopCallbackTimer();
    }
}

DVS_ERROR Packaging::Reset() {
    if (mTimerLive) {
        return ERR_RUNNING;
    }
    mDeliverCount = 0;
    mDeliverStart = 0;
    mFrameInterval = 0;
    mFramePeriod = kDefaultFramePeriod;
    mStartFlag = false;
    mTimerOver = false;
    mTimerHandle = nullptr;
    mUIDataBuffer = nullptr;
    mDataHandle = nullptr;
    mCurNode = nullptr;
    mFrameMode = FRAME_MODE_POLLING;
    mFrameStartTs = 0;
    mFrameEvents = 0;
    mFrameEnds = 0;
    mEventCnt = kDefaultEventCnt;
    mFrmEndCnt = kDefaultFrmEndCnt;
    mEndRule = kRuleFrameEnds;
    mFrameCount = 0;
    {
        WriteGuard guard(mColorLock);
        mPendingColorFormat = COLOR_RGB24;
        mPendingColors = kDefaultColors;
    }
    mColorFormat = COLOR_RGB24;
    mColors = kDefaultColors;
    mState = false;
    mRateFrames = 0;
    mRateWindowStart = 0;
    return ERR_SUCCESS;
}

DVS_ERROR Packaging::SetFramePeriod(uint32_t ms) {
    if (ms == 0) {
        return ERR_PARA_ERROR;
    }
    mFramePeriod = ms;
    mEndRule = kRulePeriod;
    return ERR_SUCCESS;
}

DVS_ERROR Packaging::SetEventCnt(uint32_t n) {
    if (n == 0) {
        return ERR_PARA_ERROR;
    }
    mEventCnt = n;
    mEndRule = kRuleEventCount;
    return ERR_SUCCESS;
}

DVS_ERROR Packaging::SetFrmEndCnt(uint32_t n) {
    if (n == 0) {
        return ERR_PARA_ERROR;
    }
    mFrmEndCnt = n;
    mEndRule = kRuleFrameEnds;
    return ERR_SUCCESS;
}

DVS_ERROR Packaging::SetFrameMode(FRAME_MODE mode) {
    if (mode > FRAME_MODE_CALLBACK) {
        return ERR_PARA_ERROR;
    }
    mFrameMode = mode;
    return ERR_SUCCESS;
}

DVS_ERROR Packaging::SetColorFormat(COLOR_FORMAT format) {
    if (format > COLOR_GRAY) {
        return ERR_PARA_ERROR;
    }
    WriteGuard guard(mColorLock);
    mPendingColorFormat = format;
    return ERR_SUCCESS;
}

DVS_ERROR Packaging::SetColor(const DVSCommonColors* colors) {
    if (colors == nullptr) {
        return ERR_PARA_ERROR;
    }
    WriteGuard guard(mColorLock);
    mPendingColors = *colors;
    return ERR_SUCCESS;
}

DVS_ERROR Packaging::SetUIDataBuffer(UIDataBuffer* buffer, void* handle) {
    if (buffer == nullptr) {
        return ERR_PARA_ERROR;
    }
    mUIDataBuffer = buffer;
    mDataHandle = handle;
    mCurNode = nullptr;
    return ERR_SUCCESS;
}

DVS_ERROR Packaging::SetFrameRateCallback(RateCallback callback, void* user) {
    if (callback == nullptr) {
        return ERR_PARA_ERROR;
    }
    mFrameRateUser = user;
    mFrameRateCbk = callback;
    return ERR_SUCCESS;
}

DVS_ERROR Packaging::SetCallback(FrameCallback callback, void* user) {
    if (callback == nullptr) {
        return ERR_PARA_ERROR;
    }
    FrameCallback none = nullptr;
    mFrameCbk.compare_exchange_strong(none, callback);
    mFrameUser = user;
    return ERR_SUCCESS;
}

void Packaging::SetState(bool on) {
    mState = on;
}

void Packaging::SetStartFlag(bool on) {
    mStartFlag = on;
}

DVS_ERROR Packaging::GetTimerOverFlag(bool& over) const {
    over = mTimerOver;
    return ERR_SUCCESS;
}

int Packaging::GetFrameInterval() const {
    return mFrameInterval;
}

DVS_ERROR Packaging::AddEvent(Event* e, void* user) {
    if (e == nullptr || user == nullptr) {
        return ERR_PARA_ERROR;
    }
    return static_cast<Packaging*>(user)->PackageAddEvent(e);
}

DVS_ERROR Packaging::PackageAddEvent(Event* e) {
    if (e->type == kEventFrameEnd) {
        ++mFrameEnds;
        CountFrameEnd();
        return ERR_SUCCESS;
    }
    if (e->type == kEventEndOfPass) {
        if (mCurNode != nullptr) {
            CloseFrame();
        }
        return ERR_SUCCESS;
    }
    if (mUIDataBuffer == nullptr) {
        return ERR_NO_UIDATA_BUFFER;
    }
    if (e->channel >= mUIDataBuffer->GetSlotNodes() || e->count > kMaxCoords) {
        return ERR_READ_DATA;
    }
    if (mCurNode != nullptr && !FrameStaysOpen(e)) {
        CloseFrame();
    }
    if (mCurNode == nullptr) {
        const DVS_ERROR rc = AllocateResource(e);
        if (rc != ERR_SUCCESS) {
            return rc;
        }
        ++mFrameCount;
        const int nodes = mUIDataBuffer->GetSlotNodes();
        for (int i = 0; i < nodes; ++i) {
            mCurNode[i].mUIData->mFrameIndex = mFrameCount;
        }
    }
    return Package(e);
}

bool Packaging::FrameStaysOpen(const Event* e) const {
    const uint32_t rule = mEndRule.load(std::memory_order_relaxed);
    if (rule == kRuleEventCount) {
        return mFrameEvents < mEventCnt.load(std::memory_order_relaxed);
    }
    if (rule == kRuleFrameEnds) {
        return mFrameEnds < mFrmEndCnt.load(std::memory_order_relaxed);
    }
    // Only channel 0 keeps time for the frame; the second camera's clock may differ.
    if (e->channel != 0) {
        return true;
    }
    // Signed distance so that a wrapped sensor clock or a small step back keeps the frame.
    const int32_t diff = static_cast<int32_t>(e->timestamp - mFrameStartTs);
    const int64_t distance = diff < 0 ? -static_cast<int64_t>(diff) : diff;
    return distance < static_cast<int64_t>(mFramePeriod.load(std::memory_order_relaxed)) * 1000;
}

void Packaging::CloseFrame() {
    const int nodes = mUIDataBuffer->GetSlotNodes();
    for (int i = 0; i < nodes; ++i) {
        DVSUIData* rec = mCurNode[i].mUIData;
        rec->mColorFormat = mColorFormat;
        rec->mFrameIndex = mFrameCount;
    }
    mUIDataBuffer->PutANodeToDataList(mCurNode);
    mCurNode = nullptr;
}

void Packaging::CountFrameEnd() {
    const RateCallback callback = mFrameRateCbk.load();
    if (callback == nullptr) {
        return;
    }
    const uint64_t now = DVSTime();
    if (mRateFrames == 0) {
        mRateWindowStart = now;
    }
    ++mRateFrames;
    const uint64_t elapsed = now - mRateWindowStart;
    if (elapsed >= kRateWindowMs && mRateFrames >= 2) {
        const uint64_t rate = (static_cast<uint64_t>(mRateFrames) * 1000 + elapsed / 2) / elapsed;
        callback(mFrameRateUser.load(), static_cast<int>(rate));
        mRateFrames = 0;
    }
}

DVS_ERROR Packaging::AllocateResource(const Event* e) {
    {
        WriteGuard guard(mColorLock);
        mColorFormat = mPendingColorFormat;
        mColors = mPendingColors;
    }
    // File data waits for a consumer to release a frame, woken by the release itself; the
    // millisecond bound keeps a cleared state noticed promptly.
    uint64_t ticket = mUIDataBuffer->Released().Ticket();
    DVSOutputData* node = mUIDataBuffer->GetAFreeNode();
    while (node == nullptr && e->dvsId == kFileDataId && mState) {
        mUIDataBuffer->Released().WaitFor(ticket, std::chrono::milliseconds(1));
        ticket = mUIDataBuffer->Released().Ticket();
        node = mUIDataBuffer->GetAFreeNode();
    }
    if (node == nullptr) {
        mCurNode = nullptr;
        return ERR_NO_FREE_NODE;
    }
    const int nodes = mUIDataBuffer->GetSlotNodes();
    const bool painted = (node->mUIData->mOutputType & OUT_IMAGE) != 0;
    for (int i = 0; i < nodes; ++i) {
        ReuseFrameRecord(*node[i].mUIData, painted);
    }
    const uint32_t rule = mEndRule.load(std::memory_order_relaxed);
    if (rule == kRulePeriod) {
        mFrameStartTs = e->timestamp;
    } else if (rule == kRuleEventCount) {
        mFrameEvents = 0;
    } else {
        mFrameEnds = 0;
    }
    if (painted) {
        const FillColor& fill = FillColor::GetInstance();
        for (int i = 0; i < nodes; ++i) {
            fill.FillBackGroundColor(node[i].mUIData, mColorFormat, &mColors);
        }
    }
    mCurNode = node;
    return ERR_SUCCESS;
}

DVS_ERROR Packaging::Package(const Event* e) {
    DVSUIData* rec = mCurNode[e->channel].mUIData;
    const uint32_t width = static_cast<uint32_t>(rec->mWidth);
    const uint32_t height = static_cast<uint32_t>(rec->mHeight);
    const uint32_t forms = rec->mOutputType;
    const bool hasEvents = (forms & OUT_EVENTS) != 0 && rec->mEvents != nullptr;
    const bool hasPolarity = (forms & OUT_POLARITY) != 0 && rec->mBinData != nullptr;
    // Time surfaces exist for the two sensor polarities only; raw bitmaps also send 2.
    const bool hasSurface = (forms & OUT_TIME_SURFACE) != 0 && rec->mTsData0 != nullptr &&
                            rec->mTsData1 != nullptr && (e->polarity == 0 || e->polarity == 1);
    const bool hasImage = (forms & OUT_IMAGE) != 0 && rec->mImgData != nullptr;
    uint32_t* surface = e->polarity == 0 ? rec->mTsData0 : rec->mTsData1;
    const FillColor& fill = FillColor::GetInstance();
    const Painter paint = PainterFor(mColorFormat);
    const uint16_t polarityBit = static_cast<uint16_t>((e->polarity & 1) << 15);

    for (int i = 0; i < e->count; ++i) {
        const uint32_t x = Event::CoordX(e->coords[i]);
        const uint32_t y = Event::CoordY(e->coords[i]);
        if (y >= height || x >= width) {
            return ERR_READ_DATA;
        }
        ++mFrameEvents;
        ++rec->mTotalEvents;
        rec->mDVSID = static_cast<int32_t>(e->dvsId);
        const uint32_t pixel = y * width + x;
        if (hasEvents && rec->mEventCount < rec->mEventCapacity) {
            PackedEvent& out = rec->mEvents[rec->mEventCount++];
            out.xp = static_cast<uint16_t>((x & 0x7FFF) | polarityBit);
            out.y = static_cast<uint16_t>(y);
            out.timestamp = e->timestamp;
        }
        if (hasPolarity) {
            rec->mBinData[pixel] = static_cast<uint8_t>(e->polarity & 0xFF);
        }
        if (hasSurface) {
            surface[pixel] = e->timestamp;
            rec->mLastTimestamp = e->timestamp;
        }
        if (hasImage) {
            (fill.*paint)(rec, e, pixel, &mColors);
        }
    }
    return ERR_SUCCESS;
}

DVS_ERROR Packaging::GetFrame(OUT_TYPE type, DVSUIData* out, unsigned char& count) {
    if (type < 1 || type > 15 || out == nullptr) {
        return ERR_PARA_ERROR;
    }
    if (mUIDataBuffer == nullptr) {
        return ERR_NOT_START;
    }
    if (mFrameMode == FRAME_MODE_CALLBACK) {
        return ERR_FRAME_MODE;
    }
    const int nodes = mUIDataBuffer->GetSlotNodes();
    count = static_cast<unsigned char>(nodes);
    DVSOutputData* node = mUIDataBuffer->GetADataNode(mDataHandle);
    if (node == nullptr) {
        return ERR_NO_DATA;
    }
    DVS_ERROR rc = ERR_SUCCESS;
    for (int i = 0; i < nodes && rc == ERR_SUCCESS; ++i) {
        rc = node[i].CopyTo(type, &out[i]);
    }
    mUIDataBuffer->PutANodeToFreeList(node);
    return rc;
}

DVS_ERROR Packaging::DropFrame() {
    if (mUIDataBuffer == nullptr) {
        return ERR_NOT_START;
    }
    DVSOutputData* node = mUIDataBuffer->GetADataNode(mDataHandle);
    if (node == nullptr) {
        return ERR_NO_DATA;
    }
    mUIDataBuffer->PutANodeToFreeList(node);
    return ERR_SUCCESS;
}

DVS_ERROR Packaging::StartCallbackTimer() {
    if (mTimerLive) {
        return ERR_SUCCESS;
    }
    LockGuard guard(mPassLock);
    if (!mCopyArea) {
        mCopyArea.reset(new DVSUIData[2]);
    }
    mTimerOver = false;
    mStartFlag = true;
    if (DVSTimeSetEvent(mFramePeriod, TimerProc, this, 0, &mTimerHandle) == ERR_SUCCESS) {
        mTimerLive = true;
    } else {
        mStartFlag = false;
    }
    return ERR_SUCCESS;
}

DVS_ERROR Packaging::StopCallbackTimer() {
    mStartFlag = false;
    if (mTimerLive) {
        while (!mTimerOver) {
            DVSSleep(2);
        }
        mTimerLive = false;
    }
    LockGuard guard(mPassLock);
    mCopyArea.reset();
    mCopyAreaReady = false;
    return ERR_SUCCESS;
}

void Packaging::TimerProc(void* user) {
    static_cast<Packaging*>(user)->FrameTimerProc();
}

DVS_ERROR Packaging::FrameTimerProc() {
    mPassLock.Lock();
    mTimerOver = false;
    const uint64_t t0 = DVSTime();
    uint32_t period;
    uint32_t burst;
    if (mEndRule == kRuleEventCount) {
        // Event-count frames come as fast as events do: poll often and take several.
        period = 1;
        burst = 4;
    } else {
        period = mFramePeriod;
        burst = period <= 3 ? 4 : (period == 10 ? 3 : 1);
    }
    for (uint32_t i = 0; i < burst; ++i) {
        DeliverFrame(period);
    }

    DVSRemoveEvent(nullptr, mTimerHandle);
    mTimerHandle = nullptr;
    if (!mStartFlag) {
        mPassLock.Unlock();
        // Last access: the owner may destroy this object as soon as it sees the flag.
        mTimerOver = true;
        return ERR_SUCCESS;
    }

    const uint64_t spent = DVSTime() - t0;
    int64_t delay;
    if (period == 1000) {
        delay = static_cast<int64_t>(1000) - static_cast<int64_t>(spent);
    } else {
        // Re-arm a little early so that the pool drains faster than the sensor fills it.
        delay = static_cast<int64_t>(static_cast<float>(period * burst) * 0.9f -
                                     static_cast<float>(spent));
    }
    if (delay < 1) {
        delay = 1;
    }
    const DVS_ERROR rc =
        DVSTimeSetEvent(static_cast<unsigned int>(delay), TimerProc, this, 0, &mTimerHandle);
    mPassLock.Unlock();
    if (rc != ERR_SUCCESS) {
        // No pass will follow to report the end, so this one does.
        mTimerOver = true;
    }
    return rc;
}

void Packaging::DeliverFrame(uint32_t period) {
    if (mUIDataBuffer == nullptr) {
        return;
    }
    DVSOutputData* node = mUIDataBuffer->GetADataNode(mDataHandle);
    if (node == nullptr) {
        return;
    }
    const uint64_t now = DVSTime();
    ++mDeliverCount;
    if (mDeliverCount == 1) {
        mDeliverStart = now;
    }
    if (static_cast<uint64_t>(period) * mDeliverCount >= kIntervalSpanMs && mDeliverCount > 1) {
        const uint64_t gaps = mDeliverCount - 1;
        mFrameInterval = static_cast<int>((now - mDeliverStart + gaps / 2) / gaps);
        mDeliverCount = 0;
    }
    const FrameCallback callback = mFrameCbk.load();
    if (callback != nullptr && PrepareCopyArea(node)) {
        const int nodes = mUIDataBuffer->GetSlotNodes();
        bool copied = true;
        for (int i = 0; i < nodes && copied; ++i) {
            copied = node[i].CopyTo(node[i].mUIData->mOutputType, &mCopyArea[i]) == ERR_SUCCESS;
        }
        if (copied) {
            callback(mCopyArea.get(), static_cast<unsigned char>(nodes), mFrameUser.load(),
                     mFrameInterval);
        }
    }
    mUIDataBuffer->PutANodeToFreeList(node);
}

bool Packaging::PrepareCopyArea(const DVSOutputData* node) {
    if (!mCopyArea) {
        return false;
    }
    if (mCopyAreaReady) {
        return true;
    }
    const int nodes = mUIDataBuffer->GetSlotNodes();
    for (int i = 0; i < nodes; ++i) {
        const DVSUIData* src = node[i].mUIData;
        const DVS_ERROR rc =
            mCopyArea[i].Initialize(src->mVersion, src->mOutputType, src->mWidth, src->mHeight);
        if (rc != ERR_SUCCESS && rc != ERR_ALREADY_DONE) {
            return false;
        }
    }
    mCopyAreaReady = true;
    return true;
}

}  // namespace evcam
