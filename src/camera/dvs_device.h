// The DVS object of a live camera.
#ifndef EVCAM_SRC_CAMERA_DVS_DEVICE_H
#define EVCAM_SRC_CAMERA_DVS_DEVICE_H

#include <cstdint>
#include <memory>

#include "evcam/dvs.h"
#include "evcam/usb_device.h"

namespace evcam {

class DataSave;
class DeviceStream;
class MatSave;
class PacketBuffer;
class PacketParser;
class Packaging;
class UIDataBuffer;

/// Live camera behind an FX20 or FX3 controller. Owns its USB source, parser and packager for
/// life; builds the pools per run (Start to Stop), the recorder's pool and recorder while raw
/// recording runs and a frame exporter while frame export runs. One caller thread at a time;
/// callbacks arrive on the library's threads (rate and drop notices on the read thread, frames
/// and frame rates on the packager's timer, raw fps and totals on the parse thread).
///
/// Unlike playback, a live camera does not wait for a slow consumer: when the caller leaves
/// frames untaken, the output pool overwrites the oldest and the packet pool drops whole
/// transfers (reported through CALLBACK_PKT_BUF_DROP). Raw recording never drops.
class DVSDevice : public DVS {
  public:
    /// type selects the transport: DVS_FX20 the asynchronous FX20, DVS_FX3 the FX3.
    explicit DVSDevice(DVS_TYPE type);
    /// Stops a run still going, then destroys source, parser, packager, recorder, exporter.
    ~DVSDevice() override;

    DVS_ERROR SetParameter(PARA_TYPE type, void* value) override;
    DVS_ERROR GetParameter(PARA_TYPE type, void* value) override;
    DVS_ERROR Start() override;
    DVS_ERROR Stop() override;
    DVS_ERROR GetFrame(OUT_TYPE type, DVSUIData* data, unsigned char& count) override;
    DVS_ERROR DropFrame() override;
    DVS_ERROR SetCallBack(CALLBACK_TYPE type, void* function, void* user) override;
    DVS_ERROR ReadI2CReg(int slaveAddr, int regAddr, int& value) override;
    DVS_ERROR WriteI2CReg(int slaveAddr, int regAddr, int value) override;
    DVS_ERROR StartSaving(const char* path) override;
    DVS_ERROR SetSavingNoneSpaceCbk(NoSpaceCallback callback, void* user) override;
    DVS_ERROR StopSaving() override;
    DVS_ERROR StartFrameSaving(const char* path, int mode) override;
    DVS_ERROR StopFrameSaving() override;
    void ResetTotalCount() override;
    void GetTotalCounts(unsigned long& events, unsigned long& frames) override;

    /// Binds the object to the camera with device id index (checked 0..1 by the manager). A
    /// re-bind of a stopped object restores the defaults, so the bias file must be loaded again.
    /// @return 0, or the transport's SetDVSID code (nothing changes then). Blocks on USB.
    DVS_ERROR BindDevice(int index);

    /// Scans for FX20 cameras. @return 1 for a null list; else the transport's scan result.
    static DVS_ERROR ScanFX20Device(USBDevice** list, int& count);
    /// Scans both kinds into one shared list of at most two cameras, FX20 first.
    /// @return 0; 1 for a null list; 103 when a kind lists more than two cameras.
    static DVS_ERROR ScanAllDevices(USBDevice** list, int& count);

  private:
    /// Restores the defaults (not the frame mode and callbacks) and resets the components;
    /// skipped while running or unbound.
    void Reset();
    /// Width and height of the run: the resolution set, else the version's native size.
    void RunSize(int32_t& width, int32_t& height) const;
    /// Frees the processing pools of a run (the stream no longer fills them).
    void FreeRunBuffers();

    std::unique_ptr<DeviceStream> mStream;
    std::unique_ptr<PacketParser> mParser;
    std::unique_ptr<DataSave> mDataSave;
    std::unique_ptr<MatSave> mMatSave;
    int32_t mDeviceIndex = -1;
    std::unique_ptr<PacketBuffer> mPacketBuffer;
    std::unique_ptr<PacketBuffer> mSavePacketBuffer;
    std::unique_ptr<UIDataBuffer> mUIDataBuffer;
    std::unique_ptr<Packaging> mPackaging;
    void* mDataHandle = nullptr;
    uint32_t mOutputType = OUT_IMAGE;
    int32_t mWorkMode = 1;
    uint32_t mFramePeriod = 10;
    uint32_t mFrameMode = FRAME_MODE_POLLING;
    FrameCallback mFrameCallback = nullptr;
    void* mFrameCallbackUser = nullptr;
    uint8_t mRunningStatus = 0;
    DVS_VERSION mVersion = SELECT_VERSION;
    uint32_t mEventCount = 3000;
    uint32_t mFrameEndCount = 2;
    /// 0 period, 1 event count, 2 frame-end count. A fresh object ends frames by frame-end
    /// count, a reset one by period: the asymmetry is kept on purpose.
    uint32_t mFrameRule = 2;
    uint32_t mColorFormat = COLOR_RGB24;
    DVSCommonColors mColors = kDefaultColors;
    int32_t mWidth = 0;
    int32_t mHeight = 0;
    uint32_t mPPX = 2;
    uint32_t mPacketCount = 64;
};

}  // namespace evcam

#endif  // EVCAM_SRC_CAMERA_DVS_DEVICE_H
