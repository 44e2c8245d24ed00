#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "src/data/dvs_packet.h"
#include "src/data/packet_buffer.h"
#include "src/record/recording_format.h"
#include "src/stream/file_stream.h"

namespace evcam {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

constexpr size_t kBlock = 2048;

template <typename Pred>
bool WaitUntil(Pred done) {
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// A body whose word i holds first + i, so that every packet tells where it came from. Word 8
// starts with 0x08, which marks a reference time stamp and lets the file pass its check.
Bytes CountingBody(size_t bytes, uint32_t first = 0) {
    Bytes body(bytes);
    for (size_t i = 0; i + 4 <= bytes; i += 4) {
        const uint32_t w = first + static_cast<uint32_t>(i / 4);
        body[i] = static_cast<uint8_t>(w);
        body[i + 1] = static_cast<uint8_t>(w >> 8);
        body[i + 2] = static_cast<uint8_t>(w >> 16);
        body[i + 3] = static_cast<uint8_t>(w >> 24);
    }
    return body;
}

uint32_t WordAt(const uint8_t* p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

struct Packet {
    uint32_t offset;  // body offset of the first byte, from its counting word
    int length;
    DVS_VERSION version;
    uint32_t dvsId;
};

// Drains a packet buffer on a thread of its own, as the parser does, and records what arrives.
// While held it takes packets but keeps them, so that the pool runs full.
class Collector {
  public:
    explicit Collector(PacketBuffer& buffer, std::chrono::microseconds delay = 0us)
        : mBuffer(buffer), mDelay(delay) {
        mBuffer.SetProcessStatus(true);
        mThread = std::thread([this] { Run(); });
    }
    ~Collector() {
        Finish();
        mBuffer.SetProcessStatus(false);
    }

    void Hold(bool hold) {
        std::lock_guard<std::mutex> lock(mMutex);
        mHold = hold;
        if (!hold) {
            for (DVSPacket* p : mHeld) {
                mBuffer.PutANodeToFreeList(p);
            }
            mHeld.clear();
        }
    }

    // Stops the thread and takes what is left on the data list: call once the source is idle.
    void Finish() {
        if (!mThread.joinable()) {
            return;
        }
        mStop = true;
        mThread.join();
        Hold(false);
        while (DVSPacket* p = mBuffer.GetADataNode()) {
            Take(p);
        }
    }

    std::vector<Packet> Packets() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mPackets;
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mPackets.size();
    }
    Bytes AllBytes() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mBytes;
    }
    bool WaitForCount(size_t n) {
        return WaitUntil([&] { return Count() >= n; });
    }

  private:
    void Run() {
        while (!mStop) {
            DVSPacket* p = mBuffer.GetADataNode();
            if (p == nullptr) {
                std::this_thread::sleep_for(100us);
                continue;
            }
            Take(p);
            if (mDelay.count() > 0) {
                std::this_thread::sleep_for(mDelay);
            }
        }
    }

    void Take(DVSPacket* p) {
        std::lock_guard<std::mutex> lock(mMutex);
        const uint32_t offset = p->mDataLen >= 4 ? WordAt(p->mData) * 4 : 0xFFFFFFFF;
        mPackets.push_back({offset, p->mDataLen, p->mVersion, p->mDVSID});
        mBytes.insert(mBytes.end(), p->mData, p->mData + p->mDataLen);
        if (mHold) {
            mHeld.push_back(p);
        } else {
            mBuffer.PutANodeToFreeList(p);
        }
    }

    PacketBuffer& mBuffer;
    const std::chrono::microseconds mDelay;
    std::atomic<bool> mStop{false};
    std::mutex mMutex;
    bool mHold = false;             // guarded by mMutex
    std::vector<DVSPacket*> mHeld;  // guarded by mMutex
    std::vector<Packet> mPackets;   // guarded by mMutex
    Bytes mBytes;                   // guarded by mMutex
    std::thread mThread;
};

void CountCall(void* user) {
    ++*static_cast<std::atomic<int>*>(user);
}

class FileStreamTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "evcam-stream-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        mDir = pattern;
    }
    void TearDown() override { fs::remove_all(mDir); }

    std::string Recording(const std::string& name, const Bytes& body,
                          DVS_VERSION version = MVT94QX) {
        const std::string path = (mDir / name).string();
        EXPECT_EQ(WriteRecordingFile(path.c_str(), version, body.data(), body.size()), ERR_SUCCESS);
        return path;
    }

    std::string Dump(const std::string& name, const Bytes& body) {
        const std::string path = (mDir / name).string();
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(body.data()),
                   static_cast<std::streamsize>(body.size()));
        return path;
    }

    // Binds path to stream for a play-once run that counts its read-over calls in mReadOvers.
    void PrepareOnce(FileStream& stream, const std::string& path, PacketBuffer& buffer) {
        ASSERT_EQ(stream.SetFilePath(path.c_str()), ERR_SUCCESS);
        stream.SetPacketBuffer(&buffer);
        ASSERT_EQ(stream.SetPlayMode(PLAY_ONCE), ERR_SUCCESS);
        ASSERT_EQ(stream.SetReadOverCbk(CountCall, &mReadOvers), ERR_SUCCESS);
    }

    bool WaitForReadOvers(int n) {
        return WaitUntil([&] { return mReadOvers.load() >= n; });
    }

    fs::path mDir;
    std::atomic<int> mReadOvers{0};
};

