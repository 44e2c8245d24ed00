#include "src/stream/device_stream.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <system_error>
#include <vector>

#include "evcam/platform.h"
#include "src/data/dvs_packet.h"
#include "src/data/packet_buffer.h"

namespace evcam {

namespace {

// The stream whose read thread is the calling thread, so that Stop called from a callback
// does not try to join the thread it runs on.
thread_local const DeviceStream* tReadingStream = nullptr;

constexpr unsigned int kMaxPPX = 512;
constexpr unsigned int kDefaultPPX = 2;
constexpr uint64_t kPeriodMs = 999;
constexpr unsigned char kBufferFill = 0xEF;
// How long requests may keep failing with 1 or 102 before the device counts as gone.
constexpr uint64_t kDeviceGoneMs = 250;

// Line buffers of the bias file: the header check and the apply read in chunks of their own
// size, and existing files are laid out for exactly these.
constexpr int kBiasCheckLine = 512;
constexpr int kBiasApplyLine = 1000;
constexpr char kBiasVersionLine[] = "//@ DVS_VERSION MVT94QX";
constexpr char kBiasSingleLine[] = "//@ Single";
constexpr char kBiasStereoLine[] = "//@ Stereo";
constexpr char kBiasCdvsLine[] = "//@ CDVS";
constexpr char kBiasDescriptionPrefix[] = "//@ Description ";

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

FilePtr OpenForReading(const char* path) {
    FILE* file = nullptr;
    if (DVSOpenFile(&file, path, "r") != 0) {
        return nullptr;
    }
    return FilePtr(file);
}

}  // namespace

DeviceStream::DeviceStream(bool asynchronous) : mAsynchronous(asynchronous) {}

DeviceStream::~DeviceStream() {
    mRunningStatus = false;
    JoinReadThread();
}

bool DeviceStream::JoinReadThread() {
    if (tReadingStream == this) {
        return false;
    }
    if (mReadThread.joinable()) {
        mReadThread.join();
    }
    return true;
}

void DeviceStream::EndReadThread() {
    if (mRunningStatus) {
        Stop();
    }
    JoinReadThread();
}

DVS_ERROR DeviceStream::Start() {
    if (mDVSID == kNoDVSID) {
        return ERR_INVALID_DEVICE;
    }
    if (mVersion == SELECT_VERSION) {
        return ERR_NO_BIAS_FILE;
    }
    if (mRunningStatus || !JoinReadThread()) {
        return ERR_ALREADY_DONE;
    }
    if (SetStart() == ERR_ALREADY_DONE) {
        return ERR_ALREADY_DONE;
    }
    mRunningStatus = true;
    mSavingBusy = false;
    mReading = true;
    try {
        mReadThread = std::thread(&DeviceStream::ReadLoop, this);
    } catch (const std::system_error&) {
        mReading = false;
        mRunningStatus = false;
        SetStop();
        return ERR_NOT_START;
    }
    return ERR_SUCCESS;
}

DVS_ERROR DeviceStream::Stop() {
    if (!mRunningStatus) {
        return ERR_ALREADY_DONE;
    }
    if (mDVSID == kNoDVSID) {
        return ERR_INVALID_DEVICE;
    }
    SetStop();
    mRunningStatus = false;
    JoinReadThread();
    return ERR_SUCCESS;
}

DVS_ERROR DeviceStream::Reset() {
    if (mRunningStatus || !JoinReadThread()) {
        return ERR_RUNNING;
    }
    mPPX = kDefaultPPX;
    mTimeout = static_cast<int>(kDefaultUsbTimeoutMs);
    mVersion = SELECT_VERSION;
    mSavingBusy = false;
    mRateBytes = 0;
    mRateStart = 0;
    mDropCount = 0;
    mPacketCount = 0;
    mDropStart = 0;
    std::lock_guard<std::mutex> lock(mCbkLock);
    mPktBufDropCbk = nullptr;
    mPktBufDropUser = nullptr;
    return ERR_SUCCESS;
}

DVS_ERROR DeviceStream::SetPPX(unsigned int ppx) {
    if (mRunningStatus) {
        return ERR_RUNNING;
    }
    if (ppx < 1 || ppx > kMaxPPX) {
        return ERR_PARA_ERROR;
    }
    mPPX = ppx;
    mReadSize = static_cast<int32_t>(ppx * mPPXUnit);
    return ERR_SUCCESS;
}

DVS_ERROR DeviceStream::SetTimeout(int timeoutMs) {
    if (timeoutMs <= 0) {
        return ERR_PARA_ERROR;
    }
    mTimeout = timeoutMs;
    return ERR_SUCCESS;
}

void DeviceStream::SetSkipBytes(unsigned int bytes) {
    if (bytes % 4 == 0) {
        mSkipBytes = bytes;
    }
}

DVS_ERROR DeviceStream::GetVersion(int* version) {
    if (version == nullptr) {
        return ERR_PARA_ERROR;
    }
    *version = mVersion;
    return ERR_SUCCESS;
}

DVS_ERROR DeviceStream::SetUsbDataRateCbk(void (*callback)(void*, double), void* user) {
    if (callback == nullptr) {
        return ERR_PARA_ERROR;
    }
    std::lock_guard<std::mutex> lock(mCbkLock);
    mUsbDataRateCbk = callback;
    mUsbDataRateUser = user;
    return ERR_SUCCESS;
}

DVS_ERROR DeviceStream::SetPktBufDropCbk(void (*callback)(void*, unsigned long, unsigned long),
                                         void* user) {
    if (callback == nullptr) {
        return ERR_PARA_ERROR;
    }
    std::lock_guard<std::mutex> lock(mCbkLock);
    mPktBufDropCbk = callback;
    mPktBufDropUser = user;
    return ERR_SUCCESS;
}

DVS_ERROR DeviceStream::SetPacketBuffer(PacketBuffer* buffer) {
    mMainPacketBuffer = buffer;
    return Stream::SetPacketBuffer(buffer);
}

DVS_ERROR DeviceStream::SetSavingPacketBuffer(PacketBuffer* buffer) {
    if (buffer != nullptr) {
        const DVS_ERROR rc = buffer->EnableDropData(false);
        if (rc == ERR_SUCCESS) {
            mSavingPacketBuffer = buffer;
        }
        return rc;
    }
    mSavingPacketBuffer = nullptr;
    while (mSavingBusy) {
        DVSSleep(1);
    }
    return ERR_SUCCESS;
}

bool DeviceStream::IsValidBiasFile(BiasFileItem& item) {
    FilePtr file = OpenForReading(item.filePath);
    if (!file) {
        return false;
    }
    enum class Expect { kVersion, kArrangement, kDescription };
    Expect expect = Expect::kVersion;
    char line[kBiasCheckLine];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        if (std::strlen(line) == 1) {
            continue;
        }
        bias::strtrim(line);
        if (line[0] == '\0') {
            continue;
        }
        switch (expect) {
            case Expect::kVersion:
                if (std::strcmp(line, kBiasVersionLine) != 0) {
                    return false;
                }
                item.dvsVersion = MVT94QX;
                expect = Expect::kArrangement;
                break;
            case Expect::kArrangement:
                if (std::strcmp(line, kBiasStereoLine) == 0) {
                    item.dvsVersion = MVT94QX_STEREO;
                } else if (std::strcmp(line, kBiasSingleLine) != 0) {
                    return false;
                }
                expect = Expect::kDescription;
                break;
            case Expect::kDescription: {
                if (std::strcmp(line, kBiasCdvsLine) == 0) {
                    item.isCDVS = true;
                    break;
                }
                const size_t prefix = sizeof kBiasDescriptionPrefix - 1;
                if (std::strncmp(line, kBiasDescriptionPrefix, prefix) != 0) {
                    return false;
                }
                // A longer description is cut to fit: it is only informative.
                const char* rest = line + prefix;
                const size_t length = std::min(std::strlen(rest), sizeof item.description - 1);
                std::memcpy(item.description, rest, length);
                item.description[length] = '\0';
                return true;
            }
        }
    }
    return false;
}

