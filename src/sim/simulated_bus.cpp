#include "src/sim/simulated_bus.h"

#include <algorithm>
#include <utility>

#include "src/sim/scene_generator.h"
#include "src/sim/stream_source.h"

namespace evcam {

namespace {

constexpr int kMaxBus = 255;
constexpr int kMaxAddress = 127;
constexpr int kMaxPacket = 1024;
// Handles are tokens in a range no allocation of this process uses for real objects.
constexpr uintptr_t kFirstToken = 0x5100000;
constexpr uintptr_t kTokenStep = 16;

int SyncResult(libusb_transfer_status status) {
    switch (status) {
        case LIBUSB_TRANSFER_COMPLETED:
            return 0;
        case LIBUSB_TRANSFER_TIMED_OUT:
            return LIBUSB_ERROR_TIMEOUT;
        case LIBUSB_TRANSFER_STALL:
            return LIBUSB_ERROR_PIPE;
        case LIBUSB_TRANSFER_NO_DEVICE:
            return LIBUSB_ERROR_NO_DEVICE;
        case LIBUSB_TRANSFER_OVERFLOW:
            return LIBUSB_ERROR_OVERFLOW;
        default:
            return LIBUSB_ERROR_IO;
    }
}

SimCamera::TimePoint Deadline(SimCamera::TimePoint now, unsigned int timeoutMs) {
    return timeoutMs == 0 ? SimCamera::kNever : now + std::chrono::milliseconds(timeoutMs);
}

}  // namespace

SimulatedBus::SimulatedBus() : mNextToken(kFirstToken) {}

SimulatedBus::~SimulatedBus() = default;

SimCamera* SimulatedBus::CameraOfLocked(libusb_device_handle* handle) {
    if (handle == nullptr) {
        return nullptr;
    }
    for (const auto& list : mLists) {
        for (const Listed& device : list.second) {
            if (device.handle == handle) {
                return device.camera;
            }
        }
    }
    return nullptr;
}

int SimulatedBus::Open(uint16_t vid, uint16_t pid) {
    std::lock_guard<std::mutex> lock(mMutex);
    const TimePoint now = Now();
    const ListKey key(vid, pid);
    CloseLocked(key, now);
    std::vector<SimCamera*> found;
    for (const auto& entry : mCameras) {
        SimCamera& camera = *entry.second;
        if (camera.Present(now) && camera.VendorId() == vid && camera.ProductId() == pid) {
            found.push_back(&camera);
        }
    }
    std::sort(found.begin(), found.end(), [](const SimCamera* a, const SimCamera* b) {
        return std::make_pair(a->Bus(), a->Address()) < std::make_pair(b->Bus(), b->Address());
    });
    std::vector<Listed>& list = mLists[key];
    for (SimCamera* camera : found) {
        list.push_back({reinterpret_cast<libusb_device_handle*>(mNextToken), camera});
        mNextToken += kTokenStep;
    }
    return static_cast<int>(list.size());
}

libusb_device_handle* SimulatedBus::GetHandle(uint16_t vid, uint16_t pid, int index) {
    std::lock_guard<std::mutex> lock(mMutex);
    const auto it = mLists.find(ListKey(vid, pid));
    if (it == mLists.end() || index < 0 || index >= static_cast<int>(it->second.size())) {
        return nullptr;
    }
    return it->second[static_cast<size_t>(index)].handle;
}

void SimulatedBus::Close(uint16_t vid, uint16_t pid) {
    std::lock_guard<std::mutex> lock(mMutex);
    CloseLocked(ListKey(vid, pid), Now());
}

void SimulatedBus::CloseLocked(const ListKey& key, TimePoint now) {
    const auto it = mLists.find(key);
    if (it == mLists.end()) {
        return;
    }
    const std::vector<Listed>& list = it->second;
    const auto listed = [&list](libusb_device_handle* handle) {
        return std::any_of(list.begin(), list.end(),
                           [handle](const Listed& device) { return device.handle == handle; });
    };
    for (auto& entry : mTransfers) {
        Transfer& t = *entry.second;
        if (t.state == Transfer::State::kQueued && listed(t.handle)) {
            t.camera->AbortIn(t.request, LIBUSB_TRANSFER_NO_DEVICE, now);
        }
    }
    for (SyncRead* read : mSyncReads) {
        if (listed(read->handle)) {
            read->camera->AbortIn(read->request, LIBUSB_TRANSFER_NO_DEVICE, now);
        }
    }
    mLists.erase(it);
    mChanged.notify_all();
}

int SimulatedBus::ControlTransfer(libusb_device_handle* handle, uint8_t bmRequestType,
                                  uint8_t bRequest, uint16_t wValue, uint16_t wIndex,
                                  unsigned char* data, uint16_t wLength, unsigned int) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* camera = CameraOfLocked(handle);
    if (camera == nullptr) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    if (data == nullptr && wLength > 0) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    return camera->Control(Now(), bmRequestType, bRequest, wValue, wIndex, data, wLength);
}

