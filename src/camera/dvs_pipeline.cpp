#include "src/camera/dvs_pipeline.h"

#include <cstring>

#include "src/camera/parameter_check.h"
#include "src/data/packet_buffer.h"
#include "src/data/ui_data_buffer.h"
#include "src/process/packaging.h"
#include "src/process/packet_parser.h"
#include "src/record/mat_save.h"
#include "src/stream/stream.h"

namespace evcam {

namespace {
constexpr uint32_t kMaxPPX = 512;
constexpr uint32_t kMaxOutputType = 15;
constexpr uint32_t kMaxFramePeriod = 1000;
constexpr uint32_t kMinEventCount = 1000;
constexpr uint32_t kMaxEventCount = 300000;
constexpr uint32_t kMaxFrameEndCount = 100;
constexpr int32_t kMaxWidth = 960;
constexpr int32_t kMaxHeight = 720;
}  // namespace

DVSPipeline::DVSPipeline(const Kind& kind)
    : mPackaging(std::make_unique<Packaging>()),
      mParser(std::make_unique<PacketParser>()),
      mKind(kind),
      mOutputType(kind.outputType),
      mFrameRule(kind.freshFrameRule) {}

DVSPipeline::~DVSPipeline() = default;

void DVSPipeline::RestoreDefaults() {
    mVersion = SELECT_VERSION;
    mOutputType = mKind.outputType;
    mFramePeriod = 10;
    mEventCount = 3000;
    mFrameEndCount = 2;
    mFrameRule = kRulePeriod;
    mColorFormat = COLOR_RGB24;
    mColors = kDefaultColors;
    mPPX = 2;
    mWidth = 0;
    mHeight = 0;
}

void DVSPipeline::RunSize(int32_t& width, int32_t& height) const {
    if (mWidth > 0 && mHeight > 0) {
        width = mWidth;
        height = mHeight;
    } else {
        GetVersionSize(mVersion, width, height);
    }
}

void DVSPipeline::ApplyFrameRule() {
    // A frame closed by event count spans no fixed time, so nothing is skipped by time then.
    uint32_t skip = 0;
    switch (mFrameRule) {
        case kRuleEventCount:
            mPackaging->SetEventCnt(mEventCount);
            break;
        case kRuleFrameEnds:
            mPackaging->SetFrmEndCnt(mFrameEndCount);
            skip = mFrameEndCount;
            break;
        default:
            mPackaging->SetFramePeriod(mFramePeriod);
            skip = mFramePeriod;
            break;
    }
    if (mKind.skipFollowsRule) {
        mParser->SetSkipPeriod(skip);
    }
}

DVS_ERROR DVSPipeline::SetPipelineParameter(PARA_TYPE type, void* value) {
    const bool running = mRunningStatus == kRunning;
    uint32_t v = 0;
    DVS_ERROR rc = ERR_SUCCESS;
    switch (type) {
        case PARA_PPX:
            if ((rc = CheckU32(value, running, 1, kMaxPPX, v)) == ERR_SUCCESS) {
                mPPX = v;
            }
            return rc;
        case PARA_PACKET_COUNT:
            if ((rc = CheckU32(value, running, 1, mKind.maxPacketCount, v)) == ERR_SUCCESS) {
                mPacketCount = v;
            }
            return rc;
        case PARA_FRAME_PERIOD:
            if ((rc = CheckU32(value, false, 1, kMaxFramePeriod, v)) == ERR_SUCCESS) {
                mFramePeriod = v;
                mFrameRule = kRulePeriod;
                ApplyFrameRule();
            }
            return rc;
        case PARA_EVENT_COUNT:
            if ((rc = CheckU32(value, false, kMinEventCount, kMaxEventCount, v)) == ERR_SUCCESS) {
                mEventCount = v;
                mFrameRule = kRuleEventCount;
                ApplyFrameRule();
            }
            return rc;
        case PARA_FRAME_END_COUNT:
            if ((rc = CheckU32(value, false, 1, kMaxFrameEndCount, v)) == ERR_SUCCESS) {
                mFrameEndCount = v;
                mFrameRule = kRuleFrameEnds;
                ApplyFrameRule();
            }
            return rc;
        case PARA_OUT_TYPE:
            if ((rc = CheckU32(value, running, 1, kMaxOutputType, v)) == ERR_SUCCESS) {
                mOutputType = v;
            }
            return rc;
        case PARA_FRAME_MODE:
            if ((rc = CheckU32(value, false, 0, FRAME_MODE_CALLBACK, v)) == ERR_SUCCESS) {
                mFrameMode = v;
                mPackaging->SetFrameMode(static_cast<FRAME_MODE>(v));
            }
            return rc;
        case PARA_RESOLUTION: {
            const int32_t* wh = static_cast<const int32_t*>(value);
            if (running) {
                return ERR_RUNNING;
            }
            if (wh[0] < 1 || wh[0] > kMaxWidth || wh[1] < 1 || wh[1] > kMaxHeight) {
                return ERR_PARA_ERROR;
            }
            mWidth = wh[0];
            mHeight = wh[1];
            return ERR_SUCCESS;
        }
        case PARA_COLOR_FORMAT:
            if ((rc = CheckU32(value, false, 0, COLOR_GRAY, v)) == ERR_SUCCESS) {
                mColorFormat = v;
                mPackaging->SetColorFormat(static_cast<COLOR_FORMAT>(v));
            }
            return rc;
        case PARA_COLORS:
            std::memcpy(&mColors, value, sizeof(mColors));
            mPackaging->SetColor(&mColors);
            return ERR_SUCCESS;
        default:
            return ERR_NOT_SUPPORT;
    }
}

DVS_ERROR DVSPipeline::GetPipelineParameter(PARA_TYPE type, void* value) {
    uint32_t* u = static_cast<uint32_t*>(value);
    int32_t* wh = static_cast<int32_t*>(value);
    switch (type) {
        case PARA_PPX:
            *u = mPPX;
            return ERR_SUCCESS;
        case PARA_PACKET_COUNT:
            *u = mPacketCount;
            return ERR_SUCCESS;
        case PARA_FRAME_PERIOD:
            *u = mFramePeriod;
            return ERR_SUCCESS;
        case PARA_OUT_TYPE:
            *u = mOutputType;
            return ERR_SUCCESS;
        case PARA_FRAME_MODE:
            *u = mFrameMode;
            return ERR_SUCCESS;
        case PARA_RESOLUTION:
            if (mWidth > 0 && mHeight > 0) {
                wh[0] = mWidth;
                wh[1] = mHeight;
                return ERR_SUCCESS;
            }
            if (mVersion == SELECT_VERSION) {
                return mKind.noVersion;
            }
            GetVersionSize(mVersion, wh[0], wh[1]);
            return ERR_SUCCESS;
        case PARA_SENSOR_SIZE:
            if (mVersion == SELECT_VERSION) {
                return ERR_UNKNOWN_VERSION;
            }
            GetVersionSize(mVersion, wh[0], wh[1]);
            return ERR_SUCCESS;
        case PARA_COLOR_FORMAT:
            *u = mColorFormat;
            return ERR_SUCCESS;
        case PARA_COLORS:
            std::memcpy(value, &mColors, sizeof(mColors));
            return ERR_SUCCESS;
        default:
            return ERR_NOT_SUPPORT;
    }
}

DVS_ERROR DVSPipeline::SetPipelineCallBack(CALLBACK_TYPE type, void* function, void* user) {
    if (function == nullptr || type > CALLBACK_TOTAL_COUNT) {
        return ERR_PARA_ERROR;
    }
    switch (type) {
        case CALLBACK_FRAME:
            mFrameCallback = reinterpret_cast<FrameCallback>(function);
            mFrameCallbackUser = user;
            return ERR_SUCCESS;
        case CALLBACK_FRAME_RATE:
            return mPackaging->SetFrameRateCallback(reinterpret_cast<RateCallback>(function), user);
        // The parse thread calls these without a lock: they change only between runs.
        case CALLBACK_RAW_FPS:
            if (mRunningStatus == kRunning) {
                return ERR_RUNNING;
            }
            return mParser->SetRawFpsCallback(reinterpret_cast<RateCallback>(function), user);
        case CALLBACK_TOTAL_COUNT:
            if (mRunningStatus == kRunning) {
                return ERR_RUNNING;
            }
            return mParser->SetTotalCountCallback(reinterpret_cast<TotalCountCallback>(function),
                                                  user);
        default:
            return ERR_PARA_ERROR;
    }
}

void DVSPipeline::SizeParser() {
    int32_t width = 0;
    int32_t height = 0;
    RunSize(width, height);
    mParser->SetResolution(width, height);
}

void DVSPipeline::BuildRun(int packetSize, int outputNodes, bool callerHandle) {
    int32_t width = 0;
    int32_t height = 0;
    RunSize(width, height);
    mPacketBuffer = std::make_unique<PacketBuffer>(static_cast<int>(mPacketCount), packetSize);
    mPacketBuffer->SetProcessStatus(true);
    mUIDataBuffer =
        std::make_unique<UIDataBuffer>(outputNodes, mVersion, mOutputType, width, height);
    if (callerHandle) {
        mUIDataBuffer->RegisterDataHandle(mDataHandle);
    }
    mParser->SetAddEventCallBack(&Packaging::AddEvent, mPackaging.get());
    mParser->SetPacketBuffer(mPacketBuffer.get());

    mPackaging->Reset();
    if (mKind.timerKeepsFramePeriod) {
        mPackaging->SetFramePeriod(mFramePeriod);
    }
    mPackaging->SetFrameMode(static_cast<FRAME_MODE>(mFrameMode));
    mPackaging->SetUIDataBuffer(mUIDataBuffer.get(), mDataHandle);
    ApplyFrameRule();
    mPackaging->SetColorFormat(static_cast<COLOR_FORMAT>(mColorFormat));
    mPackaging->SetColor(&mColors);
    mPackaging->SetState(true);
}

void DVSPipeline::StartDelivery() {
    if (mFrameMode != FRAME_MODE_CALLBACK) {
        return;
    }
    if (mFrameCallback != nullptr) {
        mPackaging->SetCallback(mFrameCallback, mFrameCallbackUser);
    }
    mPackaging->StartCallbackTimer();
}

DVS_ERROR DVSPipeline::EndRun(Stream& stream) {
    // Switched off first: a parse thread waiting for a free output node is let go.
    mPackaging->SetState(false);
    const DVS_ERROR rc = mParser->Stop();
    if (rc != ERR_SUCCESS && rc != ERR_ALREADY_DONE) {
        return rc;
    }
    // Also when the frame mode changed while running: a timer that was never started returns
    // at once, and one that was must not outlive the pool it reads.
    mPackaging->StopCallbackTimer();
    stream.SetPacketBuffer(nullptr);
    if (mUIDataBuffer) {
        mUIDataBuffer->UnregisterDataHandle(mDataHandle);
        mDataHandle = nullptr;
        mUIDataBuffer.reset();
    }
    if (mPacketBuffer) {
        mPacketBuffer->SetProcessStatus(false);
        mPacketBuffer.reset();
    }
    return ERR_SUCCESS;
}

DVS_ERROR DVSPipeline::GetFrame(OUT_TYPE type, DVSUIData* data, unsigned char& count) {
    if (data == nullptr) {
        return ERR_PARA_ERROR;
    }
    if (!mUIDataBuffer) {
        return ERR_NOT_START;
    }
    if (mFrameMode == FRAME_MODE_CALLBACK) {
        return ERR_FRAME_MODE;
    }
    return mPackaging->GetFrame(type, data, count);
}

DVS_ERROR DVSPipeline::StartExporter(const char* path, int saveMode, bool keepOnFailure) {
    mMatSave = std::make_unique<MatSave>();
    mMatSave->SetVersion(mVersion);
    mMatSave->SetSaveMode(saveMode);
    if (mKind.exportVideoFormat) {
        int32_t width = 0;
        int32_t height = 0;
        RunSize(width, height);
        mMatSave->SetVideoFps(static_cast<int>(1000 / mFramePeriod));
        mMatSave->SetResolution(width, height);
    }
    const DVS_ERROR rc = mMatSave->StartSaving(path, mUIDataBuffer.get());
    if (rc != ERR_SUCCESS && !keepOnFailure) {
        mMatSave.reset();
    }
    return rc;
}

DVS_ERROR DVSPipeline::StopFrameSaving() {
    if (!mMatSave) {
        return ERR_ALREADY_DONE;
    }
    mMatSave->StopSaving();
    mMatSave.reset();
    return ERR_SUCCESS;
}

void DVSPipeline::ResetTotalCount() {
    mParser->ResetTotalCount();
}

void DVSPipeline::GetTotalCounts(unsigned long& events, unsigned long& frames) {
    mParser->GetTotalCounts(events, frames);
}

}  // namespace evcam
