#include "evcam/dvs_manager.h"

#include <algorithm>
#include <iterator>

#include "src/camera/dvs_device.h"
#include "src/camera/dvs_file.h"

namespace evcam {

namespace {
constexpr int kFileSlot = 2;
}  // namespace

std::mutex DVSManager::mtx;
DVS* DVSManager::mObjArray[3] = {nullptr, nullptr, nullptr};
bool DVSManager::mIsOccupy[3] = {false, false, false};

DVS* DVSManager::CreateDVS(DVS_TYPE type) {
    if (type < DVS_FX20 || type > DVS_FILE) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(mtx);
    if (type == DVS_FILE) {
        if (mIsOccupy[kFileSlot]) {
            return nullptr;
        }
        mIsOccupy[kFileSlot] = true;
        mObjArray[kFileSlot] = new DVSFile();
        return mObjArray[kFileSlot];
    }
    for (int slot = 0; slot < kFileSlot; ++slot) {
        if (!mIsOccupy[slot]) {
            mIsOccupy[slot] = true;
            mObjArray[slot] = new DVSDevice(type);
            return mObjArray[slot];
        }
    }
    return nullptr;
}

void DVSManager::DeleteDVS(DVS* dvs) {
    if (dvs == nullptr) {
        return;
    }
    {
        // A pointer the manager did not make is ignored rather than called.
        std::lock_guard<std::mutex> lock(mtx);
        if (std::find(std::begin(mObjArray), std::end(mObjArray), dvs) == std::end(mObjArray)) {
            return;
        }
    }
    // Stop outside the lock so that a long stop does not block other objects' creation.
    dvs->Stop();
    std::lock_guard<std::mutex> lock(mtx);
    for (int slot = 0; slot <= kFileSlot; ++slot) {
        if (mObjArray[slot] == dvs) {
            delete dvs;
            mObjArray[slot] = nullptr;
            mIsOccupy[slot] = false;
            return;
        }
    }
}

DVS_ERROR DVSManager::BindDevice(DVS* dvs, int index) {
    auto* device = dynamic_cast<DVSDevice*>(dvs);
    if (device == nullptr) {
        return ERR_NOT_SUPPORT;
    }
    if (static_cast<unsigned int>(index) > 1) {
        return ERR_INVALID_DEVICE;
    }
    return device->BindDevice(index);
}

DVS_ERROR DVSManager::BindDevice(DVS* dvs, const char* path) {
    if (dynamic_cast<DVSFile*>(dvs) == nullptr) {
        return ERR_NOT_SUPPORT;
    }
    if (path == nullptr || path[0] == '\0') {
        return ERR_INVALID_FILE;
    }
    return dvs->SetParameter(PARA_FILE_PATH, const_cast<char*>(path));
}

DVS_ERROR DVSManager::UnbindDevice(DVS* dvs) {
    if (dynamic_cast<DVSFile*>(dvs) == nullptr) {
        return ERR_NOT_SUPPORT;
    }
    return dvs->UnbindDevice();
}

DVS_ERROR DVSManager::ScanFX20Device(USBDevice** list, int& count) {
    return DVSDevice::ScanFX20Device(list, count);
}

DVS_ERROR DVSManager::ScanAllDevices(USBDevice** list, int& count) {
    return DVSDevice::ScanAllDevices(list, count);
}

}  // namespace evcam