int SimulatedBus::BulkTransfer(libusb_device_handle* handle, uint8_t endpoint, unsigned char* data,
                               int length, int* transferred, unsigned int timeoutMs) {
    std::unique_lock<std::mutex> lock(mMutex);
    if (transferred != nullptr) {
        *transferred = 0;
    }
    SimCamera* camera = CameraOfLocked(handle);
    if (camera == nullptr) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    if (length < 0 || (data == nullptr && length > 0)) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    if (endpoint != SimCamera::kDataEndpoint) {
        return LIBUSB_ERROR_IO;
    }
    TimePoint now = Now();
    SyncRead read{{}, camera, handle};
    read.request.buffer = data;
    read.request.length = length;
    read.request.submitted = now;
    read.request.deadline = Deadline(now, timeoutMs);
    const int submitted = camera->SubmitIn(read.request, now);
    if (submitted != 0) {
        return submitted;
    }
    mSyncReads.push_back(&read);
    for (;;) {
        const TimePoint next = camera->Advance(now);
        if (read.request.done) {
            break;
        }
        if (next == SimCamera::kNever) {
            mChanged.wait(lock);
        } else {
            mChanged.wait_until(lock, next);
        }
        now = Now();
    }
    mSyncReads.erase(std::find(mSyncReads.begin(), mSyncReads.end(), &read));
    if (transferred != nullptr) {
        *transferred = read.request.moved;
    }
    return SyncResult(read.request.status);
}

int SimulatedBus::ClearHalt(libusb_device_handle* handle, uint8_t endpoint) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* camera = CameraOfLocked(handle);
    if (camera == nullptr) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    if (endpoint != SimCamera::kDataEndpoint) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    const int result = camera->ClearHalt(Now());
    mChanged.notify_all();
    return result;
}

int SimulatedBus::GetBusNumber(libusb_device_handle* handle) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* camera = CameraOfLocked(handle);
    return camera == nullptr ? LIBUSB_ERROR_NO_DEVICE : camera->Bus();
}

int SimulatedBus::GetDeviceAddress(libusb_device_handle* handle) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* camera = CameraOfLocked(handle);
    return camera == nullptr ? LIBUSB_ERROR_NO_DEVICE : camera->Address();
}

int SimulatedBus::GetMaxPacketSize(libusb_device_handle* handle, uint8_t endpoint) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* camera = CameraOfLocked(handle);
    if (camera == nullptr) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    return endpoint == SimCamera::kDataEndpoint ? camera->MaxPacketSize() : LIBUSB_ERROR_NOT_FOUND;
}

uint16_t SimulatedBus::GetVendor(libusb_device_handle* handle) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* camera = CameraOfLocked(handle);
    return camera == nullptr ? 0 : camera->VendorId();
}

uint16_t SimulatedBus::GetProduct(libusb_device_handle* handle) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* camera = CameraOfLocked(handle);
    return camera == nullptr ? 0 : camera->ProductId();
}

SimulatedBus::Transfer* SimulatedBus::FindTransferLocked(libusb_transfer* transfer) {
    const auto it = mTransfers.find(transfer);
    return it == mTransfers.end() ? nullptr : it->second.get();
}

libusb_transfer* SimulatedBus::AllocTransfer() {
    auto record = std::make_unique<Transfer>();
    libusb_transfer* transfer = &record->transfer;
    std::lock_guard<std::mutex> lock(mMutex);
    mTransfers.emplace(transfer, std::move(record));
    return transfer;
}