using FileStreamPlayback = FileStreamTest;

TEST_F(FileStreamPlayback, play_once_delivers_a_one_block_file_once_then_idles) {
    const std::string path = Recording("one.dvs", CountingBody(kBlock));
    PacketBuffer buffer(8, kBlock);
    Collector collector(buffer);
    FileStream stream;
    PrepareOnce(stream, path, buffer);

    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(WaitForReadOvers(1));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(mReadOvers.load(), 1);
    const std::vector<Packet> packets = collector.Packets();
    ASSERT_EQ(packets.size(), 1u);
    EXPECT_EQ(packets[0].offset, 0u);
    EXPECT_EQ(packets[0].length, static_cast<int>(kBlock));
    EXPECT_EQ(packets[0].version, MVT94QX);
    EXPECT_EQ(packets[0].dvsId, kFileDVSID);
    float percent = -1.0f;
    EXPECT_EQ(stream.GetFilePercent(&percent), ERR_SUCCESS);
    EXPECT_FLOAT_EQ(percent, 1.0f);
    EXPECT_EQ(stream.Stop(), ERR_SUCCESS);
}

TEST_F(FileStreamPlayback, loop_repeats_the_file_and_never_calls_back) {
    const std::string path = Recording("one.dvs", CountingBody(kBlock));
    PacketBuffer buffer(8, kBlock);
    Collector collector(buffer);
    FileStream stream;
    PrepareOnce(stream, path, buffer);
    ASSERT_EQ(stream.SetPlayMode(PLAY_LOOP), ERR_SUCCESS);

    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(collector.WaitForCount(5));
    EXPECT_EQ(stream.Stop(), ERR_SUCCESS);
    collector.Finish();
    for (const Packet& p : collector.Packets()) {
        EXPECT_EQ(p.offset, 0u);
        EXPECT_EQ(p.length, static_cast<int>(kBlock));
    }
    EXPECT_EQ(mReadOvers.load(), 0);
}

TEST_F(FileStreamPlayback, small_pool_slowly_drained_receives_every_byte_once_in_order) {
    const Bytes body = CountingBody(19 * kBlock + 1088);
    const std::string path = Recording("many.dvs", body);
    PacketBuffer buffer(2, kBlock);
    Collector collector(buffer, 1ms);
    FileStream stream;
    PrepareOnce(stream, path, buffer);

    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(WaitForReadOvers(1));
    collector.Finish();
    EXPECT_EQ(collector.AllBytes(), body);
    const std::vector<Packet> packets = collector.Packets();
    ASSERT_EQ(packets.size(), 20u);
    EXPECT_EQ(packets.back().length, 1088);
    EXPECT_EQ(stream.Stop(), ERR_SUCCESS);
}

