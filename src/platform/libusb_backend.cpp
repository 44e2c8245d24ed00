#include "src/platform/libusb_backend.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <tuple>
#include <unordered_map>

namespace evcam {

namespace {

constexpr int kInterface = 0;
constexpr auto kReapLimit = std::chrono::seconds(2);
constexpr long kReapStepUs = 10000;

// Transfers queued through any LibusbBackend, with the callback their owner set: the backend
// puts its own in front, so it knows which transfers libusb still holds.
std::mutex gFlightMutex;
std::unordered_map<libusb_transfer*, libusb_transfer_cb_fn> gFlights;  // by gFlightMutex

}  // namespace

LibusbBackend::Use::Use(LibusbBackend& backend, libusb_device_handle* handle) : mBackend(backend) {
    if (handle == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> lock(backend.mMutex);
    for (auto& entry : backend.mLists) {
        for (Device* device : entry.second.listed) {
            if (device->handle == handle) {
                mDevice = device;
                ++device->users;
                return;
            }
        }
    }
}

LibusbBackend::Use::~Use() {
    if (mDevice == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> lock(mBackend.mMutex);
    --mDevice->users;
    mBackend.mIdle.notify_all();
}

LibusbBackend::~LibusbBackend() {
    std::lock_guard<std::mutex> change(mListChange);
    for (auto& entry : mLists) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            entry.second.listed.clear();
        }
        CloseParked(entry.first);
    }
    if (mInitResult == 0) {
        libusb_exit(nullptr);
    }
}

int LibusbBackend::EnsureInit() {
    std::call_once(mInitOnce, [this] { mInitResult = libusb_init(nullptr); });
    return mInitResult;
}

std::unique_ptr<LibusbBackend::Device> LibusbBackend::OpenDevice(libusb_device* dev, uint16_t vid,
                                                                 uint16_t pid) {
    libusb_device_handle* handle = nullptr;
    if (libusb_open(dev, &handle) != 0) {
        return nullptr;
    }
    const bool detach = libusb_kernel_driver_active(handle, kInterface) == 1;
    if ((detach && libusb_detach_kernel_driver(handle, kInterface) != 0) ||
        libusb_claim_interface(handle, kInterface) != 0) {
        if (detach) {
            libusb_attach_kernel_driver(handle, kInterface);
        }
        libusb_close(handle);
        return nullptr;
    }
    return std::unique_ptr<Device>(new Device{handle, dev, libusb_get_bus_number(dev),
                                              libusb_get_device_address(dev), vid, pid, detach});
}

int LibusbBackend::Open(uint16_t vid, uint16_t pid) {
    std::lock_guard<std::mutex> change(mListChange);
    const ListKey key(vid, pid);
    List* entry;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        entry = &mLists[key];
        entry->listed.clear();
    }
    const int init = EnsureInit();
    if (init != 0) {
        return init;
    }
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(nullptr, &list);
    if (count < 0) {
        return static_cast<int>(count);
    }
    std::vector<libusb_device*> matches;
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor descriptor;
        if (libusb_get_device_descriptor(list[i], &descriptor) == 0 && descriptor.idVendor == vid &&
            descriptor.idProduct == pid) {
            matches.push_back(list[i]);
        }
    }
    std::sort(matches.begin(), matches.end(), [](libusb_device* a, libusb_device* b) {
        return std::make_tuple(libusb_get_bus_number(a), libusb_get_device_address(a)) <
               std::make_tuple(libusb_get_bus_number(b), libusb_get_device_address(b));
    });
    // Devices are added and erased only under mListChange, which this thread holds.
    std::vector<Device*> listed;
    for (libusb_device* dev : matches) {
        Device* parked = nullptr;
        for (const auto& device : entry->devices) {
            if (device->device == dev) {
                parked = device.get();
            }
        }
        if (parked != nullptr) {
            listed.push_back(parked);
            continue;
        }
        std::unique_ptr<Device> opened = OpenDevice(dev, vid, pid);
        if (opened != nullptr) {
            listed.push_back(opened.get());
            std::lock_guard<std::mutex> lock(mMutex);
            entry->devices.push_back(std::move(opened));
        }
    }
    // The handles keep their own references to the devices.
    libusb_free_device_list(list, 1);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        entry->listed = listed;
    }
    CloseParked(key);
    return static_cast<int>(listed.size());
}

