#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <set>
#include <tuple>
#include <vector>

#include "src/data/packet_buffer.h"
#include "src/process/packet_parser.h"
#include "src/sim/sensor_encoder.h"
#include "tests/support/test_support.h"

namespace evcam {
namespace {

// channel, x, y, polarity, timestamp, dvsId of one decoded pixel
using Pixel = std::tuple<uint32_t, uint32_t, uint32_t, int32_t, uint32_t, uint32_t>;
using Pixels = std::vector<Pixel>;
using Stamps = std::vector<uint32_t>;

// Records what the parser hands over; answers 19 to the pixel events listed in refuse.
struct Sink {
    Pixels pixels;
    std::vector<Event> markers;
    std::vector<uint8_t> groupSizes;
    std::set<size_t> refuse;  // indexes of pixel-event calls to answer with 19
    size_t calls = 0;

    static DVS_ERROR Add(Event* e, void* user) {
        Sink& s = *static_cast<Sink*>(user);
        if (e->type == kEventFrameEnd) {
            s.markers.push_back(*e);
            return ERR_SUCCESS;
        }
        s.groupSizes.push_back(e->count);
        for (int i = 0; i < e->count; ++i) {
            s.pixels.emplace_back(e->channel, Event::CoordX(e->coords[i]),
                                  Event::CoordY(e->coords[i]), e->polarity, e->timestamp, e->dvsId);
        }
        return s.refuse.count(s.calls++) != 0 ? ERR_NO_FREE_NODE : ERR_SUCCESS;
    }
    Stamps PixelStamps() const {
        Stamps out;
        for (const Pixel& p : pixels) {
            out.push_back(std::get<4>(p));
        }
        return out;
    }
};

void Feed(PacketParser& parser, const Bytes& bytes, DVS_VERSION version, uint32_t dvsId = 0) {
    DVSPacket packet(static_cast<int>(bytes.size()));
    std::copy(bytes.begin(), bytes.end(), packet.mData);
    packet.mDataLen = static_cast<int32_t>(bytes.size());
    packet.mVersion = version;
    packet.mDVSID = dvsId;
    ASSERT_EQ(parser.ProcessDataByVersion(&packet), ERR_SUCCESS);
}

Bytes Words(std::initializer_list<SensorWord> words) {
    Bytes out;
    for (const SensorWord& w : words) {
        AppendWord(out, w);
    }
    return out;
}

// One pixel per millisecond from..to on channel 0, row 5, column 0.
Bytes OnePixelPerMs(uint32_t from, uint32_t to) {
    Bytes out = Words({row_word(0, 5, false)});
    for (uint32_t ms = from; ms <= to; ++ms) {
        for (const SensorWord& w :
             {ms_word(0, ms), us_word(0, 0), group_word(0, 0, 0, 1, 0, 0, 0)}) {
            AppendWord(out, w);
        }
    }
    return out;
}

// Random events with distinct pixels per stamp, in stream order; stamps start at first.
std::vector<SensorEvent> RandomEvents(std::mt19937& rng, size_t count, uint32_t channels,
                                      uint64_t first) {
    std::vector<SensorEvent> events;
    std::set<std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>> seen;
    uint64_t t = first;
    while (events.size() < count) {
        t += rng() % 3 == 0 ? rng() % 2500 : 0;  // many events share a stamp, some cross ms
        SensorEvent e{};
        e.timestamp = static_cast<uint32_t>(t % kSensorClockWrapUs);
        e.channel = static_cast<uint8_t>(rng() % channels);
        e.x = static_cast<uint16_t>(rng() % 8 == 0 ? rng() % 960 : 400 + rng() % 6);
        e.y = static_cast<uint16_t>(rng() % 720);
        e.polarity = static_cast<uint8_t>(rng() % 2);
        if (seen.insert({e.timestamp, e.channel, e.x, e.y}).second) {
            events.push_back(e);
        }
    }
    return events;
}

Pixels Sorted(Pixels v) {
    std::sort(v.begin(), v.end());
    return v;
}

Pixels Expected(const std::vector<SensorEvent>& events) {
    Pixels out;
    for (const SensorEvent& e : events) {
        out.emplace_back(e.channel, e.x, e.y, e.polarity, e.timestamp, 0);
    }
    return Sorted(out);
}

class PacketParserTest : public ::testing::Test {
  protected:
    PacketParserTest() { parser.SetAddEventCallBack(&Sink::Add, &sink); }
    void Feed(const Bytes& bytes, DVS_VERSION version = MVT94QX, uint32_t dvsId = 0) {
        evcam::Feed(parser, bytes, version, dvsId);
    }

