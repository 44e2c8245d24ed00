#include "src/sim/sim_camera.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

namespace evcam {

namespace {

constexpr uint8_t kVendorIn = 0xC0;
constexpr uint8_t kVendorOut = 0x40;
constexpr int kFX20DefaultPacket = 512;
constexpr int kFX3DefaultPacket = 1024;
constexpr int kFX20WriteLength = 4;
constexpr uint64_t kNsPerSecond = 1000000000ULL;

// Sensor data leaves the controller in whole 4-byte words.
uint64_t FloorWord(uint64_t n) {
    return n & ~uint64_t{3};
}
uint64_t CeilWord(uint64_t n) {
    return (n + 3) & ~uint64_t{3};
}

}  // namespace

SimCamera::SimCamera(const sim::CameraConfig& config, std::unique_ptr<StreamSource> source)
    : mConfig(config), mSource(std::move(source)) {}

uint16_t SimCamera::ProductId() const {
    return mConfig.kind == sim::Kind::kFX3 ? kFX3ProductId : kFX20ProductId;
}

int SimCamera::MaxPacketSize() const {
    if (mConfig.maxPacketSize == sim::kZeroPacketSize) {
        return 0;
    }
    if (mConfig.maxPacketSize > 0) {
        return mConfig.maxPacketSize;
    }
    return mConfig.kind == sim::Kind::kFX3 ? kFX3DefaultPacket : kFX20DefaultPacket;
}

bool SimCamera::Unplug(TimePoint now) {
    if (!Present(now)) {
        return false;
    }
    Advance(now);
    mUnplugAt = now;
    Advance(now);
    return true;
}

uint32_t SimCamera::RegisterKey(int slave, int reg) {
    return static_cast<uint32_t>(slave & 0xFF) << 16 | static_cast<uint32_t>(reg & 0xFFFF);
}

int SimCamera::ReadRegister(int slave, int reg) const {
    const auto it = mRegisters.find(RegisterKey(slave, reg));
    return it == mRegisters.end() ? 0 : it->second;
}

void SimCamera::WriteRegister(int slave, int reg, int value) {
    mRegisters[RegisterKey(slave, reg)] = static_cast<uint16_t>(value);
}

int SimCamera::Control(TimePoint now, uint8_t bmRequestType, uint8_t bRequest, uint16_t wValue,
                       uint16_t wIndex, uint8_t* data, uint16_t wLength) {
    if (!Present(now)) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    sim::ControlRequest entry{bmRequestType, bRequest, wValue, wIndex, wLength, {}, 0};
    const bool toDevice = (bmRequestType & LIBUSB_ENDPOINT_IN) == 0;
    if (toDevice && wLength > 0) {
        entry.data.assign(data, data + wLength);
    }
    if (mControlErrors > 0) {
        --mControlErrors;
        entry.result = LIBUSB_ERROR_IO;
    } else if (bRequest == kReadRequest) {
        entry.result = ReadRequest(bmRequestType, wValue, wIndex, data, wLength, entry);
    } else if (bRequest == kWriteRequest) {
        entry.result = WriteRequest(bmRequestType, wValue, wIndex, data, wLength);
    } else {
        entry.result = LIBUSB_ERROR_PIPE;
    }
    mLog.push_back(std::move(entry));
    return mLog.back().result;
}

int SimCamera::ReadRequest(uint8_t bmRequestType, uint16_t wValue, uint16_t wIndex, uint8_t* data,
                           uint16_t wLength, sim::ControlRequest& entry) {
    const bool lengthOk = wLength == 1 || (mConfig.kind == sim::Kind::kFX3 && wLength == 2);
    if (bmRequestType != kVendorIn || !lengthOk) {
        return LIBUSB_ERROR_PIPE;
    }
    const int value = ReadRegister(wValue, wIndex);
    if (wLength == 1) {
        data[0] = static_cast<uint8_t>(value);
    } else {
        data[0] = static_cast<uint8_t>(value >> 8);
        data[1] = static_cast<uint8_t>(value);
    }
    entry.data.assign(data, data + wLength);
    return wLength;
}

int SimCamera::WriteRequest(uint8_t bmRequestType, uint16_t wValue, uint16_t wIndex,
                            const uint8_t* data, uint16_t wLength) {
    if (bmRequestType != kVendorOut) {
        return LIBUSB_ERROR_PIPE;
    }
    if (mConfig.kind == sim::Kind::kFX20) {
        // The slave and a big-endian register address travel in the payload.
        if (wValue != 0 || wIndex != 0 || wLength != kFX20WriteLength) {
            return LIBUSB_ERROR_PIPE;
        }
        WriteRegister(data[0], data[1] << 8 | data[2], data[3]);
        return wLength;
    }
    if (wLength == 1) {
        WriteRegister(wValue, wIndex, data[0]);
    } else if (wLength == 2) {
        WriteRegister(wValue, wIndex, data[0] << 8 | data[1]);
    } else {
        return LIBUSB_ERROR_PIPE;
    }
    return wLength;
}

int SimCamera::SubmitIn(InRequest& request, TimePoint now) {
    if (!Present(now)) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    if (mSubmitErrors > 0) {
        --mSubmitErrors;
        return LIBUSB_ERROR_IO;
    }
    Advance(now);
    request.moved = 0;
    request.done = false;
    request.status = LIBUSB_TRANSFER_COMPLETED;
    if (mHalted) {
        Finish(request, LIBUSB_TRANSFER_STALL, now);
        return 0;
    }
    request.fate = InRequest::Fate::kNormal;
    request.target = request.length;
    if (mTransferErrors > 0) {
        --mTransferErrors;
        request.fate = InRequest::Fate::kError;
    } else if (mTimeouts > 0) {
        --mTimeouts;
        request.fate = InRequest::Fate::kTimeout;
    } else if (mShortTransfers > 0) {
        --mShortTransfers;
        request.target = static_cast<int>(FloorWord(static_cast<uint64_t>(request.length) / 2));
    }
    if (!mRunning) {
        mRunning = true;
        mRunStart = now;
        if (!mEverStarted && mConfig.unplugAfterMs >= 0) {
            mUnplugAt = now + std::chrono::milliseconds(mConfig.unplugAfterMs);
        }
        mEverStarted = true;
    }
    mQueue.push_back(&request);
    return 0;
}

void SimCamera::AbortIn(InRequest& request, libusb_transfer_status status, TimePoint now) {
    Advance(now);
    const auto it = std::find(mQueue.begin(), mQueue.end(), &request);
    if (it == mQueue.end()) {
        return;
    }
    if (it == mQueue.begin()) {
        // Everything up to now has been worked out, so the next read starts from here.
        mCursor = now;
    }
    mQueue.erase(it);
    Finish(request, status, now);
}

SimCamera::TimePoint SimCamera::Advance(TimePoint now) {
    // Nothing happens at or after the moment of an unplug.
    const TimePoint horizon = mUnplugAt <= now ? mUnplugAt - std::chrono::nanoseconds(1) : now;
    TimePoint next = kNever;
    while (!mQueue.empty()) {
        InRequest& head = *mQueue.front();
        if (Fill(head, horizon, next)) {
            mQueue.pop_front();
            mCursor = std::max(mCursor, head.doneAt);
            continue;
        }
        if (mUnplugAt <= now) {
            Finish(head, LIBUSB_TRANSFER_NO_DEVICE, mUnplugAt);
            mQueue.pop_front();
            mCursor = std::max(mCursor, mUnplugAt);
            next = kNever;
            continue;
        }
        break;
    }
    // Reads waiting behind the head time out where they stand.
    for (auto it = mQueue.size() > 1 ? mQueue.begin() + 1 : mQueue.end(); it != mQueue.end();) {
        if ((*it)->deadline <= horizon) {
            Finish(**it, LIBUSB_TRANSFER_TIMED_OUT, (*it)->deadline);
            it = mQueue.erase(it);
        } else {
            next = std::min(next, (*it)->deadline);
            ++it;
        }
    }
    if (mUnplugAt > now) {
        next = std::min(next, mUnplugAt);
    }
    return next;
}

bool SimCamera::Finish(InRequest& request, libusb_transfer_status status, TimePoint at) {
    request.done = true;
    request.status = status;
    request.doneAt = at;
    return true;
}

bool SimCamera::Fill(InRequest& request, TimePoint horizon, TimePoint& next) {
    TimePoint t = std::max(mCursor, request.submitted);
    if (request.deadline <= t) {
        return Finish(request, LIBUSB_TRANSFER_TIMED_OUT, request.deadline);
    }
    if (t > horizon) {
        next = t;
        return false;
    }
    if (request.fate == InRequest::Fate::kError) {
        return Finish(request, LIBUSB_TRANSFER_ERROR, t);
    }
    const int packet = MaxPacketSize();
    if (request.fate == InRequest::Fate::kTimeout || packet == 0) {
        // Nothing will come: only the time-out (or a cancel) ends it. An injected time-out on a
        // read without one ends at once rather than hang the host.
        if (request.deadline == kNever && request.fate == InRequest::Fate::kTimeout) {
            return Finish(request, LIBUSB_TRANSFER_TIMED_OUT, t);
        }
        if (request.deadline <= horizon) {
            mCursor = request.deadline;
            return Finish(request, LIBUSB_TRANSFER_TIMED_OUT, request.deadline);
        }
        next = request.deadline;
        return false;
    }
    const uint64_t fullPacket = static_cast<uint64_t>(packet);
    for (;;) {
        const uint64_t remaining = static_cast<uint64_t>(request.target - request.moved);
        if (remaining == 0) {
            return Finish(request, LIBUSB_TRANSFER_COMPLETED, t);
        }
        if (Ready(t) >= fullPacket) {
            if (remaining < fullPacket) {
                return EndWithLastPacket(request, t);
            }
            Deliver(request, packet);
            continue;
        }
        const uint64_t taken = mConsumed + mDropped;
        const TimePoint full = TimeOfByte(taken + fullPacket);
        const TimePoint oldest = TimeOfByte(taken + 1);
        const TimePoint commit = oldest == kNever ? kNever : std::max(oldest + kCommitDelay, t);
        const TimePoint event = std::min(full, commit);
        if (request.deadline < event) {
            if (request.deadline <= horizon) {
                mCursor = request.deadline;
                return Finish(request, LIBUSB_TRANSFER_TIMED_OUT, request.deadline);
            }
            next = request.deadline;
            return false;
        }
        if (event > horizon) {
            // Packets arriving before the read can end change nothing anyone waits for: they
            // are worked out at the next call, so a waiter wakes once per transfer, not per
            // packet. When packets fill faster than the commit delay, only a partial packet
            // that is already waiting can go out short.
            TimePoint bound = TimeOfByte(taken + std::max(remaining, fullPacket));
            if (full > commit || !PacketsOutpaceCommit()) {
                bound = std::min(bound, commit);
            }
            next = std::min(bound, request.deadline);
            return false;
        }
        t = event;
        mCursor = t;
        if (full <= commit) {
            continue;
        }
        // The controller gives up waiting for a full packet and sends what it has.
        const uint64_t ready = Ready(t);
        if (ready > remaining) {
            return EndWithLastPacket(request, t);
        }
        Deliver(request, static_cast<int>(ready));
        return Finish(request, LIBUSB_TRANSFER_COMPLETED, t);
    }
}

bool SimCamera::EndWithLastPacket(InRequest& request, TimePoint at) {
    const int room = request.target - request.moved;
    Deliver(request, room);
    if (request.target < request.length) {
        return Finish(request, LIBUSB_TRANSFER_COMPLETED, at);
    }
    // The packet was bigger than the room left: the rest of it is lost, as on the wire.
    const uint64_t lost = std::min(Ready(at), static_cast<uint64_t>(MaxPacketSize() - room));
    mSource->Read(nullptr, lost);
    mConsumed += lost;
    return Finish(request, LIBUSB_TRANSFER_OVERFLOW, at);
}

void SimCamera::Deliver(InRequest& request, int n) {
    uint8_t* dst = request.buffer + request.moved;
    mSource->Read(dst, static_cast<size_t>(n));
    if (mCapturing) {
        mCapture.insert(mCapture.end(), dst, dst + n);
    }
    request.moved += n;
    mConsumed += static_cast<uint64_t>(n);
    mBytesSent += static_cast<uint64_t>(n);
}

uint64_t SimCamera::Produced(TimePoint t) const {
    if (!mRunning || t <= mRunStart) {
        return mProducedBase;
    }
    const auto ns = static_cast<unsigned __int128>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(t - mRunStart).count());
    const unsigned __int128 bytes = ns * mConfig.byteRate / kNsPerSecond;
    const uint64_t limit = std::numeric_limits<uint64_t>::max() / 2;
    return mProducedBase + FloorWord(bytes > limit ? limit : static_cast<uint64_t>(bytes));
}

