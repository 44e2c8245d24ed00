#include "src/camera/dvs_device.h"

#include <cstring>

#include "src/camera/parameter_check.h"
#include "src/data/packet_buffer.h"
#include "src/data/ui_data_buffer.h"
#include "src/process/packaging.h"
#include "src/process/packet_parser.h"
#include "src/record/data_save.h"
#include "src/record/mat_save.h"
#include "src/stream/fx20_stream.h"
#include "src/stream/fx3_stream.h"

namespace evcam {

namespace {
// A live camera keeps many output frames: unlike playback it cannot wait for the consumer.
constexpr int kDeviceOutputNodes = 50;
constexpr uint32_t kMaxPPX = 512;
constexpr uint32_t kMaxPacketCount = 512;
constexpr uint32_t kMaxTimeoutMs = 10000;
constexpr uint32_t kMaxFramePeriod = 1000;
constexpr uint32_t kMinEventCount = 1000;
constexpr uint32_t kMaxEventCount = 300000;
constexpr uint32_t kMaxFrameEndCount = 100;
constexpr int32_t kMaxWidth = 960;
constexpr int32_t kMaxHeight = 720;
constexpr uint32_t kStereoBit = 16;

std::unique_ptr<DeviceStream> MakeStream(DVS_TYPE type) {
    if (type == DVS_FX3) {
        return std::make_unique<FX3Stream>();
    }
    return std::make_unique<FX20Stream>();
}
}  // namespace

DVSDevice::DVSDevice(DVS_TYPE type)
    : mStream(MakeStream(type)),
      mParser(std::make_unique<PacketParser>()),
      mPackaging(std::make_unique<Packaging>()) {}

DVSDevice::~DVSDevice() {
    if (mRunningStatus != 0) {
        Stop();
    }
    mStream.reset();
    mParser.reset();
    mPackaging.reset();
    mDataSave.reset();
    mMatSave.reset();
}

void DVSDevice::Reset() {
    if (mRunningStatus != 0 || mDeviceIndex < 0) {
        return;
    }
    mVersion = SELECT_VERSION;
    mEventCount = 3000;
    mFrameEndCount = 2;
    mFrameRule = 0;
    mColorFormat = COLOR_RGB24;
    mColors = kDefaultColors;
    mWidth = 0;
    mHeight = 0;
    mPPX = 2;
    mPacketCount = 64;
    mOutputType = OUT_IMAGE;
    mWorkMode = 1;
    mFramePeriod = 10;
    mParser->Reset();
    mStream->Reset();
    mPackaging->Reset();
}

void DVSDevice::RunSize(int32_t& width, int32_t& height) const {
    if (mWidth > 0 && mHeight > 0) {
        width = mWidth;
        height = mHeight;
    } else {
        GetVersionSize(mVersion, width, height);
    }
}

DVS_ERROR DVSDevice::SetParameter(PARA_TYPE type, void* value) {
    if (value == nullptr) {
        return ERR_PARA_ERROR;
    }
    if (type >= PARA_FILE_PERCENT) {
        return ERR_NOT_SUPPORT;
    }
    const bool running = mRunningStatus != 0;
    uint32_t v = 0;
    DVS_ERROR rc = ERR_SUCCESS;
    switch (type) {
        case PARA_BIAS_FILE: {
            const char* path = static_cast<const char*>(value);
            if (path[0] == '\0') {
                return ERR_PARA_ERROR;
            }
            rc = mStream->SetBias(path);
            if (rc != ERR_SUCCESS) {
                return rc;
            }
            int version = SELECT_VERSION;
            rc = mStream->GetVersion(&version);
            mVersion = static_cast<DVS_VERSION>(version);
            return rc;
        }
        case PARA_PPX:
            if ((rc = CheckU32(value, running, 1, kMaxPPX, v)) != ERR_SUCCESS) {
                return rc;
            }
            mPPX = v;
            return mStream->SetPPX(v);
        case PARA_PACKET_COUNT:
            if ((rc = CheckU32(value, running, 1, kMaxPacketCount, v)) == ERR_SUCCESS) {
                mPacketCount = v;
            }
            return rc;
        case PARA_TIMEOUT:
            if ((rc = CheckU32(value, false, 1, kMaxTimeoutMs, v)) == ERR_SUCCESS) {
                mStream->SetTimeout(static_cast<int>(v));
            }
            return rc;
        case PARA_FRAME_PERIOD:
            if ((rc = CheckU32(value, false, 1, kMaxFramePeriod, v)) == ERR_SUCCESS) {
                mFramePeriod = v;
                mParser->SetSkipPeriod(v);
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
                mParser->SetSkipPeriod(0);
            }
            return rc;
        case PARA_FRAME_END_COUNT:
            if ((rc = CheckU32(value, false, 1, kMaxFrameEndCount, v)) == ERR_SUCCESS) {
                mFrameEndCount = v;
                mPackaging->SetFrmEndCnt(v);
                mFrameRule = 2;
                mParser->SetSkipPeriod(v);
            }
            return rc;
        case PARA_WORK_MODE: {
            if (running) {
                return ERR_RUNNING;
            }
            // Only values above 1 are refused: a negative mode is kept and processes, as 1 does.
            const int32_t mode = *static_cast<const int32_t*>(value);
            if (mode > 1) {
                return ERR_PARA_ERROR;
            }
            mWorkMode = mode;
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

DVS_ERROR DVSDevice::GetParameter(PARA_TYPE type, void* value) {
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
        case PARA_VERSION:
            if (mDeviceIndex < 0) {
                return ERR_INVALID_DEVICE;
            }
            if (mVersion == SELECT_VERSION) {
                return ERR_NO_BIAS_FILE;
            }
            *u = static_cast<uint32_t>(mVersion);
            return ERR_SUCCESS;
        case PARA_SENSOR_COUNT:
            if (mVersion == SELECT_VERSION) {
                return ERR_NO_BIAS_FILE;
            }
            *u = (static_cast<uint32_t>(mVersion) & kStereoBit) != 0 ? 2 : 1;
            return ERR_SUCCESS;
        case PARA_RESOLUTION:
            if (mWidth > 0 && mHeight > 0) {
                wh[0] = mWidth;
                wh[1] = mHeight;
                return ERR_SUCCESS;
            }
            if (mVersion == SELECT_VERSION) {
                return ERR_NO_BIAS_FILE;
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

DVS_ERROR DVSDevice::SetCallBack(CALLBACK_TYPE type, void* function, void* user) {
    if (function == nullptr || type > CALLBACK_TOTAL_COUNT) {
        return ERR_PARA_ERROR;
    }
    switch (type) {
        case CALLBACK_FRAME:
            mFrameCallback = reinterpret_cast<FrameCallback>(function);
            mFrameCallbackUser = user;
            return ERR_SUCCESS;
        case CALLBACK_USB_DATA_RATE:
            return mStream->SetUsbDataRateCbk(reinterpret_cast<UsbDataRateCallback>(function),
                                              user);
        case CALLBACK_FRAME_RATE:
            return mPackaging->SetFrameRateCallback(reinterpret_cast<RateCallback>(function), user);
        case CALLBACK_PKT_BUF_DROP:
            return mStream->SetPktBufDropCbk(reinterpret_cast<PacketDropCallback>(function), user);
        // The parse thread calls these without a lock: they change only between runs.
        case CALLBACK_RAW_FPS:
            if (mRunningStatus != 0) {
                return ERR_RUNNING;
            }
            return mParser->SetRawFpsCallback(reinterpret_cast<RateCallback>(function), user);
        case CALLBACK_TOTAL_COUNT:
            if (mRunningStatus != 0) {
                return ERR_RUNNING;
            }
            return mParser->SetTotalCountCallback(reinterpret_cast<TotalCountCallback>(function),
                                                  user);
        default:  // the end-of-file notice belongs to playback
            return ERR_PARA_ERROR;
    }
}

DVS_ERROR DVSDevice::BindDevice(int index) {
    const DVS_ERROR rc = mStream->SetDVSID(static_cast<unsigned int>(index));
    if (rc != ERR_SUCCESS) {
        return rc;
    }
    Reset();
    mDeviceIndex = index;
    return ERR_SUCCESS;
}

DVS_ERROR DVSDevice::ReadI2CReg(int slaveAddr, int regAddr, int& value) {
    return mStream->ReadI2CReg(slaveAddr, regAddr, value);
}

DVS_ERROR DVSDevice::WriteI2CReg(int slaveAddr, int regAddr, int value) {
    return mStream->WriteI2CReg(slaveAddr, regAddr, value);
}

DVS_ERROR DVSDevice::DropFrame() {
    if (!mUIDataBuffer) {
        return ERR_NOT_START;
    }
    return mPackaging->DropFrame();
}

DVS_ERROR DVSDevice::GetFrame(OUT_TYPE type, DVSUIData* data, unsigned char& count) {
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

void DVSDevice::FreeRunBuffers() {
    mStream->SetPacketBuffer(nullptr);
    mPackaging->SetUIDataBuffer(nullptr, nullptr);
    if (mUIDataBuffer) {
        mUIDataBuffer->UnregisterDataHandle(mDataHandle);
        mDataHandle = nullptr;
        mUIDataBuffer.reset();
    }
    if (mPacketBuffer) {
        mPacketBuffer->SetProcessStatus(false);
        mPacketBuffer.reset();
    }
}

DVS_ERROR DVSDevice::Start() {
    if (mDeviceIndex < 0 || mDeviceIndex > 2) {
        return ERR_INVALID_DEVICE;
    }
    if (mVersion == SELECT_VERSION) {
        return ERR_NO_BIAS_FILE;
    }
    if (mRunningStatus != 0) {
        return ERR_ALREADY_DONE;
    }
    int32_t width = 0;
    int32_t height = 0;
    RunSize(width, height);
    mParser->SetResolution(width, height);
    const int packetSize = mStream->GetReadSize();

    if (mWorkMode != 0) {
        mPacketBuffer = std::make_unique<PacketBuffer>(static_cast<int>(mPacketCount), packetSize);
        mStream->SetPacketBuffer(mPacketBuffer.get());
        mPacketBuffer->SetProcessStatus(true);
        mUIDataBuffer = std::make_unique<UIDataBuffer>(kDeviceOutputNodes, mVersion, mOutputType,
                                                       width, height);
        mUIDataBuffer->RegisterDataHandle(mDataHandle);
        mParser->SetAddEventCallBack(&Packaging::AddEvent, mPackaging.get());
        mParser->SetPacketBuffer(mPacketBuffer.get());

        mPackaging->Reset();
        switch (mFrameRule) {
            case 1:
                mPackaging->SetEventCnt(mEventCount);
                mParser->SetSkipPeriod(0);
                break;
            case 2:
                mPackaging->SetFrmEndCnt(mFrameEndCount);
                mParser->SetSkipPeriod(mFrameEndCount);
                break;
            default:
                mPackaging->SetFramePeriod(mFramePeriod);
                mParser->SetSkipPeriod(mFramePeriod);
                break;
        }
        mPackaging->SetFrameMode(static_cast<FRAME_MODE>(mFrameMode));
        mPackaging->SetUIDataBuffer(mUIDataBuffer.get(), mDataHandle);
        mPackaging->SetColorFormat(static_cast<COLOR_FORMAT>(mColorFormat));
        mPackaging->SetColor(&mColors);
        mPackaging->SetState(true);
        if (mFrameRule == 1) {
            mPackaging->SetEventCnt(mEventCount);
        } else if (mFrameRule == 2) {
            mPackaging->SetFrmEndCnt(mFrameEndCount);
        }
    }

    DVS_ERROR rc = mStream->Start();
    if (rc != ERR_SUCCESS) {
        // Nothing runs yet: a refused start leaves no pool behind.
        mPackaging->SetState(false);
        FreeRunBuffers();
        return rc;
    }
    if (mWorkMode != 0) {
        rc = mParser->Start();
        if (rc != ERR_SUCCESS) {
            mPackaging->SetState(false);
            mStream->SetPacketBuffer(nullptr);
            mStream->Stop();
            FreeRunBuffers();
            return rc;
        }
        if (mFrameMode == FRAME_MODE_CALLBACK) {
            if (mFrameCallback != nullptr) {
                mPackaging->SetCallback(mFrameCallback, mFrameCallbackUser);
            }
            mPackaging->StartCallbackTimer();
        }
    }
    mRunningStatus = 1;
    return ERR_SUCCESS;
}

DVS_ERROR DVSDevice::Stop() {
    if (mRunningStatus == 0) {
        return ERR_ALREADY_DONE;
    }
    StopSaving();
    StopFrameSaving();
    mStream->SetPacketBuffer(nullptr);
    DVS_ERROR rc = mStream->Stop();
    if (rc != ERR_SUCCESS) {
        return rc;
    }
    mPackaging->SetState(false);
    if (mWorkMode != 0) {
        rc = mParser->Stop();
        if (rc != ERR_SUCCESS) {
            return rc;
        }
        // Also when the frame mode changed while running: a timer that was never started
        // returns at once, and one that was must not outlive the pool it reads.
        mPackaging->StopCallbackTimer();
        FreeRunBuffers();
    }
    mRunningStatus = 0;
    return ERR_SUCCESS;
}

DVS_ERROR DVSDevice::StartSaving(const char* path) {
    if (mRunningStatus == 0) {
        return ERR_NOT_START;
    }
    if (mDataSave) {
        return ERR_ALREADY_DONE;
    }
    if (static_cast<uint32_t>(mWorkMode) >= 2) {
        return ERR_NOT_SUPPORT;
    }
    mSavePacketBuffer =
        std::make_unique<PacketBuffer>(static_cast<int>(mPacketCount), mStream->GetReadSize());
    mSavePacketBuffer->EnableDropData(false);
    const DVS_ERROR rc = mStream->SetSavingPacketBuffer(mSavePacketBuffer.get());
    if (rc != ERR_SUCCESS) {
        mSavePacketBuffer.reset();
        return rc;
    }
    mDataSave = std::make_unique<DataSave>();
    mDataSave->SetVersion(mVersion);
    mSavePacketBuffer->SetSaveStatus(true);
    mDataSave->SetPacketBuffer(mSavePacketBuffer.get());
    // A failed start keeps the recorder, so the next StartSaving answers 4 until StopSaving.
    return mDataSave->StartSave(path);
}

DVS_ERROR DVSDevice::StopSaving() {
    if (!mDataSave) {
        return ERR_ALREADY_DONE;
    }
    mSavePacketBuffer->SetSaveStatus(false);
    mDataSave->StopSave();
    mDataSave.reset();
    mStream->SetSavingPacketBuffer(nullptr);
    mSavePacketBuffer.reset();
    return ERR_SUCCESS;
}

DVS_ERROR DVSDevice::SetSavingNoneSpaceCbk(NoSpaceCallback callback, void* user) {
    if (!mDataSave) {
        return ERR_DATASAVE_NOT_READY;
    }
    return mDataSave->SetNoSpaceCbk(callback, user);
}

DVS_ERROR DVSDevice::StartFrameSaving(const char* path, int mode) {
    if (mRunningStatus == 0 || !mUIDataBuffer) {
        return ERR_NOT_START;
    }
    if (mMatSave) {
        return ERR_ALREADY_DONE;
    }
    if (path == nullptr || path[0] == '\0') {
        return ERR_PARA_ERROR;
    }
    mMatSave = std::make_unique<MatSave>();
    mMatSave->SetVersion(mVersion);
    mMatSave->SetSaveMode(mode);
    const DVS_ERROR rc = mMatSave->StartSaving(path, mUIDataBuffer.get());
    if (rc != ERR_SUCCESS) {
        mMatSave.reset();
    }
    return rc;
}

DVS_ERROR DVSDevice::StopFrameSaving() {
    if (!mMatSave) {
        return ERR_ALREADY_DONE;
    }
    mMatSave->StopSaving();
    mMatSave.reset();
    return ERR_SUCCESS;
}

void DVSDevice::ResetTotalCount() {
    mParser->ResetTotalCount();
}

void DVSDevice::GetTotalCounts(unsigned long& events, unsigned long& frames) {
    mParser->GetTotalCounts(events, frames);
}

DVS_ERROR DVSDevice::ScanFX20Device(USBDevice** list, int& count) {
    if (list == nullptr) {
        return ERR_PARA_ERROR;
    }
    return FX20Stream::ScanDVSDevice(list, count);
}

DVS_ERROR DVSDevice::ScanAllDevices(USBDevice** list, int& count) {
    return UsbDeviceTable::ScanAllKinds(FX20Stream::Table(), FX3Stream::Table(), list, count);
}

}  // namespace evcam
