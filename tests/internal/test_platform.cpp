#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "evcam/platform.h"
#include "tests/support/test_support.h"

namespace evcam {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Timer callbacks may still run just after DVSRemoveEvent returns, so what they touch lives
// for the whole process.
std::atomic<int> gOnce, gPeriodic, gZero;
std::atomic<int> gIdle;  // argument of timers that are removed long before they expire

void CountFire(void* arg) {
    static_cast<std::atomic<int>*>(arg)->fetch_add(1);
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

TEST(Timers, sixteen_slots_then_limit_lowest_free_slot_reused_and_bad_arguments_give_1) {
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
    EXPECT_TRUE(!kernelTimers || KernelTimerCount() == kernelStart + kTimerSlots);
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
    EXPECT_TRUE(!kernelTimers || KernelTimerCount() == kernelStart);

    void* handle = nullptr;
    EXPECT_EQ(DVSTimeSetEvent(10, nullptr, nullptr, 0, &handle), ERR_PARA_ERROR);
    EXPECT_EQ(DVSTimeSetEvent(10, CountFire, &gIdle, 2, &handle), ERR_PARA_ERROR);
    EXPECT_EQ(DVSTimeSetEvent(10, CountFire, &gIdle, 0, nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(DVSRemoveEvent(nullptr, handles[0]), ERR_PARA_ERROR) << "removed twice";
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

// A zero period arms nothing but holds a slot; a one-shot timer keeps its slot after expiring.
TEST(Timers, one_shot_fires_once_periodic_until_removed_zero_never_and_chains_rearm) {
    void* once = nullptr;
    void* periodic = nullptr;
    void* zero = nullptr;
    ASSERT_EQ(DVSTimeSetEvent(20, CountFire, &gOnce, 0, &once), ERR_SUCCESS);
    ASSERT_EQ(DVSTimeSetEvent(5, CountFire, &gPeriodic, 1, &periodic), ERR_SUCCESS);
    ASSERT_EQ(DVSTimeSetEvent(0, CountFire, &gZero, 1, &zero), ERR_SUCCESS);
    ASSERT_EQ(DVSTimeSetEvent(20, ChainPass, &gChain, 0, &gChain.handle), ERR_SUCCESS);
    EXPECT_TRUE(WaitUntil([] { return gOnce >= 1 && gPeriodic >= 3 && gChain.passes == 3; }));
    ASSERT_EQ(DVSRemoveEvent(nullptr, periodic), ERR_SUCCESS);
    // Let a callback that was already running finish; then nothing more may arrive.
    std::this_thread::sleep_for(milliseconds(50));
    const int afterRemoval = gPeriodic;
    std::this_thread::sleep_for(milliseconds(150));
    EXPECT_EQ(gPeriodic.load(), afterRemoval);
    EXPECT_EQ(gOnce.load(), 1);
    EXPECT_EQ(gZero.load(), 0);
    EXPECT_EQ(FreeTimerSlots(), kTimerSlots - 2);
    EXPECT_EQ(DVSRemoveEvent(nullptr, once), ERR_SUCCESS);
    EXPECT_EQ(DVSRemoveEvent(nullptr, zero), ERR_SUCCESS);
}

// A second reader gets in while the first holds the lock, with a marker of its own.
TEST(Locks, rwlock_marker_is_per_thread_and_follows_the_last_operation) {
    RWLock lock;
    std::vector<int> markers = {RWLock::held()};
    lock.rdlock();
    markers.push_back(RWLock::held());
    std::thread([&] {
        markers.push_back(RWLock::held());
        lock.rdlock();
        markers.push_back(RWLock::held());
        lock.unlock();
    }).join();
    markers.push_back(RWLock::held());
    lock.unlock();
    markers.push_back(RWLock::held());
    lock.wrlock();
    markers.push_back(RWLock::held());
    lock.unlock();
    EXPECT_EQ(markers, (std::vector<int>{0, 1, 0, 1, 1, 0, 2}));
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

// Every destination is exactly the size given, so that overruns show.
TEST(Paths, convert_append_and_complete_stay_within_the_buffer) {
    const struct {
        const char *src, *expected;
        int size, rc;
    } converts[] = {{"a\\b", "a/b", 4, 0},
                    {"a\\b", "a/", 3, 1},
                    {"", "", 8, 0},
                    {"ab", "", 1, 1},
                    {"c:\\x\\y.dvs", "c:/x/y.", 8, 1}};
    for (const auto& c : converts) {
        std::vector<char> dst(c.size, 'x');
        EXPECT_EQ(DVSConvertPath(c.src, dst.data(), c.size), c.rc) << c.src << " in " << c.size;
        EXPECT_STREQ(dst.data(), c.expected);
    }
    char dst[8];
    EXPECT_EQ(DVSConvertPath(nullptr, dst, 8), 1);
    EXPECT_EQ(DVSConvertPath("a", nullptr, 8), 1);
    EXPECT_EQ(DVSConvertPath("a", dst, 0), 1);

    // A full buffer, or a size below what it already holds, takes nothing.
    const struct {
        const char* src;
        int size;
        const char* expected;
    } appends[] = {
        {"cd", 8, "abcd"}, {"efghij", 8, "abcdefg"}, {"z", 8, "abcdefg"}, {"z", 2, "abcdefg"}};
    std::vector<char> text(8, '\0');
    strcpy(text.data(), "ab");
    for (const auto& a : appends) {
        EXPECT_EQ(DVSWcscat(text.data(), a.src, a.size), 0);
        EXPECT_STREQ(text.data(), a.expected);
    }
    EXPECT_EQ(DVSWcscat(text.data(), nullptr, 8), 1);

    const struct {
        const char *start, *dir;
        unsigned size;
        const char* expected;
    } completes[] = {{"/data", "/rec", 32, "/data/rec/"},
                     {"", "/tmp/", 32, "/tmp/"},
                     {"", "abcde", 6, "abcde"},
                     {"", "abcdef", 4, "abc"}};
    for (const auto& c : completes) {
        std::vector<char> path(c.size, '\0');
        strcpy(path.data(), c.start);
        DVSCompletePath(path.data(), c.size, c.dir);
        EXPECT_STREQ(path.data(), c.expected);
    }
    char filter[8] = "xxxxxxx";
    EXPECT_EQ(DVSGetAlgFilter(nullptr), 0);
    EXPECT_EQ(DVSGetAlgFilter(filter), 1);
    EXPECT_STREQ(filter, ".so");
}

TEST(Files, find_files_matches_substrings_and_mkdir_is_owner_only) {
    TempDir dir;
    for (const char* name : {"rec_a.dvs", "rec_b.dvs", "notes.txt", "a.b.dvs"}) {
        dir.Write(name, "x");
    }
    using Names = std::vector<std::string>;
    int count = 7;
    auto find = [&](std::string pattern, int maxCount, bool keepExtension, const std::string& in) {
        char names[8][260];
        DVSFindFiles(in.c_str(), pattern.data(), names, maxCount, count, keepExtension);
        Names found(names, names + std::clamp(count, 0, 8));
        std::sort(found.begin(), found.end());
        return found;
    };
    const std::string at = dir.path().string();
    EXPECT_EQ(find(".dvs", 8, false, at), (Names{"a", "rec_a", "rec_b"}));
    EXPECT_EQ(find(".dvs", 8, true, at), (Names{"a.b.dvs", "rec_a.dvs", "rec_b.dvs"}));
    EXPECT_EQ(find(".dvs", 2, true, at).size(), 2u);
    EXPECT_EQ(find(".dvs", 0, true, at).size(), 0u);
    // "." and ".." are listed like any other entry.
    const Names all = find(".", 8, true, at);
    EXPECT_EQ(all.size(), 6u);
    EXPECT_EQ(std::count(all.begin(), all.end(), ".."), 1);
    EXPECT_EQ(find(".dvs", 8, true, dir.File("missing")).size(), 0u);

    const std::string sub = dir.File("sub");
    ASSERT_EQ(DVSMkdir(sub.c_str()), 0);
    struct stat st {};
    ASSERT_EQ(stat(sub.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0077, 0u);
    EXPECT_EQ(DVSMkdir(sub.c_str()), -1);
    EXPECT_EQ(DVSMkdir(nullptr), -1);
}

TEST(Files, open_seek_and_tell_with_64_bit_offsets) {
    TempDir dir;
    const std::string path = dir.File("data.bin");
    FILE* fp = reinterpret_cast<FILE*>(&fp);
    EXPECT_EQ(DVSOpenFile(nullptr, path.c_str(), "wb"), -1);
    EXPECT_EQ(DVSOpenFile(&fp, nullptr, "wb"), -1);
    EXPECT_EQ(DVSOpenFile(&fp, dir.File("missing.bin").c_str(), "rb"), -1);
    EXPECT_EQ(fp, nullptr);
    ASSERT_EQ(DVSOpenFile(&fp, path.c_str(), "wb"), 0);
    fwrite("0123456789", 1, 10, fp);
    fclose(fp);
    ASSERT_EQ(DVSOpenFile(&fp, path.c_str(), "rb"), 0);
    EXPECT_EQ(DVSSeek64(fp, 0, SEEK_END), 0);
    EXPECT_EQ(DVSTell64(fp), 10);
    EXPECT_EQ(DVSSeek64(fp, 4, SEEK_SET), 0);
    EXPECT_EQ(DVSSeek64(fp, 2, SEEK_CUR), 0);
    EXPECT_EQ(fgetc(fp), '6');
    EXPECT_EQ(DVSSeek64(fp, 0, 3), -1);
    // Positions past 4 GiB survive the round trip (seeking past the end is allowed).
    const long far = 5L * 1024 * 1024 * 1024 + 3;
    EXPECT_EQ(DVSSeek64(fp, far, SEEK_SET), 0);
    EXPECT_EQ(DVSTell64(fp), far);
    fclose(fp);
    EXPECT_EQ(DVSSeek64(nullptr, 0, SEEK_SET), -1);
    EXPECT_EQ(DVSTell64(nullptr), -1);
}

}  // namespace
}  // namespace evcam
