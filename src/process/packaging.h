// Frame assembly: events from the parser become frames in the output pool, delivered by a
// callback timer or taken by polling.
#ifndef EVCAM_SRC_PROCESS_PACKAGING_H
#define EVCAM_SRC_PROCESS_PACKAGING_H

#include <atomic>
#include <cstdint>
#include <memory>

#include "evcam/dvs.h"
#include "evcam/dvs_error.h"
#include "evcam/platform.h"
#include "evcam/records.h"
#include "src/data/ui_data_buffer.h"

namespace evcam {

/// Builds frames from events and hands them on.
///
/// Threads: AddEvent runs on the parse thread; the callback timer's passes run on timer
/// threads, one at a time; every other operation belongs to the owner's thread. Setters marked
/// "while stopped" must not race with a running parse thread or timer; the frame rule setters,
/// the frame mode, the colours and the callbacks may change at any time.
class Packaging {
  public:
    Packaging();
    /// Stops a callback timer that is still running (waits for its last pass).
    ~Packaging();
    Packaging(const Packaging&) = delete;
    Packaging& operator=(const Packaging&) = delete;

    /// Back to the defaults: 10 ms period, event count 3000, frame-end count 2 with the
    /// frame-end rule, polling mode, default colours in RGB24, no buffer, no open frame, state
    /// off, counters cleared. The frame callback and the frame-rate callback are kept. Owner's
    /// thread, while stopped.
    /// @return 0; 201 while the callback timer runs (nothing is changed).
    DVS_ERROR Reset();

    /// Closes frames every ms milliseconds of channel-0 sensor time (frame rule 0).
    /// @return 0, or 1 for 0.
    DVS_ERROR SetFramePeriod(uint32_t ms);
    /// Closes frames after n pixel events (frame rule 1). @return 0, or 1 for 0.
    DVS_ERROR SetEventCnt(uint32_t n);
    /// Closes frames after n sensor frame-end markers (frame rule 2). @return 0, or 1 for 0.
    DVS_ERROR SetFrmEndCnt(uint32_t n);
    /// Polling or callback delivery. @return 0, or 1 above FRAME_MODE_CALLBACK.
    DVS_ERROR SetFrameMode(FRAME_MODE mode);
    /// Colour format used from the next frame on. @return 0, or 1 above COLOR_GRAY.
    DVS_ERROR SetColorFormat(COLOR_FORMAT format);
    /// Copies the colours (12 bytes), used from the next frame on. @return 0, or 1 for null.
    DVS_ERROR SetColor(const DVSCommonColors* colors);
    /// The output pool to fill (not owned; it must outlive the run) and the consumer handle
    /// the owner registered on it for GetFrame and the callback timer (may be null when only
    /// other consumers read). A frame still open in a previous pool is forgotten.
    /// Owner's thread, while stopped. @return 0, or 1 for a null buffer (nothing changes).
    DVS_ERROR SetUIDataBuffer(UIDataBuffer* buffer, void* handle);
    /// Called on the parse thread with the measured sensor frame rate, about once a second.
    /// @return 0, or 1 for a null callback.
    DVS_ERROR SetFrameRateCallback(RateCallback callback, void* user);
    /// The frame callback used by the callback timer. Only the first callback ever given is
    /// kept for the object's life; the user pointer is replaced every time.
    /// @return 0, or 1 for a null callback.
    DVS_ERROR SetCallback(FrameCallback callback, void* user);
    /// Running state: while it is on, file data waits for a free output node instead of being
    /// refused. Any thread.
    void SetState(bool on);
    /// Lets the callback timer re-arm (true) or end after its current pass (false). Any thread.
    void SetStartFlag(bool on);
    /// Whether the callback timer has finished its last pass. Any thread. @return 0.
    DVS_ERROR GetTimerOverFlag(bool& over) const;
    /// Measured milliseconds between frames delivered by the callback timer, 0 until measured
    /// (about a second of delivery). Any thread.
    int GetFrameInterval() const;

    /// The parser's add-event callback; user is the Packaging. Parse thread.
    /// @return 1 for a null argument; otherwise as PackageAddEvent.
    static DVS_ERROR AddEvent(Event* e, void* user);
    /// Adds one event record to the open frame, closing it first when the frame rule says so.
    /// Parse thread. May block, for file data (dvsId 2) only, while the pool is full and the
    /// state is on.
    /// @return 0; 19 when no output node is free (the event is lost); 20 for a channel the pool
    ///         has no record for, more than 8 coordinates, or a coordinate outside the record
    ///         (the coordinates from there on are lost); 7 without a buffer.
    DVS_ERROR PackageAddEvent(Event* e);

