#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "src/data/dvs_packet.h"
#include "src/data/packet_buffer.h"
#include "src/record/recording_format.h"
#include "src/stream/file_stream.h"
#include "tests/support/test_support.h"

namespace evcam {
namespace {

using namespace std::chrono_literals;

constexpr int kBlock = 2048;

// A body whose word i holds first + i, so that every packet tells where it came from. Word 8
// starts with 0x08, which marks a reference time stamp and lets the file pass its check.
Bytes CountingBody(size_t bytes, uint32_t first = 0) {
    Bytes body(bytes);
    for (size_t i = 0; i + 4 <= bytes; i += 4) {
        const uint32_t w = first + static_cast<uint32_t>(i / 4);
        for (int b = 0; b < 4; ++b) {
            body[i + b] = static_cast<uint8_t>(w >> (8 * b));
        }
    }
    return body;
}

// Body offset of the first byte (from its counting word), length, version and device id.
using Packet = std::tuple<uint32_t, int, int, uint32_t>;
Packet FilePacket(uint32_t offset, int length = kBlock, int version = MVT94QX) {
    return {offset, length, version, kFileDVSID};
}

// Stands in for the parse thread, on the test's own thread: takes packets off the data list
// and records them. While hold is set it keeps the nodes it took, so that the pool runs full.
struct Drain {
    explicit Drain(PacketBuffer& b) : buffer(b) { buffer.SetProcessStatus(true); }
    ~Drain() { Release(); }

    // Hands back the nodes kept while holding, and holds no more.
    void Release() {
        hold = false;
        for (DVSPacket* p : held) {
            buffer.PutANodeToFreeList(p);
        }
        held.clear();
    }
    // Takes packets until done() holds (up to 5 s), then whatever is left. @return done()
    template <typename Pred>
    bool Until(Pred done) {
        return WaitUntil([&] {
            const bool now = done();
            while (DVSPacket* p = buffer.GetADataNode()) {
                const uint8_t* d = p->mData;
                const uint32_t word = d[0] | d[1] << 8 | d[2] << 16 | uint32_t{d[3]} << 24;
                packets.emplace_back(word * 4, p->mDataLen, p->mVersion, p->mDVSID);
                bytes.insert(bytes.end(), d, d + p->mDataLen);
                if (hold) {
                    held.push_back(p);
                } else {
                    buffer.PutANodeToFreeList(p);
                }
            }
            return now;
        });
    }
    bool UntilCount(size_t n) {
        return Until([&] { return packets.size() >= n; });
    }

    PacketBuffer& buffer;
    bool hold = false;
    std::vector<DVSPacket*> held;
    std::vector<Packet> packets;
    Bytes bytes;
};

class FileStreamTest : public ::testing::Test {
  protected:
    std::string Recording(const std::string& name, const Bytes& body,
                          DVS_VERSION version = MVT94QX) {
        const std::string path = mDir.File(name);
        EXPECT_EQ(WriteRecordingFile(path.c_str(), version, body.data(), body.size()), ERR_SUCCESS);
        return path;
    }
    // Binds path for a play-once run into a pool of nodes blocks, counting read-over calls.
    void Bind(const std::string& path, int nodes) {
        mBuffer.emplace(nodes, kBlock);
        mDrain.emplace(*mBuffer);
        ASSERT_EQ(mStream->SetFilePath(path.c_str()), ERR_SUCCESS);
        mStream->SetPacketBuffer(&*mBuffer);
        ASSERT_EQ(mStream->SetPlayMode(PLAY_ONCE), ERR_SUCCESS);
        ASSERT_EQ(mStream->SetReadOverCbk([](void* n) { ++*static_cast<std::atomic<int>*>(n); },
                                          &mReadOvers),
                  ERR_SUCCESS);
    }
    bool UntilReadOvers(int n) {
        return mDrain->Until([&] { return mReadOvers >= n; });
    }

