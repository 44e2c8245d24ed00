#include "src/stream/file_stream.h"

#include <algorithm>
#include <system_error>

#include "evcam/platform.h"
#include "src/data/dvs_packet.h"
#include "src/data/packet_buffer.h"
#include "src/record/recording_format.h"

namespace evcam {

namespace {

// The stream whose read thread is the calling thread, so that Stop or Pause called from the
// read-over callback does not try to join the thread it runs on.
thread_local const FileStream* tReadingStream = nullptr;

constexpr float kNoSeek = -1.0f;
constexpr unsigned int kIdleSleepMs = 10;
constexpr unsigned int kDefaultPPX = 2;
constexpr unsigned int kMaxPPX = 512;
constexpr uint64_t kPPXUnit = 1024;

}  // namespace

FileStream::~FileStream() {
    mRunningStatus = kStopped;
    JoinReadThread();
    if (mFile != nullptr) {
        fclose(mFile);
    }
}

DVS_ERROR FileStream::SetFilePercent(float* percent) {
    if (percent == nullptr || !(*percent >= 0.0f && *percent <= 1.0f)) {
        return ERR_PARA_ERROR;
    }
    std::lock_guard<std::mutex> lock(mLock);
    mSeekPercent = *percent;
    return ERR_SUCCESS;
}

DVS_ERROR FileStream::GetFilePercent(float* percent) {
    if (percent == nullptr) {
        return ERR_PARA_ERROR;
    }
    std::lock_guard<std::mutex> lock(mLock);
    const auto start = static_cast<double>(DataStartLocked());
    const auto size = static_cast<double>(mFileSize);
    if (size <= start) {
        *percent = 0.0f;
        return ERR_SUCCESS;
    }
    *percent = static_cast<float>((static_cast<double>(mReadPos) - start) / (size - start));
    return ERR_SUCCESS;
}

DVS_ERROR FileStream::Start() {
    if (mRunningStatus != kStopped) {
        return ERR_ALREADY_DONE;
    }
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mVersion == SELECT_VERSION) {
            return ERR_INVALID_FILE;
        }
    }
    const DVS_ERROR checked = CheckFile();
    if (checked != ERR_SUCCESS) {
        return checked;
    }
    if (mPacketBuffer == nullptr) {
        return ERR_NO_PACKET_BUFFER;
    }
    if (!JoinReadThread()) {
        return ERR_RUNNING;
    }
    mReadOver = false;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mReadPos = DataStartLocked();
    }
    return StartReadThread();
}

DVS_ERROR FileStream::Stop() {
    const int32_t status = mRunningStatus;
    if (status != kRunning && status != kPaused) {
        // A thread that ended by itself (file vanished) is still to be joined.
        JoinReadThread();
        return ERR_ALREADY_DONE;
    }
    mRunningStatus = kStopped;
    JoinReadThread();
    mFileOpened = 0;
    return ERR_SUCCESS;
}

DVS_ERROR FileStream::SetFilePath(const char* path) {
    if (path == nullptr) {
        return ERR_PARA_ERROR;
    }
    if (path[0] == '\0') {
        return ERR_INVALID_FILE;
    }
    // A file left open by an earlier run is closed, or the next run would play it instead.
    const DVS_ERROR closed = Close();
    if (closed != ERR_SUCCESS) {
        return closed;
    }
    {
        std::lock_guard<std::mutex> lock(mLock);
        mVersion = SELECT_VERSION;
    }
    mFilePath = path;
    return IsRecordingPath(path) ? CheckFile() : ERR_SUCCESS;
}

DVS_ERROR FileStream::Pause() {
    const int32_t status = mRunningStatus;
    if (status == kStopped) {
        return ERR_NOT_START;
    }
    if (status == kPaused) {
        return ERR_ALREADY_DONE;
    }
    mRunningStatus = kPaused;
    JoinReadThread();
    return ERR_SUCCESS;
}

DVS_ERROR FileStream::Resume() {
    const int32_t status = mRunningStatus;
    if (status == kStopped) {
        return ERR_NOT_START;
    }
    if (status == kRunning) {
        return ERR_ALREADY_DONE;
    }
    if (mPacketBuffer == nullptr) {
        return ERR_NO_PACKET_BUFFER;
    }
    if (!JoinReadThread()) {
        return ERR_RUNNING;
    }
    {
        std::lock_guard<std::mutex> lock(mLock);
        // A play-once playback that reached the end starts over.
        if (mReadOver && mReadPos == static_cast<uint64_t>(mFileSize)) {
            mReadPos = DataStartLocked();
            mReadOver = false;
        }
    }
    return StartReadThread();
}

