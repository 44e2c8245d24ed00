#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "evcam/platform.h"

namespace evcam {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Timer callbacks may still run just after DVSRemoveEvent returns, so what they touch lives
// for the whole process.
std::atomic<int> gFired[kTimerSlots + 1];
std::atomic<void*> gLastArg{nullptr};

void CountFire(void* arg) {
    static_cast<std::atomic<int>*>(arg)->fetch_add(1);
    gLastArg.store(arg);
}

template <typename Pred>
bool WaitFor(Pred pred, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const auto end = Clock::now() + limit;
    while (!pred()) {
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// POSIX timers the kernel holds for this process, or -1 where it does not tell.
int KernelTimerCount() {
    std::ifstream in("/proc/self/timers");
    if (!in) {
        return -1;
    }
    int count = 0;
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("ID:", 0) == 0) {
            ++count;
        }
    }
    return count;
}

class TempDir {
  public:
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "evcam_platform_XXXXXX").string();
        std::vector<char> buf(pattern.begin(), pattern.end());
        buf.push_back('\0');
        path_ = mkdtemp(buf.data());
    }
    ~TempDir() { fs::remove_all(path_); }
    const fs::path& path() const { return path_; }
    void Touch(const std::string& name) const { std::ofstream(path_ / name) << "x"; }

  private:
    fs::path path_;
};

TEST(Timers, sixteen_slots_then_limit_and_lowest_free_slot_is_reused) {
    const int kernelStart = KernelTimerCount();
    void* handles[kTimerSlots] = {};
    for (int i = 0; i < kTimerSlots; ++i) {
        ASSERT_EQ(DVSTimeSetEvent(600000, CountFire, &gFired[i], 0, &handles[i]), ERR_SUCCESS)
            << "slot " << i;
        for (int j = 0; j < i; ++j) {
            EXPECT_NE(handles[i], handles[j]);
        }
    }

    // Sanitizer builds serve timers from threads of their own, without kernel timers.
    const int kernelBefore =
        KernelTimerCount() == kernelStart + kTimerSlots ? kernelStart + kTimerSlots : -1;
    void* extra = &extra;
    EXPECT_EQ(DVSTimeSetEvent(10, CountFire, &gFired[kTimerSlots], 1, &extra), ERR_TIMER_LIMIT);
    EXPECT_EQ(extra, &extra);
    if (kernelBefore >= 0) {
        EXPECT_EQ(KernelTimerCount(), kernelBefore);
    }

    ASSERT_EQ(DVSRemoveEvent(nullptr, handles[9]), ERR_SUCCESS);
    ASSERT_EQ(DVSRemoveEvent(nullptr, handles[4]), ERR_SUCCESS);
    void* reused = nullptr;
    ASSERT_EQ(DVSTimeSetEvent(600000, CountFire, &gFired[4], 0, &reused), ERR_SUCCESS);
    EXPECT_EQ(reused, handles[4]);
    handles[4] = reused;
    ASSERT_EQ(DVSTimeSetEvent(600000, CountFire, &gFired[9], 0, &reused), ERR_SUCCESS);
    EXPECT_EQ(reused, handles[9]);

    for (void* h : handles) {
        EXPECT_EQ(DVSRemoveEvent(nullptr, h), ERR_SUCCESS);
    }
    if (kernelBefore >= 0) {
        EXPECT_EQ(KernelTimerCount(), kernelBefore - kTimerSlots);
    }
}