TEST_F(FileStreamPlayback, headerless_dump_plays_from_byte_zero_with_the_stated_version) {
    const Bytes body = CountingBody(3 * kBlock);
    const std::string path = Dump("take.raw", body);
    PacketBuffer buffer(8, kBlock);
    Collector collector(buffer);
    FileStream stream;
    PrepareOnce(stream, path, buffer);
    EXPECT_EQ(stream.Start(), ERR_INVALID_FILE);
    ASSERT_EQ(stream.SetVersion(MVT94QX_STEREO), ERR_SUCCESS);

    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(WaitForReadOvers(1));
    collector.Finish();
    EXPECT_EQ(collector.AllBytes(), body);
    for (const Packet& p : collector.Packets()) {
        EXPECT_EQ(p.version, MVT94QX_STEREO);
        EXPECT_EQ(p.dvsId, kFileDVSID);
    }
    EXPECT_EQ(stream.Stop(), ERR_SUCCESS);
}

TEST_F(FileStreamPlayback, larger_ppx_reads_larger_blocks) {
    const std::string path = Recording("big.dvs", CountingBody(600000));
    PacketBuffer buffer(4, kBlock);
    Collector collector(buffer);
    FileStream stream;
    PrepareOnce(stream, path, buffer);
    EXPECT_EQ(stream.SetPPX(0), ERR_PARA_ERROR);
    EXPECT_EQ(stream.SetPPX(513), ERR_PARA_ERROR);
    ASSERT_EQ(stream.SetPPX(512), ERR_SUCCESS);

    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    EXPECT_EQ(stream.SetPPX(4), ERR_RUNNING);
    ASSERT_TRUE(WaitForReadOvers(1));
    collector.Finish();
    const std::vector<Packet> packets = collector.Packets();
    ASSERT_EQ(packets.size(), 2u);
    EXPECT_EQ(packets[0].length, 524288);
    EXPECT_EQ(packets[1].offset, 524288u);
    EXPECT_EQ(packets[1].length, 600000 - 524288);
    EXPECT_EQ(stream.Stop(), ERR_SUCCESS);
}

TEST_F(FileStreamPlayback, rebinding_after_a_run_plays_the_new_file) {
    const std::string first = Recording("first.dvs", CountingBody(kBlock));
    const std::string second =
        Recording("second.dvs", CountingBody(kBlock, 1000000), MVT94QX_STEREO);
    PacketBuffer buffer(8, kBlock);
    Collector collector(buffer);
    FileStream stream;
    PrepareOnce(stream, first, buffer);
    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(WaitForReadOvers(1));
    ASSERT_EQ(stream.Stop(), ERR_SUCCESS);

    ASSERT_EQ(stream.SetFilePath(second.c_str()), ERR_SUCCESS);
    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(WaitForReadOvers(2));
    collector.Finish();
    const std::vector<Packet> packets = collector.Packets();
    ASSERT_EQ(packets.size(), 2u);
    EXPECT_EQ(packets[1].offset, 4000000u);
    EXPECT_EQ(packets[1].version, MVT94QX_STEREO);
    EXPECT_EQ(stream.Stop(), ERR_SUCCESS);
}

TEST_F(FileStreamPlayback, read_over_callback_may_stop_the_stream) {
    const std::string path = Recording("one.dvs", CountingBody(kBlock));
    PacketBuffer buffer(8, kBlock);
    Collector collector(buffer);
    FileStream stream;
    PrepareOnce(stream, path, buffer);
    struct Context {
        FileStream* stream;
        std::atomic<int> result{-1};
    } context{&stream};
    ASSERT_EQ(stream.SetReadOverCbk(
                  [](void* user) {
                      auto* c = static_cast<Context*>(user);
                      c->result = c->stream->Stop();
                  },
                  &context),
              ERR_SUCCESS);

    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return context.result.load() != -1; }));
    EXPECT_EQ(context.result.load(), ERR_SUCCESS);
    EXPECT_EQ(stream.Stop(), ERR_ALREADY_DONE);
    ASSERT_EQ(stream.SetPlayMode(PLAY_LOOP), ERR_SUCCESS);
    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(collector.WaitForCount(2));
    EXPECT_EQ(stream.Stop(), ERR_SUCCESS);
}

