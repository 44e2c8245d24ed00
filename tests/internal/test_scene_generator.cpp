#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "src/process/packet_parser.h"
#include "src/sim/scene_generator.h"

namespace evcam {
namespace {

struct Pixel {
    uint32_t channel, x, y, polarity, timestamp;
};

struct Decoded {
    std::vector<Pixel> pixels;
    uint64_t frameEnds[2] = {};
    std::vector<int> fps;
};

// Decodes a generated stream the way the parse thread would, in 16 KiB packets.
Decoded Decode(DVS_VERSION version, const std::vector<uint8_t>& bytes) {
    Decoded d;
    PacketParser parser;
    parser.SetAddEventCallBack(
        [](Event* e, void* user) -> DVS_ERROR {
            Decoded& d = *static_cast<Decoded*>(user);
            d.frameEnds[e->channel] += e->type == 2;
            for (int i = 0; i < e->count; ++i) {
                d.pixels.push_back({e->channel, Event::CoordX(e->coords[i]),
                                    Event::CoordY(e->coords[i]), static_cast<uint32_t>(e->polarity),
                                    e->timestamp});
            }
            return ERR_SUCCESS;
        },
        &d);
    parser.SetRawFpsCallback(
        [](void* user, int fps) { static_cast<Decoded*>(user)->fps.push_back(fps); }, &d);
    constexpr size_t kPacket = 16384;
    DVSPacket packet(kPacket);
    packet.mVersion = version;
    for (size_t pos = 0; pos < bytes.size(); pos += kPacket) {
        const size_t n = std::min(kPacket, bytes.size() - pos);
        std::memcpy(packet.mData, bytes.data() + pos, n);
        packet.mDataLen = static_cast<int32_t>(n);
        parser.ProcessDataByVersion(&packet);
    }
    return d;
}

Decoded GenerateAndDecode(SceneGenerator& gen, uint32_t durationUs) {
    std::vector<uint8_t> bytes;
    gen.Generate(durationUs, bytes);
    return Decode(gen.Version(), bytes);
}

SceneConfig Config(SceneKind scene, double eventRate = 2e5, double frameEndRate = 100,
                   bool stereo = false) {
    SceneConfig c;
    c.scene = scene;
    c.eventRate = eventRate;
    c.frameEndRate = frameEndRate;
    c.stereo = stereo;
    c.seed = 42;
    return c;
}

// Mean of value(p) over the pixels stamped in [fromUs, toUs) that pass keep(p).
template <typename Value, typename Keep>
double Mean(const Decoded& d, uint32_t fromUs, uint32_t toUs, Value value, Keep keep) {
    double sum = 0;
    size_t n = 0;
    for (const Pixel& p : d.pixels) {
        if (p.timestamp >= fromUs && p.timestamp < toUs && keep(p)) {
            sum += value(p);
            ++n;
        }
    }
    return n == 0 ? -1 : sum / n;
}
const auto kX = [](const Pixel& p) { return p.x; };
const auto kAll = [](const Pixel&) { return true; };

TEST(SceneGenerator, scene_names_parse_both_ways) {
    for (SceneKind kind :
         {SceneKind::kBar, SceneKind::kDisc, SceneKind::kNoise, SceneKind::kStill}) {
        SceneKind parsed = SceneKind::kStill;
        ASSERT_EQ(ParseSceneKind(SceneKindName(kind), parsed), ERR_SUCCESS);
        EXPECT_EQ(parsed, kind);
    }
    SceneKind kind = SceneKind::kDisc;
    for (const char* bad : {"Bar", "", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(ParseSceneKind(bad, kind), ERR_PARA_ERROR);
    }
    EXPECT_EQ(kind, SceneKind::kDisc);
    EXPECT_STREQ(SceneKindName(SceneKind::kNoise), "noise");
}

TEST(SceneGenerator, moving_scenes_decode_inside_the_array_at_the_configured_rate) {
    for (SceneKind kind : {SceneKind::kBar, SceneKind::kDisc, SceneKind::kNoise}) {
        SCOPED_TRACE(SceneKindName(kind));
        SceneGenerator gen(Config(kind));
        const Decoded d = GenerateAndDecode(gen, 500000);
        // The parser drops nothing: every pixel lies inside 960 x 720.
        ASSERT_EQ(d.pixels.size(), gen.EventsEmitted());
        EXPECT_NEAR(static_cast<double>(d.pixels.size()), 1e5, 1e5 * 0.03);
        for (const Pixel& p : d.pixels) {
            ASSERT_TRUE(p.x < 960 && p.y < 720 && p.polarity <= 1 && p.channel == 0 &&
                        p.timestamp < 500000)
                << p.x << " " << p.y << " " << p.polarity << " " << p.channel << " " << p.timestamp;
        }
        const auto polarity = [](const Pixel& p) { return p.polarity; };
        EXPECT_NEAR(Mean(d, 0, 500000, polarity, kAll), 0.5, 0.05);
    }
}

TEST(SceneGenerator, bar_sweeps_across_columns_with_leading_edge_brightening) {
    SceneGenerator gen(Config(SceneKind::kBar));
    const Decoded d = GenerateAndDecode(gen, 500000);
    EXPECT_GT(Mean(d, 300000, 400000, kX, kAll) - Mean(d, 0, 100000, kX, kAll), 200);
    // Within one window the rising edge (polarity 1) lies right of the falling one.
    EXPECT_GT(Mean(d, 300000, 310000, kX, [](const Pixel& p) { return p.polarity == 1; }),
              Mean(d, 300000, 310000, kX, [](const Pixel& p) { return p.polarity == 0; }) + 20);
}

TEST(SceneGenerator, disc_events_fall_on_the_turning_disc) {
    SceneGenerator gen(Config(SceneKind::kDisc));
    const Decoded d = GenerateAndDecode(gen, 500000);
    size_t inside = 0;
    for (const Pixel& p : d.pixels) {
        inside += std::hypot(p.x - 480.0, p.y - 360.0) <= 305;
    }
    EXPECT_GT(inside, d.pixels.size() * 9 / 10);
    // The sector turns: the mean position of its edges differs a quarter turn later.
    const auto y = [](const Pixel& p) { return p.y; };
    EXPECT_GT(std::fabs(Mean(d, 0, 20000, y, kAll) - Mean(d, 250000, 270000, y, kAll)), 50);
}

TEST(SceneGenerator, still_scene_sends_only_time_and_frame_end_words) {
    SceneGenerator gen(Config(SceneKind::kStill, 1e6, 250));
    std::vector<uint8_t> bytes;
    gen.Generate(2000000, bytes);
    for (size_t i = 0; i < bytes.size(); i += 4) {
        ASSERT_TRUE(bytes[i] == 0x08 || bytes[i] == 0x0C) << "word at byte " << i;
    }
    const Decoded d = Decode(gen.Version(), bytes);
    EXPECT_TRUE(d.pixels.empty());
    EXPECT_EQ(gen.EventsEmitted(), 0u);
    // The first frame end comes one period in: 4 ms, 8 ms, ... 1996 ms.
    EXPECT_EQ(d.frameEnds[0], 499u);
    EXPECT_EQ(gen.FrameEndsEmitted(), 499u);
    // The parser's clock follows the heartbeat: one fps report per sensor second, at the rate.
    ASSERT_FALSE(d.fps.empty());
    for (int fps : d.fps) {
        EXPECT_NEAR(fps, 250, 1);
    }
    EXPECT_EQ(gen.FirstTimestamp(), 0u);
    EXPECT_EQ(gen.LastTimestamp(), 1999000u);
}

TEST(SceneGenerator, stereo_emits_both_channels_with_their_own_frame_ends) {
    SceneGenerator gen(Config(SceneKind::kBar, 2e5, 50, true));
    EXPECT_EQ(gen.Version(), MVT94QX_STEREO);
    const Decoded d = GenerateAndDecode(gen, 400000);
    ASSERT_EQ(d.pixels.size(), gen.EventsEmitted());
    const auto channel = [](const Pixel& p) { return p.channel; };
    EXPECT_NEAR(Mean(d, 0, 400000, channel, kAll), 0.5, 0.05);
    EXPECT_EQ(d.frameEnds[0], 19u);  // at 20, 40, ... 380 ms
    EXPECT_EQ(d.frameEnds[1], 19u);
    EXPECT_EQ(gen.FrameEndsEmitted(), 38u);
}

TEST(SceneGenerator, output_does_not_depend_on_how_time_is_cut) {
    SceneConfig config = Config(SceneKind::kNoise, 5e5, 333, true);
    SceneGenerator whole(config);
    std::vector<uint8_t> a;
    whole.Generate(300000, a);

    SceneGenerator pieces(config);
    std::vector<uint8_t> b;
    uint32_t done = 0;
    for (uint32_t step : {1u, 999u, 0u, 1000u, 12345u, 7u}) {
        pieces.Generate(step, b);
        done += step;
    }
    pieces.Generate(300000 - done, b);
    EXPECT_EQ(a, b);
    EXPECT_EQ(whole.EventsEmitted(), pieces.EventsEmitted());
    EXPECT_EQ(pieces.ElapsedUs(), 300000u);

    config.seed = 43;
    SceneGenerator other(config);
    std::vector<uint8_t> c;
    other.Generate(300000, c);
    EXPECT_NE(a, c);
}

TEST(SceneGenerator, crosses_the_sensor_clock_wrap_without_losing_time) {
    constexpr uint32_t kStart = kSensorClockWrapUs - 30000;
    SceneConfig config = Config(SceneKind::kNoise, 1e5, 100, true);
    config.startUs = kStart;
    SceneGenerator gen(config);
    std::vector<uint8_t> bytes;
    for (int i = 0; i < 6; ++i) {
        gen.Generate(10000, bytes);
    }
    const Decoded d = Decode(gen.Version(), bytes);
    ASSERT_EQ(d.pixels.size(), gen.EventsEmitted());
    EXPECT_EQ(gen.FirstTimestamp(), kStart);
    EXPECT_LT(gen.LastTimestamp(), 30000u);
    // Unwrapped, every channel's stamps rise and stay inside the generated span.
    uint64_t last[2] = {0, 0};
    for (const Pixel& p : d.pixels) {
        const uint64_t t = p.timestamp >= kStart ? p.timestamp - kStart : p.timestamp + 30000ull;
        ASSERT_LT(t, 60000u);
        ASSERT_GE(t, last[p.channel]);
        last[p.channel] = t;
    }
    EXPECT_GT(last[0], 50000u);
    EXPECT_EQ(d.frameEnds[0] + d.frameEnds[1], gen.FrameEndsEmitted());
}

TEST(SceneGenerator, nonsense_rates_produce_a_quiet_stream) {
    for (const auto& rates : {std::make_pair(-5.0, std::nan("")), std::make_pair(1e-300, 1e-300)}) {
        SceneGenerator gen(Config(SceneKind::kNoise, rates.first, rates.second));
        const Decoded d = GenerateAndDecode(gen, 100000);
        EXPECT_TRUE(d.pixels.empty());
        EXPECT_EQ(d.frameEnds[0], 0u);
        EXPECT_EQ(gen.LastTimestamp(), 99000u);
    }
}

}  // namespace
}  // namespace evcam