TEST(Timers, bad_arguments_give_1) {
    void* handle = nullptr;
    EXPECT_EQ(DVSTimeSetEvent(10, nullptr, nullptr, 0, &handle), ERR_PARA_ERROR);
    EXPECT_EQ(DVSTimeSetEvent(10, CountFire, &gFired[0], 2, &handle), ERR_PARA_ERROR);
    EXPECT_EQ(DVSTimeSetEvent(10, CountFire, &gFired[0], 0, nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(handle, nullptr);
}

TEST(Timers, removing_twice_or_a_foreign_handle_gives_1) {
    void* handle = nullptr;
    ASSERT_EQ(DVSTimeSetEvent(600000, CountFire, &gFired[0], 1, &handle), ERR_SUCCESS);
    EXPECT_EQ(DVSRemoveEvent(nullptr, handle), ERR_SUCCESS);
    EXPECT_EQ(DVSRemoveEvent(nullptr, handle), ERR_PARA_ERROR);
    EXPECT_EQ(DVSRemoveEvent(nullptr, nullptr), ERR_PARA_ERROR);
    int notASlot = 0;
    EXPECT_EQ(DVSRemoveEvent(nullptr, &notASlot), ERR_PARA_ERROR);
}

TEST(Timers, refused_timer_gives_13_and_frees_its_slot) {
    // Each timer needs a queued-signal entry, so a zero signal allowance makes the system
    // refuse it.
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_SIGPENDING, &saved), 0);
    rlimit none = saved;
    none.rlim_cur = 0;
    ASSERT_EQ(setrlimit(RLIMIT_SIGPENDING, &none), 0);
    void* handle = nullptr;
    testing::internal::CaptureStdout();
    const DVS_ERROR rc = DVSTimeSetEvent(600000, CountFire, &gFired[0], 0, &handle);
    fflush(stdout);
    const std::string printed = testing::internal::GetCapturedStdout();
    ASSERT_EQ(setrlimit(RLIMIT_SIGPENDING, &saved), 0);
    if (rc == ERR_SUCCESS) {
        DVSRemoveEvent(nullptr, handle);
        GTEST_SKIP() << "the system accepted a timer without a signal allowance";
    }
    EXPECT_EQ(rc, ERR_CREATE_TIMER);
    EXPECT_EQ(printed, "Create timer fail\n");
    EXPECT_EQ(handle, nullptr);

    void* handles[kTimerSlots] = {};
    for (void*& h : handles) {
        EXPECT_EQ(DVSTimeSetEvent(600000, CountFire, &gFired[0], 0, &h), ERR_SUCCESS);
    }
    for (void* h : handles) {
        EXPECT_EQ(DVSRemoveEvent(nullptr, h), ERR_SUCCESS);
    }
}

TEST(Timers, one_shot_fires_once_with_its_argument) {
    std::atomic<int>& fired = gFired[0];
    fired = 0;
    void* handle = nullptr;
    ASSERT_EQ(DVSTimeSetEvent(20, CountFire, &fired, 0, &handle), ERR_SUCCESS);
    EXPECT_TRUE(WaitFor([&] { return fired.load() >= 1; }));
    EXPECT_EQ(gLastArg.load(), &fired);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(fired.load(), 1);
    // A one-shot timer keeps its slot after expiring until it is removed.
    EXPECT_EQ(DVSRemoveEvent(nullptr, handle), ERR_SUCCESS);
}

TEST(Timers, periodic_fires_repeatedly_until_removed) {
    std::atomic<int>& fired = gFired[1];
    fired = 0;
    void* handle = nullptr;
    ASSERT_EQ(DVSTimeSetEvent(5, CountFire, &fired, 1, &handle), ERR_SUCCESS);
    EXPECT_TRUE(WaitFor([&] { return fired.load() >= 3; }));
    ASSERT_EQ(DVSRemoveEvent(nullptr, handle), ERR_SUCCESS);

    // Let a callback that was already running finish, then nothing more may arrive.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const int afterRemoval = fired.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(fired.load(), afterRemoval);
}

// A one-shot callback that removes its own timer and arms the next one, the way frame
// delivery paces itself.
struct Chain {
    void* handle = nullptr;
    std::atomic<int> passes{0};
    std::atomic<bool> finished{false};
};
Chain gChain;

void ChainPass(void* arg) {
    auto* chain = static_cast<Chain*>(arg);
    DVSRemoveEvent(nullptr, chain->handle);
    if (++chain->passes < 3) {
        DVSTimeSetEvent(20, ChainPass, chain, 0, &chain->handle);
    } else {
        chain->finished = true;
    }
}

TEST(Timers, callback_may_remove_its_timer_and_arm_the_next) {
    ASSERT_EQ(DVSTimeSetEvent(20, ChainPass, &gChain, 0, &gChain.handle), ERR_SUCCESS);
    EXPECT_TRUE(WaitFor([] { return gChain.finished.load(); }));
    EXPECT_EQ(gChain.passes.load(), 3);

    // Every slot is free again.
    void* handles[kTimerSlots] = {};
    for (void*& h : handles) {
        EXPECT_EQ(DVSTimeSetEvent(600000, CountFire, &gFired[0], 0, &h), ERR_SUCCESS);
    }
    for (void* h : handles) {
        EXPECT_EQ(DVSRemoveEvent(nullptr, h), ERR_SUCCESS);
    }
}

TEST(Timers, period_zero_holds_a_slot_but_never_fires) {
    std::atomic<int>& fired = gFired[2];
    fired = 0;
    void* zero = nullptr;
    ASSERT_EQ(DVSTimeSetEvent(0, CountFire, &fired, 1, &zero), ERR_SUCCESS);

    void* handles[kTimerSlots - 1] = {};
    for (void*& h : handles) {
        EXPECT_EQ(DVSTimeSetEvent(600000, CountFire, &gFired[3], 0, &h), ERR_SUCCESS);
    }
    void* extra = nullptr;
    EXPECT_EQ(DVSTimeSetEvent(600000, CountFire, &gFired[3], 0, &extra), ERR_TIMER_LIMIT);
    for (void* h : handles) {
        EXPECT_EQ(DVSRemoveEvent(nullptr, h), ERR_SUCCESS);
    }

    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(fired.load(), 0);
    EXPECT_EQ(DVSRemoveEvent(nullptr, zero), ERR_SUCCESS);
}

