#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <random>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

#include "src/data/packet_buffer.h"
#include "src/process/packet_parser.h"
#include "src/sim/sensor_encoder.h"

namespace evcam {
namespace {

using Bytes = std::vector<uint8_t>;
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
        if (e->type == 2) {
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
using PacketParserCodec = PacketParserTest;
using PacketParserWords = PacketParserTest;
using PacketParserSkip = PacketParserTest;
using PacketParserRaw = PacketParserTest;

TEST(PacketParserRoundTrip, decodes_random_events_exactly_across_the_clock_wrap) {
    struct Case {
        DVS_VERSION version;
        uint64_t first;  // stamp of the first event
        bool compact;
    };
    constexpr uint64_t kNearWrap = kSensorClockWrapUs - 600000ull;
    for (const Case& c : {Case{MVT94QX, 0, false}, Case{MVT94QX_STEREO, kNearWrap, false},
                          Case{MVT94QX_STEREO, kNearWrap, true}}) {
        SCOPED_TRACE(testing::Message() << c.version << " from " << c.first << " " << c.compact);
        std::mt19937 rng(7 + c.version + c.compact);
        const auto events = RandomEvents(rng, 4000, IsStereoVersion(c.version) ? 2 : 1, c.first);
        ASSERT_TRUE(c.first == 0 || events.back().timestamp < events.front().timestamp);
        SensorEncoder encoder(c.version);
        encoder.SetCompactTime(c.compact);
        Bytes stream;
        ASSERT_EQ(encoder.EncodeEvents(events, stream), ERR_SUCCESS);
        EXPECT_EQ(encoder.PixelsEncoded(), events.size());

        PacketParser parser;
        Sink sink;
        parser.SetAddEventCallBack(&Sink::Add, &sink);
        for (size_t pos = 0, n = 0; pos < stream.size(); pos += n) {  // random whole-word sizes
            n = std::min(stream.size() - pos, 4 * (1 + rng() % 300));
            Feed(parser, Bytes(stream.begin() + pos, stream.begin() + pos + n), c.version);
        }
        EXPECT_EQ(Sorted(sink.pixels), Expected(events));
    }
}

TEST_F(PacketParserCodec, packs_pixels_of_one_stamp_and_row_into_shared_words) {
    std::vector<SensorEvent> events;
    for (uint16_t y = 16; y < 24; ++y) {
        events.push_back({2500, 10, y, 1, 0});
    }
    events.push_back({2500, 10, 40, 0, 0});
    events.push_back({2500, 10, 40, 0, 0});  // a repeat is one pixel
    SensorEncoder encoder(MVT94QX);
    Bytes stream;
    ASSERT_EQ(encoder.EncodeEvents(events, stream), ERR_SUCCESS);
    EXPECT_EQ(stream.size(), 4u * 4);  // ms, us, row and one word with both groups
    EXPECT_EQ(encoder.PixelsEncoded(), 9u);
    Feed(stream);
    EXPECT_EQ(sink.groupSizes, (std::vector<uint8_t>{8, 1}));
    events.pop_back();
    EXPECT_EQ(sink.pixels, Expected(events));
}

TEST_F(PacketParserCodec, infers_millisecond_step_from_sub_millisecond_wrap) {
    // Stamps one millisecond apart, each with a smaller sub-millisecond count, across the
    // 22-bit wrap: a compact encoder sends one millisecond word, the parser infers the rest.
    std::vector<SensorEvent> events;
    for (uint32_t i = 0; i < 50; ++i) {
        events.push_back({(kSensorMsWrap - 25 + i) % kSensorMsWrap * 1000 + 900 - i * 10,
                          static_cast<uint16_t>(i), 8, 1, 0});
    }
    SensorEncoder compact(MVT94QX);
    compact.SetCompactTime(true);
    Bytes stream;
    ASSERT_EQ(compact.EncodeEvents(events, stream), ERR_SUCCESS);
    EXPECT_EQ(stream.size(), 4u + 50 * 12);  // one ms word, then a us, row and group word each
    Feed(stream);
    EXPECT_EQ(Sorted(sink.pixels), Expected(events));
}

TEST_F(PacketParserWords, repeated_microsecond_word_advances_millisecond) {
    const SensorWord pixel = group_word(0, 0, 0, 1, 0, 0, 0);
    Feed(Words({ms_word(0, 5), us_word(0, 500), row_word(0, 3, false), pixel, us_word(0, 500),
                pixel, us_word(0, 400), pixel, us_word(0, 401), pixel, ms_word(0, 9), us_word(0, 0),
                pixel}));
    EXPECT_EQ(sink.PixelStamps(), (Stamps{5500, 6500, 7400, 7401, 9000}));
}

TEST_F(PacketParserWords, channels_keep_own_clock_and_row_but_share_direction) {
    // Group 20 with offset 15 reaches group 35 going up and group 5 going down. A row word on
    // channel 1 turns the direction for channel 0 too.
    Feed(Words({ms_word(0, 10), us_word(0, 1), row_word(0, 50, false), ms_word(1, 20),
                us_word(1, 2), group_word(0, 20, 15, 0x01, 0, 0x80, 1), row_word(1, 200, true),
                group_word(0, 20, 15, 0x01, 0, 0x80, 1), group_word(1, 2, 0, 0x80, 0, 0, 0)}),
         MVT94QX_STEREO);
    EXPECT_EQ(sink.pixels, (Pixels{{0, 50, 160, 0, 10001, 0},
                                   {0, 50, 287, 1, 10001, 0},
                                   {0, 50, 160, 0, 10001, 0},
                                   {0, 50, 47, 1, 10001, 0},
                                   {1, 200, 23, 0, 20002, 0}}));
}

TEST_F(PacketParserWords, ignores_unknown_versions_and_formats) {
    const Bytes bytes = Words({row_word(0, 9, false), group_word(0, 4, 0, 0x01, 0, 0, 0)});
    Feed(bytes, SELECT_VERSION);
    Feed(bytes, static_cast<DVS_VERSION>(2));
    parser.SetDataFormat(3);
    Feed(bytes);
    EXPECT_TRUE(sink.pixels.empty());
    EXPECT_EQ(parser.GetParsedBytes(), 3 * bytes.size());
    EXPECT_EQ(parser.ProcessDataByVersion(nullptr), ERR_PARA_ERROR);
}

TEST_F(PacketParserWords, frame_end_word_sends_marker_and_unknown_words_nothing) {
    Feed(Words({ms_word(1, 3), us_word(1, 7), frame_end_word(1), SensorWord{0x10, 1, 2, 3},
                SensorWord{0x7C, 0xFF, 0xFF, 0xFF}, frame_end_word(0)}),
         MVT94QX_STEREO, 9);
    ASSERT_EQ(sink.markers.size(), 2u);
    const Event& m = sink.markers[0];
    EXPECT_EQ(std::make_tuple(m.type, m.channel, m.dvsId, m.count), std::make_tuple(2, 1, 9u, 0));
    EXPECT_EQ(sink.markers[1].channel, 0);
    EXPECT_TRUE(sink.pixels.empty());
}

TEST_F(PacketParserWords, reads_trailing_partial_word_with_missing_bytes_as_zero) {
    // 7 bytes: a row word and a group word without its last byte (the first group's mask).
    Bytes bytes = Words({row_word(0, 9, false), group_word(0, 4, 2, 0xFF, 0, 0x03, 1)});
    bytes.pop_back();
    Feed(bytes);
    EXPECT_EQ(sink.pixels, (Pixels{{0, 9, 48, 1, 0, 0}, {0, 9, 49, 1, 0, 0}}));
    Feed({0x0C});  // a lone frame-end byte is still a word
    EXPECT_EQ(sink.markers.size(), 1u);
}

TEST_F(PacketParserWords, drops_group_beyond_last_row) {
    // Native 960 x 720: group 89 (columns 712..719) fits, group 90 does not; rows 960 and
    // 1029 (all 11 bits count) are out.
    Feed(Words({row_word(0, 959, false), group_word(0, 89, 1, 0x80, 0, 0x01, 1),
                row_word(0, 960, false), group_word(0, 1, 0, 0x01, 0, 0, 0),
                row_word(0, 1029, false), group_word(0, 1, 0, 0x01, 0, 0, 0)}));
    EXPECT_EQ(sink.pixels, (Pixels{{0, 959, 719, 0, 0, 0}}));

    // A smaller resolution narrows both axes; a second group below column 0 is dropped alone.
    sink.pixels.clear();
    PacketParser small;
    small.SetAddEventCallBack(&Sink::Add, &sink);
    ASSERT_EQ(small.SetResolution(100, 100), ERR_SUCCESS);
    evcam::Feed(small,
                Words({row_word(0, 99, false), group_word(0, 11, 1, 0x01, 0, 0x01, 0),
                       row_word(0, 100, true), group_word(0, 1, 0, 0x01, 0, 0, 0),
                       row_word(0, 5, true), group_word(0, 1, 2, 0x02, 1, 0x01, 1)}),
                MVT94QX);
    EXPECT_EQ(sink.pixels, (Pixels{{0, 99, 88, 0, 0, 0}, {0, 5, 9, 1, 0, 0}}));
}

TEST_F(PacketParserWords, counts_events_frames_and_bytes) {
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

TEST_F(PacketParserWords, reports_raw_fps_once_per_sensor_second) {
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

TEST_F(PacketParserSkip, skips_ten_ms_of_channel_after_no_free_node_but_never_file_data) {
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

TEST_F(PacketParserSkip, first_millisecond_word_opens_a_window_behind_it) {
    // Before any refusal the window ends at the first millisecond seen, so a channel whose
    // clock runs up to 10 ms behind it is dropped until it catches up.
    const SensorWord pixel = group_word(1, 0, 0, 1, 0, 0, 0);
    Feed(Words({ms_word(0, 100), row_word(1, 5, false), ms_word(1, 95), pixel, ms_word(1, 100),
                row_word(1, 5, false), pixel}),
         MVT94QX_STEREO);
    EXPECT_EQ(sink.PixelStamps(), (Stamps{0}));
}

TEST_F(PacketParserSkip, refused_first_group_drops_second_group_of_same_word) {
    sink.refuse = {0};
    Feed(Words({ms_word(0, 1), row_word(0, 5, false), group_word(0, 0, 1, 0x01, 0, 0x01, 0)}));
    EXPECT_EQ(sink.pixels, (Pixels{{0, 5, 0, 0, 0, 0}}));
}

TEST_F(PacketParserSkip, skip_period_is_set_zero_drops_rest_of_packet_and_reset_restores_ten) {
    sink.refuse = {0, 5, 7, 8};
    parser.SetSkipPeriod(3);
    Feed(OnePixelPerMs(100, 105));
    EXPECT_EQ(sink.PixelStamps(), (Stamps{100000, 103000, 104000, 105000}));
    sink.pixels.clear();
    parser.SetSkipPeriod(0);  // even file data loses the rest of its packet
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

TEST_F(PacketParserRaw, decodes_two_bit_pixels_column_fastest) {
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

TEST_F(PacketParserRaw, skips_image_header_and_takes_its_stamp) {
    parser.SetDataFormat(kFormatRawBitmapHeader);
    Bytes bytes = RawHeader(0xAABBCCDD, 7u << 10 | 250);
    bytes.push_back(0x01);
    bytes.resize(kRawHeaderSize + kImageBytes);
    // The next image has no header: read as pixels, and 0xCC inside an image is a pixel byte.
    bytes.push_back(0x01);
    bytes.push_back(0xCC);
    Feed(bytes);
    EXPECT_EQ(parser.GetRawHeaderWord(), 0xAABBCCDDu);
    EXPECT_EQ(sink.pixels, (Pixels{{0, 0, 0, 0, 7250, 0},
                                   {0, 0, 0, 0, 7250, 0},
                                   {0, 0, 5, 2, 7250, 0},
                                   {0, 0, 7, 2, 7250, 0}}));
}

TEST_F(PacketParserRaw, skips_header_split_across_packets) {
    parser.SetDataFormat(kFormatRawBitmapHeader);
    // One whole image first, to give the stream a stamp that the split header cannot change.
    Bytes first = RawHeader(1, 3u << 10 | 1);
    first.resize(kRawHeaderSize + kImageBytes);
    Feed(first);
    // The next header arrives in three pieces; the middle piece lies wholly inside it.
    const Bytes second = RawHeader(2, 9u << 10);
    Feed(Bytes(second.begin(), second.begin() + 100));
    Feed(Bytes(second.begin() + 100, second.begin() + 130));
    Bytes third(second.begin() + 130, second.end());
    third.push_back(0x08);
    Feed(third);
    EXPECT_EQ(sink.pixels, (Pixels{{0, 0, 1, 1, 3001, 0}}));
    EXPECT_EQ(parser.GetRawHeaderWord(), 1u);
}

TEST(PacketParserControl, rejects_bad_arguments_and_states) {
    PacketParser parser;
    EXPECT_EQ(parser.SetPacketBuffer(nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(parser.SetAddEventCallBack(nullptr, nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(parser.SetTotalCountCallback(nullptr, nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(parser.SetRawFpsCallback(nullptr, nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(parser.SetResolution(0, 720), ERR_PARA_ERROR);
    EXPECT_EQ(parser.SetResolution(961, 720), ERR_PARA_ERROR);
    EXPECT_EQ(parser.SetResolution(960, 721), ERR_PARA_ERROR);
    EXPECT_EQ(parser.SetResolution(960, 720), ERR_SUCCESS);
    EXPECT_EQ(parser.Start(), ERR_INVALID_BUFFER);
    EXPECT_EQ(parser.Stop(), ERR_ALREADY_DONE);
}

template <typename Pred>
bool WaitUntil(Pred done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Hands bytes to the parse thread in packets of up to 4 KiB, waiting for free nodes.
void Put(PacketBuffer& buffer, const Bytes& bytes) {
    for (size_t pos = 0, n = 0; pos < bytes.size(); pos += n) {
        DVSPacket* p = nullptr;
        ASSERT_TRUE(WaitUntil([&] { return (p = buffer.GetAFreeNode()) != nullptr; }));
        n = std::min<size_t>(bytes.size() - pos, 4096);
        std::memcpy(p->mData, bytes.data() + pos, n);
        p->mDataLen = static_cast<int32_t>(n);
        p->mVersion = MVT94QX_STEREO;
        p->mDVSID = 0;
        ASSERT_EQ(buffer.PutANodeToDataList(p), ERR_SUCCESS);
    }
}

TEST(PacketParserThread, parse_thread_consumes_packet_buffer) {
    PacketBuffer buffer(8, 4096);
    PacketParser parser;
    Sink sink;  // filled by the parse thread; read only after Stop has joined it
    parser.SetAddEventCallBack(&Sink::Add, &sink);
    ASSERT_EQ(parser.SetPacketBuffer(&buffer), ERR_SUCCESS);
    ASSERT_EQ(parser.Start(), ERR_SUCCESS);
    EXPECT_EQ(parser.Start(), ERR_SUCCESS);
    EXPECT_EQ(parser.Reset(), ERR_RUNNING);

    std::mt19937 rng(3);
    const auto events = RandomEvents(rng, 10000, 2, 1000);
    SensorEncoder encoder(MVT94QX_STEREO);
    Bytes stream;
    ASSERT_EQ(encoder.EncodeEvents(events, stream), ERR_SUCCESS);
    Put(buffer, stream);
    const auto decodedAll = [&](unsigned long n) {
        unsigned long decoded = 0;
        unsigned long frames = 0;
        return WaitUntil([&] {
            parser.GetTotalCounts(decoded, frames);
            return decoded >= n;
        });
    };
    EXPECT_TRUE(decodedAll(events.size()));
    EXPECT_EQ(parser.Stop(), ERR_SUCCESS);
    EXPECT_FALSE(buffer.GetProcessStatus());
    EXPECT_EQ(Sorted(sink.pixels), Expected(events));
    EXPECT_EQ(parser.GetParsedBytes(), stream.size());
    std::vector<DVSPacket*> taken;  // every node came back
    while (DVSPacket* p = buffer.GetAFreeNode()) {
        taken.push_back(p);
    }
    EXPECT_EQ(taken.size(), 8u);
    for (DVSPacket* p : taken) {
        buffer.PutANodeToDataList(p);  // no consumer: recycled at once
    }

    // A restart begins with fresh clocks and rows: a lone pixel word lands at x 0, time 0.
    sink.pixels.clear();
    ASSERT_EQ(parser.Start(), ERR_SUCCESS);
    Put(buffer, Words({group_word(1, 3, 0, 0x01, 1, 0, 0)}));
    EXPECT_TRUE(decodedAll(events.size() + 1));
    EXPECT_EQ(parser.Stop(), ERR_SUCCESS);
    EXPECT_EQ(sink.pixels, (Pixels{{1, 0, 24, 1, 0, 0}}));
}

TEST(SensorEncoder, refuses_what_the_words_cannot_carry) {
    SensorEncoder mono(MVT94QX);
    Bytes out;
    EXPECT_EQ(mono.SetVersion(static_cast<DVS_VERSION>(3)), ERR_PARA_ERROR);
    EXPECT_EQ(mono.EncodeTime(1, 0, out), ERR_PARA_ERROR);  // mono has no second channel
    EXPECT_EQ(mono.EncodeTime(0, kSensorClockWrapUs, out), ERR_PARA_ERROR);
    EXPECT_EQ(mono.EncodeRow(0, 2048, false, out), ERR_PARA_ERROR);
    EXPECT_EQ(mono.EncodePixels(0, 128, 1, 0, 0, 0, 0, out), ERR_PARA_ERROR);
    EXPECT_EQ(mono.EncodePixels(0, 1, 0, 0, 1, 0, 0, out), ERR_PARA_ERROR);
    EXPECT_EQ(mono.EncodePixels(0, 1, 1, 0, 33, 1, 0, out), ERR_PARA_ERROR);  // 32 groups away
    EXPECT_EQ(mono.EncodePixels(0, 5, 1, 0, 4, 1, 0, out), ERR_PARA_ERROR);   // wrong side
    EXPECT_TRUE(out.empty());

    ASSERT_EQ(mono.EncodeTime(0, 5500, out), ERR_SUCCESS);
    const size_t before = out.size();
    EXPECT_EQ(mono.EncodeTime(0, 5500, out), ERR_SUCCESS);  // same stamp: nothing to send
    EXPECT_EQ(out.size(), before);
    EXPECT_EQ(mono.EncodeTime(0, 5499, out), ERR_PARA_ERROR);

    // A bad event leaves neither words nor state behind.
    EXPECT_EQ(mono.EncodeEvents({{6000, 1, 1, 0, 0}, {6001, 1, 1024, 0, 0}}, out), ERR_PARA_ERROR);
    EXPECT_EQ(out.size(), before);
    EXPECT_EQ(mono.CurrentTimestamp(0), 5500u);
    EXPECT_EQ(mono.PixelsEncoded(), 0u);
}

}  // namespace
}  // namespace evcam
