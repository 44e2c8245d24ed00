#include "src/sim/scene_generator.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace evcam {

namespace {

constexpr int kWidth = 960;
constexpr int kHeight = 720;
constexpr uint64_t kNever = std::numeric_limits<uint64_t>::max();

// Scene geometry. Everything moves once per second of sensor time.
constexpr double kBarWidth = 40;
constexpr double kBarTravel = kWidth - kBarWidth;  // pixels per second; the bar stays inside
constexpr double kDiscCenterX = kWidth / 2.0;
constexpr double kDiscCenterY = kHeight / 2.0;
constexpr double kDiscRadius = 300;
constexpr double kTwoPi = 6.283185307179586;
constexpr int kEdgeSpread = 4;           // edge events fall within this many pixels of the edge
constexpr uint64_t kNoisePerMille = 50;  // share of background noise in moving scenes
constexpr int kStereoDisparity = 16;     // the second camera sees the scene shifted left

const struct {
    const char* name;
    SceneKind kind;
} kSceneNames[] = {
    {"bar", SceneKind::kBar},
    {"disc", SceneKind::kDisc},
    {"noise", SceneKind::kNoise},
    {"still", SceneKind::kStill},
};

// Far above what the sensor delivers; keeps a mistaken rate from exhausting memory.
constexpr double kMaxRate = 1e9;

double SanitizeRate(double rate) {
    return std::isfinite(rate) && rate > 0 ? std::min(rate, kMaxRate) : 0;
}

// Whole microseconds of a time; kNever for times no span can reach (tiny rates, infinity).
uint64_t ToTime(double us) {
    return us < 0x1.0p63 ? static_cast<uint64_t>(us) : kNever;
}

uint16_t ClampX(double x) {
    return static_cast<uint16_t>(std::clamp(x, 0.0, kWidth - 1.0));
}
uint16_t ClampY(double y) {
    return static_cast<uint16_t>(std::clamp(y, 0.0, kHeight - 1.0));
}

}  // namespace

DVS_ERROR ParseSceneKind(const char* name, SceneKind& kind) {
    if (name == nullptr) {
        return ERR_PARA_ERROR;
    }
    for (const auto& entry : kSceneNames) {
        if (std::strcmp(name, entry.name) == 0) {
            kind = entry.kind;
            return ERR_SUCCESS;
        }
    }
    return ERR_PARA_ERROR;
}

const char* SceneKindName(SceneKind kind) {
    for (const auto& entry : kSceneNames) {
        if (entry.kind == kind) {
            return entry.name;
        }
    }
    return "";
}

SceneGenerator::SceneGenerator(const SceneConfig& config)
    : mConfig(config),
      mEncoder(config.stereo ? MVT94QX_STEREO : MVT94QX),
      mChannels(config.stereo ? 2 : 1),
      mRandomState(config.seed) {
    mConfig.eventRate = SanitizeRate(config.eventRate);
    mConfig.frameEndRate = SanitizeRate(config.frameEndRate);
    mConfig.startUs = config.startUs % kSensorClockWrapUs;
    if (mConfig.scene == SceneKind::kStill || mConfig.eventRate == 0) {
        mNextEventUs = std::numeric_limits<double>::infinity();
    } else {
        mNextEventUs = -std::log1p(-NextUniform()) * 1e6 / mConfig.eventRate;
    }
}

