#include "src/stream/fx3_stream.h"

namespace evcam {

FX3Stream::FX3Stream() : DeviceStream(false) {}

FX3Stream::~FX3Stream() {
    EndReadThread();
}

UsbDeviceTable& FX3Stream::Table() {
    // No asynchronous transfers: closing the list is all there is to release.
    static UsbDeviceTable table(kFX3ProductId, nullptr);
    return table;
}

DVS_ERROR FX3Stream::ScanDVSDevice(USBDevice** list, int& count) {
    return Table().ScanDVSDevice(list, count);
}

bool FX3Stream::GetDevDescriptor(unsigned int cyIndex, DevUSBItem& item, char* text) {
    return Table().GetDevDescriptor(cyIndex, item, text);
}

DVS_ERROR FX3Stream::GetCypressDevID(int devId, unsigned char& cyIndex) {
    return Table().GetCypressDevID(devId, cyIndex);
}

DVS_ERROR FX3Stream::SetDVSID(unsigned int devId) {
    return BindDevice(Table(), mRegLock, devId, mDevEntry);
}

DVS_ERROR FX3Stream::ReadI2CReg(int slvAddr, int addr, int& val) {
    return DevSendRegReq(REG_READ, slvAddr, addr, val);
}

DVS_ERROR FX3Stream::WriteI2CReg(int slvAddr, int addr, int val) {
    return DevSendRegReq(REG_WRITE, slvAddr, addr, val);
}

DVS_ERROR FX3Stream::DevSendRegReq(RegReqType type, int slvAddr, int addr, int& val) {
    UsbDeviceTable& table = Table();
    const DVS_ERROR checked = table.CheckRegisterAccess(mRegLock, mDVSID);
    if (checked != ERR_SUCCESS) {
        return checked;
    }
    const int width = I2cValueLen(slvAddr);
    if (static_cast<uint32_t>(type) > REG_WRITE || width < 1 || width > 2) {
        return ERR_PARA_ERROR;
    }
    if (mDevEntry == nullptr) {
        return ERR_INVALID_DEVICE;
    }
    const int idx = mDevEntry->mCyIndex;
    // Only the value travels in the data stage, most significant byte first.
    uint8_t data[2] = {0, 0};
    DataInfo info{0,
                  0,
                  static_cast<uint16_t>(slvAddr),
                  static_cast<uint16_t>(addr),
                  data,
                  static_cast<uint16_t>(width)};
    if (type == REG_READ) {
        info.bmRequestType = 0xC0;
        info.bRequest = 0xAB;
        const DVS_ERROR rc = table.ReadRegister(mRegLock, idx, info);
        if (rc != ERR_SUCCESS) {
            return rc;
        }
        val = width == 1 ? data[0] : (data[0] << 8 | data[1]);
        return ERR_SUCCESS;
    }
    info.bmRequestType = 0x40;
    info.bRequest = 0xBA;
    if (width == 1) {
        data[0] = static_cast<uint8_t>(val & 0xFF);
    } else {
        data[0] = static_cast<uint8_t>((val >> 8) & 0xFF);
        data[1] = static_cast<uint8_t>(val & 0xFF);
    }
    return table.WriteRegister(mRegLock, idx, info);
}

DVS_ERROR FX3Stream::DevReset() {
    mTimeout = static_cast<int>(kDefaultUsbTimeoutMs);
    return Table().ClearDataHalt(mDevEntry);
}

DVS_ERROR FX3Stream::SetStart() {
    const DVS_ERROR rc = UsbDeviceTable::SetInUse(mDevEntry, true);
    if (rc != ERR_SUCCESS) {
        return rc;
    }
    DevReset();
    return ERR_SUCCESS;
}

DVS_ERROR FX3Stream::SetStop() {
    return UsbDeviceTable::SetInUse(mDevEntry, false);
}

DVS_ERROR FX3Stream::ReadRawData(unsigned char* buf, unsigned int len, unsigned int* actual) {
    return Table().ReadData(mRegLock, mDevEntry, buf, len, actual, mTimeout);
}

}  // namespace evcam
