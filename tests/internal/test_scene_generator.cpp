#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "src/process/packet_parser.h"
#include "src/sim/scene_generator.h"

namespace evcam {
namespace {

// What the parser made of a generated stream.
struct Decoded {
    std::vector<uint8_t> bytes;  ///< as generated
    std::vector<Event> pixels;   ///< one coordinate each
    uint64_t frameEnds[2] = {};
    std::vector<int> fps;
};

// Generates durationUs in steps of stepUs (0: at once) and decodes the stream the way the parse
// thread would, in 16 KiB packets. The parser must drop nothing.
Decoded GenerateAndDecode(SceneGenerator& gen, uint32_t durationUs, uint32_t stepUs = 0) {
    Decoded d;
    for (uint32_t done = 0; done < durationUs; done += stepUs == 0 ? durationUs : stepUs) {
        gen.Generate(stepUs == 0 ? durationUs : stepUs, d.bytes);
    }
    PacketParser parser;
    parser.SetAddEventCallBack(
        [](Event* e, void* user) -> DVS_ERROR {
            Decoded& d = *static_cast<Decoded*>(user);
            d.frameEnds[e->channel] += e->type == kEventFrameEnd;
            for (int i = 0; i < e->count; ++i) {
                d.pixels.push_back(*e);
                d.pixels.back().coords[0] = e->coords[i];
            }
            return ERR_SUCCESS;
        },
        &d);
    parser.SetRawFpsCallback(
        [](void* user, int fps) { static_cast<Decoded*>(user)->fps.push_back(fps); }, &d);
    DVSPacket packet(16384);
    packet.mVersion = gen.Version();
    for (size_t pos = 0; pos < d.bytes.size(); pos += 16384) {
        packet.mDataLen = static_cast<int32_t>(std::min<size_t>(16384, d.bytes.size() - pos));
        std::memcpy(packet.mData, d.bytes.data() + pos, packet.mDataLen);
        parser.ProcessDataByVersion(&packet);
    }
    EXPECT_EQ(d.pixels.size(), gen.EventsEmitted());
    return d;
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

// Half the events of each moving scene are of polarity 1; the bar sweeps across the columns.
TEST(SceneGenerator, moving_scenes_decode_at_the_configured_rate_and_the_bar_moves) {
    for (SceneKind kind : {SceneKind::kBar, SceneKind::kDisc, SceneKind::kNoise}) {
        SCOPED_TRACE(SceneKindName(kind));
        SceneGenerator gen(Config(kind));
        const Decoded d = GenerateAndDecode(gen, 500000);
        EXPECT_NEAR(static_cast<double>(d.pixels.size()), 1e5, 1e5 * 0.03);
        // Polarity sum; column sums and counts in the first and in the fourth 100 ms.
        double polarity = 0, x[2] = {0, 0}, n[2] = {0, 0};
        for (const Event& e : d.pixels) {
            ASSERT_TRUE(e.polarity <= 1 && e.channel == 0 && e.timestamp < 500000);
            polarity += e.polarity;
            const int w = e.timestamp < 100000 ? 0 : (e.timestamp / 100000 == 3 ? 1 : -1);
            if (w >= 0) {
                x[w] += Event::CoordX(e.coords[0]);
                n[w] += 1;
            }
        }
        EXPECT_NEAR(polarity / d.pixels.size(), 0.5, 0.05);
        EXPECT_TRUE(kind != SceneKind::kBar || x[1] / n[1] - x[0] / n[0] > 200);
    }
}

// The first frame end comes one period in: 4 ms, 8 ms, ... 1996 ms. The parser's clock follows
// the heartbeat: one fps report per sensor second, at the rate.
TEST(SceneGenerator, still_scene_sends_only_time_and_frame_end_words) {
    SceneGenerator gen(Config(SceneKind::kStill, 1e6, 250));
    const Decoded d = GenerateAndDecode(gen, 2000000);
    for (size_t i = 0; i < d.bytes.size(); i += 4) {
        ASSERT_TRUE(d.bytes[i] == 0x08 || d.bytes[i] == 0x0C) << "word at byte " << i;
    }
    EXPECT_TRUE(d.pixels.empty());
    EXPECT_EQ(d.frameEnds[0], 499u);
    EXPECT_EQ(gen.FrameEndsEmitted(), 499u);
    ASSERT_FALSE(d.fps.empty());
    for (int fps : d.fps) {
        EXPECT_NEAR(fps, 250, 1);
    }
    EXPECT_EQ(gen.FirstTimestamp(), 0u);
    EXPECT_EQ(gen.LastTimestamp(), 1999000u);
}

// Stereo streams carry both channels, each with its own frame ends (at 20, 40, ... ms) and
// clock; unwrapped, every channel's stamps rise and stay inside the generated span.
TEST(SceneGenerator, stereo_channels_keep_their_frame_ends_and_cross_the_clock_wrap) {
    constexpr uint32_t kStart = kSensorClockWrapUs - 30000;
    SceneConfig config = Config(SceneKind::kBar, 2e5, 50, true);
    config.startUs = kStart;
    SceneGenerator gen(config);
    EXPECT_EQ(gen.Version(), MVT94QX_STEREO);
    const Decoded d = GenerateAndDecode(gen, 400000, 10000);
    EXPECT_EQ(gen.FirstTimestamp(), kStart);
    EXPECT_EQ(d.frameEnds[0], 19u);
    EXPECT_EQ(d.frameEnds[1], 19u);
    EXPECT_EQ(gen.FrameEndsEmitted(), 38u);
    uint64_t last[2] = {0, 0};
    size_t right = 0;
    for (const Event& e : d.pixels) {
        const uint64_t t = e.timestamp >= kStart ? e.timestamp - kStart : e.timestamp + 30000ull;
        ASSERT_LT(t, 400000u);
        ASSERT_GE(t, last[e.channel]);
        last[e.channel] = t;
        right += e.channel;
    }
    EXPECT_GT(last[0], 390000u);
    EXPECT_NEAR(static_cast<double>(right) / d.pixels.size(), 0.5, 0.05);
}

// Nonsense rates give a quiet stream rather than a crash or a flood.
TEST(SceneGenerator, output_depends_on_seed_and_rates_but_not_on_how_time_is_cut) {
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
    for (const auto& rates : {std::make_pair(-5.0, std::nan("")), std::make_pair(1e-300, 1e-300)}) {
        SceneGenerator quiet(Config(SceneKind::kNoise, rates.first, rates.second));
        const Decoded d = GenerateAndDecode(quiet, 100000);
        EXPECT_TRUE(d.pixels.empty());
        EXPECT_EQ(d.frameEnds[0], 0u);
        EXPECT_EQ(quiet.LastTimestamp(), 99000u);
    }
}

}  // namespace
}  // namespace evcam