DVS_ERROR DeviceStream::SetBias(const char* path) {
    if (path == nullptr || path[0] == '\0') {
        return ERR_PARA_ERROR;
    }
    BiasFileItem item;
    const size_t length = std::strlen(path);
    if (length >= sizeof item.filePath) {
        return ERR_PARA_ERROR;
    }
    if (mDVSID == kNoDVSID) {
        return ERR_INVALID_DEVICE;
    }
    if (mRunningStatus) {
        return ERR_DEVICE_IN_USE;
    }
    std::memcpy(item.filePath, path, length + 1);
    if (!IsValidBiasFile(item)) {
        return ERR_INVALID_FILE;
    }
    // Taken before any write and kept when one fails: the header alone decides how the
    // sensor's data is read.
    SetSensorVersion(item.dvsVersion);

    FilePtr file = OpenForReading(path);
    if (!file) {
        return ERR_OPEN_FILE;
    }
    char line[kBiasApplyLine];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        // Unlike the header check, the apply ignores a last line that no line feed ends;
        // existing files are written for this.
        if (std::feof(file.get())) {
            break;
        }
        if (std::strlen(line) == 1) {
            continue;
        }
        int slave = 0;
        int reg = 0;
        int value = 0;
        const int kind = bias::parseString(line, &slave, &reg, &value);
        if (kind == bias::kParseRegister) {
            const DVS_ERROR rc = WriteI2CReg(slave, reg, value);
            if (rc != ERR_SUCCESS) {
                std::printf("ERROR: write register fail:slvAddr:%d, adr:%d, val:%d\n", slave, reg,
                            value);
                return rc;
            }
        } else if (kind == bias::kParseWait) {
            DVSSleep(static_cast<unsigned int>(value));
        }
    }
    return ERR_SUCCESS;
}

