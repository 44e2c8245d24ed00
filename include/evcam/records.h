// Records that callers receive: decoded events, colour sets and frame records.
#ifndef EVCAM_RECORDS_H
#define EVCAM_RECORDS_H

#include <cstdint>

#include "evcam/dvs_error.h"
#include "evcam/export.h"

namespace evcam {

/// Event::type values.
constexpr int32_t kEventPixels = 0;    ///< pixel events in coords
constexpr int32_t kEventFrameEnd = 2;  ///< end-of-frame marker sent by the sensor
/// The last block of a play-once recording has been decoded: nothing follows, so the packager
/// closes the frame it holds open instead of waiting for an event that never comes.
constexpr int32_t kEventEndOfPass = 3;

/// One decoded group of sensor events, as the parser hands it to the packager.
/// Passed by pointer and valid only during the call that receives it.
struct Event {
    int32_t type = 0;         ///< kEventPixels, kEventFrameEnd or kEventEndOfPass
    uint32_t coords[8] = {};  ///< x in the low 16 bits, y in the high 16 bits
    int32_t polarity = 0;     ///< 0 or 1 (2 from raw bitmaps); -1 is the background
    uint32_t dvsId = 0;       ///< identity of the producing device; 2 marks file data
    uint32_t timestamp = 0;   ///< microseconds on the sensor clock
    uint8_t channel = 0;      ///< camera index, 0 or 1 (stereo)
    uint8_t count = 0;        ///< valid entries of coords, 0..8

    static constexpr uint32_t MakeCoord(uint32_t x, uint32_t y) { return (x & 0xFFFF) | (y << 16); }
    static constexpr uint32_t CoordX(uint32_t c) { return c & 0xFFFF; }
    static constexpr uint32_t CoordY(uint32_t c) { return c >> 16; }
};

/// One colour: three colour bytes and a fourth that painting ignores.
struct DVSColor {
    uint8_t c[4];
};

/// The colours used to paint frames: polarity 0, polarity 1, background (and polarity -1).
struct DVSCommonColors {
    DVSColor colors[3];
};
static_assert(sizeof(DVSCommonColors) == 12, "DVSCommonColors is exchanged as 12 bytes");

/// The default colour set: white for polarity 0, black for polarity 1, grey background.
constexpr DVSCommonColors kDefaultColors = {
    {{{255, 255, 255, 0}}, {{0, 0, 0, 0}}, {{128, 128, 128, 0}}}};

/// One entry of DVSUIData::mEvents: 8 bytes, little-endian.
struct PackedEvent {
    uint16_t xp;         ///< x in bits 0-14, polarity bit 0 in bit 15
    uint16_t y;          ///< row
    uint32_t timestamp;  ///< microseconds

    constexpr uint16_t X() const { return xp & 0x7FFF; }
    constexpr int Polarity() const { return xp >> 15; }
};
static_assert(sizeof(PackedEvent) == 8, "packed events are 8 bytes");

/// Capacity of a freshly initialised event list (0x400000 bytes).
constexpr int32_t kDefaultEventCapacity = 524288;
/// Largest event list ResizeEventContainer accepts.
constexpr int32_t kMaxEventCapacity = 0xA00000;

/// One frame in up to four forms. Callers receive arrays of one (mono) or two (stereo) of these.
/// A caller that polls with DVS::GetFrame builds its own records with the forms it wants
/// (constructor with arguments, or Initialize). The record owns its arrays; it is not copyable.
/// Not thread-safe: one thread uses a record at a time.
class EVCAM_API DVSUIData {
  public:
    DVS_VERSION mVersion = SELECT_VERSION;
    int32_t mDVSID = -1;  ///< dvsId of the last event packaged into the frame
    int32_t mBinSize = 0;
    uint8_t* mBinData = nullptr;  ///< polarity per pixel, 0xFF where no event fell
    uint32_t mLastTimestamp = 0;
    uint32_t mTsSize = 0;
    uint32_t* mTsData0 = nullptr;  ///< last polarity-0 time stamp per pixel
    uint32_t* mTsData1 = nullptr;  ///< last polarity-1 time stamp per pixel
    int32_t mEventCount = 0;
    PackedEvent* mEvents = nullptr;
    uint32_t mImgWidth = 0;
    uint32_t mImgHeight = 0;
    uint32_t mImgSize = 0;  ///< bytes of mImgData in use
    COLOR_FORMAT mColorFormat = COLOR_RGB24;
    uint8_t* mImgData = nullptr;  ///< width x height x 3 bytes allocated
    uint32_t mOutputType = 0;     ///< OUT_TYPE bits of the forms held
    int32_t mWidth = 0;
    int32_t mHeight = 0;
    uint32_t mFrameIndex = 0;
    uint32_t mTotalEvents = 0;  ///< events packaged, whether or not they fitted in mEvents
    int32_t mEventCapacity = 0;
    bool mInitialized = false;

    /// An empty, uninitialised record.
    DVSUIData() = default;
    /// Stores the size and calls Initialize; check mInitialized for the outcome.
    DVSUIData(DVS_VERSION version, uint32_t outType, int width, int height);
    ~DVSUIData();
    DVSUIData(const DVSUIData&) = delete;
    DVSUIData& operator=(const DVSUIData&) = delete;

    /// Allocates the stores of the forms in outType.
    /// @return 0; 1 for a version other than 1/17, a mask outside 1..15, a size below 1 or an
    ///         image too large for 32-bit sizes; 4 when already initialised (the old stores
    ///         stay); 8 when memory is short (nothing allocated).
    DVS_ERROR Initialize(DVS_VERSION version, uint32_t outType, int width, int height);
    /// Clears the frame: counters to 0, stores back to their empty state.
    /// @return 0, or 18 before Initialize.
    DVS_ERROR Reset();
    /// Replaces the event list by a zeroed one of n entries (the event count is kept).
    /// @return 0; 18 before Initialize; 1 for n above 0xA00000 or below 0; 8 when memory is
    ///         short (the old list stays).
    DVS_ERROR ResizeEventContainer(int n);
};

}  // namespace evcam

#endif  // EVCAM_RECORDS_H