int SimulatedBus::SubmitTransfer(libusb_transfer* transfer) {
    std::lock_guard<std::mutex> lock(mMutex);
    Transfer* record = FindTransferLocked(transfer);
    if (record == nullptr) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    if (record->state != Transfer::State::kIdle) {
        return LIBUSB_ERROR_BUSY;
    }
    if (transfer->type != LIBUSB_TRANSFER_TYPE_BULK || transfer->length < 0 ||
        (transfer->buffer == nullptr && transfer->length > 0)) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    SimCamera* camera = CameraOfLocked(transfer->dev_handle);
    if (camera == nullptr) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    if (transfer->endpoint != SimCamera::kDataEndpoint) {
        return LIBUSB_ERROR_IO;
    }
    const TimePoint now = Now();
    record->request = SimCamera::InRequest();
    record->request.buffer = transfer->buffer;
    record->request.length = transfer->length;
    record->request.submitted = now;
    record->request.deadline = Deadline(now, transfer->timeout);
    const int result = camera->SubmitIn(record->request, now);
    if (result != 0) {
        return result;
    }
    record->state = Transfer::State::kQueued;
    record->camera = camera;
    record->handle = transfer->dev_handle;
    record->owner = std::this_thread::get_id();
    record->sequence = mNextSequence++;
    mChanged.notify_all();
    return 0;
}

int SimulatedBus::CancelTransfer(libusb_transfer* transfer) {
    std::lock_guard<std::mutex> lock(mMutex);
    Transfer* record = FindTransferLocked(transfer);
    if (record == nullptr || record->state != Transfer::State::kQueued) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    record->camera->AbortIn(record->request, LIBUSB_TRANSFER_CANCELLED, Now());
    mChanged.notify_all();
    return 0;
}

void SimulatedBus::FreeTransfer(libusb_transfer* transfer) {
    std::lock_guard<std::mutex> lock(mMutex);
    Transfer* record = FindTransferLocked(transfer);
    if (record == nullptr) {
        return;
    }
    if (record->inCallback) {
        record->freeAfterCallback = true;
        return;
    }
    if (record->state == Transfer::State::kQueued && !record->request.done) {
        // The camera must not keep a pointer into the freed record.
        record->camera->AbortIn(record->request, LIBUSB_TRANSFER_CANCELLED, Now());
    }
    mTransfers.erase(transfer);
    mChanged.notify_all();
}

SimulatedBus::Transfer* SimulatedBus::NextDueLocked(std::thread::id self, TimePoint now,
                                                    bool& anyQueued, TimePoint& next) {
    anyQueued = false;
    next = SimCamera::kNever;
    std::vector<SimCamera*> advanced;
    Transfer* due = nullptr;
    for (auto& entry : mTransfers) {
        Transfer& t = *entry.second;
        if (t.state != Transfer::State::kQueued || t.owner != self) {
            continue;
        }
        anyQueued = true;
        if (std::find(advanced.begin(), advanced.end(), t.camera) == advanced.end()) {
            next = std::min(next, t.camera->Advance(now));
            advanced.push_back(t.camera);
        }
        if (t.request.done &&
            (due == nullptr || std::make_pair(t.request.doneAt, t.sequence) <
                                   std::make_pair(due->request.doneAt, due->sequence))) {
            due = &t;
        }
    }
    return due;
}

int SimulatedBus::HandleEventsTimeoutCompleted(timeval* timeout, int* completed) {
    if (timeout == nullptr) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(mMutex);
    TimePoint now = Now();
    const TimePoint until =
        now + std::chrono::seconds(timeout->tv_sec) + std::chrono::microseconds(timeout->tv_usec);
    bool ranCallback = false;
    for (;;) {
        if (completed != nullptr && *completed != 0) {
            return 0;
        }
        bool anyQueued = false;
        TimePoint next;
        Transfer* due = NextDueLocked(self, now, anyQueued, next);
        if (due == nullptr) {
            if (ranCallback) {
                return 0;
            }
            if (!anyQueued) {
                return LIBUSB_ERROR_NO_DEVICE;
            }
            if (now >= until) {
                return 0;
            }
            mChanged.wait_until(lock, std::min(next, until));
            now = Now();
            continue;
        }
        libusb_transfer* transfer = &due->transfer;
        due->state = Transfer::State::kIdle;
        due->camera = nullptr;
        transfer->status = due->request.status;
        transfer->actual_length = due->request.moved;
        due->inCallback = true;
        lock.unlock();
        if (transfer->callback != nullptr) {
            transfer->callback(transfer);
        }
        lock.lock();
        due->inCallback = false;
        if (due->freeAfterCallback) {
            mTransfers.erase(transfer);
        }
        ranCallback = true;
        now = Now();
    }
}

