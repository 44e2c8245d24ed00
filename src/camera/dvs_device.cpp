#include "src/camera/dvs_device.h"

#include "src/camera/parameter_check.h"
#include "src/data/packet_buffer.h"
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
constexpr uint32_t kMaxPacketCount = 512;
constexpr uint32_t kMaxTimeoutMs = 10000;
constexpr uint32_t kStereoBit = 16;

std::unique_ptr<DeviceStream> MakeStream(DVS_TYPE type) {
    if (type == DVS_FX3) {
        return std::make_unique<FX3Stream>();
    }
    return std::make_unique<FX20Stream>();
}
}  // namespace

DVSDevice::DVSDevice(DVS_TYPE type)
    : DVSPipeline({
          OUT_IMAGE,         // output type
          kRuleFrameEnds,    // frame rule of a fresh object; a reset one ends frames by period
          kMaxPacketCount,   // packet count
          ERR_NO_BIAS_FILE,  // resolution before the bias file gave the version
          true,              // skip period follows the frame rule
          false,             // the exporter is told neither frame rate nor size
          false,             // the callback timer runs at 10 ms under the count rules
      }),
      mStream(MakeStream(type)) {}

DVSDevice::~DVSDevice() {
    if (mRunningStatus != kStopped) {
        Stop();
    }
    mStream.reset();
    mParser.reset();
    mPackaging.reset();
    mDataSave.reset();
    mMatSave.reset();
}

void DVSDevice::Reset() {
    if (mRunningStatus != kStopped || mDeviceIndex < 0) {
        return;
    }
    RestoreDefaults();
    mPacketCount = 64;
    mWorkMode = 1;
    mParser->Reset();
    mStream->Reset();
    mPackaging->Reset();
}

DVS_ERROR DVSDevice::SetParameter(PARA_TYPE type, void* value) {
    if (value == nullptr) {
        return ERR_PARA_ERROR;
    }
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
            if ((rc = SetPipelineParameter(type, value)) != ERR_SUCCESS) {
                return rc;
            }
            return mStream->SetPPX(mPPX);
        case PARA_TIMEOUT:
            if ((rc = CheckU32(value, false, 1, kMaxTimeoutMs, v)) == ERR_SUCCESS) {
                mStream->SetTimeout(static_cast<int>(v));
            }
            return rc;
        case PARA_WORK_MODE: {
            if (mRunningStatus != kStopped) {
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
        default:
            return SetPipelineParameter(type, value);
    }
}

DVS_ERROR DVSDevice::GetParameter(PARA_TYPE type, void* value) {
    if (value == nullptr) {
        return ERR_PARA_ERROR;
    }
    uint32_t* u = static_cast<uint32_t*>(value);
    switch (type) {
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
        default:
            return GetPipelineParameter(type, value);
    }
}

DVS_ERROR DVSDevice::SetCallBack(CALLBACK_TYPE type, void* function, void* user) {
    if (function != nullptr && type == CALLBACK_USB_DATA_RATE) {
        return mStream->SetUsbDataRateCbk(reinterpret_cast<UsbDataRateCallback>(function), user);
    }
    if (function != nullptr && type == CALLBACK_PKT_BUF_DROP) {
        return mStream->SetPktBufDropCbk(reinterpret_cast<PacketDropCallback>(function), user);
    }
    // The end-of-file notice belongs to playback: refused here as unknown.
    return SetPipelineCallBack(type, function, user);
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

DVS_ERROR DVSDevice::Start() {
    if (mDeviceIndex < 0 || mDeviceIndex > 2) {
        return ERR_INVALID_DEVICE;
    }
    if (mVersion == SELECT_VERSION) {
        return ERR_NO_BIAS_FILE;
    }
    if (mRunningStatus != kStopped) {
        return ERR_ALREADY_DONE;
    }
    SizeParser();
    if (mWorkMode != 0) {
        BuildRun(mStream->GetReadSize(), kDeviceOutputNodes, true);
        mStream->SetPacketBuffer(mPacketBuffer.get());
    }
    DVS_ERROR rc = mStream->Start();
    if (rc != ERR_SUCCESS) {
        // Nothing runs yet: a refused start leaves no pool behind.
        EndRun(*mStream);
        return rc;
    }
    if (mWorkMode != 0) {
        rc = mParser->Start();
        if (rc != ERR_SUCCESS) {
            mStream->SetPacketBuffer(nullptr);
            mStream->Stop();
            EndRun(*mStream);
            return rc;
        }
        StartDelivery();
    }
    mRunningStatus = kRunning;
    return ERR_SUCCESS;
}

DVS_ERROR DVSDevice::Stop() {
    if (mRunningStatus == kStopped) {
        return ERR_ALREADY_DONE;
    }
    StopSaving();
    StopFrameSaving();
    mStream->SetPacketBuffer(nullptr);
    DVS_ERROR rc = mStream->Stop();
    if (rc != ERR_SUCCESS) {
        return rc;
    }
    if (mWorkMode != 0) {
        rc = EndRun(*mStream);
        if (rc != ERR_SUCCESS) {
            return rc;
        }
    }
    mRunningStatus = kStopped;
    return ERR_SUCCESS;
}

DVS_ERROR DVSDevice::StartSaving(const char* path) {
    if (mRunningStatus == kStopped) {
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
    if (mRunningStatus == kStopped || !mUIDataBuffer) {
        return ERR_NOT_START;
    }
    if (mMatSave) {
        return ERR_ALREADY_DONE;
    }
    if (path == nullptr || path[0] == '\0') {
        return ERR_PARA_ERROR;
    }
    return StartExporter(path, mode, false);
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
