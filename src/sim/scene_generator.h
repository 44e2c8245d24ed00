// Synthetic sensor streams: simple moving scenes encoded as the sensor's raw words, for the
// simulated camera, demos, tests and benchmarks.
#ifndef EVCAM_SRC_SIM_SCENE_GENERATOR_H
#define EVCAM_SRC_SIM_SCENE_GENERATOR_H

#include <cstdint>
#include <vector>

#include "evcam/dvs_error.h"
#include "src/sim/sensor_encoder.h"

namespace evcam {

enum class SceneKind : uint8_t {
    kBar,    ///< a vertical bar sweeping across the array, once a second
    kDisc,   ///< a quarter sector of a disc turning once a second
    kNoise,  ///< uniform background noise
    kStill,  ///< no pixel events: time words and frame ends only
};

/// Scene by its name: "bar", "disc", "noise" or "still".
/// @return 0, or 1 for a null or unknown name (kind unchanged).
DVS_ERROR ParseSceneKind(const char* name, SceneKind& kind);
/// The name ParseSceneKind accepts for kind.
const char* SceneKindName(SceneKind kind);

struct SceneConfig {
    SceneKind scene = SceneKind::kBar;
    double eventRate = 1e6;     ///< pixel events per second, both channels together
    double frameEndRate = 100;  ///< sensor frame ends per second on each channel; 0 for none
    bool stereo = false;        ///< version 17 with both channels, otherwise version 1
    uint32_t seed = 1;
    uint32_t startUs = 0;  ///< sensor clock at the first generated microsecond
};

/// Produces an endless sensor stream, one span of sensor time per Generate call. The stream
/// is deterministic for a configuration and does not depend on how it is cut into spans. It
/// starts with a time word per channel, carries one every sensor millisecond, and decodes on a
/// parser started together with the generator. Not thread-safe: one thread per generator.
class SceneGenerator {
  public:
    /// Negative or non-finite rates count as 0 and rates above 1e9 as 1e9; startUs is taken modulo
    /// the sensor clock wrap.
    explicit SceneGenerator(const SceneConfig& config);

    /// Appends the words of the next durationUs microseconds of sensor time to out. Never
    /// blocks; allocates only to grow out and its own scratch.
    void Generate(uint32_t durationUs, std::vector<uint8_t>& out);

    /// Pixel events encoded so far (what a parser will decode).
    uint64_t EventsEmitted() const { return mEncoder.PixelsEncoded(); }
    /// Frame-end words encoded so far, all channels together.
    uint64_t FrameEndsEmitted() const { return mFrameEndsEmitted; }
    /// Sensor stamp of the first word emitted; 0 before any.
    uint32_t FirstTimestamp() const { return mFirstTimestamp; }
    /// Sensor stamp of the latest word emitted; 0 before any.
    uint32_t LastTimestamp() const { return mLastTimestamp; }
    /// Sensor time generated so far, in microseconds.
    uint64_t ElapsedUs() const { return mNowUs; }
    DVS_VERSION Version() const { return mEncoder.GetVersion(); }
    const SceneConfig& Config() const { return mConfig; }

  private:
    uint64_t NextRandom();
    /// Uniform in [0, 1).
    double NextUniform();
    /// Stamp on the sensor clock of a time relative to the start.
    uint32_t SensorStamp(uint64_t relativeUs) const;
    /// One pixel event of the scene at that time, appended to mPending in stream order.
    void AddSceneEvent(uint64_t relativeUs);
    void EmitTime(uint64_t relativeUs, std::vector<uint8_t>& out);
    void FlushPending(std::vector<uint8_t>& out);
    uint64_t FrameEndTime(uint64_t index) const;

    SceneConfig mConfig;
    SensorEncoder mEncoder;
    uint32_t mChannels;
    uint64_t mRandomState;

    uint64_t mNowUs = 0;  ///< start of the next span, relative to the start
    uint64_t mNextHeartbeatUs = 0;
    double mNextEventUs = 0;
    uint64_t mFrameEndIndex = 1;  ///< next frame end is number mFrameEndIndex

    uint64_t mFrameEndsEmitted = 0;
    bool mEmitted = false;
    uint32_t mFirstTimestamp = 0;
    uint32_t mLastTimestamp = 0;

    std::vector<SensorEvent> mPending;  ///< events not yet encoded, in stream order
};

}  // namespace evcam

#endif  // EVCAM_SRC_SIM_SCENE_GENERATOR_H