using FileStreamPosition = FileStreamTest;

TEST_F(FileStreamPosition, seek_to_half_and_seek_while_paused_move_the_next_block) {
    const std::string path = Recording("seek.dvs", CountingBody(1000000));
    ASSERT_EQ(fs::file_size(path), 1000008u);
    PacketBuffer buffer(4, kBlock);
    Collector collector(buffer);
    collector.Hold(true);
    FileStream stream;
    PrepareOnce(stream, path, buffer);
    float half = 0.5f;
    ASSERT_EQ(stream.SetFilePercent(&half), ERR_SUCCESS);

    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(collector.WaitForCount(4));
    ASSERT_EQ(stream.Pause(), ERR_SUCCESS);
    EXPECT_EQ(collector.Packets()[0].offset, 500000u);
    float percent = 0.0f;
    ASSERT_EQ(stream.GetFilePercent(&percent), ERR_SUCCESS);
    EXPECT_FLOAT_EQ(percent, (500000.0f + 4 * kBlock) / 1000000.0f);

    float quarter = 0.25f;
    ASSERT_EQ(stream.SetFilePercent(&quarter), ERR_SUCCESS);
    collector.Hold(false);
    ASSERT_EQ(stream.Resume(), ERR_SUCCESS);
    ASSERT_TRUE(collector.WaitForCount(5));
    EXPECT_EQ(collector.Packets()[4].offset, 250000u);
    EXPECT_EQ(stream.Stop(), ERR_SUCCESS);
}

TEST_F(FileStreamPosition, pause_and_resume_continue_where_playback_stopped) {
    const Bytes body = CountingBody(20 * kBlock + 512);
    const std::string path = Recording("pause.dvs", body);
    PacketBuffer buffer(4, kBlock);
    Collector collector(buffer);
    collector.Hold(true);
    FileStream stream;
    PrepareOnce(stream, path, buffer);

    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(collector.WaitForCount(4));
    // The read thread now waits for a free node; pausing must not lose the block it holds.
    ASSERT_EQ(stream.Pause(), ERR_SUCCESS);
    collector.Hold(false);
    ASSERT_EQ(stream.Resume(), ERR_SUCCESS);
    ASSERT_TRUE(WaitForReadOvers(1));
    collector.Finish();
    EXPECT_EQ(collector.AllBytes(), body);
    EXPECT_EQ(stream.Stop(), ERR_SUCCESS);
}

TEST_F(FileStreamPosition, resume_after_play_once_end_starts_at_the_first_data_byte) {
    const Bytes body = CountingBody(3 * kBlock);
    const std::string path = Recording("again.dvs", body);
    PacketBuffer buffer(8, kBlock);
    Collector collector(buffer);
    FileStream stream;
    PrepareOnce(stream, path, buffer);

    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(WaitForReadOvers(1));
    ASSERT_EQ(stream.Pause(), ERR_SUCCESS);
    ASSERT_EQ(stream.Resume(), ERR_SUCCESS);
    ASSERT_TRUE(WaitForReadOvers(2));
    collector.Finish();
    const std::vector<Packet> packets = collector.Packets();
    ASSERT_EQ(packets.size(), 6u);
    for (size_t i = 0; i < packets.size(); ++i) {
        EXPECT_EQ(packets[i].offset, (i % 3) * kBlock) << i;
    }
    EXPECT_EQ(stream.Stop(), ERR_SUCCESS);
}

