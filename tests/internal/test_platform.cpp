#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
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
using std::chrono::milliseconds;

// Timer callbacks may still run just after DVSRemoveEvent returns, so what they touch lives
// for the whole process.
std::atomic<int> gFired[3];
std::atomic<int> gIdle;  // argument of timers that are removed long before they expire

void CountFire(void* arg) {
    static_cast<std::atomic<int>*>(arg)->fetch_add(1);
}

template <typename Pred>
bool WaitFor(Pred pred) {
    const auto end = Clock::now() + std::chrono::seconds(5);
    while (!pred() && Clock::now() < end) {
        std::this_thread::sleep_for(milliseconds(1));
    }
    return pred();
}

// POSIX timers the kernel holds for this process, or -1 where it does not tell.
int KernelTimerCount() {
    std::ifstream in("/proc/self/timers");
    int count = 0;
    for (std::string line; std::getline(in, line);) {
        count += line.rfind("ID:", 0) == 0 ? 1 : 0;
    }
    return in.is_open() ? count : -1;
}

// Arms long timers until one is refused, removes them again and returns how many fitted.
int FreeTimerSlots() {
    std::vector<void*> handles;
    void* h = nullptr;
    DVS_ERROR rc = ERR_SUCCESS;
    while (handles.size() <= kTimerSlots &&
           (rc = DVSTimeSetEvent(600000, CountFire, &gIdle, 0, &h)) == ERR_SUCCESS) {
        handles.push_back(h);
    }
    EXPECT_EQ(rc, ERR_TIMER_LIMIT);
    for (void* handle : handles) {
        EXPECT_EQ(DVSRemoveEvent(nullptr, handle), ERR_SUCCESS);
    }
    return static_cast<int>(handles.size());
}

// A fresh folder under the system's temporary one, removed with its content.
struct TempDir {
    std::string pattern = (fs::temp_directory_path() / "evcam_platform_XXXXXX").string();
    const fs::path path{mkdtemp(pattern.data())};
    ~TempDir() { fs::remove_all(path); }
};

TEST(Timers, sixteen_slots_then_limit_and_lowest_free_slot_is_reused) {
    const int kernelStart = KernelTimerCount();
    void* handles[kTimerSlots] = {};
    for (void*& h : handles) {
        ASSERT_EQ(DVSTimeSetEvent(600000, CountFire, &gIdle, 0, &h), ERR_SUCCESS);
    }
    // Sanitizer builds may serve timers from threads of their own, without kernel timers.
    const bool kernelTimers = KernelTimerCount() == kernelStart + kTimerSlots;
    void* extra = &extra;
    EXPECT_EQ(DVSTimeSetEvent(10, CountFire, &gIdle, 1, &extra), ERR_TIMER_LIMIT);
    EXPECT_EQ(extra, &extra);
    if (kernelTimers) {
        EXPECT_EQ(KernelTimerCount(), kernelStart + kTimerSlots);
    }

    ASSERT_EQ(DVSRemoveEvent(nullptr, handles[9]), ERR_SUCCESS);
    ASSERT_EQ(DVSRemoveEvent(nullptr, handles[4]), ERR_SUCCESS);
    for (int i : {4, 9}) {
        void* reused = nullptr;
        ASSERT_EQ(DVSTimeSetEvent(600000, CountFire, &gIdle, 0, &reused), ERR_SUCCESS);
        EXPECT_EQ(reused, handles[i]);
    }
    for (void* h : handles) {
        EXPECT_EQ(DVSRemoveEvent(nullptr, h), ERR_SUCCESS);
    }
    if (kernelTimers) {
        EXPECT_EQ(KernelTimerCount(), kernelStart);
    }
}

