// Lets a thread that waits for a pool to change sleep until it does, instead of polling.
#ifndef EVCAM_SRC_DATA_POOL_SIGNAL_H
#define EVCAM_SRC_DATA_POOL_SIGNAL_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace evcam {

/// A change counter with a condition variable. A waiter takes a ticket before it looks at the
/// pool, and waits with that ticket only if what it wanted was not there: a change made
/// between the look and the wait is then never missed. Any thread.
class PoolSignal {
  public:
    uint64_t Ticket() {
        std::lock_guard<std::mutex> lock(mLock);
        return mChanges;
    }
    /// Marks a change and wakes every waiter.
    void Notify() {
        {
            std::lock_guard<std::mutex> lock(mLock);
            ++mChanges;
        }
        mWake.notify_all();
    }
    /// Blocks until a change after ticket, or at most max (callers re-check their own stop
    /// conditions at that pace).
    void WaitFor(uint64_t ticket, std::chrono::milliseconds max) {
        std::unique_lock<std::mutex> lock(mLock);
        mWake.wait_for(lock, max, [&] { return mChanges != ticket; });
    }

  private:
    std::mutex mLock;
    std::condition_variable mWake;
    uint64_t mChanges = 0;  ///< guarded by mLock
};

}  // namespace evcam

#endif  // EVCAM_SRC_DATA_POOL_SIGNAL_H
