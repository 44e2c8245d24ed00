// Plays a recording, or a headerless raw dump, into a PacketBuffer.
#ifndef EVCAM_SRC_STREAM_FILE_STREAM_H
#define EVCAM_SRC_STREAM_FILE_STREAM_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "src/stream/stream.h"

namespace evcam {

/// File source. The read thread reads the file in blocks of mReadSize bytes, as fast as the
/// packet buffer hands out free nodes: it waits for a free node rather than drop data, and
/// leaves that wait when the status changes. Packets carry the file's version and kFileDVSID.
///
/// The owner's thread calls every public operation; the read-over callback runs on the read
/// thread and may call Stop or Pause (they do not wait for the thread that calls them), but
/// must not destroy the stream. A path containing ".dvs" is a recording whose data begins
/// after its header; any other path is a raw dump whose data begins at 0 ("data start").
class FileStream : public Stream {
  public:
    FileStream() = default;
    /// Stops and joins the read thread and closes the file.
    ~FileStream() override;

    /// Requests a jump to *percent of the data (0 and 1 included), applied by the read thread
    /// before its next block. @return 0; 1 for null or a value outside 0..1.
    DVS_ERROR SetFilePercent(float* percent) override;
    /// Writes the position of the next block to read as a fraction of the data, 0.0 while the
    /// size is unknown. It runs a block ahead of what a consumer has seen. @return 0, or 1 for
    /// null.
    DVS_ERROR GetFilePercent(float* percent) override;
    /// Checks the file and starts the read thread at data start.
    /// @return 0; 4 when running or paused; 207 while no version is known; the CheckFile
    ///         failure; 6 without a packet buffer; 201 from the read-over callback; 2 when no
    ///         thread can be made.
    DVS_ERROR Start() override;
    /// Stops and joins the read thread, so it blocks until the current block is delivered or
    /// the wait for a free node is left. The file stays open and is measured again by the next
    /// thread. @return 0, or 4 unless running or paused.
    DVS_ERROR Stop() override;
    /// Binds path (copied) and, for a recording, checks it. The version is forgotten; a file
    /// left open by an earlier run is closed so the next run reads the new path.
    /// @return 0 or the CheckFile result for a recording; 1 for null; 207 for an empty path;
    ///         201 while running or paused, or from the read-over callback.
    DVS_ERROR SetFilePath(const char* path) override;
    /// Stops and joins the read thread at its next check, keeping the position; a block still
    /// waiting for a free node is read again on Resume. @return 0; 2 when stopped; 4 when
    /// paused.
    DVS_ERROR Pause() override;
    /// Starts a new read thread where Pause left off; a play-once playback that had reached
    /// the end starts over at data start. @return 0; 2 when stopped (or no thread can be
    /// made); 4 when running; 6 without a packet buffer; 201 from the read-over callback.
    DVS_ERROR Resume() override;
    /// Restores every default except the skip count and the packet buffer.
    /// @return 0; 201 unless stopped, or from the read-over callback; 24 while the file is
    ///         open.
    DVS_ERROR Reset() override;
    /// Closes the file. @return 0, or 201 unless stopped or from the read-over callback.
    DVS_ERROR Close() override;
    /// PLAY_LOOP or PLAY_ONCE; allowed while running. @return 0, or 1 for another value.
    DVS_ERROR SetPlayMode(PLAY_MODE mode) override;
    /// @return 0.
    DVS_ERROR GetPlayMode(PLAY_MODE& mode) override;
    /// Called once on the read thread, with user, when a play-once playback reaches the end.
    /// @return 0, or 1 for a null callback.
    DVS_ERROR SetReadOverCbk(void (*callback)(void*), void* user) override;
    /// @return 0, or 1 for null.
    DVS_ERROR GetVersion(int* version) override;
    /// States the version of a raw dump (a recording's comes from its header).
    /// @return 0; 201 while running; 23 without a path; 10 for a recording; 1 unless 1 or 17.
    DVS_ERROR SetVersion(DVS_VERSION version) override;
    /// Block size of ppx KiB. @return 0; 201 while running; 1 unless 1..512.
    DVS_ERROR SetPPX(unsigned int ppx) override;
    /// Checks the bound file (CheckRecordingFile); for a recording the header length and the
    /// version found are recorded. Blocks on file I/O. @return as CheckRecordingFile.
    DVS_ERROR CheckFile() override;
    /// Drops the next bytes of data before delivering; values not a multiple of 4 are ignored.
    void SetSkipBytes(unsigned int bytes) override;

  protected:
    /// Opens the file if not yet open and measures its size. Runs on the read thread.
    /// @return 0, or 202 when the file cannot be opened.
    virtual DVS_ERROR Open();

  private:
    enum Status : int32_t { kStopped = 0, kRunning = 1, kPaused = 2 };

    /// Sets the status to running and starts the read thread.
    /// @return 0, or 2 when the system refuses a thread (the status is stopped again).
    DVS_ERROR StartReadThread();
    void ReadLoop();
    /// Delivers bytes [start, end) as one packet stamped with version, marked as the end of a
    /// play-once pass when endOfPass. @return false when the status changed while waiting for
    /// a free node, so that nothing was delivered.
    bool ReadData(uint64_t start, uint64_t end, DVS_VERSION version, bool endOfPass);
    /// Caller holds mLock.
    uint64_t DataStartLocked() const;
    /// Joins a read thread that is stopping or has ended by itself. @return false when called
    /// on the read thread itself, which cannot be joined from there.
    bool JoinReadThread();

    std::string mFilePath;       ///< changed only while no read thread runs
    FILE* mFile = nullptr;       ///< used by the read thread while one runs, else by the owner
    int64_t mFileSize = 0;       ///< guarded by mLock
    float mSeekPercent = -1.0f;  ///< guarded by mLock; -1 means no seek pending
    uint64_t mReadSize = 2048;   ///< changed only while no read thread runs
    std::mutex mLock;
    uint64_t mReadPos = 0;  ///< guarded by mLock; offset of the next block
    std::atomic<int32_t> mRunningStatus{kStopped};
    std::atomic<int32_t> mFileOpened{0};
    DVS_VERSION mVersion = SELECT_VERSION;  ///< guarded by mLock
    uint32_t mPPX = 2;                      ///< changed only while no read thread runs
    uint16_t mHeaderWords = 0;              ///< guarded by mLock
    std::thread mReadThread;                ///< owner's thread only
    std::atomic<uint32_t> mSkipBytes{0};
    std::atomic<PLAY_MODE> mPlayMode{PLAY_LOOP};
    void (*mReadOverCbk)(void*) = nullptr;  ///< guarded by mLock
    void* mReadOverUser = nullptr;          ///< guarded by mLock
    std::atomic<bool> mReadOver{false};
};

}  // namespace evcam

#endif  // EVCAM_SRC_STREAM_FILE_STREAM_H
