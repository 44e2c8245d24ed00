#include "src/stream/usb_device_table.h"

#include <cstdio>
#include <cstring>
#include <mutex>

#include "src/platform/cyusb.h"

namespace evcam {

namespace {

constexpr int kRegisterReadAttempts = 3;
constexpr int kDescriptorSize = 100;

}  // namespace

UsbDeviceTable::UsbDeviceTable(uint16_t productId, TransferRelease release)
    : mProductId(productId), mRelease(release) {}

int UsbDeviceTable::DVSDeviceCount() {
    if (mDevOpen) {
        cyusb_close(kCameraVendorId, mProductId);
        mDevOpen = false;
    }
    const int n = cyusb_open(kCameraVendorId, mProductId);
    mDevOpen = n > 0;
    return n;
}

bool UsbDeviceTable::DVSOpen(int idx) {
    if (idx < 0 || idx >= kMaxCamerasPerKind) {
        return false;
    }
    if (!mDevOpen) {
        if (cyusb_open(kCameraVendorId, mProductId) <= 0) {
            return false;
        }
        mDevOpen = true;
    }
    return FetchHandle(idx) != nullptr;
}

void UsbDeviceTable::ReleaseTransfers(int idx) {
    if (mRelease != nullptr && idx >= 0 && idx < kDevTableSize) {
        mRelease(idx);
    }
}

void UsbDeviceTable::DVSClose(int idx) {
    ReleaseTransfers(idx);
    if (mDevOpen) {
        cyusb_close(kCameraVendorId, mProductId);
        mDevOpen = false;
        mHandle = nullptr;
    }
}

void UsbDeviceTable::DVSCloseAll() {
    for (int idx = 0; idx < kDevTableSize; ++idx) {
        ReleaseTransfers(idx);
    }
    // DVSClose with an index that has no transfers: only the list is closed.
    DVSClose(-1);
}

libusb_device_handle* UsbDeviceTable::FetchHandle(int idx) {
    libusb_device_handle* handle = cyusb_gethandle(kCameraVendorId, mProductId, idx);
    mHandle = handle;
    return handle;
}

DVS_ERROR UsbDeviceTable::DVSControlTransfer(int idx, DataInfo* info, unsigned int timeoutMs) {
    if (info == nullptr) {
        return ERR_PARA_ERROR;
    }
    libusb_device_handle* handle = FetchHandle(idx);
    if (handle == nullptr) {
        return ERR_PARA_ERROR;
    }
    const int moved =
        cyusb_control_transfer(handle, info->bmRequestType, info->bRequest, info->wValue,
                               info->wIndex, info->data, info->wLength, timeoutMs);
    if (moved == info->wLength) {
        return ERR_SUCCESS;
    }
    return (info->bmRequestType & 0x80) != 0 ? ERR_I2C_READ : ERR_I2C_WRITE;
}

DVS_ERROR UsbDeviceTable::DVSBulkTransfer(int idx, unsigned char* buf, unsigned int len,
                                          unsigned int* actual, int timeoutMs) {
    if (buf == nullptr || actual == nullptr || idx < 0 || timeoutMs < 0) {
        return ERR_PARA_ERROR;
    }
    libusb_device_handle* handle = FetchHandle(idx);
    if (handle == nullptr) {
        return ERR_PARA_ERROR;
    }
    int moved = 0;
    const int rc =
        cyusb_bulk_transfer(handle, kDataEndpoint, buf, static_cast<int>(len), &moved, timeoutMs);
    *actual = moved > 0 ? static_cast<unsigned int>(moved) : 0u;
    switch (rc) {
        case 0:
            return ERR_SUCCESS;
        case LIBUSB_ERROR_TIMEOUT:
            return ERR_TIMEOUT;
        case LIBUSB_ERROR_NO_DEVICE:
            return ERR_NO_DEVICE;
        case LIBUSB_ERROR_PIPE:
            // A halted endpoint fails every later read at once and so never times out into
            // DevReset: the halt is cleared here, on the handle the read used.
            cyusb_clear_halt(handle, kDataEndpoint);
            return ERR_TRANSFER;
        default:
            return ERR_TRANSFER;
    }
}

uint16_t UsbDeviceTable::DVSGetVendor(int idx) {
    if (idx < 0) {
        return 0;
    }
    libusb_device_handle* handle = FetchHandle(idx);
    return handle == nullptr ? 0 : static_cast<uint16_t>(cyusb_getvendor(handle));
}

uint16_t UsbDeviceTable::DVSGetProduct(int idx) {
    if (idx < 0) {
        return 0;
    }
    libusb_device_handle* handle = FetchHandle(idx);
    return handle == nullptr ? 0 : static_cast<uint16_t>(cyusb_getproduct(handle));
}

int UsbDeviceTable::DVSGetHubID(int idx) {
    libusb_device_handle* handle = FetchHandle(idx);
    return handle == nullptr ? -1 : cyusb_get_busnumber(handle);
}

int UsbDeviceTable::DVSGetPortID(int idx) {
    libusb_device_handle* handle = FetchHandle(idx);
    return handle == nullptr ? -1 : cyusb_get_devaddr(handle);
}

int UsbDeviceTable::DVSGetDeviceAddress(int idx) {
    if (idx < 0) {
        return 0;
    }
    libusb_device_handle* handle = FetchHandle(idx);
    return handle == nullptr ? 0 : cyusb_get_devaddr(handle);
}

int UsbDeviceTable::DVSGetPktSize(int idx, unsigned char ep) {
    if (idx < 0 || idx >= kMaxCamerasPerKind) {
        return 0;
    }
    libusb_device_handle* handle = FetchHandle(idx);
    return handle == nullptr ? 0 : cyusb_get_max_packet_size(handle, ep);
}

DVS_ERROR UsbDeviceTable::CheckRegisterAccess(RWLock& lock, uint32_t dvsId) {
    int count;
    {
        RwWriteGuard guard(lock);
        count = DVSDeviceCount();
    }
    // A failed open is as good as an empty bus: nothing can be addressed.
    if (count <= 0) {
        return ERR_NO_DEVICE;
    }
    return dvsId == 0xFFFFFFFFu ? ERR_INVALID_DEVICE : ERR_SUCCESS;
}

DVS_ERROR UsbDeviceTable::ReadRegister(RWLock& lock, int idx, const DataInfo& info) {
    RwReadGuard guard(lock);
    for (int attempt = 0; attempt < kRegisterReadAttempts; ++attempt) {
        DataInfo request = info;
        std::memset(request.data, 0, request.wLength);
        if (DVSControlTransfer(idx, &request, kDefaultUsbTimeoutMs) == ERR_SUCCESS) {
            return ERR_SUCCESS;
        }
    }
    return ERR_I2C_READ;
}

DVS_ERROR UsbDeviceTable::WriteRegister(RWLock& lock, int idx, const DataInfo& info) {
    RwWriteGuard guard(lock);
    DataInfo request = info;
    return DVSControlTransfer(idx, &request, kDefaultUsbTimeoutMs);
}

DVS_ERROR UsbDeviceTable::ReadData(RWLock& lock, const DevDBEntry* entry, unsigned char* buf,
                                   unsigned int len, unsigned int* actual, int timeoutMs) {
    if (buf == nullptr || actual == nullptr) {
        return ERR_PARA_ERROR;
    }
    if (entry == nullptr) {
        return ERR_INVALID_DEVICE;
    }
    RwReadGuard guard(lock);
    return DVSBulkTransfer(entry->mCyIndex, buf, len, actual, timeoutMs);
}

DVS_ERROR UsbDeviceTable::SetInUse(DevDBEntry* entry, bool inUse) {
    if (entry == nullptr) {
        return ERR_PARA_ERROR;
    }
    const uint8_t want = inUse ? 1 : 0;
    uint8_t was = 1 - want;
    // One exchange, so that two streams starting on one entry cannot both take it.
    if (!entry->mInUse.compare_exchange_strong(was, want)) {
        return ERR_ALREADY_DONE;
    }
    return ERR_SUCCESS;
}

DVS_ERROR UsbDeviceTable::ClearDataHalt(const DevDBEntry* entry) {
    if (entry == nullptr || entry->mCyIndex >= kMaxCamerasPerKind) {
        return ERR_PARA_ERROR;
    }
    cyusb_clear_halt(mHandle.load(), kDataEndpoint);
    return ERR_SUCCESS;
}

int UsbDeviceTable::FindPresent(uint32_t key) const {
    for (int j = 0; j < kMaxCamerasPerKind; ++j) {
        if (mDevDB[j].mPresent != 0 && mDevDB[j].mLocation == key) {
            return j;
        }
    }
    return -1;
}

DVS_ERROR UsbDeviceTable::ScanDVSDevice(USBDevice** list, int& count) {
    if (list == nullptr) {
        return ERR_PARA_ERROR;
    }
    count = 0;
    RwWriteGuard guard(mScanLock);
    const int n = DVSDeviceCount();
    *list = mRecords;
    if (n > kMaxCamerasPerKind) {
        return ERR_TOO_MANY_DEVICES;
    }
    if (n < 0) {
        return ERR_NO_DEVICE;
    }
    std::memset(mRecords, 0, sizeof(mRecords));
    USBDevice rec[kMaxCamerasPerKind] = {};
    DevUSBItem item[kMaxCamerasPerKind];
    bool seen[kMaxCamerasPerKind] = {};
    bool matched[kMaxCamerasPerKind] = {};

    DVSCloseAll();
    if (n == 0) {
        for (int j = 0; j < kMaxCamerasPerKind; ++j) {
            mDevDB[j].mPresent = 0;
        }
        return ERR_SUCCESS;
    }

    for (int i = 0; i < n; ++i) {
        if (!DVSOpen(i)) {
            continue;
        }
        if (DVSGetVendor(i) == kCameraVendorId && DVSGetProduct(i) == mProductId) {
            const int address = DVSGetPortID(i);
            const int bus = DVSGetHubID(i);
            if (address != -1 && bus != -1) {
                item[i] = {bus, address, true};
            }
        } else {
            DVSClose(i);
        }
    }

    // Cameras still at a known location keep their ids, whatever their list index now is.
    // The key is computed even for an item that could not be read, as it always was.
    uint32_t key[kMaxCamerasPerKind] = {};
    for (int i = 0; i < n; ++i) {
        key[i] = static_cast<uint32_t>(item[i].mHubId * 100 + item[i].mPortId);
        const int j = FindPresent(key[i]);
        if (j < 0) {
            continue;
        }
        seen[j] = true;
        mDevDB[j].mCyIndex = static_cast<uint8_t>(i);
        matched[i] = true;
        rec[i].mDevId = static_cast<uint32_t>(j);
        rec[i].mLocation = key[i];
        GetDevDescriptor(static_cast<unsigned int>(i), item[i], rec[i].mDescriptor);
    }
    for (int j = 0; j < kMaxCamerasPerKind; ++j) {
        if (!seen[j]) {
            mDevDB[j].mPresent = 0;
        }
    }
    // Newcomers take the first free entry.
    for (int i = 0; i < n; ++i) {
        if (matched[i] || !item[i].mValid) {
            continue;
        }
        int j = 0;
        while (j < kMaxCamerasPerKind && mDevDB[j].mPresent != 0) {
            ++j;
        }
        if (j == kMaxCamerasPerKind) {
            continue;
        }
        mDevDB[j].mLocation = key[i];
        mDevDB[j].mCyIndex = static_cast<uint8_t>(i);
        mDevDB[j].mPresent = 1;
        rec[i].mDevId = static_cast<uint32_t>(j);
        rec[i].mLocation = key[i];
        GetDevDescriptor(static_cast<unsigned int>(i), item[i], rec[i].mDescriptor);
    }
    for (int i = 0; i < n; ++i) {
        if (rec[i].mLocation != 0) {
            mRecords[count++] = rec[i];
        }
    }
    return ERR_SUCCESS;
}

bool UsbDeviceTable::GetDevDescriptor(unsigned int cyIndex, const DevUSBItem& item, char* text) {
    if (cyIndex >= kDevTableSize) {
        return false;
    }
    const int idx = static_cast<int>(cyIndex);
    const int address = DVSGetDeviceAddress(idx);
    if (address == 0) {
        return false;
    }
    const int packetSize = DVSGetPktSize(idx, kDataEndpoint);
    if (packetSize == 0) {
        return false;
    }
    std::snprintf(text, kDescriptorSize, "Hub - %d - Port - %d - 0x%X, %d Bytes", item.mHubId,
                  item.mPortId, static_cast<unsigned int>(address), packetSize);
    return true;
}

DVS_ERROR UsbDeviceTable::GetCypressDevID(int devId, unsigned char& cyIndex) {
    if (devId < 0 || devId >= kMaxCamerasPerKind) {
        return ERR_PARA_ERROR;
    }
    cyIndex = mDevDB[devId].mCyIndex;
    return ERR_SUCCESS;
}

DVS_ERROR UsbDeviceTable::ScanAllKinds(UsbDeviceTable& fx20, UsbDeviceTable& fx3, USBDevice** list,
                                       int& count) {
    static std::mutex mergeLock;
    static USBDevice merged[kDevTableSize];
    if (list == nullptr) {
        return ERR_PARA_ERROR;
    }
    std::lock_guard<std::mutex> guard(mergeLock);
    std::memset(merged, 0, sizeof(merged));
    *list = merged;
    count = 0;
    UsbDeviceTable* kinds[] = {&fx20, &fx3};
    for (uint32_t kind = 0; kind < 2; ++kind) {
        USBDevice* found = nullptr;
        int n = 0;
        const DVS_ERROR rc = kinds[kind]->ScanDVSDevice(&found, n);
        if (rc == ERR_TOO_MANY_DEVICES) {
            return rc;
        }
        if (rc != ERR_SUCCESS) {
            continue;
        }
        for (int i = 0; i < n && count < kMaxCamerasPerKind; ++i) {
            merged[count] = found[i];
            merged[count].mDevType = kind;
            ++count;
        }
    }
    return ERR_SUCCESS;
}

}  // namespace evcam
