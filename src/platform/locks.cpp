#include <cerrno>
#include <system_error>

#include "evcam/platform.h"

namespace evcam {

namespace {
// What the calling thread last did with any RWLock: 0 nothing held, 1 read, 2 write.
thread_local int tHeld = 0;
}  // namespace

DVSLock::DVSLock() {
    pthread_mutex_init(&mMutex, nullptr);
}

DVSLock::~DVSLock() {
    pthread_mutex_destroy(&mMutex);
}

void DVSLock::Lock() {
    const int rc = pthread_mutex_lock(&mMutex);
    if (rc != 0) {
        throw std::system_error(rc, std::system_category(), "DVSLock::Lock");
    }
}

void DVSLock::Unlock() {
    pthread_mutex_unlock(&mMutex);
}

RWLock::RWLock() {
    pthread_rwlock_init(&mLock, nullptr);
}

RWLock::~RWLock() {
    pthread_rwlock_destroy(&mLock);
}

void RWLock::rdlock() {
    int rc;
    // EAGAIN means the maximum number of readers is reached for a moment: try again.
    while ((rc = pthread_rwlock_rdlock(&mLock)) == EAGAIN) {
    }
    if (rc == EDEADLK) {
        throw std::system_error(rc, std::system_category(), "RWLock::rdlock");
    }
    tHeld = 1;
}

void RWLock::wrlock() {
    const int rc = pthread_rwlock_wrlock(&mLock);
    if (rc == EDEADLK) {
        throw std::system_error(rc, std::system_category(), "RWLock::wrlock");
    }
    tHeld = 2;
}

void RWLock::unlock() {
    pthread_rwlock_unlock(&mLock);
    tHeld = 0;
}

int RWLock::held() {
    return tHeld;
}

}  // namespace evcam
