// The DVS object of a live camera.
#ifndef EVCAM_SRC_CAMERA_DVS_DEVICE_H
#define EVCAM_SRC_CAMERA_DVS_DEVICE_H

#include "evcam/dvs.h"
#include "evcam/usb_device.h"

namespace evcam {

/// Live camera object. The USB transports it drives are not built yet: every operation that
/// needs them answers 10 "Non-support operation." rather than pretending to work.
class DVSDevice : public DVS {
  public:
    /// type selects the transport: DVS_FX20 or DVS_FX3.
    explicit DVSDevice(DVS_TYPE type);
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

    /// Binds the object to the camera with device id index (checked 0..1 by the manager).
    DVS_ERROR BindDevice(int index);

    static DVS_ERROR ScanFX20Device(USBDevice** list, int& count);
    static DVS_ERROR ScanAllDevices(USBDevice** list, int& count);

  private:
    DVS_TYPE mType;
};

}  // namespace evcam

#endif  // EVCAM_SRC_CAMERA_DVS_DEVICE_H