TEST_F(FileStreamPosition, skip_bytes_drop_data_before_delivery) {
    const Bytes body = CountingBody(4 * kBlock);
    const std::string path = Recording("skip.dvs", body);
    struct Case {
        unsigned skip;
        uint32_t firstOffset;
        int firstLength;
        size_t packets;
    };
    for (const Case& c :
         {Case{6, 0, static_cast<int>(kBlock), 4}, Case{4096, 4096, static_cast<int>(kBlock), 2},
          Case{1000, 1000, static_cast<int>(kBlock) - 1000, 4}}) {
        SCOPED_TRACE(c.skip);
        PacketBuffer buffer(8, kBlock);
        Collector collector(buffer);
        FileStream stream;
        mReadOvers = 0;
        PrepareOnce(stream, path, buffer);
        stream.SetSkipBytes(c.skip);
        ASSERT_EQ(stream.Start(), ERR_SUCCESS);
        ASSERT_TRUE(WaitForReadOvers(1));
        collector.Finish();
        const std::vector<Packet> packets = collector.Packets();
        ASSERT_EQ(packets.size(), c.packets);
        EXPECT_EQ(packets[0].offset, c.firstOffset);
        EXPECT_EQ(packets[0].length, c.firstLength);
        EXPECT_EQ(stream.Stop(), ERR_SUCCESS);
    }
}

using FileStreamControl = FileStreamTest;

