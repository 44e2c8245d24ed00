// The DVS object that plays a recording back through the same chain as a live camera.
#ifndef EVCAM_SRC_CAMERA_DVS_FILE_H
#define EVCAM_SRC_CAMERA_DVS_FILE_H

#include <memory>
#include <string>

#include "evcam/dvs.h"

namespace evcam {

class FileStream;
class Stream;
class MatSave;
class PacketBuffer;
class PacketParser;
class Packaging;
class UIDataBuffer;

/// Playback of a `.dvs` recording (or a headerless raw dump whose version the caller sets).
/// Owns its source, parser and packager for life; builds the pools per run (Start/Resume to
/// Stop/Pause). One caller thread at a time; callbacks arrive on the library's threads.
/// Playback runs as fast as the pipeline consumes: file data is never dropped.
class DVSFile : public DVS {
  public:
    DVSFile();
    ~DVSFile() override;

    DVS_ERROR SetParameter(PARA_TYPE type, void* value) override;
    DVS_ERROR GetParameter(PARA_TYPE type, void* value) override;
    DVS_ERROR Start() override;
    DVS_ERROR Stop() override;
    DVS_ERROR GetFrame(OUT_TYPE type, DVSUIData* data, unsigned char& count) override;
    DVS_ERROR SetCallBack(CALLBACK_TYPE type, void* function, void* user) override;
    /// Exports painted frames with the save mode of the work mode (2, 4: images; 3, 5: video).
    DVS_ERROR StartSaving(const char* path) override;
    DVS_ERROR StopSaving() override;
    DVS_ERROR StartFrameSaving(const char* path, int mode) override;
    DVS_ERROR StopFrameSaving() override;
    DVS_ERROR Pause() override;
    DVS_ERROR UnbindDevice() override;
    DVS_ERROR Resume() override;
    void ResetTotalCount() override;
    void GetTotalCounts(unsigned long& events, unsigned long& frames) override;

  private:
    enum RunState : int32_t { kStopped = 0, kRunning = 1, kPaused = 2 };

    /// Start and Resume past their state checks: builds the run and begins the source with
    /// begin (Stream::Start or Stream::Resume); tears the run down again when the source refuses.
    DVS_ERROR Run(DVS_ERROR (Stream::*begin)());
    /// Builds the pools and starts parser and delivery; tears down again on failure.
    DVS_ERROR StartCommon();
    /// Stops parser and delivery and frees the pools.
    DVS_ERROR StopCommon();
    /// Restores the defaults (all but the packet count) and resets the components.
    DVS_ERROR Reset();
    /// Makes, configures and starts an exporter; on failure it is kept in mMatSave when
    /// keepOnFailure, else destroyed.
    DVS_ERROR StartExport(const char* path, int saveMode, bool keepOnFailure);
    void RunSize(int32_t& width, int32_t& height) const;
    void SetDefaults();

    std::unique_ptr<PacketBuffer> mPacketBuffer;
    std::unique_ptr<UIDataBuffer> mUIDataBuffer;
    std::unique_ptr<Packaging> mPackaging;
    void* mDataHandle = nullptr;
    std::unique_ptr<FileStream> mStream;
    std::unique_ptr<PacketParser> mParser;
    std::unique_ptr<MatSave> mMatSave;
    DVS_VERSION mVersion = SELECT_VERSION;
    uint32_t mOutputType = OUT_POLARITY;
    uint8_t mFileValid = 0;
    uint32_t mFramePeriod = 10;
    std::string mFilePath;
    RunState mRunningStatus = kStopped;
    FrameCallback mFrameCallback = nullptr;
    void* mFrameCallbackUser = nullptr;
    uint32_t mFrameMode = FRAME_MODE_POLLING;
    uint32_t mEventCount = 3000;
    uint32_t mFrameEndCount = 2;
    uint32_t mFrameRule = 0;  ///< 0 period, 1 event count, 2 frame-end count
    uint32_t mWorkMode = 4;
    uint32_t mColorFormat = COLOR_RGB24;
    DVSCommonColors mColors = kDefaultColors;
    uint32_t mPPX = 2;
    uint32_t mPacketCount = 64;
    int32_t mWidth = 0;
    int32_t mHeight = 0;
};

}  // namespace evcam

#endif  // EVCAM_SRC_CAMERA_DVS_FILE_H