    PacketParser parser;
    Sink sink;
};

// Each case is fed to a fresh parser as one packet, less its last cut bytes.
struct WordCase {
    const char* what;
    std::vector<SensorWord> words;
    Pixels pixels;
    DVS_VERSION version = MVT94QX;
    size_t cut = 0;
    int width = 0, height = 0;  ///< resolution set, when not 0
};

TEST(PacketParserWords, decode_time_rows_and_pixel_groups) {
    const SensorWord pixel = group_word(0, 0, 0, 1, 0, 0, 0);
    const WordCase cases[] = {
        {"a microsecond word not above the stamp advances the millisecond",
         {ms_word(0, 5), us_word(0, 500), row_word(0, 3, false), pixel, us_word(0, 500), pixel,
          us_word(0, 400), pixel, us_word(0, 401), pixel, ms_word(0, 9), us_word(0, 0), pixel},
         {{0, 3, 0, 0, 5500, 0},
          {0, 3, 0, 0, 6500, 0},
          {0, 3, 0, 0, 7400, 0},
          {0, 3, 0, 0, 7401, 0},
          {0, 3, 0, 0, 9000, 0}}},
        // Group 20 with offset 15 reaches group 35 going up and group 5 going down. A row
        // word on channel 1 turns the direction for channel 0 too.
        {"channels keep their own clock and row but share the direction",
         {ms_word(0, 10), us_word(0, 1), row_word(0, 50, false), ms_word(1, 20), us_word(1, 2),
          group_word(0, 20, 15, 0x01, 0, 0x80, 1), row_word(1, 200, true),
          group_word(0, 20, 15, 0x01, 0, 0x80, 1), group_word(1, 2, 0, 0x80, 0, 0, 0)},
         {{0, 50, 160, 0, 10001, 0},
          {0, 50, 287, 1, 10001, 0},
          {0, 50, 160, 0, 10001, 0},
          {0, 50, 47, 1, 10001, 0},
          {1, 200, 23, 0, 20002, 0}},
         MVT94QX_STEREO},
        {"a trailing partial word lacks its first group's mask, read as zero",
         {row_word(0, 9, false), group_word(0, 4, 2, 0xFF, 0, 0x03, 1)},
         {{0, 9, 48, 1, 0, 0}, {0, 9, 49, 1, 0, 0}},
         MVT94QX,
         1},
        // Group 89 (columns 712..719) fits, group 90 does not; rows 960 and 1029 (all 11 bits
        // count) are out.
        {"groups beyond the native last row and column are dropped",
         {row_word(0, 959, false), group_word(0, 89, 1, 0x80, 0, 0x01, 1), row_word(0, 960, false),
          group_word(0, 1, 0, 0x01, 0, 0, 0), row_word(0, 1029, false),
          group_word(0, 1, 0, 0x01, 0, 0, 0)},
         {{0, 959, 719, 0, 0, 0}}},
        {"a smaller resolution narrows both axes; a second group out of range is dropped alone",
         {row_word(0, 99, false), group_word(0, 11, 1, 0x01, 0, 0x01, 0), row_word(0, 100, true),
          group_word(0, 1, 0, 0x01, 0, 0, 0), row_word(0, 5, true),
          group_word(0, 1, 2, 0x02, 1, 0x01, 1)},
         {{0, 99, 88, 0, 0, 0}, {0, 5, 9, 1, 0, 0}},
         MVT94QX,
         0,
         100,
         103},
        // Before any refusal the window ends at the first millisecond seen, so a channel whose
        // clock runs up to 10 ms behind it is dropped until it catches up.
        {"the first millisecond word opens a skip window behind it",
         {ms_word(0, 100), row_word(1, 5, false), ms_word(1, 95), group_word(1, 0, 0, 1, 0, 0, 0),
          ms_word(1, 100), row_word(1, 5, false), group_word(1, 0, 0, 1, 0, 0, 0)},
         {{1, 5, 0, 0, 0, 0}},
         MVT94QX_STEREO},
    };
    for (const WordCase& c : cases) {
        SCOPED_TRACE(c.what);
        PacketParser parser;
        Sink sink;
        parser.SetAddEventCallBack(&Sink::Add, &sink);
        if (c.width != 0) {
            ASSERT_EQ(parser.SetResolution(c.width, c.height), ERR_SUCCESS);
        }
        Bytes bytes;
        for (const SensorWord& w : c.words) {
            AppendWord(bytes, w);
        }
        bytes.resize(bytes.size() - c.cut);
        Feed(parser, bytes, c.version);
        EXPECT_EQ(sink.pixels, c.pixels);
    }
}

// A lone frame-end byte is still a word; unknown words, versions and formats give nothing.
TEST_F(PacketParserTest, frame_end_words_send_markers_and_unknown_input_nothing) {
    Feed(Words({ms_word(1, 3), us_word(1, 7), frame_end_word(1), SensorWord{0x10, 1, 2, 3},
                SensorWord{0x7C, 0xFF, 0xFF, 0xFF}, frame_end_word(0)}),
         MVT94QX_STEREO, 9);
    Feed({0x0C});
    ASSERT_EQ(sink.markers.size(), 3u);
    const Event& m = sink.markers[0];
    EXPECT_EQ(std::make_tuple(m.type, m.channel, m.dvsId, m.count), std::make_tuple(2, 1, 9u, 0));
    EXPECT_EQ(sink.markers[1].channel, 0);
    const Bytes bytes = Words({row_word(0, 9, false), group_word(0, 4, 0, 0x01, 0, 0, 0)});
    parser.ResetTotalCount();
    Feed(bytes, SELECT_VERSION);
    Feed(bytes, static_cast<DVS_VERSION>(2));
    parser.SetDataFormat(3);
    Feed(bytes);
    EXPECT_TRUE(sink.pixels.empty());
    EXPECT_EQ(parser.GetParsedBytes(), 3 * bytes.size());
    EXPECT_EQ(parser.ProcessDataByVersion(nullptr), ERR_PARA_ERROR);
}

TEST_F(PacketParserTest, counts_events_frames_and_bytes) {
    std::vector<std::pair<unsigned long, unsigned long>> reports;
    ASSERT_EQ(parser.SetTotalCountCallback(
                  [](void* user, unsigned long events, unsigned long frames) {
                      static_cast<decltype(reports)*>(user)->push_back({events, frames});
                  },
                  &reports),
              ERR_SUCCESS);
    const Bytes bytes =
        Words({row_word(0, 1, false), group_word(0, 0, 3, 0x0F, 0, 0x03, 1), frame_end_word(0),
               group_word(0, 0, 0, 0x01, 0, 0, 0), frame_end_word(0)});
    Feed(bytes);
    EXPECT_EQ(sink.groupSizes, (std::vector<uint8_t>{4, 2, 1})) << "one event per group";
    EXPECT_EQ(reports, (std::vector<std::pair<unsigned long, unsigned long>>{{6, 1}, {7, 2}}));
    unsigned long events = 0;
    unsigned long frames = 0;
    parser.GetTotalCounts(events, frames);
    EXPECT_EQ(std::make_tuple(events, frames, parser.GetParsedBytes()),
              std::make_tuple(7ul, 2ul, uint64_t{bytes.size()}));
    parser.ResetTotalCount();
    parser.GetTotalCounts(events, frames);
    EXPECT_EQ(events + frames + parser.GetParsedBytes(), 0u);
}

TEST_F(PacketParserTest, reports_raw_fps_once_per_sensor_second) {
    std::vector<int> fps;
    ASSERT_EQ(
        parser.SetRawFpsCallback(
            [](void* user, int v) { static_cast<std::vector<int>*>(user)->push_back(v); }, &fps),
        ERR_SUCCESS);
    // A frame end every 10 ms from 10.001 ms to 2.05 s. At 1010 ms the span is 999,999 us,
    // not yet over; at 1020 ms it holds 102 frames in 1,009,999 us (100.99, cut to 100). The
    // frame that closes a span counts in it, so the next span holds 100 frames in 1 s.
    Bytes stream;
    for (uint32_t ms = 10; ms <= 2050; ms += 10) {
        for (const SensorWord& w :
             {ms_word(0, ms), us_word(0, ms == 10 ? 1 : 0), frame_end_word(0)}) {
            AppendWord(stream, w);
        }
    }
    Feed(stream);
    EXPECT_EQ(fps, (std::vector<int>{100, 100}));
}

TEST_F(PacketParserTest, skips_ten_ms_of_channel_after_no_free_node_but_never_file_data) {
    sink.refuse = {1};  // the pixel at 101 ms meets a full packager
    Bytes stream = OnePixelPerMs(100, 115);
    // A frame end right after the refusal is dropped too; one on channel 1, whose clock
    // stands far from the span, is not.
    const Bytes extra = Words({frame_end_word(0), ms_word(1, 500), frame_end_word(1)});
    stream.insert(stream.begin() + 4 + 2 * 12, extra.begin(), extra.end());
    Feed(stream, MVT94QX_STEREO);
    EXPECT_EQ(sink.PixelStamps(), (Stamps{100000, 101000, 111000, 112000, 113000, 114000, 115000}));
    ASSERT_EQ(sink.markers.size(), 1u);
    EXPECT_EQ(sink.markers[0].channel, 1);
    sink.pixels.clear();
    sink.refuse = {8, 9, 10};
    Feed(OnePixelPerMs(200, 215), MVT94QX, kFileDVSID);
    EXPECT_EQ(sink.pixels.size(), 16u);
}

// A refused first group drops the second group of the same word; a skip period of 0 drops the
// rest of the packet instead, even of file data; Reset restores 10 ms.
TEST_F(PacketParserTest, skip_period_is_set_zero_drops_rest_of_packet_and_reset_restores_ten) {
    sink.refuse = {0};
    Feed(Words({ms_word(0, 1), row_word(0, 5, false), group_word(0, 0, 1, 0x01, 0, 0x01, 0)}));
    EXPECT_EQ(sink.pixels, (Pixels{{0, 5, 0, 0, 0, 0}}));
    sink.pixels.clear();
    sink.calls = 0;
    sink.refuse = {0, 5, 7, 8};
    parser.SetSkipPeriod(3);
    Feed(OnePixelPerMs(100, 105));
    EXPECT_EQ(sink.PixelStamps(), (Stamps{100000, 103000, 104000, 105000}));
    sink.pixels.clear();
    parser.SetSkipPeriod(0);
    Feed(OnePixelPerMs(106, 109));
    Feed(OnePixelPerMs(110, 112), MVT94QX, kFileDVSID);
    EXPECT_EQ(sink.PixelStamps(), (Stamps{106000, 107000, 110000, 111000}));
    sink.pixels.clear();
    ASSERT_EQ(parser.Reset(), ERR_SUCCESS);
    parser.SetAddEventCallBack(&Sink::Add, &sink);
    Feed(OnePixelPerMs(200, 212));
    EXPECT_EQ(sink.PixelStamps(), (Stamps{200000, 210000, 211000, 212000}));
}

// One 960 x 720 raw image is 172800 bytes, 180 bytes per x.
constexpr size_t kImageBytes = 960 * 720 / 4;

Bytes RawHeader(uint32_t word3, uint32_t stampWord) {
    Bytes h(kRawHeaderSize, 0);
    h[0] = 0xCC;
    for (int i = 0; i < 4; ++i) {
        h[12 + i] = static_cast<uint8_t>(word3 >> (8 * i));
        h[16 + i] = static_cast<uint8_t>(stampWord >> (8 * i));
    }
    return h;
}

TEST_F(PacketParserTest, raw_bitmap_decodes_two_bit_pixels_column_fastest) {
    parser.SetDataFormat(kFormatRawBitmap);
    Bytes image(kImageBytes, 0);
    image[0] = 0xE4;                // values 0, 1, 2, 3 at y 0..3
    image[180] = 0x01;              // x 1, y 0
    image[kImageBytes - 1] = 0x80;  // x 959, y 719
    Feed(image, MVT94QX, 5);
    Feed({0x01}, MVT94QX, 5);  // the next image counts one millisecond later
    EXPECT_EQ(sink.pixels, (Pixels{{0, 0, 1, 0, 0, 5},
                                   {0, 0, 2, 1, 0, 5},
                                   {0, 0, 3, 2, 0, 5},
                                   {0, 1, 0, 0, 0, 5},
                                   {0, 959, 719, 1, 0, 5},
                                   {0, 0, 0, 0, 1000, 5}}));
    unsigned long events = 0;
    unsigned long frames = 0;
    parser.GetTotalCounts(events, frames);
    EXPECT_EQ(events, 6u);
    Feed({0xFF}, SELECT_VERSION);  // no size in the version table: no image to walk
    EXPECT_EQ(sink.pixels.size(), 6u);
}

// 0xCC inside an image is a pixel byte. A header may be split across packets, with a middle
// piece wholly inside it; the stamp of the last whole header stays.
TEST_F(PacketParserTest, raw_bitmap_skips_image_headers_also_split_and_takes_their_stamp) {
    parser.SetDataFormat(kFormatRawBitmapHeader);
    Bytes bytes = RawHeader(0xAABBCCDD, 7u << 10 | 250);
    bytes.push_back(0x01);
    bytes.resize(kRawHeaderSize + kImageBytes);
    bytes.push_back(0x01);  // the next image has no header: read as pixels
    bytes.push_back(0xCC);
    bytes.resize(kRawHeaderSize + 2 * kImageBytes);
    Feed(bytes);
    EXPECT_EQ(parser.GetRawHeaderWord(), 0xAABBCCDDu);
    EXPECT_EQ(sink.pixels, (Pixels{{0, 0, 0, 0, 7250, 0},
                                   {0, 0, 0, 0, 7250, 0},
                                   {0, 0, 5, 2, 7250, 0},
                                   {0, 0, 7, 2, 7250, 0}}));
    sink.pixels.clear();
    const Bytes next = RawHeader(2, 9u << 10);
    Feed(Bytes(next.begin(), next.begin() + 100));
    Feed(Bytes(next.begin() + 100, next.begin() + 130));
    Bytes third(next.begin() + 130, next.end());
    third.push_back(0x08);
    Feed(third);
    EXPECT_EQ(sink.pixels, (Pixels{{0, 0, 1, 1, 7250, 0}}));
    EXPECT_EQ(parser.GetRawHeaderWord(), 0xAABBCCDDu) << "a split header is skipped unread";
}

// Hands bytes to the parse thread in packets of random whole-word sizes up to 4 KiB, waiting
// for free nodes.
void Put(PacketBuffer& buffer, const Bytes& bytes, DVS_VERSION version, std::mt19937& rng) {
    for (size_t pos = 0, n = 0; pos < bytes.size(); pos += n) {
        DVSPacket* p = nullptr;
        ASSERT_TRUE(WaitUntil([&] { return (p = buffer.GetAFreeNode()) != nullptr; }));
        n = std::min<size_t>(bytes.size() - pos, 4 * (1 + rng() % 1024));
        std::memcpy(p->mData, bytes.data() + pos, n);
        p->mDataLen = static_cast<int32_t>(n);
        p->mVersion = version;
        p->mDVSID = 0;
        ASSERT_EQ(buffer.PutANodeToDataList(p), ERR_SUCCESS);
    }
}

// Random events survive encoding and the parse thread exactly, also across the clock wrap. The
// compact encoder sends a millisecond word only now and then, so the parser must infer the
// others from the sub-millisecond count. A restart begins with fresh clocks and rows.
TEST(PacketParserThread, parse_thread_decodes_random_events_exactly_and_restarts_fresh) {
    PacketBuffer buffer(8, 4096);
    PacketParser parser;
    EXPECT_EQ(parser.SetPacketBuffer(nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(parser.SetAddEventCallBack(nullptr, nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(parser.SetTotalCountCallback(nullptr, nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(parser.SetRawFpsCallback(nullptr, nullptr), ERR_PARA_ERROR);
    for (const auto& [w, h] : {std::pair<int, int>{0, 720}, {961, 720}, {960, 721}}) {
        EXPECT_EQ(parser.SetResolution(w, h), ERR_PARA_ERROR);
    }
    EXPECT_EQ(parser.SetResolution(960, 720), ERR_SUCCESS);
    EXPECT_EQ(parser.Start(), ERR_INVALID_BUFFER);
    EXPECT_EQ(parser.Stop(), ERR_ALREADY_DONE);
    Sink sink;  // filled by the parse thread; read only after Stop has joined it
    parser.SetAddEventCallBack(&Sink::Add, &sink);
    ASSERT_EQ(parser.SetPacketBuffer(&buffer), ERR_SUCCESS);
    const auto decoded = [&](unsigned long n) {
        return WaitUntil([&] {
            unsigned long events = 0;
            unsigned long frames = 0;
            parser.GetTotalCounts(events, frames);
            return events >= n;
        });
    };
    constexpr uint64_t kNearWrap = kSensorClockWrapUs - 600000ull;
    for (const auto& [version, first, compact] :
         {std::make_tuple(MVT94QX, uint64_t{1000}, false),
          std::make_tuple(MVT94QX_STEREO, kNearWrap, false),
          std::make_tuple(MVT94QX_STEREO, kNearWrap, true)}) {
        SCOPED_TRACE(testing::Message() << version << " from " << first << " " << compact);
        std::mt19937 rng(7 + version + compact);
        const auto events = RandomEvents(rng, 4000, IsStereoVersion(version) ? 2 : 1, first);
        ASSERT_TRUE(first < kNearWrap || events.back().timestamp < events.front().timestamp);
        SensorEncoder encoder(version);
        encoder.SetCompactTime(compact);
        Bytes stream;
        ASSERT_EQ(encoder.EncodeEvents(events, stream), ERR_SUCCESS);
        EXPECT_EQ(encoder.PixelsEncoded(), events.size());
        sink.pixels.clear();
        parser.ResetTotalCount();
        ASSERT_EQ(parser.Start(), ERR_SUCCESS);
        EXPECT_EQ(parser.Start(), ERR_SUCCESS);
        EXPECT_EQ(parser.Reset(), ERR_RUNNING);
        Put(buffer, stream, version, rng);
        EXPECT_TRUE(decoded(events.size()));
        EXPECT_EQ(parser.Stop(), ERR_SUCCESS);
        EXPECT_FALSE(buffer.GetProcessStatus());
        EXPECT_EQ(Sorted(sink.pixels), Expected(events));
        EXPECT_EQ(parser.GetParsedBytes(), stream.size());
    }
    std::vector<DVSPacket*> taken;  // every node came back
    while (DVSPacket* p = buffer.GetAFreeNode()) {
        taken.push_back(p);
    }
    EXPECT_EQ(taken.size(), 8u);
    for (DVSPacket* p : taken) {
        buffer.PutANodeToDataList(p);  // no consumer: recycled at once
    }
    sink.pixels.clear();
    parser.ResetTotalCount();
    ASSERT_EQ(parser.Start(), ERR_SUCCESS);
    std::mt19937 rng(1);
    Put(buffer, Words({group_word(1, 3, 0, 0x01, 1, 0, 0)}), MVT94QX_STEREO, rng);
    EXPECT_TRUE(decoded(1));
    EXPECT_EQ(parser.Stop(), ERR_SUCCESS);
    EXPECT_EQ(sink.pixels, (Pixels{{1, 0, 24, 1, 0, 0}}));
}

// What the words cannot carry is refused, and a bad event leaves neither words nor state.
TEST(SensorEncoder, refuses_what_the_words_cannot_carry) {
    SensorEncoder mono(MVT94QX);
    Bytes out;
    EXPECT_EQ(mono.EncodeTime(1, 0, out), ERR_PARA_ERROR);  // mono has no second channel
    EXPECT_EQ(mono.EncodeRow(0, 2048, false, out), ERR_PARA_ERROR);
    EXPECT_EQ(mono.EncodePixels(0, 1, 1, 0, 33, 1, 0, out), ERR_PARA_ERROR);  // 32 groups away
    ASSERT_EQ(mono.EncodeTime(0, 5500, out), ERR_SUCCESS);
    const size_t before = out.size();
    EXPECT_EQ(mono.EncodeTime(0, 5499, out), ERR_PARA_ERROR);
    EXPECT_EQ(mono.EncodeEvents({{6000, 1, 1, 0, 0}, {6001, 1, 1024, 0, 0}}, out), ERR_PARA_ERROR);
    EXPECT_EQ(out.size(), before);
    EXPECT_EQ(mono.CurrentTimestamp(0), 5500u);
}

}  // namespace
}  // namespace evcam
