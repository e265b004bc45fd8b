#include "core/wait.h"

#include <cerrno>
#include <ctime>

int64_t monotonic_ms() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

int poll_timeout(int64_t deadline_ms) {
    if (deadline_ms == NO_DEADLINE)
        return -1;
    int64_t left = deadline_ms - monotonic_ms();
    if (left < 0)
        return 0;
    return left > 0x7fffffff ? 0x7fffffff : static_cast<int>(left);
}

mono_cond::mono_cond() {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&c_, &attr);
    pthread_condattr_destroy(&attr);
}

// Conditions live in process-wide state, whose waiters are threads that are
// never joined (the common thread, a detached worker): destroying one under a
// waiter would block the exit. A condition holds no resource to give back.
mono_cond::~mono_cond() {}

bool mono_cond::wait(pthread_mutex_t *m, int64_t deadline_ms) {
    if (deadline_ms == NO_DEADLINE) {
        pthread_cond_wait(&c_, m);
        return true;
    }
    if (monotonic_ms() >= deadline_ms)
        return false;
    timespec at;
    at.tv_sec = static_cast<time_t>(deadline_ms / 1000);
    at.tv_nsec = static_cast<long>(deadline_ms % 1000) * 1000000;
    return pthread_cond_timedwait(&c_, m, &at) != ETIMEDOUT;
}

uint64_t wake_signal::count() {
    lock_hold hold(&m_);
    return count_;
}

void wake_signal::raise() {
    lock_hold hold(&m_);
    ++count_;
    c_.broadcast();
}

void wake_signal::wait(uint64_t seen, int64_t deadline_ms) {
    lock_hold hold(&m_);
    while (count_ == seen && c_.wait(&m_, deadline_ms)) {
    }
}