    /// Polling mode: copies the forms in type of the next frame into out, an array of count
    /// records (count is set to the records per frame, 1 or 2, before the frame is looked for).
    /// Never blocks. The frame is released whatever happens.
    /// @return 0; 1 for type outside 1..15 or null out; 2 without a buffer; 17 in callback mode
    ///         (the pool is not touched); 12 when no frame waits; else the first error of
    ///         DVSOutputData::CopyTo.
    DVS_ERROR GetFrame(OUT_TYPE type, DVSUIData* out, unsigned char& count);
    /// Discards the next frame. @return 0; 2 without a buffer; 12 when no frame waits.
    DVS_ERROR DropFrame();

    /// Starts delivering frames to the frame callback from a one-shot timer that re-arms
    /// itself. Does nothing while already started. Owner's thread.
    /// @return 0, also when no timer could be armed (then nothing is delivered and
    ///         StopCallbackTimer returns at once).
    DVS_ERROR StartCallbackTimer();
    /// Stops the callback timer and blocks until its running or pending pass has ended (up to
    /// one period, at most a second, plus the frame callback's own time). Returns at once when
    /// the timer was never started. Owner's thread; never from inside the frame callback.
    /// @return 0.
    DVS_ERROR StopCallbackTimer();

  private:
    static void TimerProc(void* user);
    DVS_ERROR FrameTimerProc();
    void DeliverFrame(uint32_t period);
    bool PrepareCopyArea(const DVSOutputData* node);

    DVS_ERROR AllocateResource(const Event* e);
    DVS_ERROR Package(const Event* e);
    bool FrameStaysOpen(const Event* e) const;
    void CloseFrame();
    void CountFrameEnd();

    // Delivery. Callbacks are atomics because the owner may set them while a timer runs.
    std::atomic<FrameCallback> mFrameCbk{nullptr};
    std::atomic<void*> mFrameUser{nullptr};
    void* mTimerHandle = nullptr;  ///< guarded by mPassLock
    uint32_t mDeliverCount = 0;    ///< guarded by mPassLock
    uint64_t mDeliverStart = 0;    ///< guarded by mPassLock
    std::atomic<int> mFrameInterval{0};
    std::atomic<uint32_t> mFramePeriod{10};
    std::atomic<bool> mStartFlag{false};
    /// Set by the pass that ends the timer chain, as its very last access to this object.
    std::atomic<bool> mTimerOver{false};
    /// A timer chain was started and not yet stopped. Owner's thread only.
    bool mTimerLive = false;

    // Set while stopped by the owner; read by all threads.
    UIDataBuffer* mUIDataBuffer = nullptr;
    void* mDataHandle = nullptr;

    // The frame being filled. Parse thread only (and the owner while stopped).
    DVSOutputData* mCurNode = nullptr;  ///< first node of the open slot; null: none open
    std::atomic<FRAME_MODE> mFrameMode{FRAME_MODE_POLLING};
    uint32_t mFrameStartTs = 0;
    uint32_t mFrameEvents = 0;
    uint32_t mFrameEnds = 0;
    std::atomic<uint32_t> mEventCnt{3000};
    std::atomic<uint32_t> mFrmEndCnt{2};

    /// The records handed to the frame callback; guarded by mPassLock.
    std::unique_ptr<DVSUIData[]> mCopyArea;
    bool mCopyAreaReady = false;  ///< guarded by mPassLock

    std::atomic<uint32_t> mEndRule{2};  ///< 0 period, 1 event count, 2 frame-end count
    uint32_t mFrameCount = 0;           ///< parse thread

    // Colours: the owner writes the pending set, the parse thread copies it into the active
    // set when a frame opens, so a frame is painted in one set throughout.
    COLOR_FORMAT mPendingColorFormat = COLOR_RGB24;   ///< guarded by mColorLock
    DVSCommonColors mPendingColors = kDefaultColors;  ///< guarded by mColorLock
    COLOR_FORMAT mColorFormat = COLOR_RGB24;          ///< parse thread
    DVSCommonColors mColors = kDefaultColors;         ///< parse thread
    RWLock mColorLock;

    std::atomic<bool> mState{false};

    std::atomic<RateCallback> mFrameRateCbk{nullptr};
    std::atomic<void*> mFrameRateUser{nullptr};
    uint32_t mRateFrames = 0;       ///< parse thread
    uint64_t mRateWindowStart = 0;  ///< parse thread

    /// Held for a whole timer pass, and by StartCallbackTimer while it arms the first timer so
    /// that a pass never sees the handle before it is written.
    DVSLock mPassLock;
};

}  // namespace evcam

#endif  // EVCAM_SRC_PROCESS_PACKAGING_H
