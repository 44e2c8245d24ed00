// Turns events into the sensor's raw 4-byte words: the inverse of the packet parser's
// decoding, used by the scene generator, the simulated camera, tests and benchmarks.
#ifndef EVCAM_SRC_SIM_SENSOR_ENCODER_H
#define EVCAM_SRC_SIM_SENSOR_ENCODER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "evcam/dvs_error.h"
#include "src/process/packet_parser.h"

namespace evcam {

/// One pixel event as the sensor sees it. x travels in row-address words, y in pixel groups.
struct SensorEvent {
    uint32_t timestamp;  ///< microseconds on the sensor clock, below kSensorClockWrapUs
    uint16_t x;          ///< 0..2047
    uint16_t y;          ///< 0..1023
    uint8_t polarity;    ///< 0 or 1
    uint8_t channel;     ///< 0, or 1 for the second camera of a stereo sensor
};

/// The sensor clock in microseconds wraps to 0 with its 22-bit millisecond counter.
constexpr uint32_t kSensorClockWrapUs = kSensorMsWrap * 1000;
/// Largest distance between the two pixel groups of one word.
constexpr uint32_t kMaxGroupOffset = 31;

/// One raw word, bytes b0 b1 b2 b3 in stream order.
using SensorWord = std::array<uint8_t, 4>;

// Word builders. Each value is cut to the width of its field; channel is bit 1 of b0.

/// Millisecond time word: the 22-bit millisecond counter.
constexpr SensorWord ms_word(uint32_t channel, uint32_t ms) {
    return {static_cast<uint8_t>(0x08 | (channel & 1) << 1),
            static_cast<uint8_t>((ms >> 16) & 0x3F), static_cast<uint8_t>(ms >> 8),
            static_cast<uint8_t>(ms)};
}
/// Microsecond time word: the 10-bit count within the current millisecond.
constexpr SensorWord us_word(uint32_t channel, uint32_t sub) {
    return {static_cast<uint8_t>(0x08 | (channel & 1) << 1), 0x80,
            static_cast<uint8_t>((sub >> 8) & 0x03), static_cast<uint8_t>(sub)};
}
/// Row-address word: the 11-bit row (the x of later pixel groups) and the direction in which
/// a word's second group lies (set: below the first).
constexpr SensorWord row_word(uint32_t channel, uint32_t row, bool dir) {
    return {static_cast<uint8_t>(0x04 | (channel & 1) << 1),
            static_cast<uint8_t>(dir ? 0x80 : 0x00), static_cast<uint8_t>((row >> 8) & 0x07),
            static_cast<uint8_t>(row)};
}
/// Pixel-group word: group (7 bits, y / 8) with mask0 and polarity0; a second group at the
/// given offset (5 bits) from it with mask1 and polarity1. A zero mask sends no group.
constexpr SensorWord group_word(uint32_t channel, uint32_t group, uint32_t offset, uint8_t mask0,
                                uint32_t polarity0, uint8_t mask1, uint32_t polarity1) {
    return {
        static_cast<uint8_t>(0x80 | (offset & 0x1F) << 2 | (channel & 1) << 1 | ((group >> 6) & 1)),
        static_cast<uint8_t>((group & 0x3F) << 2 | (polarity1 & 1) << 1 | (polarity0 & 1)), mask1,
        mask0};
}
/// End-of-frame marker.
constexpr SensorWord frame_end_word(uint32_t channel) {
    return {static_cast<uint8_t>(0x0C | (channel & 1) << 1), 0, 0, 0};
}

/// Appends one word to a byte stream.
inline void AppendWord(std::vector<uint8_t>& out, const SensorWord& word) {
    out.insert(out.end(), word.begin(), word.end());
}

/// Encodes events for a parser that starts together with the encoder: it mirrors the
/// parser's per-channel clock and row address and the shared group direction, so that it
/// sends a time or row word only when the parser's copy would differ.
///
/// Every Encode call appends to out and returns 0; on 1 ("Input argument error.") nothing is
/// appended and the encoder is unchanged. Not thread-safe: one thread per encoder.
class SensorEncoder {
  public:
    /// version 1 (one channel) or 17 (two channels); any other value is taken as 1.
    explicit SensorEncoder(DVS_VERSION version = MVT94QX);