TEST(Locks, rwlock_marker_is_per_thread_and_follows_the_last_operation) {
    RWLock lock;
    EXPECT_EQ(RWLock::held(), 0);
    lock.rdlock();
    EXPECT_EQ(RWLock::held(), 1);

    // A second reader gets in while the first holds the lock, with its own marker.
    int otherMarker = -1;
    std::thread reader([&] {
        otherMarker = RWLock::held();
        lock.rdlock();
        otherMarker = otherMarker * 10 + RWLock::held();
        lock.unlock();
    });
    reader.join();
    EXPECT_EQ(otherMarker, 1);
    EXPECT_EQ(RWLock::held(), 1);

    lock.unlock();
    EXPECT_EQ(RWLock::held(), 0);
    lock.wrlock();
    EXPECT_EQ(RWLock::held(), 2);
    lock.unlock();
    EXPECT_EQ(RWLock::held(), 0);
}

TEST(TimeHelpers, sleep_time_and_local_time) {
    const auto start = Clock::now();
    DVSSleep(0);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));

    const auto beforeSleep = Clock::now();
    DVSSleep(20);
    EXPECT_GE(Clock::now() - beforeSleep, std::chrono::milliseconds(20));

    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    using std::chrono::system_clock;
    const auto before = duration_cast<milliseconds>(system_clock::now().time_since_epoch());
    const uint64_t now = DVSTime();
    const auto after = duration_cast<milliseconds>(system_clock::now().time_since_epoch());
    EXPECT_GE(now, static_cast<uint64_t>(before.count()));
    EXPECT_LE(now, static_cast<uint64_t>(after.count()));

    tm out{};
    long t = 86400L * 365;
    EXPECT_EQ(DVSLocalTimer(nullptr, &t), 1);
    EXPECT_EQ(DVSLocalTimer(&out, nullptr), 1);
    ASSERT_EQ(DVSLocalTimer(&out, &t), 0);
    tm expected{};
    const time_t tt = t;
    localtime_r(&tt, &expected);
    EXPECT_EQ(out.tm_year, expected.tm_year);
    EXPECT_EQ(out.tm_yday, expected.tm_yday);
    EXPECT_EQ(out.tm_hour, expected.tm_hour);
}

TEST(Paths, convert_path_turns_backslashes_and_reports_cuts) {
    char dst[8];
    EXPECT_EQ(DVSConvertPath("a\\b", dst, 4), 0);
    EXPECT_STREQ(dst, "a/b");
    EXPECT_EQ(DVSConvertPath("a\\b", dst, 3), 1);
    EXPECT_STREQ(dst, "a/");
    EXPECT_EQ(DVSConvertPath("", dst, 8), 0);
    EXPECT_STREQ(dst, "");
    EXPECT_EQ(DVSConvertPath("ab", dst, 1), 1);
    EXPECT_STREQ(dst, "");
    EXPECT_EQ(DVSConvertPath("c:\\x\\y.dvs", dst, 8), 1);
    EXPECT_STREQ(dst, "c:/x/y.");

    EXPECT_EQ(DVSConvertPath(nullptr, dst, 8), 1);
    EXPECT_EQ(DVSConvertPath("a", nullptr, 8), 1);
    EXPECT_EQ(DVSConvertPath("a", dst, 0), 1);
}

TEST(Paths, wcscat_appends_within_the_buffer) {
    std::vector<char> dst(8, '\0');
    strcpy(dst.data(), "ab");
    EXPECT_EQ(DVSWcscat(dst.data(), "cd", 8), 0);
    EXPECT_STREQ(dst.data(), "abcd");
    EXPECT_EQ(DVSWcscat(dst.data(), "efghij", 8), 0);
    EXPECT_STREQ(dst.data(), "abcdefg");
    // Full buffer, or a size smaller than what it already holds: nothing is written.
    EXPECT_EQ(DVSWcscat(dst.data(), "z", 8), 0);
    EXPECT_EQ(DVSWcscat(dst.data(), "z", 2), 0);
    EXPECT_STREQ(dst.data(), "abcdefg");
    EXPECT_EQ(DVSWcscat(dst.data(), nullptr, 8), 1);
}