DVS_ERROR DeviceStream::BeginRawXfer(unsigned char*, unsigned int, int) {
    return ERR_SUCCESS;
}

DVS_ERROR DeviceStream::FinishRawXfer(unsigned char* buf, unsigned int len,
                                      unsigned int* transferred, int, int) {
    return ReadRawData(buf, len, transferred);
}

int DeviceStream::I2cValueLen(int) const {
    return 1;
}

DVS_ERROR DeviceStream::BindDevice(UsbDeviceTable& table, RWLock& lock, unsigned int devId,
                                   DevDBEntry*& entry) {
    if (devId >= static_cast<unsigned int>(kDevTableSize)) {
        return ERR_PARA_ERROR;
    }
    DevDBEntry& target = table.Entry(devId);
    if (target.mPresent == 0) {
        return ERR_INVALID_DEVICE;
    }
    if (target.mInUse != 0) {
        return ERR_DEVICE_IN_USE;
    }
    if (mRunningStatus) {
        return ERR_RUNNING;
    }
    RwWriteGuard guard(lock);
    if (table.DVSDeviceCount() <= 0) {
        return ERR_NO_DEVICE;
    }
    mDVSID = devId;
    entry = &target;
    const int idx = target.mCyIndex;
    if (table.DVSGetVendor(idx) != kCameraVendorId ||
        table.DVSGetProduct(idx) != table.ProductId()) {
        table.DVSClose(idx);
        return ERR_INVALID_DEVICE;
    }
    const int packetSize = table.DVSGetPktSize(idx, kDataEndpoint);
    if (packetSize > 0) {
        mPPXUnit = static_cast<uint32_t>(packetSize);
    }
    mReadSize = static_cast<int32_t>(mPPX * mPPXUnit);
    return ERR_SUCCESS;
}

void DeviceStream::ReadLoop() {
    tReadingStream = this;
    const unsigned int size = static_cast<unsigned int>(mReadSize);
    std::vector<std::vector<unsigned char>> buffers(kRingSlots,
                                                    std::vector<unsigned char>(size, kBufferFill));
    // Which slots the transport still owns: a slot is collected only while pending, so a
    // buffer is never freed under a transfer and a stale result is never delivered twice.
    bool pending[kRingSlots] = {};
    int pendingCount = 0;
    bool stopping = false;
    // Requests failing with 1 or 102 may only mean that a register access or a scan closed
    // the device list and is re-opening it; the device is gone when they go on failing.
    uint64_t failingSince = 0;
    auto failed = [&] {
        const uint64_t now = DVSTime();
        if (failingSince == 0) {
            failingSince = now;
        } else if (now - failingSince >= kDeviceGoneMs) {
            stopping = true;
        }
    };
    auto queue = [&](int slot) {
        const DVS_ERROR rc = BeginRawXfer(buffers[slot].data(), size, slot);
        if (rc == ERR_SUCCESS) {
            pending[slot] = true;
            ++pendingCount;
        } else if (rc == ERR_INVALID_DEVICE) {
            stopping = true;  // the latest scan no longer lists the camera
        } else {
            failed();
        }
    };
    if (mAsynchronous) {
        for (int slot = 0; slot < kRingSlots; ++slot) {
            queue(slot);
        }
    } else {
        pendingCount = kRingSlots;
    }

    int index = 0;
    for (;;) {
        const bool streaming = mRunningStatus && !stopping;
        if (pendingCount == 0 && !(mAsynchronous && streaming)) {
            break;
        }
        const int slot = index;
        index = (index + 1) % kRingSlots;
        unsigned int n = 0;
        DVS_ERROR r;
        if (mAsynchronous) {
            if (!pending[slot]) {
                // Its re-queue failed earlier: try again while streaming.
                if (streaming) {
                    queue(slot);
                    if (pendingCount == 0) {
                        DVSSleep(1);
                    }
                }
                continue;
            }
            r = FinishRawXfer(buffers[slot].data(), size, &n, mTimeout, slot);
            pending[slot] = false;
            --pendingCount;
            // Re-queued before the data is looked at, so the controller never runs dry.
            if (streaming) {
                queue(slot);
            }
        } else {
            r = ReadRawData(buffers[slot].data(), size, &n);
            if (!streaming) {
                --pendingCount;
            }
        }
        if (r == ERR_PARA_ERROR || r == ERR_NO_DEVICE) {
            failed();
        }

        if (r == ERR_INVALID_DEVICE) {
            stopping = true;
        }
        // Nothing is in flight on a synchronous transport: no reason to read on.
        if (stopping && !mAsynchronous) {
            break;
        }
        if (r == ERR_TIMEOUT) {
            DevReset();
        }
        if (r != ERR_SUCCESS || n == 0) {
            // A failing endpoint answers at once: pace the retries instead of spinning.
            if (r != ERR_SUCCESS && r != ERR_TIMEOUT && mRunningStatus && !stopping) {
                DVSSleep(1);
            }
            continue;
        }
        failingSince = 0;
        Deliver(buffers[slot].data(), n);
    }
    mSavingBusy = false;
    mReading = false;
    tReadingStream = nullptr;
}