uint64_t SimCamera::Ready(TimePoint t) {
    if (mConfig.byteRate == 0) {
        return std::numeric_limits<uint64_t>::max();
    }
    const uint64_t produced = Produced(t);
    const uint64_t taken = mConsumed + mDropped;
    uint64_t ready = produced > taken ? produced - taken : 0;
    if (ready > kFifoBytes) {
        mDropped += ready - kFifoBytes;
        ready = kFifoBytes;
    }
    return ready;
}

SimCamera::TimePoint SimCamera::TimeOfByte(uint64_t count) const {
    if (mConfig.byteRate == 0 || count <= mProducedBase) {
        return mRunStart;
    }
    if (!mRunning) {
        return kNever;
    }
    const unsigned __int128 needed = CeilWord(count - mProducedBase);
    const unsigned __int128 ns = (needed * kNsPerSecond + mConfig.byteRate - 1) / mConfig.byteRate;
    const auto room = static_cast<unsigned __int128>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(kNever - mRunStart).count());
    if (ns >= room) {
        return kNever;
    }
    return mRunStart + std::chrono::nanoseconds(static_cast<int64_t>(ns));
}

bool SimCamera::PacketsOutpaceCommit() const {
    // A packet's worth of words, plus one word of rounding, in less than the commit delay.
    const auto packetNs =
        (static_cast<unsigned __int128>(MaxPacketSize()) + 4) * kNsPerSecond / mConfig.byteRate;
    return packetNs <
           static_cast<unsigned __int128>(
               std::chrono::duration_cast<std::chrono::nanoseconds>(kCommitDelay).count());
}