TEST(Timers, bad_arguments_and_unknown_handles_give_1) {
    void* handle = nullptr;
    EXPECT_EQ(DVSTimeSetEvent(10, nullptr, nullptr, 0, &handle), ERR_PARA_ERROR);
    EXPECT_EQ(DVSTimeSetEvent(10, CountFire, &gIdle, 2, &handle), ERR_PARA_ERROR);
    EXPECT_EQ(DVSTimeSetEvent(10, CountFire, &gIdle, 0, nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(handle, nullptr);

    ASSERT_EQ(DVSTimeSetEvent(600000, CountFire, &gIdle, 1, &handle), ERR_SUCCESS);
    EXPECT_EQ(DVSRemoveEvent(nullptr, handle), ERR_SUCCESS);
    EXPECT_EQ(DVSRemoveEvent(nullptr, handle), ERR_PARA_ERROR);
    EXPECT_EQ(DVSRemoveEvent(nullptr, nullptr), ERR_PARA_ERROR);
    int notASlot = 0;
    EXPECT_EQ(DVSRemoveEvent(nullptr, &notASlot), ERR_PARA_ERROR);
}

TEST(Timers, refused_timer_gives_13_and_frees_its_slot) {
    // Each timer needs a queued-signal entry, so a zero allowance makes the system refuse it.
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_SIGPENDING, &saved), 0);
    rlimit none = saved;
    none.rlim_cur = 0;
    ASSERT_EQ(setrlimit(RLIMIT_SIGPENDING, &none), 0);
    void* handle = nullptr;
    testing::internal::CaptureStdout();
    const DVS_ERROR rc = DVSTimeSetEvent(600000, CountFire, &gIdle, 0, &handle);
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
    EXPECT_EQ(FreeTimerSlots(), kTimerSlots);
}

TEST(Timers, one_shot_fires_once_and_periodic_until_removed) {
    std::atomic<int>& once = gFired[0];
    std::atomic<int>& periodic = gFired[1];
    once = periodic = 0;
    void* onceHandle = nullptr;
    void* periodicHandle = nullptr;
    ASSERT_EQ(DVSTimeSetEvent(20, CountFire, &once, 0, &onceHandle), ERR_SUCCESS);
    ASSERT_EQ(DVSTimeSetEvent(5, CountFire, &periodic, 1, &periodicHandle), ERR_SUCCESS);
    EXPECT_TRUE(WaitFor([&] { return once.load() >= 1 && periodic.load() >= 3; }));
    ASSERT_EQ(DVSRemoveEvent(nullptr, periodicHandle), ERR_SUCCESS);
    // Let a callback that was already running finish; then nothing more may arrive.
    std::this_thread::sleep_for(milliseconds(50));
    const int afterRemoval = periodic.load();
    std::this_thread::sleep_for(milliseconds(150));
    EXPECT_EQ(periodic.load(), afterRemoval);
    EXPECT_EQ(once.load(), 1);
    // A one-shot timer keeps its slot after expiring until it is removed.
    EXPECT_EQ(DVSRemoveEvent(nullptr, onceHandle), ERR_SUCCESS);
}

// A one-shot callback that removes its own timer and arms the next one, the way frame
// delivery paces itself.
struct Chain {
    void* handle = nullptr;
    std::atomic<int> passes{0};
};
Chain gChain;

void ChainPass(void* arg) {
    auto* chain = static_cast<Chain*>(arg);
    DVSRemoveEvent(nullptr, chain->handle);
    if (++chain->passes < 3) {
        DVSTimeSetEvent(20, ChainPass, chain, 0, &chain->handle);
    }
}

TEST(Timers, callback_may_remove_its_timer_and_arm_the_next) {
    ASSERT_EQ(DVSTimeSetEvent(20, ChainPass, &gChain, 0, &gChain.handle), ERR_SUCCESS);
    EXPECT_TRUE(WaitFor([] { return gChain.passes.load() == 3; }));
    EXPECT_EQ(FreeTimerSlots(), kTimerSlots);
}

TEST(Timers, period_zero_holds_a_slot_but_never_fires) {
    std::atomic<int>& fired = gFired[2];
    fired = 0;
    void* zero = nullptr;
    ASSERT_EQ(DVSTimeSetEvent(0, CountFire, &fired, 1, &zero), ERR_SUCCESS);
    EXPECT_EQ(FreeTimerSlots(), kTimerSlots - 1);
    std::this_thread::sleep_for(milliseconds(100));
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
    std::thread([&] {
        otherMarker = RWLock::held();
        lock.rdlock();
        otherMarker = otherMarker * 10 + RWLock::held();
        lock.unlock();
    }).join();
    EXPECT_EQ(otherMarker, 1);
    EXPECT_EQ(RWLock::held(), 1);
    lock.unlock();
    EXPECT_EQ(RWLock::held(), 0);
    lock.wrlock();
    EXPECT_EQ(RWLock::held(), 2);
    lock.unlock();
}