TEST(Paths, complete_path_adds_one_trailing_slash) {
    char dst[32] = "/data";
    DVSCompletePath(dst, sizeof dst, "/rec");
    EXPECT_STREQ(dst, "/data/rec/");

    char withSlash[32] = "";
    DVSCompletePath(withSlash, sizeof withSlash, "/tmp/");
    EXPECT_STREQ(withSlash, "/tmp/");

    std::vector<char> tight(6, '\0');
    DVSCompletePath(tight.data(), 6, "abcde");
    EXPECT_STREQ(tight.data(), "abcde");
    std::vector<char> cut(4, '\0');
    DVSCompletePath(cut.data(), 4, "abcdef");
    EXPECT_STREQ(cut.data(), "abc");
}

TEST(Paths, alg_filter_is_so) {
    char buf[8] = "xxxxxxx";
    EXPECT_EQ(DVSGetAlgFilter(nullptr), 0);
    EXPECT_EQ(DVSGetAlgFilter(buf), 1);
    EXPECT_STREQ(buf, ".so");
}

TEST(Files, find_files_matches_substrings_and_cuts_extensions) {
    TempDir dir;
    dir.Touch("rec_a.dvs");
    dir.Touch("rec_b.dvs");
    dir.Touch("notes.txt");
    dir.Touch("a.b.dvs");

    char names[8][260];
    int count = -1;
    char pattern[] = ".dvs";
    DVSFindFiles(dir.path().c_str(), pattern, names, 8, count, false);
    ASSERT_EQ(count, 3);
    std::vector<std::string> found(names, names + count);
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, (std::vector<std::string>{"a", "rec_a", "rec_b"}));

    DVSFindFiles(dir.path().c_str(), pattern, names, 8, count, true);
    ASSERT_EQ(count, 3);
    found.assign(names, names + count);
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, (std::vector<std::string>{"a.b.dvs", "rec_a.dvs", "rec_b.dvs"}));

    DVSFindFiles(dir.path().c_str(), pattern, names, 2, count, true);
    EXPECT_EQ(count, 2);
    DVSFindFiles(dir.path().c_str(), pattern, names, 0, count, true);
    EXPECT_EQ(count, 0);

    // "." and ".." are listed like any other entry.
    char dot[] = ".";
    DVSFindFiles(dir.path().c_str(), dot, names, 8, count, true);
    found.assign(names, names + count);
    EXPECT_EQ(count, 6);
    EXPECT_NE(std::find(found.begin(), found.end(), ".."), found.end());

    count = 7;
    DVSFindFiles((dir.path() / "missing").c_str(), pattern, names, 8, count, true);
    EXPECT_EQ(count, 0);
}

TEST(Files, open_seek_and_tell_with_64_bit_offsets) {
    TempDir dir;
    const std::string path = (dir.path() / "data.bin").string();
    FILE* fp = reinterpret_cast<FILE*>(&fp);
    EXPECT_EQ(DVSOpenFile(nullptr, path.c_str(), "wb"), -1);
    EXPECT_EQ(DVSOpenFile(&fp, nullptr, "wb"), -1);
    EXPECT_EQ(DVSOpenFile(&fp, (dir.path() / "missing.bin").c_str(), "rb"), -1);
    EXPECT_EQ(fp, nullptr);

    ASSERT_EQ(DVSOpenFile(&fp, path.c_str(), "wb"), 0);
    ASSERT_NE(fp, nullptr);
    fwrite("0123456789", 1, 10, fp);
    fclose(fp);

    ASSERT_EQ(DVSOpenFile(&fp, path.c_str(), "rb"), 0);
    EXPECT_EQ(DVSSeek64(fp, 0, SEEK_END), 0);
    EXPECT_EQ(DVSTell64(fp), 10);
    EXPECT_EQ(DVSSeek64(fp, 4, SEEK_SET), 0);
    EXPECT_EQ(fgetc(fp), '4');
    EXPECT_EQ(DVSSeek64(fp, 2, SEEK_CUR), 0);
    EXPECT_EQ(fgetc(fp), '7');
    EXPECT_EQ(DVSSeek64(fp, 0, 3), -1);
    EXPECT_EQ(DVSTell64(fp), 8);
    // Positions past 4 GiB survive the round trip (seeking past the end is allowed).
    const long far = 5L * 1024 * 1024 * 1024 + 3;
    EXPECT_EQ(DVSSeek64(fp, far, SEEK_SET), 0);
    EXPECT_EQ(DVSTell64(fp), far);
    fclose(fp);

    EXPECT_EQ(DVSSeek64(nullptr, 0, SEEK_SET), -1);
    EXPECT_EQ(DVSTell64(nullptr), -1);
}

TEST(Files, mkdir_is_owner_only_and_fails_when_present) {
    TempDir dir;
    const std::string path = (dir.path() / "sub").string();
    ASSERT_EQ(DVSMkdir(path.c_str()), 0);
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0077, 0u);
    EXPECT_EQ(DVSMkdir(path.c_str()), -1);
    EXPECT_EQ(DVSMkdir(nullptr), -1);
}

}  // namespace
}  // namespace evcam
