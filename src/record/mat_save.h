// Frame exporter: painted frames from the output pool to BMP images or a Motion-JPEG AVI.
#ifndef EVCAM_SRC_RECORD_MAT_SAVE_H
#define EVCAM_SRC_RECORD_MAT_SAVE_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

#include "evcam/dvs_error.h"

namespace evcam {

class DVSOutputData;
class UIDataBuffer;

/// Exports the painted image (OUT_IMAGE form) of every frame that reaches the output pool, on a
/// thread of its own that reads the pool through a consumer handle of its own.
///
/// Output. Save mode 1 writes one BMP per frame, named "%s%d.bmp" from the path prefix and a
/// frame counter that starts at 0 for every run and counts written frames only, so the names
/// form a gap-free sequence. Save mode 2 writes one Motion-JPEG AVI per run, named
/// "%s%s-%d.avi" from the path prefix, the version name and the lowest file counter whose file
/// does not exist yet, so an earlier export is never overwritten. Images keep the frame's
/// colour layout in OpenCV's order: RGB24 and YUV (4:4:4) become BGR, grey stays one channel.
/// Video frames are always BGR (grey is expanded), because the colour format may change while
/// the camera runs and one file cannot switch channel count. A stereo frame is exported as one
/// image with the first camera on the left and the second on the right. With a resolution set,
/// each camera's image is scaled to it (nearest neighbour, so single event pixels stay sharp);
/// without one the frame's own size is used. A video keeps the size of its first frame.
///
/// Slow writers. The pool is shared with the packager and the caller, so the exporter bounds
/// what it holds:
/// - Live data: before each write, the exporter keeps at most a quarter of the pool's slots (at
///   least one) of unwritten frames; older ones are released unwritten and counted as skipped.
///   Dropping the oldest keeps the export current and frees exactly the slots the pool
///   recycles first (it recycles in order of arrival).
/// - File data (records stamped with device identity 2, which the pipeline never drops): every
///   frame is written, and playback runs at the writer's pace.
/// In both cases a frame is held only while the writes before it and its own run, and a write
/// that fails releases its frame (counted as skipped) while the thread keeps reading, so the
/// packager never waits on the exporter indefinitely. Frames without the image form are
/// released and counted as skipped too.
///
/// Threads: one controlling thread calls the setters, StartSaving and StopSaving; the counters
/// and GetLastFilePath may be read from any thread.
class MatSave {
  public:
    static constexpr int kSaveImages = 1;
    static constexpr int kSaveVideo = 2;
    /// Video frame rate used until SetVideoFps gives one.
    static constexpr int kDefaultVideoFps = 30;

    MatSave();
    /// Stops a running export (as StopSaving).
    virtual ~MatSave();
    MatSave(const MatSave&) = delete;
    MatSave& operator=(const MatSave&) = delete;

    /// Sensor version; its name from Ver2StrMap goes into video file names.
    /// @return 0; 1 for a version without a name; 201 while saving.
    DVS_ERROR SetVersion(DVS_VERSION version);
    /// kSaveImages (1) or kSaveVideo (2); no mode is set on a new exporter.
    /// @return 0; 1 for any other mode (the previous mode stays); 201 while saving.
    DVS_ERROR SetSaveMode(int mode);
    /// Frame rate written into videos; 0 restores kDefaultVideoFps.
    /// @return 0; 1 for a negative rate; 201 while saving.
    DVS_ERROR SetVideoFps(int fps);
    /// Size of each camera's exported image: width 1..960 and height 1..720, or 0 and 0 to take
    /// the size of each frame.
    /// @return 0; 1 for anything else; 201 while saving.
    DVS_ERROR SetResolution(int width, int height);

    /// Checks that the first output file can be written (without leaving one behind), registers
    /// a consumer handle on buffer and starts the export thread. Only frames appended from now
    /// on are exported. buffer is not owned and must outlive StopSaving. Does not block.
    /// @return 0; 1 for a null or empty path, a null buffer or no save mode set; 4 when already
    ///         saving; 202 "Failed to open file." when the output cannot be written (nothing is
    ///         left running); 2 when the thread cannot be started.
    DVS_ERROR StartSaving(const char* path, UIDataBuffer* buffer);
    /// Writes every frame appended before the call, closes the output, unregisters the handle
    /// (releasing frames appended since) and joins the thread. Blocks for those writes.
    /// @return 0; 4 when not saving (harmless, so it may be called again).
    DVS_ERROR StopSaving();

    /// True between a successful StartSaving and StopSaving. Controlling thread only.
    bool IsSaving() const { return mThread.joinable(); }
    /// Frames (slots) written during the current or last run.
    uint64_t GetWrittenCount() const { return mWritten.load(); }
    /// Frames released unwritten during the current or last run: dropped to keep up with live
    /// data, without an image, or whose conversion or write failed.
    uint64_t GetSkippedCount() const { return mSkipped.load(); }
    /// Path of the last file written to (the newest image, or the video); empty before the
    /// first frame of the current or last run was written.
    std::string GetLastFilePath() const;

  protected:
    /// Writes one converted image to the current output. Runs on the export thread; overridden
    /// only to stand in for a slow disk, in which case the subclass must call StopSaving in its
    /// own destructor. @return true when the image was written.
    virtual bool WriteImage(const cv::Mat& image);

  private:
    void Run();
    void TrimBacklog(std::deque<DVSOutputData*>& pending);
    void ExportSlot(DVSOutputData* slot);
    bool ConvertSlot(DVSOutputData* slot, cv::Mat& out) const;
    bool WriteVideoFrame(const cv::Mat& image);
    void SetLastFilePath(const std::string& path);
    void ReportFailure(const std::string& path);

    // Settings: controlling thread; read by the export thread only while it runs, during which
    // they cannot change.
    DVS_VERSION mVersion = SELECT_VERSION;
    int mSaveMode = 0;
    int mVideoFps = kDefaultVideoFps;
    int mWidth = 0;
    int mHeight = 0;

    // Per run, set by StartSaving before the thread starts; the export thread owns the rest.
    std::string mPath;
    UIDataBuffer* mBuffer = nullptr;  ///< not owned
    void* mHandle = nullptr;          ///< consumer handle on mBuffer
    size_t mBacklogLimit = 1;
    int mSlotNodes = 1;
    std::string mVideoPath;         ///< this run's video file, chosen at start
    uint32_t mImageCounter = 0;     ///< export thread
    cv::VideoWriter mWriter;        ///< export thread
    cv::Size mVideoSize;            ///< export thread
    bool mFailureReported = false;  ///< export thread

    std::thread mThread;
    std::atomic<bool> mStopRequested{false};
    std::atomic<uint64_t> mWritten{0};
    std::atomic<uint64_t> mSkipped{0};

    mutable std::mutex mPathLock;
    std::string mLastFilePath;  ///< guarded by mPathLock
};

}  // namespace evcam

#endif  // EVCAM_SRC_RECORD_MAT_SAVE_H
