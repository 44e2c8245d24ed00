#include "src/camera/dvs_device.h"

namespace evcam {

DVSDevice::DVSDevice(DVS_TYPE type) : mType(type) {}

DVSDevice::~DVSDevice() = default;

DVS_ERROR DVSDevice::SetParameter(PARA_TYPE, void*) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVSDevice::GetParameter(PARA_TYPE, void*) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVSDevice::Start() {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVSDevice::Stop() {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVSDevice::GetFrame(OUT_TYPE, DVSUIData*, unsigned char&) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVSDevice::DropFrame() {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVSDevice::SetCallBack(CALLBACK_TYPE, void*, void*) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVSDevice::ReadI2CReg(int, int, int&) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVSDevice::WriteI2CReg(int, int, int) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVSDevice::StartSaving(const char*) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVSDevice::SetSavingNoneSpaceCbk(NoSpaceCallback, void*) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVSDevice::StopSaving() {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVSDevice::StartFrameSaving(const char*, int) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVSDevice::StopFrameSaving() {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVSDevice::BindDevice(int) {
    return ERR_NOT_SUPPORT;
}

DVS_ERROR DVSDevice::ScanFX20Device(USBDevice** list, int&) {
    return list == nullptr ? ERR_PARA_ERROR : ERR_NOT_SUPPORT;
}

DVS_ERROR DVSDevice::ScanAllDevices(USBDevice** list, int&) {
    return list == nullptr ? ERR_PARA_ERROR : ERR_NOT_SUPPORT;
}

}  // namespace evcam
