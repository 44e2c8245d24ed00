// Raw data recorder: a live device's packets, byte for byte, into .dvs recording files.
#ifndef EVCAM_SRC_RECORD_DATA_SAVE_H
#define EVCAM_SRC_RECORD_DATA_SAVE_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <thread>

#include "evcam/dvs_error.h"

namespace evcam {

class PacketBuffer;

/// Records the packets of a saving PacketBuffer on a thread of its own. Packets are gathered
/// in a memory cache so that the disk sees large writes; a packet that does not fit in what is
/// left of the cache is written by itself right after the cache, never copied.
///
/// Files. Each recording starts with "YYYY-MM-DD-hh-mm-ss-<version name>.dvs" in the directory
/// given to StartSave. When the file system refuses to let a file grow, the rest of the data
/// goes on in a follow-on file "YYYY-MM-DD-hh-mm-ss--<version name>.dvs" (two dashes) with a
/// header of its own; no byte is lost or written twice at the split. Files are created
/// exclusively: an existing file is never overwritten, a name taken in the same second is
/// retried in the next second.
///
/// Disk full. The current file is closed, the no-space callback runs once on the save thread,
/// the thread ends and the saving buffer's save status is switched off so that the pool does
/// not grow behind a recorder that no longer reads it. The recording state lasts until
/// StopSave, which then still succeeds. Any other write failure ends the thread the same way,
/// without the callback.
///
/// Threads: one controlling thread calls the setters, StartSave, StopSave and the destructor;
/// SaveData may be called from any thread; the save thread runs the no-space callback.
class DataSave {
  public:
    /// Default size of the write cache.
    static constexpr uint32_t kDefaultCacheSize = 0x100000;
    /// Room GetVersionName needs, terminator included.
    static constexpr size_t kVersionNameSize = 32;
    /// Capacity of the stored directory and file paths, terminator included.
    static constexpr size_t kPathSize = 512;

    /// Allocates the default cache (a failed allocation leaves it to the save thread).
    DataSave();
    /// Stops a recording still running (as StopSave) and frees the cache.
    ~DataSave();
    DataSave(const DataSave&) = delete;
    DataSave& operator=(const DataSave&) = delete;

    /// Sensor version written into headers and file names.
    /// @return 0; 201 while a save thread exists (a follow-on file would disagree with its
    ///         data); 1 unless version is 1 or 17. Controlling thread.
    DVS_ERROR SetVersion(DVS_VERSION version);
    /// The buffer the save thread reads through GetASaveNode. Not owned; it must outlive
    /// StopSave, and its save status must be on before StartSave for packets to reach it.
    /// StopSave forgets it, so every recording needs it set anew.
    /// @return 0; 201 while a save thread exists; 1 for null. Controlling thread.
    DVS_ERROR SetPacketBuffer(PacketBuffer* buffer);
    /// Replaces the write cache by one of size bytes.
    /// @return 0; 201 while a save thread exists; 1 for 0; 19 when the allocation fails (the
    ///         cache is then absent and the save thread allocates the default one).
    ///         Controlling thread.
    DVS_ERROR SetCacheSize(uint32_t size);
    /// Function called with user when the disk is full; null clears it. May be set while
    /// recording (it runs on the save thread). @return 0. Any thread.
    DVS_ERROR SetNoSpaceCbk(void (*callback)(void*), void* user);

    /// Creates the first file of a recording in dir (a trailing slash is added if missing),
    /// writes its header and starts the save thread. Blocks for at most about 2 s when the
    /// name of this second is taken. Controlling thread.
    /// @return 0; 4 when already recording; 1 for a null or empty dir; 9 without a packet
    ///         buffer; 22 without a version; 206 when the file cannot be created (dir missing,
    ///         path longer than kPathSize, names taken) or the thread cannot start.
    DVS_ERROR StartSave(const char* dir);
    /// Stops the save thread (packets still waiting in the save list are left to the caller,
    /// who empties the list by switching the buffer's save status off), writes what the cache
    /// holds, closes the file and forgets the packet buffer. Blocks until the thread has ended.
    /// @return 0; 4 when not recording. Controlling thread.
    DVS_ERROR StopSave();
    /// Appends len bytes of buf to the current file and flushes it, continuing in a follow-on
    /// file when the file may not grow. Blocks on file I/O.
    /// @return 0; 1 for a null buf with len above 0; 2 when no file is open; 204 when the
    ///         bytes could not all be written (the file is then closed; on a full disk the
    ///         no-space callback has run). Any thread.
    DVS_ERROR SaveData(const uint8_t* buf, uint32_t len);
    /// Writes "-" and the name of the version from the version map into out, which must hold
    /// kVersionNameSize bytes; a version missing from the map gives the dash alone.
    /// @return 0; 1 for null out. Controlling thread.
    DVS_ERROR GetVersionName(char* out) const;

  private:
    void SaveThread();
    /// Ends the save thread's reading after a failure: the buffer's save status goes off, so
    /// the nodes it holds for the recorder are released and new ones are not held.
    void StopReading();
    /// The write loop of SaveData. Caller holds mFileLock and a file is open.
    /// @return 0; 209 for a full disk; 203 when a follow-on file cannot be made; 204 for
    ///         anything else. The file is closed on failure.
    DVS_ERROR WriteDataToFile(const uint8_t* buf, size_t len);
    /// Creates the first file of the recording in mSaveDir. Caller holds mFileLock.
    /// @return 0, or 202 (the header is not checked: a short one shows in the first write).
    DVS_ERROR Initialize();
    /// Closes the current file and starts a follow-on file with its header. Caller holds
    /// mFileLock. @return 0; 209 when the header meets a full disk; 203 otherwise.
    DVS_ERROR CreateNewFile();
    /// Opens a file exclusively under the name of the current second, waiting for the next
    /// second while the name is taken. Caller holds mFileLock. @return 0, or 202.
    DVS_ERROR OpenNamedFile(bool followOn);
    /// Closes the current file; an empty one is removed. Caller holds mFileLock.
    void Uninitialize();

    std::mutex mCbkLock;
    void (*mNoSpaceCbk)(void*) = nullptr;  ///< guarded by mCbkLock
    void* mNoSpaceUser = nullptr;          ///< guarded by mCbkLock

    std::thread mSaveThread;  ///< joinable while recording; controlling thread
    /// Written by the controlling thread, polled by the save thread.
    std::atomic<bool> mIsSaving{false};

    std::mutex mFileLock;
    FILE* mFile = nullptr;           ///< guarded by mFileLock
    char mFilePath[kPathSize] = {};  ///< guarded by mFileLock
    /// Set by StartSave before the thread starts; constant while it runs.
    char mSaveDir[kPathSize] = {};
    bool mFileOpened = false;  ///< guarded by mFileLock

    // Set by the controlling thread while no save thread runs.
    PacketBuffer* mPacketBuffer = nullptr;  ///< not owned
    DVS_VERSION mVersion = SELECT_VERSION;

    // Owned by the save thread while it runs, by the controlling thread otherwise.
    std::unique_ptr<uint8_t[]> mCache;
    uint32_t mCacheSize = kDefaultCacheSize;
};

}  // namespace evcam

#endif  // EVCAM_SRC_RECORD_DATA_SAVE_H