    /// @return 0, or 1 for a version other than 1 or 17 (the old one stays).
    DVS_ERROR SetVersion(DVS_VERSION version);
    DVS_VERSION GetVersion() const { return mVersion; }
    /// When set, a step into the next millisecond whose sub-millisecond count does not grow is
    /// sent without a millisecond word, as the sensor may do; the parser infers the step.
    void SetCompactTime(bool compact) { mCompactTime = compact; }
    /// Back to the state of a freshly started parser.
    void Reset();

    /// Moves the channel's clock to timestampUs: a millisecond word when the millisecond
    /// changes (or on the channel's first time word), then a microsecond word unless the stamp
    /// is unchanged, because the parser reads a repeated stamp as the next millisecond.
    /// A stamp below the current one is taken as a wrap of the sensor clock.
    /// @return 1 for a bad channel, a stamp at or beyond the wrap, or a stamp behind the
    ///         current one within the same millisecond (the words cannot express it).
    DVS_ERROR EncodeTime(uint32_t channel, uint32_t timestampUs, std::vector<uint8_t>& out);
    /// Always sends a row word. @return 1 for a bad channel or a row above 2047.
    DVS_ERROR EncodeRow(uint32_t channel, uint32_t row, bool dir, std::vector<uint8_t>& out);
    /// One pixel-group word at the channel's current row; group2 must lie within 31 groups of
    /// group on the side set by the last row word's direction (ignored when mask1 is 0).
    /// @return 1 for a bad channel, both masks 0, a group above 127, a polarity above 1, or
    ///         group2 out of reach.
    DVS_ERROR EncodePixels(uint32_t channel, uint32_t group, uint8_t mask0, uint32_t polarity0,
                           uint32_t group2, uint8_t mask1, uint32_t polarity1,
                           std::vector<uint8_t>& out);
    /// @return 1 for a bad channel.
    DVS_ERROR EncodeFrameEnd(uint32_t channel, std::vector<uint8_t>& out);
    /// Encodes pixel events given in stream order (each channel's stamps rising, apart from a
    /// clock wrap). Events sharing channel and stamp are packed into group words, two groups
    /// per word where they lie close; a pixel repeated at the same stamp and polarity is sent
    /// once, as the sensor would.
    /// @return 1 for an event outside the word fields or a channel the version lacks, or a
    ///         stamp EncodeTime refuses.
    DVS_ERROR EncodeEvents(const SensorEvent* events, size_t count, std::vector<uint8_t>& out);
    DVS_ERROR EncodeEvents(const std::vector<SensorEvent>& events, std::vector<uint8_t>& out) {
        return EncodeEvents(events.data(), events.size(), out);
    }

    /// Pixel events sent in group words since construction or Reset.
    uint64_t PixelsEncoded() const { return mState.pixels; }
    /// The channel's clock as the parser will see it after the words sent so far.
    uint32_t CurrentTimestamp(uint32_t channel) const { return mState.channels[channel & 1].ts; }

  private:
    struct ChannelState {
        uint32_t ms = 0;
        uint32_t ts = 0;
        uint32_t row = 0;
        bool timeSent = false;
        bool rowSent = false;
    };
    struct State {
        ChannelState channels[2];
        bool dir = false;  ///< shared by both channels, as in the parser
        uint64_t pixels = 0;
    };

    bool ValidChannel(uint32_t channel) const;
    /// One batch of events with the same channel and stamp, packed as (x, group, polarity, bit).
    void EncodeBatch(uint32_t channel, std::vector<uint8_t>& out);
    void EmitGroups(uint32_t channel, uint32_t groupA, uint8_t maskA, uint32_t polA,
                    uint32_t groupB, uint8_t maskB, uint32_t polB, std::vector<uint8_t>& out);

    DVS_VERSION mVersion;
    bool mCompactTime = false;
    State mState;
    std::vector<uint32_t> mKeys;  ///< scratch for EncodeBatch, kept to avoid reallocating
};

}  // namespace evcam

#endif  // EVCAM_SRC_SIM_SENSOR_ENCODER_H