SimCamera* SimulatedBus::FindLocked(int camera) {
    const auto it = mCameras.find(camera);
    return it == mCameras.end() ? nullptr : it->second.get();
}

bool SimulatedBus::AddressTakenLocked(int bus, int address,
                                      const std::vector<std::unique_ptr<SimCamera>>& pending) {
    const TimePoint now = Now();
    for (const auto& entry : mCameras) {
        const SimCamera& camera = *entry.second;
        if (camera.Present(now) && camera.Bus() == bus && camera.Address() == address) {
            return true;
        }
    }
    for (const auto& camera : pending) {
        if (camera->Bus() == bus && camera->Address() == address) {
            return true;
        }
    }
    return false;
}

std::unique_ptr<SimCamera> SimulatedBus::PrepareLocked(
    const sim::CameraConfig& config, const std::vector<std::unique_ptr<SimCamera>>& pending,
    std::map<int, int>& nextAddress, PlugError& error) {
    const auto fail = [&error](const char* key, const std::string& value, std::string reason) {
        error = PlugError{key, value, std::move(reason)};
        return nullptr;
    };
    if (config.kind != sim::Kind::kFX20 && config.kind != sim::Kind::kFX3) {
        return fail("kind", std::to_string(static_cast<int>(config.kind)), "fx20 or fx3");
    }
    if (config.bus < 1 || config.bus > kMaxBus) {
        return fail("bus", std::to_string(config.bus), "1..255");
    }
    if (config.address < 0 || config.address > kMaxAddress) {
        return fail("addr", std::to_string(config.address), "1..127, or 0 for the next free");
    }
    if (config.maxPacketSize != sim::kZeroPacketSize &&
        (config.maxPacketSize < 0 || config.maxPacketSize > kMaxPacket)) {
        return fail("pkt", std::to_string(config.maxPacketSize), "1..1024");
    }
    if (config.byteRate > sim::kMaxByteRate) {
        return fail("rate", std::to_string(config.byteRate), "at most 10000000000");
    }
    if (config.unplugAfterMs < -1) {
        return fail("unplug_ms", std::to_string(config.unplugAfterMs), "0 or more, -1 for never");
    }
    std::unique_ptr<StreamSource> source;
    if (!config.file.empty()) {
        std::string why;
        source = FileSource::Open(config.file, why);
        if (source == nullptr) {
            return fail("file", config.file, why);
        }
    } else {
        SceneKind scene;
        if (ParseSceneKind(config.scene.c_str(), scene) != ERR_SUCCESS) {
            return fail("scene", config.scene, "bar, disc, noise or still");
        }
        source = std::make_unique<SceneSource>(scene, config.stereo);
    }
    sim::CameraConfig resolved = config;
    if (resolved.address == 0) {
        // Like a hub, hand out addresses in turn rather than reuse a freed one at once.
        int& start = nextAddress.emplace(config.bus, 1).first->second;
        for (int i = 0; i < kMaxAddress && resolved.address == 0; ++i) {
            const int candidate = (start - 1 + i) % kMaxAddress + 1;
            if (!AddressTakenLocked(config.bus, candidate, pending)) {
                resolved.address = candidate;
                start = candidate % kMaxAddress + 1;
            }
        }
        if (resolved.address == 0) {
            return fail("addr", "0", "no free address on bus " + std::to_string(config.bus));
        }
    } else if (AddressTakenLocked(config.bus, config.address, pending)) {
        return fail("addr", std::to_string(config.address),
                    "address taken on bus " + std::to_string(config.bus));
    }
    return std::make_unique<SimCamera>(resolved, std::move(source));
}

