#include "src/sim/sensor_encoder.h"

#include <algorithm>

namespace evcam {

namespace {

constexpr uint32_t kMaxRow = 2047;
constexpr uint32_t kMaxGroup = 127;
constexpr uint32_t kMaxY = kMaxGroup * 8 + 7;

// Batch sort key: row, then group, then polarity, then the bit within the group, so that one
// pass over the sorted keys yields each row's groups in rising order.
constexpr uint32_t MakeKey(const SensorEvent& e) {
    return static_cast<uint32_t>(e.x) << 12 | static_cast<uint32_t>(e.y >> 3) << 5 |
           static_cast<uint32_t>(e.polarity) << 4 | (e.y & 7u);
}
constexpr uint32_t KeyRow(uint32_t key) {
    return key >> 12;
}
constexpr uint32_t KeyGroup(uint32_t key) {
    return (key >> 5) & 0x7F;
}
constexpr uint32_t KeyPolarity(uint32_t key) {
    return (key >> 4) & 1;
}
constexpr uint32_t KeyUnit(uint32_t key) {
    return key >> 4;
}  // row, group and polarity

}  // namespace

SensorEncoder::SensorEncoder(DVS_VERSION version)
    : mVersion(version == MVT94QX_STEREO ? MVT94QX_STEREO : MVT94QX) {}

DVS_ERROR SensorEncoder::SetVersion(DVS_VERSION version) {
    if (!IsKnownVersion(version)) {
        return ERR_PARA_ERROR;
    }
    mVersion = version;
    return ERR_SUCCESS;
}

void SensorEncoder::Reset() {
    mState = State();
}

bool SensorEncoder::ValidChannel(uint32_t channel) const {
    return channel == 0 || (channel == 1 && IsStereoVersion(mVersion));
}

DVS_ERROR SensorEncoder::EncodeTime(uint32_t channel, uint32_t timestampUs,
                                    std::vector<uint8_t>& out) {
    if (!ValidChannel(channel) || timestampUs >= kSensorClockWrapUs) {
        return ERR_PARA_ERROR;
    }
    ChannelState& c = mState.channels[channel];
    const uint32_t ms = timestampUs / 1000;
    const uint32_t sub = timestampUs % 1000;
    if (c.timeSent && timestampUs == c.ts) {
        return ERR_SUCCESS;
    }
    if (ms == c.ms && timestampUs < c.ts) {
        return ERR_PARA_ERROR;
    }
    const bool nextMs = (c.ms + 1) % kSensorMsWrap == ms;
    const bool inferred = mCompactTime && c.timeSent && nextMs && sub <= c.ts % 1000;
    if (!c.timeSent || (ms != c.ms && !inferred)) {
        AppendWord(out, ms_word(channel, ms));
    }
    // A fresh parser already stands at stamp 0; repeating it would advance its millisecond.
    if (timestampUs != c.ts) {
        AppendWord(out, us_word(channel, sub));
    }
    c.ms = ms;
    c.ts = timestampUs;
    c.timeSent = true;
    return ERR_SUCCESS;
}

DVS_ERROR SensorEncoder::EncodeRow(uint32_t channel, uint32_t row, bool dir,
                                   std::vector<uint8_t>& out) {
    if (!ValidChannel(channel) || row > kMaxRow) {
        return ERR_PARA_ERROR;
    }
    AppendWord(out, row_word(channel, row, dir));
    ChannelState& c = mState.channels[channel];
    c.row = row;
    c.rowSent = true;
    mState.dir = dir;
    return ERR_SUCCESS;
}

DVS_ERROR SensorEncoder::EncodePixels(uint32_t channel, uint32_t group, uint8_t mask0,
                                      uint32_t polarity0, uint32_t group2, uint8_t mask1,
                                      uint32_t polarity1, std::vector<uint8_t>& out) {
    if (!ValidChannel(channel) || (mask0 == 0 && mask1 == 0) || group > kMaxGroup ||
        polarity0 > 1 || polarity1 > 1) {
        return ERR_PARA_ERROR;
    }
    uint32_t offset = 0;
    if (mask1 != 0) {
        const int64_t step = static_cast<int64_t>(group2) - group;
        const int64_t distance = mState.dir ? -step : step;
        if (group2 > kMaxGroup || distance < 0 || distance > kMaxGroupOffset) {
            return ERR_PARA_ERROR;
        }
        offset = static_cast<uint32_t>(distance);
    }
    AppendWord(out, group_word(channel, group, offset, mask0, polarity0, mask1, polarity1));
    mState.pixels += static_cast<uint64_t>(__builtin_popcount(mask0) + __builtin_popcount(mask1));
    return ERR_SUCCESS;
}

DVS_ERROR SensorEncoder::EncodeFrameEnd(uint32_t channel, std::vector<uint8_t>& out) {
    if (!ValidChannel(channel)) {
        return ERR_PARA_ERROR;
    }
    AppendWord(out, frame_end_word(channel));
    return ERR_SUCCESS;
}

DVS_ERROR SensorEncoder::EncodeEvents(const SensorEvent* events, size_t count,
                                      std::vector<uint8_t>& out) {
    if (count != 0 && events == nullptr) {
        return ERR_PARA_ERROR;
    }
    const State saved = mState;
    const size_t savedSize = out.size();
    size_t i = 0;
    while (i < count) {
        const uint32_t channel = events[i].channel;
        const uint32_t ts = events[i].timestamp;
        mKeys.clear();
        size_t j = i;
        for (; j < count && events[j].channel == channel && events[j].timestamp == ts; ++j) {
            const SensorEvent& e = events[j];
            if (e.x > kMaxRow || e.y > kMaxY || e.polarity > 1) {
                mState = saved;
                out.resize(savedSize);
                return ERR_PARA_ERROR;
            }
            mKeys.push_back(MakeKey(e));
        }
        if (EncodeTime(channel, ts, out) != ERR_SUCCESS) {
            mState = saved;
            out.resize(savedSize);
            return ERR_PARA_ERROR;
        }
        EncodeBatch(channel, out);
        i = j;
    }
    return ERR_SUCCESS;
}

void SensorEncoder::EncodeBatch(uint32_t channel, std::vector<uint8_t>& out) {
    std::sort(mKeys.begin(), mKeys.end());
    ChannelState& c = mState.channels[channel];
    const size_t n = mKeys.size();
    size_t k = 0;
    while (k < n) {
        const uint32_t row = KeyRow(mKeys[k]);
        if (!c.rowSent || c.row != row) {
            EncodeRow(channel, row, mState.dir, out);
        }
        // Groups of this row arrive in rising order; each is paired with the next one when
        // it lies within reach, otherwise sent alone.
        bool pending = false;
        uint32_t pendGroup = 0;
        uint32_t pendPol = 0;
        uint8_t pendMask = 0;
        while (k < n && KeyRow(mKeys[k]) == row) {
            const uint32_t unit = KeyUnit(mKeys[k]);
            const uint32_t group = KeyGroup(mKeys[k]);
            const uint32_t pol = KeyPolarity(mKeys[k]);
            uint8_t mask = 0;
            for (; k < n && KeyUnit(mKeys[k]) == unit; ++k) {
                mask = static_cast<uint8_t>(mask | 1u << (mKeys[k] & 7));
            }
            if (!pending) {
                pending = true;
                pendGroup = group;
                pendPol = pol;
                pendMask = mask;
            } else if (group - pendGroup <= kMaxGroupOffset) {
                EmitGroups(channel, pendGroup, pendMask, pendPol, group, mask, pol, out);
                pending = false;
            } else {
                EmitGroups(channel, pendGroup, pendMask, pendPol, 0, 0, 0, out);
                pendGroup = group;
                pendPol = pol;
                pendMask = mask;
            }
        }
        if (pending) {
            EmitGroups(channel, pendGroup, pendMask, pendPol, 0, 0, 0, out);
        }
    }
}

void SensorEncoder::EmitGroups(uint32_t channel, uint32_t groupA, uint8_t maskA, uint32_t polA,
                               uint32_t groupB, uint8_t maskB, uint32_t polB,
                               std::vector<uint8_t>& out) {
    // groupA <= groupB. The word's first group must be the one from which the second lies in
    // the current direction.
    if (maskB == 0) {
        AppendWord(out, group_word(channel, groupA, 0, maskA, polA, 0, 0));
    } else if (mState.dir) {
        AppendWord(out, group_word(channel, groupB, groupB - groupA, maskB, polB, maskA, polA));
    } else {
        AppendWord(out, group_word(channel, groupA, groupB - groupA, maskA, polA, maskB, polB));
    }
    mState.pixels += static_cast<uint64_t>(__builtin_popcount(maskA) + __builtin_popcount(maskB));
}

}  // namespace evcam