uint64_t SceneGenerator::NextRandom() {
    // splitmix64: tiny, fast and the same on every platform, unlike the standard distributions.
    uint64_t z = (mRandomState += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

double SceneGenerator::NextUniform() {
    return static_cast<double>(NextRandom() >> 11) * 0x1.0p-53;
}

uint32_t SceneGenerator::SensorStamp(uint64_t relativeUs) const {
    return static_cast<uint32_t>((mConfig.startUs + relativeUs) % kSensorClockWrapUs);
}

uint64_t SceneGenerator::FrameEndTime(uint64_t index) const {
    if (mConfig.frameEndRate == 0) {
        return kNever;
    }
    return ToTime(static_cast<double>(index) * 1e6 / mConfig.frameEndRate);
}

void SceneGenerator::Generate(uint32_t durationUs, std::vector<uint8_t>& out) {
    const uint64_t end = mNowUs + durationUs;
    for (;;) {
        const uint64_t eventAt = ToTime(mNextEventUs);
        const uint64_t frameEndAt = FrameEndTime(mFrameEndIndex);
        const uint64_t t = std::min({mNextHeartbeatUs, eventAt, frameEndAt});
        if (t >= end) {
            break;
        }
        if (t == mNextHeartbeatUs) {
            // One time word per sensor millisecond, as the sensor sends even when nothing moves.
            FlushPending(out);
            EmitTime(t, out);
            mNextHeartbeatUs = t + 1000 - SensorStamp(t) % 1000;
        } else if (t == eventAt) {
            AddSceneEvent(t);
            mNextEventUs += -std::log1p(-NextUniform()) * 1e6 / mConfig.eventRate;
        } else {
            FlushPending(out);
            EmitTime(t, out);
            for (uint32_t ch = 0; ch < mChannels; ++ch) {
                mEncoder.EncodeFrameEnd(ch, out);
            }
            mFrameEndsEmitted += mChannels;
            ++mFrameEndIndex;
        }
    }
    FlushPending(out);
    mNowUs = end;
}

void SceneGenerator::EmitTime(uint64_t relativeUs, std::vector<uint8_t>& out) {
    const uint32_t stamp = SensorStamp(relativeUs);
    for (uint32_t ch = 0; ch < mChannels; ++ch) {
        mEncoder.EncodeTime(ch, stamp, out);
    }
    if (!mEmitted) {
        mEmitted = true;
        mFirstTimestamp = stamp;
    }
    mLastTimestamp = stamp;
}

void SceneGenerator::FlushPending(std::vector<uint8_t>& out) {
    if (mPending.empty()) {
        return;
    }
    // Pending events are valid and in stream order by construction, so encoding cannot fail.
    mEncoder.EncodeEvents(mPending, out);
    mLastTimestamp = mPending.back().timestamp;
    mPending.clear();
}

void SceneGenerator::AddSceneEvent(uint64_t relativeUs) {
    SensorEvent e{};
    e.timestamp = SensorStamp(relativeUs);
    e.channel = mChannels == 2 ? static_cast<uint8_t>(NextRandom() & 1) : 0;
    const double seconds = static_cast<double>(relativeUs) * 1e-6;
    const uint64_t r = NextRandom();
    const bool noise = mConfig.scene == SceneKind::kNoise || r % 1000 < kNoisePerMille;
    const bool leading = (r >> 10) & 1;
    const int spread = static_cast<int>((r >> 11) % kEdgeSpread);
    const double shift = e.channel == 1 ? -kStereoDisparity : 0;
    if (noise) {
        e.x = static_cast<uint16_t>((r >> 16) % kWidth);
        e.y = static_cast<uint16_t>((r >> 32) % kHeight);
        e.polarity = static_cast<uint8_t>((r >> 12) & 1);
    } else if (mConfig.scene == SceneKind::kBar) {
        // Brightness rises just inside the leading (right) edge and falls behind the trailing one.
        const double left = std::fmod(seconds * kBarTravel, kBarTravel);
        const double x = leading ? left + kBarWidth - 1 - spread : left + spread;
        e.x = ClampX(x + shift);
        e.y = static_cast<uint16_t>((r >> 32) % kHeight);
        e.polarity = leading ? 1 : 0;
    } else {
        const double angle = kTwoPi * std::fmod(seconds, 1.0) - (leading ? 0 : kTwoPi / 4);
        const double radius = kDiscRadius * NextUniform();
        e.x = ClampX(kDiscCenterX + radius * std::cos(angle) + shift + spread);
        e.y = ClampY(kDiscCenterY + radius * std::sin(angle));
        e.polarity = leading ? 1 : 0;
    }
    // Within one stamp channel 0 goes first, so that each channel's events stay in one batch.
    if (e.channel == 0 && !mPending.empty() && mPending.back().timestamp == e.timestamp &&
        mPending.back().channel == 1) {
        auto pos = mPending.end();
        while (pos != mPending.begin() && (pos - 1)->timestamp == e.timestamp) {
            --pos;
            if (pos->channel == 0) {
                ++pos;
                break;
            }
        }
        mPending.insert(pos, e);
    } else {
        mPending.push_back(e);
    }
}

}  // namespace evcam