TEST(TimeHelpers, sleep_time_and_local_time) {
    const auto start = Clock::now();
    DVSSleep(0);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
    const auto beforeSleep = Clock::now();
    DVSSleep(20);
    EXPECT_GE(Clock::now() - beforeSleep, milliseconds(20));

    auto epochMs = [] {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        return static_cast<uint64_t>(std::chrono::duration_cast<milliseconds>(now).count());
    };
    const uint64_t before = epochMs();
    const uint64_t now = DVSTime();
    EXPECT_GE(now, before);
    EXPECT_LE(now, epochMs());

    tm out{};
    long t = 86400L * 365 + 3600 * 5;
    EXPECT_EQ(DVSLocalTimer(nullptr, &t), 1);
    EXPECT_EQ(DVSLocalTimer(&out, nullptr), 1);
    ASSERT_EQ(DVSLocalTimer(&out, &t), 0);
    EXPECT_EQ(mktime(&out), static_cast<time_t>(t));
}

TEST(Paths, convert_path_turns_backslashes_and_reports_cuts) {
    const struct {
        const char *src, *expected;
        int size, rc;
    } cases[] = {{"a\\b", "a/b", 4, 0},
                 {"a\\b", "a/", 3, 1},
                 {"", "", 8, 0},
                 {"ab", "", 1, 1},
                 {"c:\\x\\y.dvs", "c:/x/y.", 8, 1}};
    for (const auto& c : cases) {
        std::vector<char> dst(c.size, 'x');  // exactly the size given, so overruns show
        EXPECT_EQ(DVSConvertPath(c.src, dst.data(), c.size), c.rc) << c.src << " in " << c.size;
        EXPECT_STREQ(dst.data(), c.expected);
    }
    char dst[8];
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

TEST(Paths, complete_path_adds_one_trailing_slash_and_alg_filter_is_so) {
    const struct {
        const char *start, *dir;
        unsigned size;
        const char* expected;
    } cases[] = {{"/data", "/rec", 32, "/data/rec/"},
                 {"", "/tmp/", 32, "/tmp/"},
                 {"", "abcde", 6, "abcde"},
                 {"", "abcdef", 4, "abc"}};
    for (const auto& c : cases) {
        std::vector<char> dst(c.size, '\0');  // exactly the size given, so overruns show
        strcpy(dst.data(), c.start);
        DVSCompletePath(dst.data(), c.size, c.dir);
        EXPECT_STREQ(dst.data(), c.expected);
    }
    char buf[8] = "xxxxxxx";
    EXPECT_EQ(DVSGetAlgFilter(nullptr), 0);
    EXPECT_EQ(DVSGetAlgFilter(buf), 1);
    EXPECT_STREQ(buf, ".so");
}

TEST(Files, find_files_matches_substrings_and_cuts_extensions) {
    TempDir dir;
    for (const char* name : {"rec_a.dvs", "rec_b.dvs", "notes.txt", "a.b.dvs"}) {
        std::ofstream(dir.path / name) << "x";
    }
    using Names = std::vector<std::string>;
    int count = 7;
    auto find = [&](std::string pattern, int maxCount, bool keepExtension, const fs::path& where) {
        char names[8][260];
        DVSFindFiles(where.c_str(), pattern.data(), names, maxCount, count, keepExtension);
        Names found(names, names + std::clamp(count, 0, 8));
        std::sort(found.begin(), found.end());
        return found;
    };
    EXPECT_EQ(find(".dvs", 8, false, dir.path), (Names{"a", "rec_a", "rec_b"}));
    EXPECT_EQ(find(".dvs", 8, true, dir.path), (Names{"a.b.dvs", "rec_a.dvs", "rec_b.dvs"}));
    EXPECT_EQ(find(".dvs", 2, true, dir.path).size(), 2u);
    EXPECT_EQ(find(".dvs", 0, true, dir.path).size(), 0u);
    // "." and ".." are listed like any other entry.
    const Names all = find(".", 8, true, dir.path);
    EXPECT_EQ(all.size(), 6u);
    EXPECT_EQ(std::count(all.begin(), all.end(), ".."), 1);
    EXPECT_EQ(find(".dvs", 8, true, dir.path / "missing").size(), 0u);
}

TEST(Files, open_seek_and_tell_with_64_bit_offsets) {
    TempDir dir;
    const std::string path = (dir.path / "data.bin").string();
    FILE* fp = reinterpret_cast<FILE*>(&fp);
    EXPECT_EQ(DVSOpenFile(nullptr, path.c_str(), "wb"), -1);
    EXPECT_EQ(DVSOpenFile(&fp, nullptr, "wb"), -1);
    EXPECT_EQ(DVSOpenFile(&fp, (dir.path / "missing.bin").c_str(), "rb"), -1);
    EXPECT_EQ(fp, nullptr);
    ASSERT_EQ(DVSOpenFile(&fp, path.c_str(), "wb"), 0);
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
    const std::string path = (dir.path / "sub").string();
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
