// Event waits: deadlines on the monotonic clock, a condition variable timed on
// that clock, and the wake-up of a thread that sleeps until someone has news.
// Every wait here is a cancellation point, and a lock held through lock_hold is
// released when a cancellation unwinds the waiting thread.
#pragma once

#include <cstdint>
#include <pthread.h>

constexpr int64_t NO_DEADLINE = -1;

int64_t monotonic_ms();
// The poll() time-out for a deadline: -1 for NO_DEADLINE, else the
// milliseconds left, never below 0.
int poll_timeout(int64_t deadline_ms);

class lock_hold {
public:
    explicit lock_hold(pthread_mutex_t *m) : m_(m) { pthread_mutex_lock(m_); }
    ~lock_hold() { pthread_mutex_unlock(m_); }
    lock_hold(const lock_hold &) = delete;
    lock_hold &operator=(const lock_hold &) = delete;

private:
    pthread_mutex_t *m_;
};

// Holds a read-write lock for reading or writing for a scope; a cancellation
// that unwinds the holder releases it.
class rw_hold {
public:
    enum mode { read, write };
    rw_hold(pthread_rwlock_t *l, mode m) : l_(l) {
        if (m == read)
            pthread_rwlock_rdlock(l_);
        else
            pthread_rwlock_wrlock(l_);
    }
    ~rw_hold() { pthread_rwlock_unlock(l_); }
    rw_hold(const rw_hold &) = delete;
    rw_hold &operator=(const rw_hold &) = delete;

private:
    pthread_rwlock_t *l_;
};

class mono_cond {
public:
    mono_cond();
    ~mono_cond();
    mono_cond(const mono_cond &) = delete;
    mono_cond &operator=(const mono_cond &) = delete;

    // Waits with `m` held until a signal or the deadline; callers re-test
    // their condition. Returns false once the deadline has passed.
    bool wait(pthread_mutex_t *m, int64_t deadline_ms);
    void signal() { pthread_cond_signal(&c_); }
    void broadcast() { pthread_cond_broadcast(&c_); }

private:
    pthread_cond_t c_;
};

// A counter of news: a sleeper notes the count, does its work, then sleeps
// until the count moved or its deadline came, so news raised during the work
// is never missed.
class wake_signal {
public:
    wake_signal() = default;
    wake_signal(const wake_signal &) = delete;
    wake_signal &operator=(const wake_signal &) = delete;

    uint64_t count();
    void raise();
    void wait(uint64_t seen, int64_t deadline_ms);

private:
    pthread_mutex_t m_ = PTHREAD_MUTEX_INITIALIZER;
    mono_cond c_;
    uint64_t count_ = 0;
};