    TempDir mDir;
    std::atomic<int> mReadOvers{0};
    std::optional<PacketBuffer> mBuffer;
    std::optional<Drain> mDrain;
    std::unique_ptr<FileStream> mStream = std::make_unique<FileStream>();
};

// Play once delivers a one-block file once and idles; resuming a finished playback starts it
// over at the first data byte. Looping repeats the file without ever calling back.
TEST_F(FileStreamTest, play_once_delivers_a_file_once_and_loop_repeats_it_silently) {
    Bind(Recording("one.dvs", CountingBody(kBlock)), 8);
    ASSERT_EQ(mStream->Start(), ERR_SUCCESS);
    ASSERT_TRUE(UntilReadOvers(1));
    std::this_thread::sleep_for(50ms);
    mDrain->Until([] { return true; });
    EXPECT_EQ(mReadOvers.load(), 1);
    EXPECT_EQ(mDrain->packets, std::vector<Packet>{FilePacket(0)});
    float percent = -1.0f;
    EXPECT_EQ(mStream->GetFilePercent(&percent), ERR_SUCCESS);
    EXPECT_FLOAT_EQ(percent, 1.0f);
    ASSERT_EQ(mStream->Pause(), ERR_SUCCESS);
    ASSERT_EQ(mStream->Resume(), ERR_SUCCESS);
    ASSERT_TRUE(UntilReadOvers(2));
    EXPECT_EQ(mDrain->packets, std::vector<Packet>(2, FilePacket(0)));

    ASSERT_EQ(mStream->Stop(), ERR_SUCCESS);
    ASSERT_EQ(mStream->SetPlayMode(PLAY_LOOP), ERR_SUCCESS);
    ASSERT_EQ(mStream->Start(), ERR_SUCCESS);
    ASSERT_TRUE(mDrain->UntilCount(8));
    EXPECT_EQ(mStream->Stop(), ERR_SUCCESS);
    EXPECT_EQ(mDrain->packets, std::vector<Packet>(mDrain->packets.size(), FilePacket(0)));
    EXPECT_EQ(mReadOvers.load(), 2);
}

TEST_F(FileStreamTest, full_pool_and_pause_while_waiting_lose_no_byte) {
    const Bytes body = CountingBody(19 * kBlock + 1088);
    Bind(Recording("many.dvs", body), 2);
    mDrain->hold = true;
    ASSERT_EQ(mStream->Start(), ERR_SUCCESS);
    ASSERT_TRUE(mDrain->UntilCount(2));
    // The read thread now waits for a free node; pausing must not lose the block it holds.
    ASSERT_EQ(mStream->Pause(), ERR_SUCCESS);
    mDrain->Release();
    ASSERT_EQ(mStream->Resume(), ERR_SUCCESS);
    ASSERT_TRUE(UntilReadOvers(1));
    EXPECT_EQ(mDrain->bytes, body);
    ASSERT_EQ(mDrain->packets.size(), 20u);
    EXPECT_EQ(mDrain->packets.back(), FilePacket(19 * kBlock, 1088));
}

// SetPPX(512) gives blocks of 524,288 bytes; the file's last block is shorter.
TEST_F(FileStreamTest, larger_ppx_reads_larger_blocks) {
    Bind(Recording("big.dvs", CountingBody(600000)), 4);
    EXPECT_EQ(mStream->SetPPX(0), ERR_PARA_ERROR);
    EXPECT_EQ(mStream->SetPPX(513), ERR_PARA_ERROR);
    ASSERT_EQ(mStream->SetPPX(512), ERR_SUCCESS);
    ASSERT_EQ(mStream->Start(), ERR_SUCCESS);
    EXPECT_EQ(mStream->SetPPX(4), ERR_RUNNING);
    ASSERT_TRUE(UntilReadOvers(1));
    EXPECT_EQ(mDrain->packets,
              (std::vector<Packet>{FilePacket(0, 524288), FilePacket(524288, 75712)}));
}

// The first file stays open after Stop; the next run must read the new one, which has no
// header and so needs its version, and starts at byte 0.
TEST_F(FileStreamTest, rebinding_to_a_headerless_dump_plays_it_from_byte_zero) {
    Bind(Recording("first.dvs", CountingBody(kBlock)), 8);
    ASSERT_EQ(mStream->Start(), ERR_SUCCESS);
    ASSERT_TRUE(UntilReadOvers(1));
    ASSERT_EQ(mStream->Stop(), ERR_SUCCESS);
    const Bytes dump = CountingBody(3 * kBlock, 1000000);
    const std::string raw = mDir.Write("take.raw", std::string(dump.begin(), dump.end()));
    ASSERT_EQ(mStream->SetFilePath(raw.c_str()), ERR_SUCCESS);
    EXPECT_EQ(mStream->Start(), ERR_INVALID_FILE);
    EXPECT_EQ(mStream->SetVersion(static_cast<DVS_VERSION>(2)), ERR_PARA_ERROR);
    ASSERT_EQ(mStream->SetVersion(MVT94QX_STEREO), ERR_SUCCESS);
    ASSERT_EQ(mStream->Start(), ERR_SUCCESS);
    ASSERT_TRUE(UntilReadOvers(2));
    Bytes both = CountingBody(kBlock);
    both.insert(both.end(), dump.begin(), dump.end());
    EXPECT_EQ(mDrain->bytes, both);
    ASSERT_EQ(mDrain->packets.size(), 4u);
    EXPECT_EQ(mDrain->packets[1], FilePacket(4000000, kBlock, MVT94QX_STEREO));
}

// The thread that stopped itself is joined by the next start.
TEST_F(FileStreamTest, read_over_callback_may_stop_the_stream) {
    Bind(Recording("one.dvs", CountingBody(kBlock)), 8);
    struct Context {
        FileStream* stream;
        std::atomic<int> result{-1};
    } context{mStream.get()};
    ASSERT_EQ(mStream->SetReadOverCbk(
                  [](void* user) {
                      auto* c = static_cast<Context*>(user);
                      c->result = c->stream->Stop();
                  },
                  &context),
              ERR_SUCCESS);
    ASSERT_EQ(mStream->Start(), ERR_SUCCESS);
    ASSERT_TRUE(mDrain->Until([&] { return context.result != -1; }));
    EXPECT_EQ(context.result.load(), ERR_SUCCESS);
    EXPECT_EQ(mStream->Stop(), ERR_ALREADY_DONE);
    ASSERT_EQ(mStream->SetPlayMode(PLAY_LOOP), ERR_SUCCESS);
    ASSERT_EQ(mStream->Start(), ERR_SUCCESS);
    ASSERT_TRUE(mDrain->UntilCount(3));
    EXPECT_EQ(mStream->Stop(), ERR_SUCCESS);
}

// Half of 1,000,002 bytes is rounded down to a whole word. The block left waiting for a node
// is not counted as read.
TEST_F(FileStreamTest, seek_to_half_and_seek_while_paused_move_the_next_block) {
    Bind(Recording("seek.dvs", CountingBody(1000002)), 4);
    mDrain->hold = true;
    float half = 0.5f;
    ASSERT_EQ(mStream->SetFilePercent(&half), ERR_SUCCESS);
    ASSERT_EQ(mStream->Start(), ERR_SUCCESS);
    ASSERT_TRUE(mDrain->UntilCount(4));
    ASSERT_EQ(mStream->Pause(), ERR_SUCCESS);
    EXPECT_EQ(mDrain->packets[0], FilePacket(500000));
    float percent = 0.0f;
    ASSERT_EQ(mStream->GetFilePercent(&percent), ERR_SUCCESS);
    EXPECT_FLOAT_EQ(percent, (500000.0f + 4 * kBlock) / 1000002.0f);
    float quarter = 0.25f;
    ASSERT_EQ(mStream->SetFilePercent(&quarter), ERR_SUCCESS);
    mDrain->Release();
    ASSERT_EQ(mStream->Resume(), ERR_SUCCESS);
    ASSERT_TRUE(mDrain->UntilCount(5));
    EXPECT_EQ(mDrain->packets[4], FilePacket(250000));
}

// A skip that is not a multiple of 4 is ignored; whole blocks within it are not delivered.
TEST_F(FileStreamTest, skip_bytes_drop_data_before_delivery) {
    Bind(Recording("skip.dvs", CountingBody(4 * kBlock)), 8);
    for (const auto& [skip, first, packets] :
         {std::make_tuple(6u, FilePacket(0), size_t{4}),
          std::make_tuple(4096u, FilePacket(4096), size_t{2}),
          std::make_tuple(1000u, FilePacket(1000, kBlock - 1000), size_t{4})}) {
        SCOPED_TRACE(skip);
        mReadOvers = 0;
        mDrain->packets.clear();
        mStream->SetSkipBytes(skip);
        ASSERT_EQ(mStream->Start(), ERR_SUCCESS);
        ASSERT_TRUE(UntilReadOvers(1));
        ASSERT_EQ(mDrain->packets.size(), packets);
        EXPECT_EQ(mDrain->packets[0], first);
        ASSERT_EQ(mStream->Stop(), ERR_SUCCESS);
    }
}

// Stop must leave the read thread's wait for a free node. Reset brings the defaults back but
// keeps the packet buffer.
TEST_F(FileStreamTest, refuses_operations_in_the_wrong_state) {
    const std::string path = Recording("state.dvs", CountingBody(8 * kBlock));
    FileStream& s = *mStream;
    EXPECT_EQ(s.Start(), ERR_INVALID_FILE);
    EXPECT_EQ(s.SetVersion(MVT94QX), ERR_NO_FILE);
    EXPECT_EQ(s.Stop(), ERR_ALREADY_DONE);
    EXPECT_EQ(s.Pause(), ERR_NOT_START);
    EXPECT_EQ(s.Resume(), ERR_NOT_START);
    ASSERT_EQ(s.SetFilePath(path.c_str()), ERR_SUCCESS);
    EXPECT_EQ(s.Start(), ERR_NO_PACKET_BUFFER);
    Bind(path, 2);
    mDrain->hold = true;
    ASSERT_EQ(s.Start(), ERR_SUCCESS);
    ASSERT_TRUE(mDrain->UntilCount(1));  // the read thread has opened the file
    EXPECT_EQ(s.Start(), ERR_ALREADY_DONE);
    EXPECT_EQ(s.Resume(), ERR_ALREADY_DONE);
    EXPECT_EQ(s.Close(), ERR_RUNNING);
    EXPECT_EQ(s.Reset(), ERR_RUNNING);
    EXPECT_EQ(s.SetVersion(MVT94QX), ERR_RUNNING);
    EXPECT_EQ(s.SetFilePath(path.c_str()), ERR_RUNNING);
    ASSERT_EQ(s.Pause(), ERR_SUCCESS);
    EXPECT_EQ(s.Pause(), ERR_ALREADY_DONE);
    EXPECT_EQ(s.Close(), ERR_RUNNING);
    EXPECT_EQ(s.SetPPX(4), ERR_SUCCESS);
    EXPECT_EQ(s.SetVersion(MVT94QX), ERR_NOT_SUPPORT);
    ASSERT_EQ(s.Resume(), ERR_SUCCESS);
    auto stopped = std::async(std::launch::async, [&] { return s.Stop(); });
    ASSERT_EQ(stopped.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(stopped.get(), ERR_SUCCESS);
    mDrain->Release();
    mDrain->Until([] { return true; });
    EXPECT_EQ(mDrain->packets.size(), 2u);
    EXPECT_EQ(s.Reset(), ERR_FILE_OPEN);
    ASSERT_EQ(s.Close(), ERR_SUCCESS);
    ASSERT_EQ(s.Reset(), ERR_SUCCESS);
    EXPECT_EQ(s.SetVersion(MVT94QX), ERR_NO_FILE);
    int version = -1;
    PLAY_MODE mode = PLAY_ONCE;
    PacketBuffer* kept = nullptr;
    s.GetVersion(&version);
    s.GetPlayMode(mode);
    s.GetPacketBuffer(&kept);
    EXPECT_EQ(std::make_tuple(version, mode, kept),
              std::make_tuple(int{SELECT_VERSION}, PLAY_LOOP, &*mBuffer));
}

TEST_F(FileStreamTest, checks_arguments_and_bound_files) {
    FileStream& s = *mStream;
    EXPECT_EQ(s.SetFilePath(nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(s.SetFilePath(""), ERR_INVALID_FILE);
    EXPECT_EQ(s.SetPlayMode(static_cast<PLAY_MODE>(2)), ERR_PARA_ERROR);
    EXPECT_EQ(s.SetReadOverCbk(nullptr, nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(s.GetVersion(nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(s.GetFilePercent(nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(s.SetFilePercent(nullptr), ERR_PARA_ERROR);
    for (float p : {-0.1f, 1.01f, NAN, 0.0f, 1.0f}) {
        EXPECT_EQ(s.SetFilePercent(&p), p >= 0.0f && p <= 1.0f ? ERR_SUCCESS : ERR_PARA_ERROR) << p;
    }
    float percent = -1.0f;
    EXPECT_EQ(s.GetFilePercent(&percent), ERR_SUCCESS);
    EXPECT_EQ(percent, 0.0f);
    int version = -1;
    const std::string good = Recording("good.dvs", CountingBody(kBlock), MVT94QX_STEREO);
    EXPECT_EQ(s.SetFilePath(good.c_str()), ERR_SUCCESS);
    EXPECT_EQ(s.GetVersion(&version), ERR_SUCCESS);
    EXPECT_EQ(version, MVT94QX_STEREO);
    const std::string tooShort = Recording("short.dvs", CountingBody(988));
    EXPECT_EQ(s.SetFilePath(tooShort.c_str()), ERR_INVALID_FILE);
    EXPECT_EQ(s.GetVersion(&version), ERR_SUCCESS);
    EXPECT_EQ(version, SELECT_VERSION);
}

// Deletes its file just before the read thread opens it: the file vanishes after Start's check.
class VanishingFileStream : public FileStream {
  public:
    explicit VanishingFileStream(std::string path) : mPath(std::move(path)) {}
    ~VanishingFileStream() override { Stop(); }

  protected:
    DVS_ERROR Open() override {
        std::remove(mPath.c_str());
        return FileStream::Open();
    }

  private:
    std::string mPath;
};

// Resume answers 4 while running and 2 once the source has stopped, without side effects.
TEST_F(FileStreamTest, vanished_file_ends_the_read_thread_with_a_message) {
    const std::string path = Recording("gone.dvs", CountingBody(kBlock));
    mStream = std::make_unique<VanishingFileStream>(path);
    Bind(path, 4);
    testing::internal::CaptureStdout();
    ASSERT_EQ(mStream->Start(), ERR_SUCCESS);
    const bool stoppedByItself = mDrain->Until([&] { return mStream->Resume() == ERR_NOT_START; });
    EXPECT_EQ(mStream->Stop(), ERR_ALREADY_DONE);
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(stoppedByItself);
    EXPECT_NE(out.find("Bin file is null, exit read thread"), std::string::npos);
    EXPECT_TRUE(mDrain->packets.empty());
    EXPECT_EQ(mStream->Start(), ERR_OPEN_FILE);
}

}  // namespace
}  // namespace evcam