libusb_device_handle* LibusbBackend::GetHandle(uint16_t vid, uint16_t pid, int index) {
    std::lock_guard<std::mutex> lock(mMutex);
    const auto it = mLists.find(ListKey(vid, pid));
    if (it == mLists.end() || index < 0 || index >= static_cast<int>(it->second.listed.size())) {
        return nullptr;
    }
    return it->second.listed[static_cast<size_t>(index)]->handle;
}

void LibusbBackend::Close(uint16_t vid, uint16_t pid) {
    std::lock_guard<std::mutex> change(mListChange);
    std::lock_guard<std::mutex> lock(mMutex);
    const auto it = mLists.find(ListKey(vid, pid));
    if (it != mLists.end()) {
        it->second.listed.clear();
    }
}

void LibusbBackend::CloseParked(const ListKey& key) {
    std::unique_lock<std::mutex> lock(mMutex);
    List& list = mLists[key];
    std::vector<Device*> parked;
    for (const auto& device : list.devices) {
        if (std::find(list.listed.begin(), list.listed.end(), device.get()) == list.listed.end()) {
            parked.push_back(device.get());
        }
    }
    if (parked.empty()) {
        return;
    }
    // No new operation can start on a parked handle; wait for those under way.
    mIdle.wait(lock, [&parked] {
        return std::all_of(parked.begin(), parked.end(),
                           [](const Device* device) { return device->users == 0; });
    });
    std::vector<libusb_device_handle*> handles;
    for (const Device* device : parked) {
        handles.push_back(device->handle);
    }
    lock.unlock();
    ReapTransfers(handles.data(), handles.size(), nullptr);
    for (const Device* device : parked) {
        libusb_release_interface(device->handle, kInterface);
        if (device->driverDetached) {
            libusb_attach_kernel_driver(device->handle, kInterface);
        }
        libusb_close(device->handle);
    }
    lock.lock();
    list.devices.erase(std::remove_if(list.devices.begin(), list.devices.end(),
                                      [&parked](const std::unique_ptr<Device>& device) {
                                          return std::find(parked.begin(), parked.end(),
                                                           device.get()) != parked.end();
                                      }),
                       list.devices.end());
}

bool LibusbBackend::ReapTransfers(libusb_device_handle* const* handles, size_t count,
                                  libusb_transfer* only) {
    const auto limit = std::chrono::steady_clock::now() + kReapLimit;
    for (;;) {
        bool pending = false;
        {
            // Cancelling under the registry lock: a transfer cannot complete, and so cannot
            // be freed by its owner's callback, while it is being cancelled.
            std::lock_guard<std::mutex> flights(gFlightMutex);
            for (const auto& flight : gFlights) {
                libusb_transfer* transfer = flight.first;
                const bool match = only != nullptr
                                       ? transfer == only
                                       : std::find(handles, handles + count,
                                                   transfer->dev_handle) != handles + count;
                if (match) {
                    pending = true;
                    libusb_cancel_transfer(transfer);
                }
            }
        }
        if (!pending) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= limit) {
            return false;
        }
        timeval step{0, kReapStepUs};
        libusb_handle_events_timeout_completed(nullptr, &step, nullptr);
    }
}

void LIBUSB_CALL LibusbBackend::Completed(libusb_transfer* transfer) {
    libusb_transfer_cb_fn callback = nullptr;
    {
        std::lock_guard<std::mutex> flights(gFlightMutex);
        const auto it = gFlights.find(transfer);
        if (it != gFlights.end()) {
            callback = it->second;
            gFlights.erase(it);
        }
    }
    transfer->callback = callback;
    if (callback != nullptr) {
        callback(transfer);
    }
}