void SimCamera::StopStream(TimePoint now) {
    if (!mRunning) {
        return;
    }
    Ready(now);
    mProducedBase = Produced(now);
    mRunning = false;
}

int SimCamera::ClearHalt(TimePoint now) {
    if (!Present(now)) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    mHalted = false;
    return 0;
}

void SimCamera::InjectFault(sim::Fault fault, int count, TimePoint now) {
    switch (fault) {
        case sim::Fault::kStall:
            if (!Present(now)) {
                return;
            }
            Advance(now);
            for (InRequest* request : mQueue) {
                Finish(*request, LIBUSB_TRANSFER_STALL, now);
            }
            mQueue.clear();
            mCursor = now;
            StopStream(now);
            mHalted = true;
            return;
        case sim::Fault::kTimeout:
            mTimeouts += count;
            return;
        case sim::Fault::kTransferError:
            mTransferErrors += count;
            return;
        case sim::Fault::kShortTransfer:
            mShortTransfers += count;
            return;
        case sim::Fault::kSubmitError:
            mSubmitErrors += count;
            return;
        case sim::Fault::kControlError:
            mControlErrors += count;
            return;
    }
}

void SimCamera::StartCapture() {
    mCapture.clear();
    mCapturing = true;
}

bool SimCamera::TakeCapture(std::vector<uint8_t>& bytes) {
    bytes.clear();
    if (!mCapturing) {
        return false;
    }
    bytes.swap(mCapture);
    mCapturing = false;
    return true;
}

}  // namespace evcam
