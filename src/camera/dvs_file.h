// The DVS object that plays a recording back through the same chain as a live camera.
#ifndef EVCAM_SRC_CAMERA_DVS_FILE_H
#define EVCAM_SRC_CAMERA_DVS_FILE_H

#include <memory>
#include <string>

#include "src/camera/dvs_pipeline.h"

namespace evcam {

class FileStream;

/// Playback of a `.dvs` recording (or a headerless raw dump whose version the caller sets).
/// Owns its source for life, and through DVSPipeline the parser, the packager and the pools of
/// each run (Start/Resume to Stop/Pause). One caller thread at a time; callbacks arrive on the
/// library's threads. Playback runs as fast as the pipeline consumes: file data is never
/// dropped.
class DVSFile : public DVSPipeline {
  public:
    DVSFile();
    /// Stops a running or paused playback, then destroys source, parser and packager.
    ~DVSFile() override;

    DVS_ERROR SetParameter(PARA_TYPE type, void* value) override;
    DVS_ERROR GetParameter(PARA_TYPE type, void* value) override;
    DVS_ERROR Start() override;
    DVS_ERROR Stop() override;
    DVS_ERROR SetCallBack(CALLBACK_TYPE type, void* function, void* user) override;
    /// Exports painted frames with the save mode of the work mode (2, 4: images; 3, 5: video).
    DVS_ERROR StartSaving(const char* path) override;
    /// The same operation as StopFrameSaving.
    DVS_ERROR StopSaving() override;
    /// Prints a trace line and, for a refusal, the reason before returning it.
    DVS_ERROR StartFrameSaving(const char* path, int mode) override;
    DVS_ERROR Pause() override;
    DVS_ERROR UnbindDevice() override;
    DVS_ERROR Resume() override;

  private:
    /// Start and Resume past their state checks: builds the run and begins the source with
    /// begin (Stream::Start or Stream::Resume); tears the run down again when the source refuses.
    DVS_ERROR Run(DVS_ERROR (Stream::*begin)());
    /// Builds the pools and starts parser and delivery; tears down again on failure.
    DVS_ERROR StartCommon();
    /// Restores the defaults (all but the packet count) and resets the components.
    DVS_ERROR Reset();

    std::unique_ptr<FileStream> mStream;
    uint8_t mFileValid = 0;
    std::string mFilePath;  ///< empty: no file bound
    uint32_t mWorkMode = 4;
};

}  // namespace evcam

#endif  // EVCAM_SRC_CAMERA_DVS_FILE_H