int LibusbBackend::ControlTransfer(libusb_device_handle* handle, uint8_t bmRequestType,
                                   uint8_t bRequest, uint16_t wValue, uint16_t wIndex,
                                   unsigned char* data, uint16_t wLength, unsigned int timeoutMs) {
    Use use(*this, handle);
    if (use.device() == nullptr) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    return libusb_control_transfer(handle, bmRequestType, bRequest, wValue, wIndex, data, wLength,
                                   timeoutMs);
}

int LibusbBackend::BulkTransfer(libusb_device_handle* handle, uint8_t endpoint, unsigned char* data,
                                int length, int* transferred, unsigned int timeoutMs) {
    if (transferred != nullptr) {
        *transferred = 0;
    }
    Use use(*this, handle);
    if (use.device() == nullptr) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    return libusb_bulk_transfer(handle, endpoint, data, length, transferred, timeoutMs);
}

int LibusbBackend::ClearHalt(libusb_device_handle* handle, uint8_t endpoint) {
    Use use(*this, handle);
    if (use.device() == nullptr) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    return libusb_clear_halt(handle, endpoint);
}

int LibusbBackend::GetBusNumber(libusb_device_handle* handle) {
    Use use(*this, handle);
    return use.device() == nullptr ? static_cast<int>(LIBUSB_ERROR_NO_DEVICE) : use.device()->bus;
}

int LibusbBackend::GetDeviceAddress(libusb_device_handle* handle) {
    Use use(*this, handle);
    return use.device() == nullptr ? static_cast<int>(LIBUSB_ERROR_NO_DEVICE)
                                   : use.device()->address;
}

int LibusbBackend::GetMaxPacketSize(libusb_device_handle* handle, uint8_t endpoint) {
    Use use(*this, handle);
    if (use.device() == nullptr) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    return libusb_get_max_packet_size(libusb_get_device(handle), endpoint);
}

uint16_t LibusbBackend::GetVendor(libusb_device_handle* handle) {
    Use use(*this, handle);
    return use.device() == nullptr ? 0 : use.device()->vendor;
}

uint16_t LibusbBackend::GetProduct(libusb_device_handle* handle) {
    Use use(*this, handle);
    return use.device() == nullptr ? 0 : use.device()->product;
}

libusb_transfer* LibusbBackend::AllocTransfer() {
    return EnsureInit() == 0 ? libusb_alloc_transfer(0) : nullptr;
}

int LibusbBackend::SubmitTransfer(libusb_transfer* transfer) {
    if (transfer == nullptr) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    Use use(*this, transfer->dev_handle);
    if (use.device() == nullptr) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    std::lock_guard<std::mutex> flights(gFlightMutex);
    if (gFlights.count(transfer) != 0) {
        return LIBUSB_ERROR_BUSY;
    }
    const libusb_transfer_cb_fn callback = transfer->callback;
    transfer->callback = &LibusbBackend::Completed;
    // Completed may run on another thread as soon as libusb has the transfer; it takes this
    // lock first, so it finds the entry made below.
    const int result = libusb_submit_transfer(transfer);
    if (result == 0) {
        gFlights.emplace(transfer, callback);
    } else {
        transfer->callback = callback;
    }
    return result;
}

int LibusbBackend::CancelTransfer(libusb_transfer* transfer) {
    std::lock_guard<std::mutex> flights(gFlightMutex);
    if (transfer == nullptr || gFlights.count(transfer) == 0) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    return libusb_cancel_transfer(transfer);
}

void LibusbBackend::FreeTransfer(libusb_transfer* transfer) {
    if (transfer == nullptr) {
        return;
    }
    bool queued;
    {
        std::lock_guard<std::mutex> flights(gFlightMutex);
        queued = gFlights.count(transfer) != 0;
    }
    if (queued && !ReapTransfers(nullptr, 0, transfer)) {
        return;
    }
    libusb_free_transfer(transfer);
}

int LibusbBackend::HandleEventsTimeoutCompleted(timeval* timeout, int* completed) {
    const int init = EnsureInit();
    if (init != 0) {
        return init;
    }
    return libusb_handle_events_timeout_completed(nullptr, timeout, completed);
}

}  // namespace evcam