int SimulatedBus::Plug(const sim::CameraConfig& config, PlugError& error) {
    std::lock_guard<std::mutex> lock(mMutex);
    std::map<int, int> nextAddress = mNextAddress;
    std::unique_ptr<SimCamera> camera = PrepareLocked(config, {}, nextAddress, error);
    if (camera == nullptr) {
        return -1;
    }
    mNextAddress = nextAddress;
    const int id = mNextCameraId++;
    mCameras.emplace(id, std::move(camera));
    return id;
}

bool SimulatedBus::PlugAll(const std::vector<sim::CameraConfig>& configs, size_t& failed,
                           PlugError& error) {
    std::lock_guard<std::mutex> lock(mMutex);
    std::map<int, int> nextAddress = mNextAddress;
    std::vector<std::unique_ptr<SimCamera>> pending;
    for (size_t i = 0; i < configs.size(); ++i) {
        std::unique_ptr<SimCamera> camera = PrepareLocked(configs[i], pending, nextAddress, error);
        if (camera == nullptr) {
            failed = i;
            return false;
        }
        pending.push_back(std::move(camera));
    }
    mNextAddress = nextAddress;
    for (auto& camera : pending) {
        mCameras.emplace(mNextCameraId++, std::move(camera));
    }
    return true;
}

DVS_ERROR SimulatedBus::Unplug(int camera) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* found = FindLocked(camera);
    if (found == nullptr) {
        return ERR_PARA_ERROR;
    }
    if (!found->Unplug(Now())) {
        return ERR_ALREADY_DONE;
    }
    mChanged.notify_all();
    return ERR_SUCCESS;
}

void SimulatedBus::UnplugAll() {
    std::lock_guard<std::mutex> lock(mMutex);
    const TimePoint now = Now();
    for (auto& entry : mCameras) {
        entry.second->Unplug(now);
    }
    mChanged.notify_all();
}

DVS_ERROR SimulatedBus::ReadRegister(int camera, int slave, int reg, int& value) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* found = FindLocked(camera);
    if (found == nullptr) {
        return ERR_PARA_ERROR;
    }
    value = found->ReadRegister(slave, reg);
    return ERR_SUCCESS;
}

DVS_ERROR SimulatedBus::WriteRegister(int camera, int slave, int reg, int value) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* found = FindLocked(camera);
    if (found == nullptr || value < 0 || value > 0xFFFF) {
        return ERR_PARA_ERROR;
    }
    found->WriteRegister(slave, reg, value);
    return ERR_SUCCESS;
}

std::vector<sim::ControlRequest> SimulatedBus::ControlLog(int camera) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* found = FindLocked(camera);
    return found == nullptr ? std::vector<sim::ControlRequest>() : found->ControlLog();
}

void SimulatedBus::ClearControlLog(int camera) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* found = FindLocked(camera);
    if (found != nullptr) {
        found->ClearControlLog();
    }
}

DVS_ERROR SimulatedBus::InjectFault(int camera, sim::Fault fault, int count) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* found = FindLocked(camera);
    if (found == nullptr || (count < 1 && fault != sim::Fault::kStall)) {
        return ERR_PARA_ERROR;
    }
    found->InjectFault(fault, count, Now());
    mChanged.notify_all();
    return ERR_SUCCESS;
}

DVS_ERROR SimulatedBus::StartCapture(int camera) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* found = FindLocked(camera);
    if (found == nullptr) {
        return ERR_PARA_ERROR;
    }
    found->StartCapture();
    return ERR_SUCCESS;
}

DVS_ERROR SimulatedBus::TakeCapture(int camera, std::vector<uint8_t>& bytes) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* found = FindLocked(camera);
    if (found == nullptr) {
        bytes.clear();
        return ERR_PARA_ERROR;
    }
    // Count what reached the host by now, though no reader has looked yet.
    found->Advance(Now());
    mChanged.notify_all();
    return found->TakeCapture(bytes) ? ERR_SUCCESS : ERR_NOT_START;
}

uint64_t SimulatedBus::BytesSent(int camera) {
    std::lock_guard<std::mutex> lock(mMutex);
    SimCamera* found = FindLocked(camera);
    if (found == nullptr) {
        return 0;
    }
    found->Advance(Now());
    mChanged.notify_all();
    return found->BytesSent();
}

}  // namespace evcam
