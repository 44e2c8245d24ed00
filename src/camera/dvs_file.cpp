#include "src/camera/dvs_file.h"

#include <cstdio>

#include "src/camera/parameter_check.h"
#include "src/data/packet_buffer.h"
#include "src/data/ui_data_buffer.h"
#include "src/process/packaging.h"
#include "src/process/packet_parser.h"
#include "src/stream/file_stream.h"

namespace evcam {

namespace {
// A file run reads 16 KiB per PPX unit (a device reads 1 KiB) and keeps few output frames:
// playback waits for the consumer anyway.
constexpr uint32_t kFilePacketUnit = 16384;
constexpr int kFileOutputNodes = 6;

uint32_t U32(const void* v) {
    return *static_cast<const uint32_t*>(v);
}
}  // namespace

DVSFile::DVSFile()
    : DVSPipeline({
          OUT_POLARITY,         // output type
          kRulePeriod,          // frame rule
          UINT32_MAX,           // packet count: no upper bound on a file
          ERR_UNKNOWN_VERSION,  // resolution before the version is known
          false,                // skip period: file data is never skipped
          true,                 // the exporter learns the playback's frame rate and size
          true,                 // the callback timer keeps the frame period under count rules
      }),
      mStream(std::make_unique<FileStream>()) {}

DVSFile::~DVSFile() {
    if (mRunningStatus != kStopped) {
        Stop();
    }
}

DVS_ERROR DVSFile::Reset() {
    if (mRunningStatus != kStopped) {
        return ERR_RUNNING;
    }
    RestoreDefaults();
    mFileValid = 0;
    mFilePath.clear();
    mFrameCallback = nullptr;
    mFrameCallbackUser = nullptr;
    mFrameMode = FRAME_MODE_POLLING;
    mWorkMode = 4;
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

DVS_ERROR DVSFile::SetParameter(PARA_TYPE type, void* value) {
    if (value == nullptr) {
        return ERR_PARA_ERROR;
    }
    const bool running = mRunningStatus == kRunning;
    uint32_t v = 0;
    DVS_ERROR rc = ERR_SUCCESS;
    switch (type) {
        case PARA_PPX:
            // The read size follows; the stream's answer is not the caller's.
            if ((rc = SetPipelineParameter(type, value)) == ERR_SUCCESS) {
                mStream->SetPPX(mPPX);
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
        case PARA_WORK_MODE:
            if ((rc = CheckU32(value, running, 2, 5, v)) == ERR_SUCCESS) {
                mWorkMode = v;
            }
            return rc;
        case PARA_FILE_PERCENT:
            return mStream->SetFilePercent(static_cast<float*>(value));
        case PARA_PLAY_MODE:
            return mStream->SetPlayMode(static_cast<PLAY_MODE>(U32(value)));
        default:
            return SetPipelineParameter(type, value);
    }
}

DVS_ERROR DVSFile::GetParameter(PARA_TYPE type, void* value) {
    if (value == nullptr) {
        return ERR_PARA_ERROR;
    }
    switch (type) {
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
            *static_cast<uint32_t*>(value) = static_cast<uint32_t>(mVersion);
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
            return GetPipelineParameter(type, value);
    }
}

DVS_ERROR DVSFile::SetCallBack(CALLBACK_TYPE type, void* function, void* user) {
    if (type == CALLBACK_READ_OVER && function != nullptr) {
        return mStream->SetReadOverCbk(reinterpret_cast<ReadOverCallback>(function), user);
    }
    // The data-rate and drop notices belong to live cameras: refused there as unknown.
    return SetPipelineCallBack(type, function, user);
}

DVS_ERROR DVSFile::StartCommon() {
    SizeParser();
    // Work modes 2 and 3 register no caller handle: only the exporter reads frames.
    BuildRun(static_cast<int>(mPPX * kFilePacketUnit), kFileOutputNodes,
             mWorkMode != 2 && mWorkMode != 3);
    mStream->SetPacketBuffer(mPacketBuffer.get());
    const DVS_ERROR rc = mParser->Start();
    if (rc != ERR_SUCCESS) {
        EndRun(*mStream);
        return rc;
    }
    StartDelivery();
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
        EndRun(*mStream);
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
    rc = EndRun(*mStream);
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
    // A stream already at its end (4) does not hold the stop up.
    DVS_ERROR rc = mStream->Stop();
    if (rc != ERR_SUCCESS && rc != ERR_ALREADY_DONE) {
        return rc;
    }
    rc = EndRun(*mStream);
    if (rc != ERR_SUCCESS) {
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
    return StartExporter(path, saveMode, true);
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
    return StartExporter(path, mode, false);
}

DVS_ERROR DVSFile::StopSaving() {
    return StopFrameSaving();
}

}  // namespace evcam