void DeviceStream::Fill(DVSPacket* node, const unsigned char* data, unsigned int len) {
    // The owner sizes the pools to the transfer; a smaller node is grown rather than overrun.
    if (node->mBufferSize < static_cast<int32_t>(len)) {
        node->Resize(static_cast<int>(len));
    }
    const unsigned int fits = std::min(len, static_cast<unsigned int>(node->mBufferSize));
    std::memcpy(node->mData, data, fits);
    node->mDataLen = static_cast<int32_t>(fits);
    node->mVersion = mVersion;
    node->mDVSID = mDVSID;
    node->mEndOfPass = false;
}

void DeviceStream::Deliver(const unsigned char* buf, unsigned int n) {
    const uint64_t now = DVSTime();
    if (mRateStart == 0) {
        mRateStart = now;
    }
    mRateBytes += n;
    if (now - mRateStart > kPeriodMs) {
        void (*callback)(void*, double);
        void* user;
        {
            std::lock_guard<std::mutex> lock(mCbkLock);
            callback = mUsbDataRateCbk;
            user = mUsbDataRateUser;
        }
        if (callback != nullptr) {
            const double seconds = static_cast<double>(now - mRateStart) / 1000.0;
            callback(user, static_cast<double>(mRateBytes) * (1.0 / 1024) / seconds);
        }
        mRateBytes = 0;
        mRateStart = now;
    }

    const uint32_t skip = mSkipBytes;
    if (skip >= n) {
        mSkipBytes = skip - n;
        return;
    }
    if (skip != 0) {
        mSkipBytes = 0;
    }
    const unsigned char* data = buf + skip;
    const unsigned int len = n - skip;

    mSavingBusy = true;
    PacketBuffer* saving = mSavingPacketBuffer;
    bool delivered = true;
    if (saving != nullptr) {
        DVSPacket* node = saving->GetAFreeNode();
        if (node == nullptr) {
            DVSSleep(1);
            delivered = false;
        } else {
            Fill(node, data, len);
            saving->PutANodeToDataList(node);
        }
    }
    mSavingBusy = false;
    if (!delivered) {
        return;
    }

    PacketBuffer* main = mMainPacketBuffer;
    if (main == nullptr) {
        return;
    }
    DVSPacket* node = main->GetAFreeNode();
    if (node != nullptr) {
        Fill(node, data, len);
        main->PutANodeToDataList(node);
        ++mPacketCount;
        return;
    }
    const uint64_t dropNow = DVSTime();
    if (mDropStart == 0) {
        mDropStart = dropNow;
    }
    ++mDropCount;
    ++mPacketCount;
    if (dropNow - mDropStart > kPeriodMs) {
        void (*callback)(void*, unsigned long, unsigned long);
        void* user;
        {
            std::lock_guard<std::mutex> lock(mCbkLock);
            callback = mPktBufDropCbk;
            user = mPktBufDropUser;
        }
        if (callback != nullptr) {
            callback(user, mDropCount, mPacketCount);
        }
        mDropCount = 0;
        mPacketCount = 0;
        mDropStart = dropNow;
    }
    if (saving == nullptr) {
        DVSSleep(1);
    }
}

}  // namespace evcam
