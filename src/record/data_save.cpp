#include "src/record/data_save.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <string>
#include <system_error>

#include "evcam/platform.h"
#include "src/data/packet_buffer.h"
#include "src/record/recording_format.h"

namespace evcam {

namespace {

// A name stays taken for the rest of its second; this many seconds are tried before giving up.
constexpr int kNameAttempts = 3;

long CurrentSecond() {
    return static_cast<long>(DVSTime() / 1000);
}

// Sleeps into the next wall-clock second, measured on the same clock as CurrentSecond.
void SleepToNextSecond() {
    DVSSleep(static_cast<unsigned int>(1000 - DVSTime() % 1000) + 1);
}

}  // namespace

DataSave::DataSave() : mCache(new (std::nothrow) uint8_t[kDefaultCacheSize]) {
    if (!mCache) {
        mCacheSize = 0;
    }
}

DataSave::~DataSave() {
    StopSave();
}

DVS_ERROR DataSave::SetVersion(DVS_VERSION version) {
    if (mSaveThread.joinable()) {
        return ERR_RUNNING;
    }
    if (!IsKnownVersion(version)) {
        return ERR_PARA_ERROR;
    }
    mVersion = version;
    return ERR_SUCCESS;
}

DVS_ERROR DataSave::SetPacketBuffer(PacketBuffer* buffer) {
    if (mSaveThread.joinable()) {
        return ERR_RUNNING;
    }
    if (buffer == nullptr) {
        return ERR_PARA_ERROR;
    }
    mPacketBuffer = buffer;
    return ERR_SUCCESS;
}

DVS_ERROR DataSave::SetCacheSize(uint32_t size) {
    if (mSaveThread.joinable()) {
        return ERR_RUNNING;
    }
    if (size == 0) {
        return ERR_PARA_ERROR;
    }
    mCache.reset();
    mCacheSize = 0;
    mCache.reset(new (std::nothrow) uint8_t[size]);
    if (!mCache) {
        return ERR_NO_FREE_NODE;
    }
    mCacheSize = size;
    return ERR_SUCCESS;
}

DVS_ERROR DataSave::SetNoSpaceCbk(void (*callback)(void*), void* user) {
    std::lock_guard<std::mutex> lock(mCbkLock);
    mNoSpaceCbk = callback;
    mNoSpaceUser = user;
    return ERR_SUCCESS;
}

DVS_ERROR DataSave::StartSave(const char* dir) {
    if (mSaveThread.joinable()) {
        return ERR_ALREADY_DONE;
    }
    if (dir == nullptr || dir[0] == '\0') {
        return ERR_PARA_ERROR;
    }
    if (mPacketBuffer == nullptr) {
        return ERR_INVALID_BUFFER;
    }
    if (mVersion < MVT94QX) {
        return ERR_UNKNOWN_VERSION;
    }
    // A directory cut short by the path limit would put the files somewhere else.
    const size_t dirLength = strlen(dir);
    const size_t completeLength = dirLength + (dir[dirLength - 1] == '/' ? 0 : 1);
    memset(mSaveDir, 0, sizeof(mSaveDir));
    DVSCompletePath(mSaveDir, kPathSize, dir);
    if (strlen(mSaveDir) != completeLength) {
        return ERR_SAVE_DATA;
    }
    {
        std::lock_guard<std::mutex> lock(mFileLock);
        if (Initialize() != ERR_SUCCESS) {
            return ERR_SAVE_DATA;
        }
    }
    mIsSaving.store(true);
    try {
        mSaveThread = std::thread(&DataSave::SaveThread, this);
    } catch (const std::system_error&) {
        mIsSaving.store(false);
        std::lock_guard<std::mutex> lock(mFileLock);
        Uninitialize();
        std::remove(mFilePath);
        return ERR_SAVE_DATA;
    }
    return ERR_SUCCESS;
}

DVS_ERROR DataSave::StopSave() {
    if (!mSaveThread.joinable()) {
        return ERR_ALREADY_DONE;
    }
    mIsSaving.store(false);
    mSaveThread.join();
    {
        std::lock_guard<std::mutex> lock(mFileLock);
        Uninitialize();
    }
    mPacketBuffer = nullptr;
    return ERR_SUCCESS;
}

DVS_ERROR DataSave::SaveData(const uint8_t* buf, uint32_t len) {
    if (buf == nullptr && len > 0) {
        return ERR_PARA_ERROR;
    }
    DVS_ERROR result;
    {
        std::lock_guard<std::mutex> lock(mFileLock);
        if (!mFileOpened) {
            return ERR_NOT_START;
        }
        result = WriteDataToFile(buf, len);
    }
    if (result == ERR_SUCCESS) {
        return ERR_SUCCESS;
    }
    printf("[SaveData] FAIL: %s\n", GetErrorMsg(result));
    if (result == ERR_NO_SPACE) {
        // Called outside the file lock, so the callback may use this recorder.
        void (*callback)(void*);
        void* user;
        {
            std::lock_guard<std::mutex> lock(mCbkLock);
            callback = mNoSpaceCbk;
            user = mNoSpaceUser;
        }
        if (callback != nullptr) {
            callback(user);
        }
    }
    return ERR_WRITE_FILE;
}

DVS_ERROR DataSave::GetVersionName(char* out) const {
    if (out == nullptr) {
        return ERR_PARA_ERROR;
    }
    const auto it = Ver2StrMap.find(mVersion);
    snprintf(out, kVersionNameSize, "-%s", it != Ver2StrMap.end() ? it->second : "");
    return ERR_SUCCESS;
}

void DataSave::SaveThread() {
    if (!mCache) {
        mCache.reset(new (std::nothrow) uint8_t[kDefaultCacheSize]);
        if (!mCache) {
            StopReading();
            return;
        }
        mCacheSize = kDefaultCacheSize;
    }
    if (!mIsSaving.load()) {
        return;
    }
    uint32_t fill = 0;
    for (;;) {
        const uint64_t ticket = mPacketBuffer->Appended().Ticket();
        DVSPacket* node = mPacketBuffer->GetASaveNode();
        if (node == nullptr) {
            // Wakes as soon as a packet arrives; the bound keeps StopSave prompt.
            mPacketBuffer->Appended().WaitFor(ticket, std::chrono::milliseconds(1));
            if (!mIsSaving.load()) {
                break;
            }
            continue;
        }
        const auto count = static_cast<uint32_t>(node->mDataLen > 0 ? node->mDataLen : 0);
        bool written = true;
        if (count < mCacheSize - fill) {
            memcpy(mCache.get() + fill, node->mData, count);
            fill += count;
        } else {
            // A packet that does not fit is never copied: it goes out by itself after the cache.
            written = (fill == 0 || SaveData(mCache.get(), fill) == ERR_SUCCESS) &&
                      SaveData(node->mData, count) == ERR_SUCCESS;
            fill = 0;
        }
        mPacketBuffer->PutANodeToFreeList(node);
        if (!written) {
            StopReading();
            return;
        }
        if (!mIsSaving.load()) {
            break;
        }
    }
    if (fill > 0) {
        SaveData(mCache.get(), fill);
    }
}

void DataSave::StopReading() {
    mPacketBuffer->SetSaveStatus(false);
}

DVS_ERROR DataSave::WriteDataToFile(const uint8_t* buf, size_t len) {
    // A follow-on file that cannot take a single byte would otherwise be followed by another
    // one for ever.
    bool onlyHeader = false;
    for (;;) {
        // Cleared first: a stale EFBIG must not start a follow-on file. The stream is unbuffered,
        // so put is exactly what reached the file.
        errno = 0;
        const size_t put = len > 0 ? fwrite(buf, 1, len, mFile) : 0;
        if (put == len && fflush(mFile) == 0) {
            return ERR_SUCCESS;
        }
        const int error = errno;
        if (error == EFBIG && !(onlyHeader && put == 0)) {
            buf += put;
            len -= put;
            const DVS_ERROR made = CreateNewFile();
            if (made != ERR_SUCCESS) {
                return made;
            }
            onlyHeader = true;
            continue;
        }
        Uninitialize();
        return error == ENOSPC ? ERR_NO_SPACE : ERR_WRITE_FILE;
    }
}

DVS_ERROR DataSave::Initialize() {
    if (OpenNamedFile(false) != ERR_SUCCESS) {
        return ERR_OPEN_FILE;
    }
    // A short header is left to the first write, which meets the same condition and reports it
    // (the no-space callback on a full disk).
    WriteFileHeader(mFile, mVersion);
    mFileOpened = true;
    return ERR_SUCCESS;
}

DVS_ERROR DataSave::CreateNewFile() {
    Uninitialize();
    if (OpenNamedFile(true) != ERR_SUCCESS) {
        return ERR_CREATE_FILE;
    }
    errno = 0;
    if (WriteFileHeader(mFile, mVersion) != ERR_SUCCESS || fflush(mFile) != 0) {
        const int error = errno;
        // Without a whole header the file is no recording.
        Uninitialize();
        std::remove(mFilePath);
        return error == ENOSPC ? ERR_NO_SPACE : ERR_CREATE_FILE;
    }
    mFileOpened = true;
    return ERR_SUCCESS;
}

DVS_ERROR DataSave::OpenNamedFile(bool followOn) {
    long second = CurrentSecond();
    for (int attempt = 1;; ++attempt) {
        tm local{};
        DVSLocalTimer(&local, &second);
        const std::string name = followOn ? MakeFollowOnFileName(local, mVersion)
                                          : MakeRecordingFileName(local, mVersion);
        const std::string joined = std::string(mSaveDir) + name;
        char path[kPathSize];
        if (DVSConvertPath(joined.c_str(), path, kPathSize) != 0) {
            return ERR_OPEN_FILE;
        }
        FILE* file = nullptr;
        errno = 0;
        // Exclusive: an earlier recording of the same second is never overwritten.
        if (DVSOpenFile(&file, path, "wb+x") == 0) {
            // Unbuffered, so that every write's byte count is what reached the file.
            setvbuf(file, nullptr, _IONBF, 0);
            mFile = file;
            memcpy(mFilePath, path, sizeof(mFilePath));
            return ERR_SUCCESS;
        }
        if (errno != EEXIST || attempt == kNameAttempts) {
            return ERR_OPEN_FILE;
        }
        SleepToNextSecond();
        second = CurrentSecond();
    }
}

void DataSave::Uninitialize() {
    mFileOpened = false;
    if (mFile == nullptr) {
        return;
    }
    DVSSeek64(mFile, 0, SEEK_END);
    const long size = DVSTell64(mFile);
    fflush(mFile);
    fclose(mFile);
    mFile = nullptr;
    if (size == 0 && std::remove(mFilePath) != 0) {
        printf("remove %s fail\n", mFilePath);
    }
}

}  // namespace evcam