DVS_ERROR FileStream::Reset() {
    if (mRunningStatus != kStopped || !JoinReadThread()) {
        return ERR_RUNNING;
    }
    if (mFile != nullptr) {
        return ERR_FILE_OPEN;
    }
    mFilePath.clear();
    mPPX = kDefaultPPX;
    mReadSize = kDefaultPPX * kPPXUnit;
    mFileOpened = 0;
    mPlayMode = PLAY_LOOP;
    mReadOver = false;
    std::lock_guard<std::mutex> lock(mLock);
    mFileSize = 0;
    mSeekPercent = kNoSeek;
    mReadPos = 0;
    mHeaderWords = 0;
    mVersion = SELECT_VERSION;
    mReadOverCbk = nullptr;
    mReadOverUser = nullptr;
    return ERR_SUCCESS;
}

DVS_ERROR FileStream::Close() {
    if (mRunningStatus != kStopped || !JoinReadThread()) {
        return ERR_RUNNING;
    }
    if (mFile != nullptr) {
        fclose(mFile);
        mFile = nullptr;
    }
    mFileOpened = 0;
    return ERR_SUCCESS;
}

DVS_ERROR FileStream::SetPlayMode(PLAY_MODE mode) {
    if (mode > PLAY_ONCE) {
        return ERR_PARA_ERROR;
    }
    mPlayMode = mode;
    return ERR_SUCCESS;
}

DVS_ERROR FileStream::GetPlayMode(PLAY_MODE& mode) {
    mode = mPlayMode;
    return ERR_SUCCESS;
}

DVS_ERROR FileStream::SetReadOverCbk(void (*callback)(void*), void* user) {
    if (callback == nullptr) {
        return ERR_PARA_ERROR;
    }
    std::lock_guard<std::mutex> lock(mLock);
    mReadOverCbk = callback;
    mReadOverUser = user;
    return ERR_SUCCESS;
}

DVS_ERROR FileStream::GetVersion(int* version) {
    if (version == nullptr) {
        return ERR_PARA_ERROR;
    }
    std::lock_guard<std::mutex> lock(mLock);
    *version = mVersion;
    return ERR_SUCCESS;
}

DVS_ERROR FileStream::SetVersion(DVS_VERSION version) {
    if (mRunningStatus == kRunning) {
        return ERR_RUNNING;
    }
    if (mFilePath.empty()) {
        return ERR_NO_FILE;
    }
    if (IsRecordingPath(mFilePath.c_str())) {
        return ERR_NOT_SUPPORT;
    }
    if (!IsKnownVersion(version)) {
        return ERR_PARA_ERROR;
    }
    std::lock_guard<std::mutex> lock(mLock);
    mVersion = version;
    return ERR_SUCCESS;
}

DVS_ERROR FileStream::SetPPX(unsigned int ppx) {
    if (mRunningStatus == kRunning) {
        return ERR_RUNNING;
    }
    if (ppx < 1 || ppx > kMaxPPX) {
        return ERR_PARA_ERROR;
    }
    mPPX = ppx;
    mReadSize = ppx * kPPXUnit;
    return ERR_SUCCESS;
}

DVS_ERROR FileStream::CheckFile() {
    RecordingHeader header;
    {
        std::lock_guard<std::mutex> lock(mLock);
        header.headerWords = mHeaderWords;
        header.version = mVersion;
    }
    const DVS_ERROR result = CheckRecordingFile(mFilePath.c_str(), header);
    if (IsRecordingPath(mFilePath.c_str())) {
        std::lock_guard<std::mutex> lock(mLock);
        mHeaderWords = header.headerWords;
        mVersion = header.version;
    }
    return result;
}

void FileStream::SetSkipBytes(unsigned int bytes) {
    if (bytes % 4 == 0) {
        mSkipBytes = bytes;
    }
}

DVS_ERROR FileStream::Open() {
    if (mFile == nullptr && DVSOpenFile(&mFile, mFilePath.c_str(), "rb") != 0) {
        mFile = nullptr;
        return ERR_OPEN_FILE;
    }
    DVSSeek64(mFile, 0, SEEK_END);
    const int64_t size = DVSTell64(mFile);
    DVSSeek64(mFile, 0, SEEK_SET);
    std::lock_guard<std::mutex> lock(mLock);
    mFileSize = size > 0 ? size : 0;
    return ERR_SUCCESS;
}

DVS_ERROR FileStream::StartReadThread() {
    mRunningStatus = kRunning;
    try {
        mReadThread = std::thread(&FileStream::ReadLoop, this);
    } catch (const std::system_error&) {
        mRunningStatus = kStopped;
        return ERR_NOT_START;
    }
    return ERR_SUCCESS;
}

bool FileStream::JoinReadThread() {
    if (tReadingStream == this) {
        return false;
    }
    if (mReadThread.joinable()) {
        mReadThread.join();
    }
    return true;
}