TEST_F(FileStreamControl, stop_while_waiting_for_a_free_node_returns_promptly) {
    const std::string path = Recording("wait.dvs", CountingBody(8 * kBlock));
    PacketBuffer buffer(1, kBlock);
    Collector collector(buffer);
    collector.Hold(true);
    FileStream stream;
    PrepareOnce(stream, path, buffer);
    ASSERT_EQ(stream.SetPlayMode(PLAY_LOOP), ERR_SUCCESS);

    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(collector.WaitForCount(1));
    auto stopped = std::async(std::launch::async, [&] { return stream.Stop(); });
    ASSERT_EQ(stopped.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(stopped.get(), ERR_SUCCESS);
    collector.Finish();
    EXPECT_EQ(collector.Count(), 1u);
}

TEST_F(FileStreamControl, refuses_operations_in_the_wrong_state) {
    const std::string path = Recording("state.dvs", CountingBody(8 * kBlock));
    PacketBuffer buffer(2, kBlock);
    Collector collector(buffer);
    collector.Hold(true);
    FileStream stream;
    EXPECT_EQ(stream.Start(), ERR_INVALID_FILE);
    EXPECT_EQ(stream.SetVersion(MVT94QX), ERR_NO_FILE);
    ASSERT_EQ(stream.SetFilePath(path.c_str()), ERR_SUCCESS);
    EXPECT_EQ(stream.Start(), ERR_NO_PACKET_BUFFER);
    stream.SetPacketBuffer(&buffer);

    EXPECT_EQ(stream.Stop(), ERR_ALREADY_DONE);
    EXPECT_EQ(stream.Pause(), ERR_NOT_START);
    EXPECT_EQ(stream.Resume(), ERR_NOT_START);

    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    ASSERT_TRUE(collector.WaitForCount(1));  // the read thread has opened the file
    EXPECT_EQ(stream.Start(), ERR_ALREADY_DONE);
    EXPECT_EQ(stream.Resume(), ERR_ALREADY_DONE);
    EXPECT_EQ(stream.Close(), ERR_RUNNING);
    EXPECT_EQ(stream.Reset(), ERR_RUNNING);
    EXPECT_EQ(stream.SetVersion(MVT94QX), ERR_RUNNING);
    EXPECT_EQ(stream.SetFilePath(path.c_str()), ERR_RUNNING);

    ASSERT_EQ(stream.Pause(), ERR_SUCCESS);
    EXPECT_EQ(stream.Pause(), ERR_ALREADY_DONE);
    EXPECT_EQ(stream.Close(), ERR_RUNNING);
    EXPECT_EQ(stream.SetPPX(4), ERR_SUCCESS);
    EXPECT_EQ(stream.SetVersion(MVT94QX), ERR_NOT_SUPPORT);

    ASSERT_EQ(stream.Stop(), ERR_SUCCESS);
    EXPECT_EQ(stream.Reset(), ERR_FILE_OPEN);
    ASSERT_EQ(stream.Close(), ERR_SUCCESS);
    ASSERT_EQ(stream.Reset(), ERR_SUCCESS);
    int version = -1;
    EXPECT_EQ(stream.GetVersion(&version), ERR_SUCCESS);
    EXPECT_EQ(version, SELECT_VERSION);
    EXPECT_EQ(stream.SetVersion(MVT94QX), ERR_NO_FILE);
    PLAY_MODE mode = PLAY_ONCE;
    EXPECT_EQ(stream.GetPlayMode(mode), ERR_SUCCESS);
    EXPECT_EQ(mode, PLAY_LOOP);
    PacketBuffer* kept = nullptr;
    EXPECT_EQ(stream.GetPacketBuffer(&kept), ERR_SUCCESS);
    EXPECT_EQ(kept, &buffer);
}

TEST_F(FileStreamControl, checks_arguments_and_bound_files) {
    FileStream stream;
    EXPECT_EQ(stream.SetFilePath(nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(stream.SetFilePath(""), ERR_INVALID_FILE);
    EXPECT_EQ(stream.SetPlayMode(static_cast<PLAY_MODE>(2)), ERR_PARA_ERROR);
    EXPECT_EQ(stream.SetReadOverCbk(nullptr, nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(stream.GetVersion(nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(stream.GetFilePercent(nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(stream.SetFilePercent(nullptr), ERR_PARA_ERROR);
    for (float bad : {-0.1f, 1.01f, NAN}) {
        EXPECT_EQ(stream.SetFilePercent(&bad), ERR_PARA_ERROR) << bad;
    }
    for (float edge : {0.0f, 1.0f}) {
        EXPECT_EQ(stream.SetFilePercent(&edge), ERR_SUCCESS) << edge;
    }
    float percent = -1.0f;
    EXPECT_EQ(stream.GetFilePercent(&percent), ERR_SUCCESS);
    EXPECT_EQ(percent, 0.0f);

    int version = -1;
    EXPECT_EQ(
        stream.SetFilePath(Recording("good.dvs", CountingBody(kBlock), MVT94QX_STEREO).c_str()),
        ERR_SUCCESS);
    EXPECT_EQ(stream.GetVersion(&version), ERR_SUCCESS);
    EXPECT_EQ(version, MVT94QX_STEREO);

    const std::string tooShort = Recording("short.dvs", CountingBody(988));
    EXPECT_EQ(stream.SetFilePath(tooShort.c_str()), ERR_INVALID_FILE);
    EXPECT_EQ(stream.GetVersion(&version), ERR_SUCCESS);
    EXPECT_EQ(version, SELECT_VERSION);

    EXPECT_EQ(stream.SetFilePath(Dump("take.raw", CountingBody(kBlock)).c_str()), ERR_SUCCESS);
    EXPECT_EQ(stream.SetVersion(static_cast<DVS_VERSION>(2)), ERR_PARA_ERROR);
    EXPECT_EQ(stream.SetVersion(MVT94QX), ERR_SUCCESS);
    EXPECT_EQ(stream.CheckFile(), ERR_SUCCESS);
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

TEST_F(FileStreamControl, vanished_file_ends_the_read_thread_with_a_message) {
    const std::string path = Recording("gone.dvs", CountingBody(kBlock));
    PacketBuffer buffer(4, kBlock);
    Collector collector(buffer);
    VanishingFileStream stream(path);
    PrepareOnce(stream, path, buffer);

    testing::internal::CaptureStdout();
    ASSERT_EQ(stream.Start(), ERR_SUCCESS);
    // Resume answers 4 while running and 2 once the source has stopped, without side effects.
    const bool stoppedByItself = WaitUntil([&] { return stream.Resume() == ERR_NOT_START; });
    EXPECT_EQ(stream.Stop(), ERR_ALREADY_DONE);
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(stoppedByItself);
    EXPECT_NE(out.find("Bin file is null, exit read thread"), std::string::npos);
    collector.Finish();
    EXPECT_EQ(collector.Count(), 0u);
    EXPECT_EQ(stream.Start(), ERR_OPEN_FILE);
}

}  // namespace
}  // namespace evcam
