#include "src/camera/dvs_file.h"

#include <cstdio>
#include <cstring>

#include "src/camera/parameter_check.h"
#include "src/data/packet_buffer.h"
#include "src/data/ui_data_buffer.h"
#include "src/process/packaging.h"
#include "src/process/packet_parser.h"
#include "src/record/mat_save.h"
#include "src/stream/file_stream.h"

namespace evcam {

namespace {
// A file run reads 16 KiB per PPX unit (a device reads 1 KiB) and keeps few output frames:
// playback waits for the consumer anyway.
constexpr uint32_t kFilePacketUnit = 16384;
constexpr int kFileOutputNodes = 6;
constexpr uint32_t kMaxPPX = 512;
constexpr uint32_t kMaxFramePeriod = 1000;
constexpr uint32_t kMinEventCount = 1000;
constexpr uint32_t kMaxEventCount = 300000;
constexpr uint32_t kMaxFrameEndCount = 100;
constexpr int32_t kMaxWidth = 960;
constexpr int32_t kMaxHeight = 720;

uint32_t U32(const void* v) {
    return *static_cast<const uint32_t*>(v);
}
}  // namespace

DVSFile::DVSFile()
    : mPackaging(std::make_unique<Packaging>()),
      mStream(std::make_unique<FileStream>()),
      mParser(std::make_unique<PacketParser>()) {}

DVSFile::~DVSFile() {
    if (mRunningStatus != kStopped) {
        Stop();
    }
}

void DVSFile::SetDefaults() {
    mVersion = SELECT_VERSION;
    mOutputType = OUT_POLARITY;
    mFileValid = 0;
    mFramePeriod = 10;
    mFilePath.clear();
    mRunningStatus = kStopped;
    mFrameCallback = nullptr;
    mFrameCallbackUser = nullptr;
    mFrameMode = FRAME_MODE_POLLING;
    mEventCount = 3000;
    mFrameEndCount = 2;
    mFrameRule = 0;
    mWorkMode = 4;
    mColorFormat = COLOR_RGB24;
    mColors = kDefaultColors;
    mPPX = 2;
    mWidth = 0;
    mHeight = 0;
}

DVS_ERROR DVSFile::Reset() {
    if (mRunningStatus != kStopped) {
        return ERR_RUNNING;
    }
    SetDefaults();
    mPacketBuffer.reset();
    mUIDataBuffer.reset();
    mDataHandle = nullptr;
    DVS_ERROR first = mStream->Reset();
    const DVS_ERROR parser = mParser->Reset();
    if (first == ERR_SUCCESS) {
        first = parser;
    }
    const DVS_ERROR packaging = mPackaging->Reset();
    return first != ERR_SUCCESS ? first : packaging;
}

void DVSFile::RunSize(int32_t& width, int32_t& height) const {
    if (mWidth > 0 && mHeight > 0) {
        width = mWidth;
        height = mHeight;
    } else {
        GetVersionSize(mVersion, width, height);
    }
}

DVS_ERROR DVSFile::SetParameter(PARA_TYPE type, void* value) {
    if (value == nullptr) {
        return ERR_PARA_ERROR;
    }
    if (type >= PARA_PARSED_BYTES) {
        return ERR_NOT_SUPPORT;
    }
    const bool running = mRunningStatus == kRunning;
    uint32_t v = 0;
    DVS_ERROR rc = ERR_SUCCESS;
    switch (type) {
        case PARA_PPX:
            if ((rc = CheckU32(value, running, 1, kMaxPPX, v)) == ERR_SUCCESS) {
                mPPX = v;
                mStream->SetPPX(v);
            }
            return rc;
        case PARA_PACKET_COUNT:  // no upper bound on a file
            if ((rc = CheckU32(value, running, 1, UINT32_MAX, v)) == ERR_SUCCESS) {
                mPacketCount = v;
            }
            return rc;
        case PARA_FILE_PATH: {
            const char* path = static_cast<const char*>(value);
            if (path[0] == '\0') {
                return ERR_PARA_ERROR;
            }
            // The read thread uses the path: re-binding waits for a stopped object.
            if (mRunningStatus != kStopped) {
                return ERR_RUNNING;
            }
            rc = mStream->SetFilePath(path);
            int version = SELECT_VERSION;
            mStream->GetVersion(&version);
            mVersion = static_cast<DVS_VERSION>(version);
            if (rc != ERR_SUCCESS) {
                mFilePath.clear();
                return rc;
            }
            mFilePath = path;
            return ERR_SUCCESS;
        }
        case PARA_FRAME_PERIOD:
            if ((rc = CheckU32(value, false, 1, kMaxFramePeriod, v)) == ERR_SUCCESS) {
                mFramePeriod = v;
                mPackaging->SetFramePeriod(v);
                mFrameRule = 0;
            }
            return rc;
        case PARA_OUT_TYPE:
            if ((rc = CheckU32(value, running, 1, 15, v)) == ERR_SUCCESS) {
                mOutputType = v;
            }
            return rc;
        case PARA_FRAME_MODE:
            if ((rc = CheckU32(value, false, 0, FRAME_MODE_CALLBACK, v)) == ERR_SUCCESS) {
                mFrameMode = v;
                mPackaging->SetFrameMode(static_cast<FRAME_MODE>(v));
            }
            return rc;
        case PARA_VERSION:
            if (running) {
                return ERR_RUNNING;
            }
            if (mFilePath.empty()) {
                return ERR_NO_FILE;
            }
            v = U32(value);
            if (!IsKnownVersion(static_cast<int>(v))) {
                return ERR_PARA_ERROR;
            }
            rc = mStream->SetVersion(static_cast<DVS_VERSION>(v));
            if (rc == ERR_SUCCESS) {
                mVersion = static_cast<DVS_VERSION>(v);
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
        case PARA_EVENT_COUNT:
            if ((rc = CheckU32(value, false, kMinEventCount, kMaxEventCount, v)) == ERR_SUCCESS) {
                mEventCount = v;
                mPackaging->SetEventCnt(v);
                mFrameRule = 1;
            }
            return rc;
        case PARA_FRAME_END_COUNT:
            if ((rc = CheckU32(value, false, 1, kMaxFrameEndCount, v)) == ERR_SUCCESS) {
                mFrameEndCount = v;
                mPackaging->SetFrmEndCnt(v);
                mFrameRule = 2;
            }
            return rc;
        case PARA_WORK_MODE:
            if ((rc = CheckU32(value, running, 2, 5, v)) == ERR_SUCCESS) {
                mWorkMode = v;
            }
            return rc;
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
        case PARA_FILE_PERCENT:
            return mStream->SetFilePercent(static_cast<float*>(value));
        case PARA_PLAY_MODE:
            return mStream->SetPlayMode(static_cast<PLAY_MODE>(U32(value)));
        default:
            return ERR_NOT_SUPPORT;
    }
}

DVS_ERROR DVSFile::GetParameter(PARA_TYPE type, void* value) {
    if (value == nullptr) {
        return ERR_PARA_ERROR;
    }
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
        case PARA_FILE_VALID:
            if (mRunningStatus != kStopped) {
                return ERR_RUNNING;
            }
            if (mFilePath.empty()) {
                return ERR_NO_FILE;
            }
            if (mVersion == SELECT_VERSION) {
                return ERR_UNKNOWN_VERSION;
            }
            mFileValid = mStream->CheckFile() == ERR_SUCCESS ? 1 : 0;
            *static_cast<uint8_t*>(value) = mFileValid;
            return ERR_SUCCESS;
        case PARA_VERSION:
            *u = static_cast<uint32_t>(mVersion);
            return ERR_SUCCESS;
        case PARA_RESOLUTION:
            if (mWidth > 0 && mHeight > 0) {
                wh[0] = mWidth;
                wh[1] = mHeight;
                return ERR_SUCCESS;
            }
            if (mVersion == SELECT_VERSION) {
                return ERR_UNKNOWN_VERSION;
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
        case PARA_FILE_PERCENT:
            mStream->GetFilePercent(static_cast<float*>(value));
            return ERR_SUCCESS;
        case PARA_PLAY_MODE:
            return mStream->GetPlayMode(*static_cast<PLAY_MODE*>(value));
        case PARA_PARSED_BYTES:
            *static_cast<uint64_t*>(value) = mParser->GetParsedBytes();
            return ERR_SUCCESS;
        default:
            return ERR_NOT_SUPPORT;
    }
}

DVS_ERROR DVSFile::SetCallBack(CALLBACK_TYPE type, void* function, void* user) {
    if (function == nullptr || type > CALLBACK_TOTAL_COUNT) {
        return ERR_PARA_ERROR;
    }
    switch (type) {
        case CALLBACK_FRAME:
            mFrameCallback = reinterpret_cast<FrameCallback>(function);
            mFrameCallbackUser = user;
            return ERR_SUCCESS;
        case CALLBACK_READ_OVER:
            return mStream->SetReadOverCbk(reinterpret_cast<ReadOverCallback>(function), user);
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
        default:  // the data-rate and drop notices belong to live cameras
            return ERR_PARA_ERROR;
    }
}

DVS_ERROR DVSFile::StartCommon() {
    int32_t width = 0;
    int32_t height = 0;
    RunSize(width, height);
    mParser->SetResolution(width, height);

    mPacketBuffer = std::make_unique<PacketBuffer>(static_cast<int>(mPacketCount),
                                                   static_cast<int>(mPPX * kFilePacketUnit));
    mPacketBuffer->SetProcessStatus(true);
    mUIDataBuffer =
        std::make_unique<UIDataBuffer>(kFileOutputNodes, mVersion, mOutputType, width, height);

    mPackaging->Reset();
    mPackaging->SetFramePeriod(mFramePeriod);
    if (mWorkMode == 2 || mWorkMode == 3) {
        // No caller handle: only the exporter reads frames.
        mPackaging->SetUIDataBuffer(mUIDataBuffer.get(), nullptr);
    } else {
        mUIDataBuffer->RegisterDataHandle(mDataHandle);
        mPackaging->SetUIDataBuffer(mUIDataBuffer.get(), mDataHandle);
    }
    mPackaging->SetFrameMode(static_cast<FRAME_MODE>(mFrameMode));
    switch (mFrameRule) {
        case 1:
            mPackaging->SetEventCnt(mEventCount);
            break;
        case 2:
            mPackaging->SetFrmEndCnt(mFrameEndCount);
            break;
        default:
            mPackaging->SetFramePeriod(mFramePeriod);
            break;
    }
    mPackaging->SetColorFormat(static_cast<COLOR_FORMAT>(mColorFormat));
    mPackaging->SetColor(&mColors);
    mPackaging->SetState(true);

    mStream->SetPacketBuffer(mPacketBuffer.get());
    mParser->SetAddEventCallBack(&Packaging::AddEvent, mPackaging.get());
    mParser->SetPacketBuffer(mPacketBuffer.get());
    const DVS_ERROR rc = mParser->Start();
    if (rc != ERR_SUCCESS) {
        StopCommon();
        return rc;
    }
    if (mFrameMode == FRAME_MODE_CALLBACK) {
        if (mFrameCallback != nullptr) {
            mPackaging->SetCallback(mFrameCallback, mFrameCallbackUser);
        }
        mPackaging->StartCallbackTimer();
    }
    return ERR_SUCCESS;
}

DVS_ERROR DVSFile::StopCommon() {
    mPackaging->SetState(false);
    const DVS_ERROR rc = mParser->Stop();
    if (rc != ERR_SUCCESS && rc != ERR_ALREADY_DONE) {
        return rc;
    }
    // Also when the frame mode was changed while running: stopping a timer that was never
    // started returns at once, and one that was must not outlive the pool it reads.
    mPackaging->StopCallbackTimer();
    if (mPacketBuffer) {
        mStream->SetPacketBuffer(nullptr);
        mPacketBuffer->SetProcessStatus(false);
        mPacketBuffer.reset();
    }
    if (mUIDataBuffer) {
        mUIDataBuffer->UnregisterDataHandle(mDataHandle);
        mDataHandle = nullptr;
        mUIDataBuffer.reset();
    }
    return ERR_SUCCESS;
}

DVS_ERROR DVSFile::Run(DVS_ERROR (Stream::*begin)()) {
    if (mFilePath.empty()) {
        return ERR_NO_FILE;
    }
    if (mVersion == SELECT_VERSION) {
        return ERR_UNKNOWN_VERSION;
    }
    DVS_ERROR rc = StartCommon();
    if (rc != ERR_SUCCESS) {
        return rc;
    }
    rc = (mStream.get()->*begin)();
    if (rc != ERR_SUCCESS) {
        // A source that refuses to start (say, the file no longer checks) must not leave the
        // parser and the pools behind.
        StopCommon();
        return rc;
    }
    mRunningStatus = kRunning;
    return ERR_SUCCESS;
}

DVS_ERROR DVSFile::Start() {
    if (mRunningStatus != kStopped) {
        return ERR_ALREADY_DONE;
    }
    return Run(&Stream::Start);
}

DVS_ERROR DVSFile::Resume() {
    if (mRunningStatus == kStopped) {
        return ERR_NOT_START;
    }
    if (mRunningStatus == kRunning) {
        return ERR_ALREADY_DONE;
    }
    return Run(&Stream::Resume);
}

DVS_ERROR DVSFile::Pause() {
    if (mRunningStatus == kStopped) {
        return ERR_NOT_START;
    }
    if (mRunningStatus == kPaused) {
        return ERR_ALREADY_DONE;
    }
    StopSaving();
    // Clearing the state first frees a parse thread that waits for an output node.
    mPackaging->SetState(false);
    DVS_ERROR rc = mStream->Pause();
    if (rc != ERR_SUCCESS) {
        return rc;
    }
    rc = StopCommon();
    if (rc != ERR_SUCCESS) {
        return rc;
    }
    mRunningStatus = kPaused;
    return ERR_SUCCESS;
}

DVS_ERROR DVSFile::Stop() {
    if (mRunningStatus == kStopped) {
        return ERR_ALREADY_DONE;
    }
    StopSaving();
    mPackaging->SetState(false);
    DVS_ERROR rc = mStream->Stop();
    if (rc != ERR_SUCCESS && rc != ERR_ALREADY_DONE) {
        return rc;
    }
    rc = StopCommon();
    if (rc != ERR_SUCCESS && rc != ERR_ALREADY_DONE) {
        return rc;
    }
    mRunningStatus = kStopped;
    return ERR_SUCCESS;
}

DVS_ERROR DVSFile::UnbindDevice() {
    if (mFilePath.empty()) {
        return ERR_NO_FILE;
    }
    if (mRunningStatus != kStopped) {
        return ERR_RUNNING;
    }
    const DVS_ERROR rc = mStream->Close();
    if (rc != ERR_SUCCESS) {
        return rc;
    }
    return Reset();
}

DVS_ERROR DVSFile::GetFrame(OUT_TYPE type, DVSUIData* data, unsigned char& count) {
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

DVS_ERROR DVSFile::StartExport(const char* path, int saveMode, bool keepOnFailure) {
    int32_t width = 0;
    int32_t height = 0;
    RunSize(width, height);
    mMatSave = std::make_unique<MatSave>();
    mMatSave->SetSaveMode(saveMode);
    mMatSave->SetVideoFps(static_cast<int>(1000 / mFramePeriod));
    mMatSave->SetVersion(mVersion);
    mMatSave->SetResolution(width, height);
    const DVS_ERROR rc = mMatSave->StartSaving(path, mUIDataBuffer.get());
    if (rc != ERR_SUCCESS && !keepOnFailure) {
        mMatSave.reset();
    }
    return rc;
}

DVS_ERROR DVSFile::StartSaving(const char* path) {
    if (mMatSave) {
        return ERR_ALREADY_DONE;
    }
    if (mRunningStatus == kStopped) {
        return ERR_NOT_START;
    }
    if ((mOutputType & OUT_IMAGE) == 0) {
        return ERR_NO_SPECIFIED_DATA;
    }
    if (mWorkMode < 2 || mWorkMode > 5) {
        return ERR_NOT_SUPPORT;
    }
    const int saveMode = (mWorkMode == 2 || mWorkMode == 4) ? 1 : 2;
    // A failed start keeps the exporter, so the next StartSaving answers 4 until StopSaving.
    return StartExport(path, saveMode, true);
}

DVS_ERROR DVSFile::StartFrameSaving(const char* path, int mode) {
    std::printf("[StartFrameSaving] mMatSave=%p mRunningStatus=%d mOutputType=%d mVersion=%d\n",
                static_cast<void*>(mMatSave.get()), static_cast<int>(mRunningStatus),
                static_cast<int>(mOutputType), static_cast<int>(mVersion));
    if (mMatSave) {
        std::puts("[StartFrameSaving] FAIL: ERR_ALREADY_DONE");
        return ERR_ALREADY_DONE;
    }
    if (mRunningStatus == kStopped) {
        std::puts("[StartFrameSaving] FAIL: ERR_NOT_START");
        return ERR_NOT_START;
    }
    if (path == nullptr || path[0] == '\0') {
        std::puts("[StartFrameSaving] FAIL: ERR_PARA_ERROR (savePath)");
        return ERR_PARA_ERROR;
    }
    if ((mOutputType & OUT_IMAGE) == 0) {
        std::printf("[StartFrameSaving] FAIL: ERR_NO_SPECIFIED_DATA (mOutputType=%d)\n",
                    static_cast<int>(mOutputType));
        return ERR_NO_SPECIFIED_DATA;
    }
    return StartExport(path, mode, false);
}

DVS_ERROR DVSFile::StopSaving() {
    if (!mMatSave) {
        return ERR_ALREADY_DONE;
    }
    mMatSave->StopSaving();
    mMatSave.reset();
    return ERR_SUCCESS;
}

DVS_ERROR DVSFile::StopFrameSaving() {
    return StopSaving();
}

void DVSFile::ResetTotalCount() {
    mParser->ResetTotalCount();
}

void DVSFile::GetTotalCounts(unsigned long& events, unsigned long& frames) {
    mParser->GetTotalCounts(events, frames);
}

}  // namespace evcam
