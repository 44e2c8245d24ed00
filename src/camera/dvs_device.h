// The DVS object of a live camera.
#ifndef EVCAM_SRC_CAMERA_DVS_DEVICE_H
#define EVCAM_SRC_CAMERA_DVS_DEVICE_H

#include <cstdint>
#include <memory>

#include "evcam/usb_device.h"
#include "src/camera/dvs_pipeline.h"

namespace evcam {

class DataSave;
class DeviceStream;

/// Live camera behind an FX20 or FX3 controller. Owns its USB source for life, and through
/// DVSPipeline the parser, the packager and the pools of each run (Start to Stop); builds the
/// recorder's pool and recorder while raw recording runs and a frame exporter while frame
/// export runs. One caller thread at a time; callbacks arrive on the library's threads (rate
/// and drop notices on the read thread, frames and frame rates on the packager's timer, raw
/// fps and totals on the parse thread).
///
/// Unlike playback, a live camera does not wait for a slow consumer: when the caller leaves
/// frames untaken, the packager skips events until a frame node is free, and when the parse
/// thread falls behind, the packet pool drops whole transfers (reported through
/// CALLBACK_PKT_BUF_DROP). Raw recording has its own pool, never trimmed: only a disk slower
/// than the camera makes the read thread skip transfers.
class DVSDevice : public DVSPipeline {
  public:
    /// type selects the transport: DVS_FX20 the asynchronous FX20, DVS_FX3 the FX3.
    explicit DVSDevice(DVS_TYPE type);
    /// Stops a run still going, then destroys source, parser, packager, recorder, exporter.
    ~DVSDevice() override;

    DVS_ERROR SetParameter(PARA_TYPE type, void* value) override;
    DVS_ERROR GetParameter(PARA_TYPE type, void* value) override;
    DVS_ERROR Start() override;
    DVS_ERROR Stop() override;
    /// @return 2 outside a run or in work mode 0 (no output pool); else the packager's answer.
    DVS_ERROR DropFrame() override;
    DVS_ERROR SetCallBack(CALLBACK_TYPE type, void* function, void* user) override;
    DVS_ERROR ReadI2CReg(int slaveAddr, int regAddr, int& value) override;
    DVS_ERROR WriteI2CReg(int slaveAddr, int regAddr, int value) override;
    DVS_ERROR StartSaving(const char* path) override;
    DVS_ERROR SetSavingNoneSpaceCbk(NoSpaceCallback callback, void* user) override;
    DVS_ERROR StopSaving() override;
    DVS_ERROR StartFrameSaving(const char* path, int mode) override;

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

    std::unique_ptr<DeviceStream> mStream;
    std::unique_ptr<DataSave> mDataSave;
    int32_t mDeviceIndex = -1;                        ///< -1: unbound
    std::unique_ptr<PacketBuffer> mSavePacketBuffer;  ///< while recording
    int32_t mWorkMode = 1;                            ///< 0 raw only, 1 process
};

}  // namespace evcam

#endif  // EVCAM_SRC_CAMERA_DVS_DEVICE_H