uint64_t FileStream::DataStartLocked() const {
    return IsRecordingPath(mFilePath.c_str()) ? uint64_t{mHeaderWords} * 4 : 0;
}

void FileStream::ReadLoop() {
    tReadingStream = this;
    mReadOver = false;
    if (mRunningStatus != kRunning) {
        return;
    }
    for (;;) {
        if (mReadOver && mPlayMode == PLAY_ONCE) {
            DVSSleep(kIdleSleepMs);
            if (mRunningStatus != kRunning) {
                return;
            }
            continue;
        }
        mReadOver = false;
        if (mFileOpened != 1) {
            if (Open() != ERR_SUCCESS) {
                mRunningStatus = kStopped;
                mFileOpened = 0;
                puts("Bin file is null, exit read thread");
                return;
            }
            mFileOpened = 1;
        }
        if (mRunningStatus == kPaused) {
            DVSSleep(kIdleSleepMs);
            if (mRunningStatus != kRunning) {
                return;
            }
            continue;
        }

        uint64_t start = 0;
        uint64_t end = 0;
        DVS_VERSION version = SELECT_VERSION;
        {
            std::lock_guard<std::mutex> lock(mLock);
            const uint64_t dataStart = DataStartLocked();
            const uint64_t size = static_cast<uint64_t>(mFileSize);
            if (mSeekPercent != kNoSeek) {
                const float span = size > dataStart ? static_cast<float>(size - dataStart) : 0.0f;
                const auto offset = static_cast<uint64_t>(span * mSeekPercent);
                mReadPos = dataStart + (offset & ~uint64_t{3});
                mSeekPercent = kNoSeek;
            }
            start = mReadPos;
            end = start + mReadSize;
            if (end >= size) {
                end = size;
                mReadOver = true;
                mReadPos = dataStart;
            } else {
                mReadPos = end;
            }
            version = mVersion;
        }

        bool deliver = true;
        const uint32_t skip = mSkipBytes;
        if (skip != 0) {
            const auto length = static_cast<uint32_t>(end - start);
            if (length <= skip) {
                mSkipBytes = skip - length;
                deliver = false;
            } else {
                start += skip;
                mSkipBytes = 0;
            }
        }

        if (deliver) {
            if (!ReadData(start, end, version, mReadOver && mPlayMode == PLAY_ONCE)) {
                // Left the wait for a free node: read this block again when playback goes on.
                std::lock_guard<std::mutex> lock(mLock);
                mReadPos = start;
                mReadOver = false;
            } else if (mReadOver && mPlayMode == PLAY_ONCE) {
                void (*callback)(void*) = nullptr;
                void* user = nullptr;
                {
                    std::lock_guard<std::mutex> lock(mLock);
                    callback = mReadOverCbk;
                    user = mReadOverUser;
                }
                if (callback != nullptr) {
                    callback(user);
                }
                std::lock_guard<std::mutex> lock(mLock);
                // Parked at the end so that a later Resume starts over.
                mReadPos = static_cast<uint64_t>(mFileSize);
            }
        }
        if (mRunningStatus != kRunning) {
            return;
        }
    }
}

bool FileStream::ReadData(uint64_t start, uint64_t end, DVS_VERSION version, bool endOfPass) {
    if (end <= start || DVSSeek64(mFile, static_cast<long>(start), SEEK_SET) != 0) {
        return true;
    }
    // File data is never dropped: wait for the consumers to release a node, woken by each
    // release, looking at the status at least every millisecond.
    uint64_t ticket = mPacketBuffer->Released().Ticket();
    DVSPacket* packet = mPacketBuffer->GetAFreeNode();
    while (packet == nullptr) {
        if (mRunningStatus != kRunning) {
            return false;
        }
        mPacketBuffer->Released().WaitFor(ticket, std::chrono::milliseconds(1));
        ticket = mPacketBuffer->Released().Ticket();
        packet = mPacketBuffer->GetAFreeNode();
    }
    const auto length = static_cast<int>(end - start);
    // Nodes keep their store between blocks: only a block of another size needs a new one.
    if (packet->mBufferSize != length) {
        packet->Resize(length);
    }
    // A store that could not be allocated yields a shorter (or empty) packet, never a crash.
    const int capacity = std::min(length, packet->mBufferSize);
    packet->mDataLen =
        capacity > 0 ? static_cast<int32_t>(fread(packet->mData, 1, capacity, mFile)) : 0;
    packet->mVersion = version;
    packet->mDVSID = kFileDVSID;
    packet->mEndOfPass = endOfPass;
    mPacketBuffer->PutANodeToDataList(packet);
    return true;
}

}  // namespace evcam
