#include "src/record/data_save.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "evcam/platform.h"
#include "src/data/packet_buffer.h"
#include "src/record/recording_format.h"
#include "tests/support/test_support.h"

extern char** environ;

namespace evcam {
namespace {

namespace fs = std::filesystem;

// Set for a child process: the folder it works in. Tests of the DataSaveChild suite run only
// then.
constexpr const char* kChildEnv = "EVCAM_DATA_SAVE_CHILD_DIR";
constexpr size_t kHeaderSize = 8;

// A pattern in which a shifted or repeated stretch shows.
Bytes Pattern(size_t length) {
    Bytes bytes(length);
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<uint8_t>((i * 131 + i / 256) & 0xFF);
    }
    return bytes;
}

std::vector<fs::path> DvsFiles(const fs::path& dir) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(dir)) {
        if (entry.path().extension() == ".dvs") {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool EndsWith(const fs::path& path, const std::string& tail) {
    const std::string name = path.filename().string();
    return name.size() >= tail.size() &&
           name.compare(name.size() - tail.size(), tail.size(), tail) == 0;
}

// The body of a recording file after checking the writer's header for version.
Bytes Body(const fs::path& path, DVS_VERSION version = MVT94QX) {
    const Bytes all = ReadFileBytes(path);
    const Bytes header = {0x7F, 0x00, 0x02, 0x00, 0x7F, 0x01, static_cast<uint8_t>(version), 0x00};
    if (all.size() < kHeaderSize || !std::equal(header.begin(), header.end(), all.begin())) {
        ADD_FAILURE() << "no header of version " << version << " in " << path;
        return {};
    }
    return Bytes(all.begin() + kHeaderSize, all.end());
}

bool Released(DVSPacket* node) {
    return node != nullptr && node->mPack->GetRefCount() == 0;
}

// A saving buffer and a recorder of version 1 writing into dir.
class Recorder {
  public:
    explicit Recorder(const fs::path& dir, int nodeSize = 8192) : mDir(dir), mBuffer(4, nodeSize) {
        mBuffer.EnableDropData(false);
        mBuffer.SetSaveStatus(true);
        mSave.SetVersion(MVT94QX);
        mSave.SetPacketBuffer(&mBuffer);
    }
    DVS_ERROR Start() { return mSave.StartSave(mDir.string().c_str()); }

    // Plays the device stream: one packet into the saving buffer, which grows rather than drop.
    void Feed(const uint8_t* data, size_t length) {
        DVSPacket* node = mBuffer.GetAFreeNode();
        ASSERT_TRUE(node != nullptr && static_cast<size_t>(node->mBufferSize) >= length);
        memcpy(node->mData, data, length);
        node->mDataLen = static_cast<int32_t>(length);
        mBuffer.PutANodeToDataList(node);
        mFed.push_back(node);
    }
    // Feeds the bytes in packets of at most packet bytes, without waiting for the recorder.
    void FeedAll(const Bytes& data, size_t packet) {
        for (size_t at = 0; at < data.size(); at += packet) {
            Feed(data.data() + at, std::min(packet, data.size() - at));
        }
    }
    // Waits until the recorder has handed back every packet fed, its writes done.
    bool AllReleased() {
        return WaitUntil([&] { return std::all_of(mFed.begin(), mFed.end(), Released); });
    }

    fs::path mDir;
    PacketBuffer mBuffer;
    DataSave mSave;  // after the buffer: it stops before the buffer goes
    std::vector<DVSPacket*> mFed;
};

TEST(DataSave, argument_and_state_codes) {
    TempDir dir;
    const std::string path = dir.path().string();
    PacketBuffer buffer(2, 64);
    DataSave save;
    char name[DataSave::kVersionNameSize];
    ASSERT_EQ(save.GetVersionName(name), ERR_SUCCESS);
    EXPECT_STREQ(name, "-SELECT_VERSION");
    EXPECT_EQ(save.GetVersionName(nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(save.StopSave(), ERR_ALREADY_DONE);
    EXPECT_EQ(save.SaveData(nullptr, 0), ERR_NOT_START);
    EXPECT_EQ(save.SaveData(nullptr, 4), ERR_PARA_ERROR);
    EXPECT_EQ(save.StartSave(nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(save.StartSave(""), ERR_PARA_ERROR);
    EXPECT_EQ(save.StartSave(path.c_str()), ERR_INVALID_BUFFER);
    EXPECT_EQ(save.SetPacketBuffer(nullptr), ERR_PARA_ERROR);
    ASSERT_EQ(save.SetPacketBuffer(&buffer), ERR_SUCCESS);
    EXPECT_EQ(save.StartSave(path.c_str()), ERR_UNKNOWN_VERSION);
    for (int bad : {0, 2, 16, 18}) {
        EXPECT_EQ(save.SetVersion(static_cast<DVS_VERSION>(bad)), ERR_PARA_ERROR) << bad;
    }
    EXPECT_EQ(save.SetCacheSize(0), ERR_PARA_ERROR);
    EXPECT_EQ(save.SetNoSpaceCbk(nullptr, nullptr), ERR_SUCCESS);
    ASSERT_EQ(save.SetVersion(MVT94QX), ERR_SUCCESS);
    EXPECT_EQ(save.StartSave(dir.File("missing").c_str()), ERR_SAVE_DATA);
    EXPECT_EQ(save.StartSave(std::string(DataSave::kPathSize, 'd').c_str()), ERR_SAVE_DATA);

    ASSERT_EQ(save.StartSave(path.c_str()), ERR_SUCCESS);
    EXPECT_EQ(save.StartSave(path.c_str()), ERR_ALREADY_DONE);
    EXPECT_EQ(save.SetCacheSize(4096), ERR_RUNNING);
    EXPECT_EQ(save.SetVersion(MVT94QX_STEREO), ERR_RUNNING);
    EXPECT_EQ(save.SetPacketBuffer(&buffer), ERR_RUNNING);
    EXPECT_EQ(save.StopSave(), ERR_SUCCESS);
    EXPECT_EQ(save.StopSave(), ERR_ALREADY_DONE);
    // The buffer belongs to one recording.
    EXPECT_EQ(save.StartSave(path.c_str()), ERR_INVALID_BUFFER);
    EXPECT_EQ(save.SaveData(nullptr, 0), ERR_NOT_START);
}

TEST(DataSave, packets_come_out_byte_for_byte_after_the_header_in_a_file_named_by_the_time) {
    for (DVS_VERSION version : {MVT94QX, MVT94QX_STEREO}) {
        TempDir dir;
        const Bytes data = Pattern(300000);
        std::set<std::string> names;
        {
            Recorder rec(dir.path());
            rec.mSave.SetVersion(version);
            ASSERT_EQ(rec.mSave.SetCacheSize(10000), ERR_SUCCESS);
            const long before = static_cast<long>(DVSTime() / 1000);
            ASSERT_EQ(rec.Start(), ERR_SUCCESS);
            for (long second = before; second <= static_cast<long>(DVSTime() / 1000); ++second) {
                tm local{};
                DVSLocalTimer(&local, &second);
                names.insert(MakeRecordingFileName(local, version));
            }
            // Packets of every size up to the node size, so that some are cached and some not.
            std::mt19937 random(7);
            for (size_t at = 0, length = 0; at < data.size(); at += length) {
                length = std::min<size_t>(random() % 8193, data.size() - at);
                rec.Feed(data.data() + at, length);
            }
            ASSERT_TRUE(rec.AllReleased());
            // The stereo recording is ended by the destructor, which writes the cache too.
            if (version == MVT94QX) {
                ASSERT_EQ(rec.mSave.StopSave(), ERR_SUCCESS);
            }
        }
        const std::vector<fs::path> files = DvsFiles(dir.path());
        ASSERT_EQ(files.size(), 1u);
        EXPECT_EQ(names.count(files[0].filename().string()), 1u) << files[0];
        EXPECT_EQ(Body(files[0], version), data);
    }
}

TEST(DataSave, cache_takes_packets_that_fit_and_writes_others_after_it) {
    TempDir dir;
    Recorder rec(dir.path());
    ASSERT_EQ(rec.mSave.SetCacheSize(4096), ERR_SUCCESS);
    ASSERT_EQ(rec.Start(), ERR_SUCCESS);
    const Bytes data = Pattern(2048 + 2048 + 1024 + 3072 + 5000 + 100);
    // Step by step: the packet, then the file size once the recorder has handed it back.
    const std::vector<std::pair<size_t, uintmax_t>> steps = {
        {2048, kHeaderSize},                // cached: 2048 < 4096
        {2048, kHeaderSize + 4096},         // 2048 is not < 2048: cache, then the packet
        {1024, kHeaderSize + 4096},         // cached
        {3072, kHeaderSize + 4096 + 4096},  // 3072 is not < 3072
        {5000, kHeaderSize + 8192 + 5000},  // larger than the whole cache: written directly
        {100, kHeaderSize + 8192 + 5000}};  // cached until the stop
    size_t at = 0;
    for (const auto& [length, size] : steps) {
        rec.Feed(data.data() + at, length);
        ASSERT_TRUE(rec.AllReleased()) << at;
        at += length;
        const std::vector<fs::path> files = DvsFiles(dir.path());
        ASSERT_EQ(files.size(), 1u);
        EXPECT_EQ(fs::file_size(files[0]), size) << "after byte " << at;
    }
    ASSERT_EQ(rec.mSave.StopSave(), ERR_SUCCESS);
    EXPECT_EQ(Body(DvsFiles(dir.path()).at(0)), data);
}

TEST(DataSave, a_name_taken_in_the_same_second_moves_on_and_gives_206_when_all_stay_taken) {
    TempDir dir;
    Recorder rec(dir.path());
    const Bytes first = Pattern(1000);
    ASSERT_EQ(rec.Start(), ERR_SUCCESS);
    rec.FeedAll(first, 1000);
    ASSERT_TRUE(rec.AllReleased());
    ASSERT_EQ(rec.mSave.StopSave(), ERR_SUCCESS);
    ASSERT_EQ(rec.mSave.SetPacketBuffer(&rec.mBuffer), ERR_SUCCESS);
    ASSERT_EQ(rec.Start(), ERR_SUCCESS);
    ASSERT_EQ(rec.mSave.StopSave(), ERR_SUCCESS);
    std::vector<fs::path> files = DvsFiles(dir.path());
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(Body(files[0]), first);
    EXPECT_EQ(Body(files[1]), Bytes());

    TempDir taken;
    const long now = static_cast<long>(DVSTime() / 1000);
    for (long second = now; second < now + 10; ++second) {
        tm local{};
        DVSLocalTimer(&local, &second);
        taken.Write(MakeRecordingFileName(local, MVT94QX), "taken");
    }
    ASSERT_EQ(rec.mSave.SetPacketBuffer(&rec.mBuffer), ERR_SUCCESS);
    EXPECT_EQ(rec.mSave.StartSave(taken.path().string().c_str()), ERR_SAVE_DATA);
    EXPECT_EQ(rec.mSave.StopSave(), ERR_ALREADY_DONE);
    files = DvsFiles(taken.path());
    EXPECT_EQ(files.size(), 10u);
    for (const fs::path& file : files) {
        EXPECT_EQ(ReadFileText(file), "taken") << file;
    }
}

// Runs one test of this binary in a child process working in dir, with size limit on its
// files (0: none). A forked child of a threaded process must exec before it starts threads.
// @return the child's exit status, or -1 when it did not exit within a minute.
int RunChild(const std::string& test, const fs::path& dir, rlim_t sizeLimit) {
    std::string filter = "--gtest_filter=DataSaveChild.DISABLED_" + test;
    std::string self = "/proc/self/exe";
    // The child entry points are disabled tests, so that test runners do not count them.
    std::string disabled = "--gtest_also_run_disabled_tests";
    std::vector<char*> argv = {self.data(), filter.data(), disabled.data(), nullptr};
    std::string marker = std::string(kChildEnv) + "=" + dir.string();
    std::vector<char*> envp;
    for (char** e = environ; *e != nullptr; ++e) {
        envp.push_back(*e);
    }
    envp.push_back(marker.data());
    envp.push_back(nullptr);
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        if (sizeLimit > 0) {
            const rlimit limit{sizeLimit, sizeLimit};
            setrlimit(RLIMIT_FSIZE, &limit);
            // Growing past the limit gives EFBIG instead of ending the process.
            signal(SIGXFSZ, SIG_IGN);
        }
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    int status = 0;
    if (pid < 0 || !WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; },
                              std::chrono::minutes(1))) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Gets a private file system of 256 KiB at disk: a mount namespace of this process (inside a
// user namespace unless root). @return empty on success, else why not.
std::string MountSmallDisk(const fs::path& disk) {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(uid == 0 ? CLONE_NEWNS : CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return std::string("unshare: ") + strerror(errno);
    }
    if (uid != 0) {
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << "0 " + std::to_string(uid) + " 1";
        std::ofstream("/proc/self/gid_map") << "0 " + std::to_string(gid) + " 1";
    }
    // Private first, so that the mount never shows outside this process.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=256k") != 0) {
        return std::string("mount: ") + strerror(errno);
    }
    return std::string();
}

const char* ChildDir() {
    return getenv(kChildEnv);
}

// What the file size children record: packets of 2000 bytes through a cache of 10000, so the
// writes are of 8000 and 2000 bytes and the limit falls inside one of them.
const Bytes kLimitData = Pattern(120000);

TEST(DataSaveChild, DISABLED_records_under_file_size_limit) {
    if (ChildDir() == nullptr) {
        GTEST_SKIP() << "runs in a child of DataSaveLimits";
    }
    const fs::path dir = ChildDir();
    Recorder rec(dir / "rec", 2000);
    std::atomic<int> noSpace{0};
    rec.mSave.SetNoSpaceCbk([](void* user) { ++*static_cast<std::atomic<int>*>(user); }, &noSpace);
    ASSERT_EQ(rec.mSave.SetCacheSize(10000), ERR_SUCCESS);
    ASSERT_EQ(rec.Start(), ERR_SUCCESS);
    rec.FeedAll(kLimitData, 2000);
    ASSERT_TRUE(rec.AllReleased());
    ASSERT_EQ(rec.mSave.StopSave(), ERR_SUCCESS);
    EXPECT_EQ(noSpace.load(), 0);
    // Short enough for the smallest limit.
    std::ofstream(dir / "result") << (rec.mBuffer.GetSaveStatus() ? "read" : "stop");
}

TEST(DataSaveChild, DISABLED_records_onto_small_disk) {
    if (ChildDir() == nullptr) {
        GTEST_SKIP() << "runs in a child of DataSaveLimits";
    }
    const fs::path dir = ChildDir();
    const std::string refused = MountSmallDisk(dir / "rec");
    if (!refused.empty()) {
        std::ofstream(dir / "result") << "skip " + refused;
        return;
    }
    Recorder rec(dir / "rec", 2000);
    std::atomic<int> noSpace{0};
    rec.mSave.SetNoSpaceCbk([](void* user) { ++*static_cast<std::atomic<int>*>(user); }, &noSpace);
    ASSERT_EQ(rec.mSave.SetCacheSize(16384), ERR_SUCCESS);
    ASSERT_EQ(rec.Start(), ERR_SUCCESS);
    const Bytes data = Pattern(400000);
    rec.FeedAll(data, 2000);
    ASSERT_TRUE(rec.AllReleased());
    ASSERT_TRUE(WaitUntil([&] { return !rec.mBuffer.GetSaveStatus(); }));
    EXPECT_EQ(noSpace.load(), 1);
    // The pool keeps its size once the recorder no longer reads it.
    const int nodes = rec.mBuffer.GetNodeCount();
    rec.FeedAll(data, 2000);
    EXPECT_EQ(rec.mBuffer.GetNodeCount(), nodes);
    EXPECT_EQ(rec.mSave.SaveData(data.data(), 4), ERR_NOT_START);
    EXPECT_EQ(rec.mSave.StopSave(), ERR_SUCCESS);
    EXPECT_EQ(noSpace.load(), 1);

    const std::vector<fs::path> files = DvsFiles(rec.mDir);
    ASSERT_EQ(files.size(), 1u);
    const Bytes body = Body(files[0]);
    EXPECT_GT(body.size(), 0u);
    EXPECT_LT(body.size(), data.size());
    EXPECT_TRUE(std::equal(body.begin(), body.end(), data.begin()));
    std::ofstream(dir / "result") << "done";
}

class DataSaveLimits : public ::testing::Test {
  protected:
    void SetUp() override { fs::create_directory(mDir.path() / "rec"); }
    std::vector<fs::path> Files() const { return DvsFiles(mDir.path() / "rec"); }
    std::string Result() const { return ReadFileText(mDir.path() / "result"); }
    TempDir mDir;
};

TEST_F(DataSaveLimits, file_that_may_not_grow_continues_in_a_follow_on_file) {
    constexpr rlim_t kLimit = 64 * 1024 + kHeaderSize;
    ASSERT_EQ(RunChild("records_under_file_size_limit", mDir.path(), kLimit), 0);
    ASSERT_EQ(Result(), "read");
    std::vector<fs::path> files = Files();
    ASSERT_EQ(files.size(), 2u);
    // "--" sorts before "-M": the follow-on file comes first when both share a second.
    if (!EndsWith(files[0], "--MVT94QX.dvs")) {
        std::swap(files[0], files[1]);
    }
    ASSERT_TRUE(EndsWith(files[0], "--MVT94QX.dvs")) << files[0];
    EXPECT_FALSE(EndsWith(files[1], "--MVT94QX.dvs")) << files[1];
    EXPECT_EQ(fs::file_size(files[1]), kLimit);
    Bytes joined = Body(files[1]);
    const Bytes second = Body(files[0]);
    joined.insert(joined.end(), second.begin(), second.end());
    EXPECT_EQ(joined, kLimitData);
}

TEST_F(DataSaveLimits, follow_on_file_that_takes_no_byte_ends_the_recording) {
    ASSERT_EQ(RunChild("records_under_file_size_limit", mDir.path(), kHeaderSize), 0);
    // The failed write switched the buffer's save status off, so nothing piles up behind it.
    ASSERT_EQ(Result(), "stop");
    ASSERT_EQ(Files().size(), 2u);
    for (const fs::path& file : Files()) {
        EXPECT_EQ(Body(file), Bytes()) << file;
    }
}

TEST_F(DataSaveLimits, full_disk_calls_back_once_and_stops_writing) {
    ASSERT_EQ(RunChild("records_onto_small_disk", mDir.path(), 0), 0);
    if (Result().rfind("skip ", 0) == 0) {
        GTEST_SKIP() << "no private file system: " << Result().substr(5);
    }
    EXPECT_EQ(Result(), "done");
    // The small disk was the child's own: nothing of it is left here.
    EXPECT_TRUE(Files().empty());
}

}  // namespace
}  // namespace evcam
