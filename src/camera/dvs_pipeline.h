// What the playback and the live camera objects share: the parser and packager behind the
// source, the pools of a run, the frame exporter and the frame settings.
#ifndef EVCAM_SRC_CAMERA_DVS_PIPELINE_H
#define EVCAM_SRC_CAMERA_DVS_PIPELINE_H

#include <cstdint>
#include <memory>

#include "evcam/dvs.h"

namespace evcam {

class MatSave;
class PacketBuffer;
class PacketParser;
class Packaging;
class Stream;
class UIDataBuffer;

/// Base of DVSFile and DVSDevice. Owns the parser and the packager for life, the pools of a
/// run and the frame exporter; keeps the frame settings the caller gives and hands them to the
/// packager when a run is built. The kinds differ here only where Kind says so.
///
/// Threads: as for every DVS, one caller thread at a time owns all members; the library's
/// threads reach only the parser, the packager and the pools, which guard themselves.
class DVSPipeline : public DVS {
  public:
    ~DVSPipeline() override;

    /// Polling mode: copies the next frame (see DVS). Does not block.
    /// @return 1 for null data; 2 outside a run (no output pool); 17 in callback mode; else
    ///         the packager's answer.
    DVS_ERROR GetFrame(OUT_TYPE type, DVSUIData* data, unsigned char& count) override;
    /// Stops and destroys the frame exporter; blocks until its queued frames are written.
    /// @return 0, or 4 when no export runs.
    DVS_ERROR StopFrameSaving() override;
    void ResetTotalCount() override;
    void GetTotalCounts(unsigned long& events, unsigned long& frames) override;

  protected:
    /// The fixed differences between the kinds in what this class decides.
    struct Kind {
        uint32_t outputType;      ///< OUT_TYPE mask of a new or reset object
        uint32_t freshFrameRule;  ///< frame rule of a new object; a reset gives kRulePeriod
        uint32_t maxPacketCount;  ///< upper bound of PARA_PACKET_COUNT
        DVS_ERROR noVersion;      ///< PARA_RESOLUTION read back before the version is known
        /// The parser's skip period follows the frame rule. Only where data may be dropped:
        /// file data waits for a free output node and is never skipped.
        bool skipFollowsRule;
        bool exportVideoFormat;  ///< the exporter is told the video frame rate and the run size
        /// Under the count rules the packager's callback timer still runs at the frame period
        /// set (else at its default 10 ms).
        bool timerKeepsFramePeriod;
    };
    enum RunState : int32_t { kStopped = 0, kRunning = 1, kPaused = 2 };
    enum FrameRule : uint32_t { kRulePeriod = 0, kRuleEventCount = 1, kRuleFrameEnds = 2 };

    explicit DVSPipeline(const Kind& kind);

    /// Sets one of the parameters both kinds take: PPX (only kept: the caller hands it to its
    /// source), packet count, frame period, output type, frame mode, resolution, event count,
    /// frame-end count, colour format, colours. The frame rule, frame mode and colours take
    /// effect at once; the others wait for the next run. value must not be null.
    /// @return 0; 1 for a value out of range; 201 for a change refused while running; 10 for
    ///         any other parameter.
    DVS_ERROR SetPipelineParameter(PARA_TYPE type, void* value);
    /// Reads back one of the parameters above, or the sensor size. value must not be null.
    /// @return 0; Kind::noVersion for the resolution and 22 for the sensor size while neither a
    ///         resolution nor the version is known; 10 for any other parameter.
    DVS_ERROR GetPipelineParameter(PARA_TYPE type, void* value);
    /// Installs the callbacks both kinds take: frame (kept for the next run), frame rate, raw
    /// fps and totals (the last two refused while running: the parse thread reads them
    /// unlocked). @return 1 for a null function, a type above 6 or one that this part does not
    /// take; 201; else the component's answer.
    DVS_ERROR SetPipelineCallBack(CALLBACK_TYPE type, void* function, void* user);
    /// Restores the defaults of the settings kept here, except the packet count, the frame mode
    /// and the frame callback, which each kind treats in its own way.
    void RestoreDefaults();

    /// Gives the parser the size of the next run.
    void SizeParser();
    /// Builds the pools of a run (packets of packetSize bytes, outputNodes output frames),
    /// registers the caller's handle when callerHandle (else only the exporter reads), wires
    /// the parser to the packager and configures the packager from the settings, switched on.
    /// The caller hands mPacketBuffer to its source.
    void BuildRun(int packetSize, int outputNodes, bool callerHandle);
    /// Starts delivering frames to the frame callback when in callback mode.
    void StartDelivery();
    /// Switches the packager off, stops the parse thread and the delivery and frees the pools;
    /// stream no longer fills them. Blocks until the threads have ended.
    /// @return 0; the parser's Stop code other than 4 (nothing else is done then).
    DVS_ERROR EndRun(Stream& stream);
    /// Makes mMatSave and starts it on the output pool with saveMode. A failed exporter is
    /// kept in mMatSave when keepOnFailure, else destroyed. @return the exporter's answer.
    DVS_ERROR StartExporter(const char* path, int saveMode, bool keepOnFailure);

    // Destroyed in reverse: exporter, parser, packager before the pools they read.
    std::unique_ptr<PacketBuffer> mPacketBuffer;  ///< per run
    std::unique_ptr<UIDataBuffer> mUIDataBuffer;  ///< per run
    void* mDataHandle = nullptr;                  ///< caller's handle on mUIDataBuffer
    std::unique_ptr<Packaging> mPackaging;
    std::unique_ptr<PacketParser> mParser;
    std::unique_ptr<MatSave> mMatSave;  ///< while frames are exported

    const Kind mKind;
    RunState mRunningStatus = kStopped;
    DVS_VERSION mVersion = SELECT_VERSION;
    uint32_t mOutputType;
    uint32_t mFramePeriod = 10;
    uint32_t mFrameMode = FRAME_MODE_POLLING;
    FrameCallback mFrameCallback = nullptr;
    void* mFrameCallbackUser = nullptr;
    uint32_t mEventCount = 3000;
    uint32_t mFrameEndCount = 2;
    uint32_t mFrameRule;  ///< a FrameRule
    uint32_t mColorFormat = COLOR_RGB24;
    DVSCommonColors mColors = kDefaultColors;
    uint32_t mPPX = 2;
    uint32_t mPacketCount = 64;
    int32_t mWidth = 0;  ///< 0: the version's native size
    int32_t mHeight = 0;

  private:
    /// Width and height of a run: the resolution set, else the version's native size.
    void RunSize(int32_t& width, int32_t& height) const;
    /// Hands the active frame rule's value to the packager (and the skip period to the parser
    /// where the kind says so).
    void ApplyFrameRule();
};

}  // namespace evcam

#endif  // EVCAM_SRC_CAMERA_DVS_PIPELINE_H
