// Platform helpers over POSIX: locks, timers, sleeping, time, files and paths. The library
// uses them for every call into the operating system; they are exported for callers too.
#ifndef EVCAM_PLATFORM_H
#define EVCAM_PLATFORM_H

#include <pthread.h>

#include <cstdint>
#include <cstdio>
#include <ctime>

#include "evcam/dvs_error.h"
#include "evcam/export.h"

namespace evcam {

/// A plain mutex. Lock() throws std::system_error when pthread_mutex_lock fails.
class EVCAM_API DVSLock {
  public:
    DVSLock();
    ~DVSLock();
    DVSLock(const DVSLock&) = delete;
    DVSLock& operator=(const DVSLock&) = delete;
    void Lock();
    void Unlock();

  private:
    pthread_mutex_t mMutex;
};

/// A reader/writer lock. Every RWLock shares one thread-local marker of what the calling
/// thread last did (0 nothing held, 1 read, 2 write); EDEADLK is thrown as std::system_error.
class EVCAM_API RWLock {
  public:
    RWLock();
    ~RWLock();
    RWLock(const RWLock&) = delete;
    RWLock& operator=(const RWLock&) = delete;
    void rdlock();
    void wrlock();
    void unlock();
    /// The calling thread's marker (0, 1 or 2).
    static int held();

  private:
    pthread_rwlock_t mLock;
};

/// Number of timer slots shared by the process.
constexpr int kTimerSlots = 16;

/// Arms a POSIX timer that calls callback(userArg) on a thread of the timer service after
/// periodMs (and every periodMs after that when periodic is 1). *handle receives the timer.
/// @return 0; 1 for a null callback or handle, or periodic above 1; 16 when all 16 slots are
///         taken; 13 when the system refuses the timer (its slot is freed again).
///         periodMs 0 holds a slot but never fires. Callable from any thread.
EVCAM_API DVS_ERROR DVSTimeSetEvent(unsigned int periodMs, void (*callback)(void*), void* userArg,
                                    unsigned int periodic, void** handle);
/// Deletes a timer and frees its slot. A callback already running may finish after return.
/// @return 0; 1 for a null handle or a slot already free. The first argument is ignored.
EVCAM_API DVS_ERROR DVSRemoveEvent(void* ignored, void* handle);

/// Sleeps ms milliseconds; returns at once for 0.
EVCAM_API void DVSSleep(unsigned int ms);
/// Wall-clock milliseconds since the epoch.
EVCAM_API uint64_t DVSTime();
/// localtime_r(*time, out). @return 0, or 1 for a null pointer.
EVCAM_API int DVSLocalTimer(tm* out, long* time);

/// fopen with 64-bit offsets; *fp receives the stream. @return 0, or -1 on failure.
EVCAM_API int DVSOpenFile(FILE** fp, const char* path, const char* mode);
/// fseeko with 64-bit offsets. @return fseeko's result, -1 for a null stream or whence > 2.
EVCAM_API int DVSSeek64(FILE* fp, long offset, int whence);
/// ftello with 64-bit offsets; -1 for a null stream.
EVCAM_API long DVSTell64(FILE* fp);
/// Copies src to dst turning backslashes into slashes; dst is always terminated.
/// @return 0 when it all fitted, 1 when cut or for a bad argument.
EVCAM_API int DVSConvertPath(const char* src, char* dst, int dstSize);
/// strncat of src onto dst within dstSize bytes. @return 0, or 1 for a null src.
EVCAM_API int DVSWcscat(char* dst, const char* src, int dstSize);
/// Appends dir and, unless dir ends in one, a slash to dst within dstSize bytes.
EVCAM_API void DVSCompletePath(char* dst, unsigned int dstSize, const char* dir);
/// mkdir with mode 0700. @return mkdir's result.
EVCAM_API int DVSMkdir(const char* path);
/// Lists up to maxCount entries of dir whose names contain pattern, cut at the first '.'
/// unless keepExtension. count is 0 when dir cannot be opened.
EVCAM_API void DVSFindFiles(const char* dir, char* pattern, char (*names)[260], int maxCount,
                            int& count, bool keepExtension);
/// Writes the loadable-module filter ".so" into buf. @return 1, or 0 for a null buf.
EVCAM_API int DVSGetAlgFilter(char* buf);

}  // namespace evcam

#endif  // EVCAM_PLATFORM_H
