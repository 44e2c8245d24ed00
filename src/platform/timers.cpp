#include <signal.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "evcam/platform.h"

// ThreadSanitizer cannot follow the helper thread that the C library starts for SIGEV_THREAD
// timers and crashes on the first expiry. Sanitizer builds therefore keep the same contract
// (a callback on a thread of the timer service per expiry) on threads of their own, so that
// everything that runs from timers is still checked for races.
#if defined(__SANITIZE_THREAD__)
#define EVCAM_TIMER_THREADS 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define EVCAM_TIMER_THREADS 1
#endif
#endif

namespace evcam {

namespace {

using TimerCallback = void (*)(void*);

#ifdef EVCAM_TIMER_THREADS
// A timer served by a detached thread of its own; cancelling wakes it up for good.
struct ThreadTimer {
    std::mutex lock;
    std::condition_variable wake;
    bool cancelled = false;  ///< guarded by lock
};
#endif

// One timer slot. The handle given to callers is the slot's address. The fields are atomics
// because the timer service's threads read them without a lock while DVSTimeSetEvent and
// DVSRemoveEvent write them under timerLock.
struct TimerSlot {
    std::atomic<TimerCallback> callback{nullptr};  ///< null: slot free
    std::atomic<void*> userArg{nullptr};
#ifdef EVCAM_TIMER_THREADS
    std::shared_ptr<ThreadTimer> threadTimer;  ///< guarded by timerLock
#else
    std::atomic<timer_t> timer{};
#endif
};

TimerSlot CallbackMap[kTimerSlots];
// Guards claiming, filling and freeing slots of CallbackMap.
RWLock timerLock;

void Callback(sigval value) {
    auto* slot = static_cast<TimerSlot*>(value.sival_ptr);
    // An expiry already queued when the timer was removed finds the slot empty.
    const TimerCallback callback = slot->callback.load(std::memory_order_acquire);
    if (callback != nullptr) {
        callback(slot->userArg.load(std::memory_order_relaxed));
    }
}

bool IsSlot(const TimerSlot* slot) {
    for (const TimerSlot& candidate : CallbackMap) {
        if (&candidate == slot) {
            return true;
        }
    }
    return false;
}

#ifdef EVCAM_TIMER_THREADS
// Starts the slot's timer thread. Takes timerLock to store it.
bool ArmTimer(TimerSlot* slot, unsigned int periodMs, bool periodic) {
    auto timer = std::make_shared<ThreadTimer>();
    timerLock.wrlock();
    slot->threadTimer = timer;
    timerLock.unlock();
    if (periodMs == 0) {
        return true;  // a zero expiry arms nothing, as with a POSIX timer
    }
    try {
        std::thread([timer, slot, periodMs, periodic] {
            const auto period = std::chrono::milliseconds(periodMs);
            auto next = std::chrono::steady_clock::now() + period;
            for (;;) {
                {
                    std::unique_lock<std::mutex> lock(timer->lock);
                    if (timer->wake.wait_until(lock, next, [&] { return timer->cancelled; })) {
                        return;
                    }
                }
                sigval value{};
                value.sival_ptr = slot;
                Callback(value);
                if (!periodic) {
                    return;
                }
                next += period;
            }
        }).detach();
    } catch (const std::system_error&) {
        timerLock.wrlock();
        slot->threadTimer.reset();
        timerLock.unlock();
        return false;
    }
    return true;
}

// Caller holds timerLock for writing.
void DisarmTimer(TimerSlot* slot) {
    if (slot->threadTimer) {
        std::lock_guard<std::mutex> lock(slot->threadTimer->lock);
        slot->threadTimer->cancelled = true;
        slot->threadTimer->wake.notify_all();
    }
    slot->threadTimer.reset();
}
#else
timespec MsToTimespec(unsigned int ms) {
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(ms / 1000);
    ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    return ts;
}

// Creates and arms the slot's POSIX timer. Takes timerLock to store it.
bool ArmTimer(TimerSlot* slot, unsigned int periodMs, bool periodic) {
    sigevent sev{};
    sev.sigev_notify = SIGEV_THREAD;
    sev.sigev_notify_function = Callback;
    sev.sigev_notify_attributes = nullptr;
    sev.sigev_value.sival_ptr = slot;
    timer_t timer{};
    if (timer_create(CLOCK_REALTIME, &sev, &timer) != 0) {
        return false;
    }
    itimerspec spec{};
    spec.it_value = MsToTimespec(periodMs);
    if (periodic) {
        spec.it_interval = spec.it_value;
    }
    timerLock.wrlock();
    slot->timer.store(timer, std::memory_order_relaxed);
    timer_settime(timer, 0, &spec, nullptr);
    timerLock.unlock();
    return true;
}

// Caller holds timerLock for writing.
void DisarmTimer(TimerSlot* slot) {
    timer_delete(slot->timer.load(std::memory_order_relaxed));
}
#endif

}  // namespace

DVS_ERROR DVSTimeSetEvent(unsigned int periodMs, void (*callback)(void*), void* userArg,
                          unsigned int periodic, void** handle) {
    if (callback == nullptr || periodic > 1 || handle == nullptr) {
        return ERR_PARA_ERROR;
    }

    // Search and claim under one write lock so that two callers never take the same slot.
    TimerSlot* slot = nullptr;
    timerLock.wrlock();
    for (TimerSlot& candidate : CallbackMap) {
        if (candidate.callback.load(std::memory_order_relaxed) == nullptr) {
            slot = &candidate;
            // The argument is stored first so that a callback seeing the function sees it too.
            slot->userArg.store(userArg, std::memory_order_relaxed);
            slot->callback.store(callback, std::memory_order_release);
            break;
        }
    }
    timerLock.unlock();
    if (slot == nullptr) {
        return ERR_TIMER_LIMIT;
    }

    // The handle is known once the slot is claimed; handing it out before arming lets a
    // callback read it even when the timer fires at once.
    void* const previous = *handle;
    *handle = slot;
    if (!ArmTimer(slot, periodMs, periodic == 1)) {
        puts("Create timer fail");
        // A slot without a timer could never be removed, so it is given back at once.
        *handle = previous;
        timerLock.wrlock();
        slot->callback.store(nullptr, std::memory_order_release);
        timerLock.unlock();
        return ERR_CREATE_TIMER;
    }
    return ERR_SUCCESS;
}

DVS_ERROR DVSRemoveEvent(void* /*ignored*/, void* handle) {
    auto* slot = static_cast<TimerSlot*>(handle);
    // Anything but the address of a slot (null included) is refused rather than dereferenced.
    if (!IsSlot(slot)) {
        return ERR_PARA_ERROR;
    }
    // Checked and freed under one lock so that two removals of one handle delete one timer.
    timerLock.wrlock();
    if (slot->callback.load(std::memory_order_relaxed) == nullptr) {
        timerLock.unlock();
        return ERR_PARA_ERROR;
    }
    DisarmTimer(slot);
    slot->callback.store(nullptr, std::memory_order_release);
    timerLock.unlock();
    return ERR_SUCCESS;
}

}  // namespace evcam
