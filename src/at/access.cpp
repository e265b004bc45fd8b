#include "at/at.h"

#include "core/wait.h"

namespace {

// The one request worker: alive from its start to its worker_finished(), so
// that a restart cancels only a thread that still exists.
pthread_mutex_t g_worker_lock = PTHREAD_MUTEX_INITIALIZER;
mono_cond g_worker_ended;
bool g_worker_alive = false;
pthread_t g_worker_tid;

// Takes `worker_busy` only when it was clear: whoever wins owns the port.
bool take_busy() {
    uint8_t clear = 0;
    return state().worker_busy.compare_exchange_strong(clear, 1, std::memory_order_acq_rel);
}

} // namespace

worker_start_result worker_start(void *(*entry)(void *), void *arg) {
    daemon_state &s = state();
    // A worker holds the gate for its whole run: do not wait for it.
    if (s.worker_busy.load(std::memory_order_acquire))
        return worker_start_result::busy;
    // Held for the worker's whole run; the worker gives it back. Waits only
    // while the link check runs its exchanges.
    s.at_mutex.lock();
    if (s.dial_in_progress.load(std::memory_order_acquire) || !take_busy()) {
        s.at_mutex.unlock();
        return worker_start_result::busy;
    }
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attr, THREAD_STACK_SIZE);
    int rc;
    {
        lock_hold hold(&g_worker_lock);
        rc = pthread_create(&g_worker_tid, &attr, entry, arg);
        g_worker_alive = rc == 0;
    }
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        s.worker_busy.store(0, std::memory_order_release);
        s.at_mutex.unlock();
        return worker_start_result::failed;
    }
    return worker_start_result::started;
}

void worker_finished() {
    daemon_state &s = state();
    lock_hold hold(&g_worker_lock);
    // A client's dial (370) cancelled in mid-way must not leave the port
    // marked as dialling: no dial of the supervisor's runs beside a worker.
    s.dial_in_progress.store(0, std::memory_order_release);
    s.worker_busy.store(0, std::memory_order_release);
    s.at_mutex.unlock();
    // After the release: a dial that found the port taken tries again.
    s.supervisor_wake.raise();
    g_worker_alive = false;
    g_worker_ended.broadcast();
}

bool worker_wait_ended(int64_t deadline_ms) {
    lock_hold hold(&g_worker_lock);
    while (g_worker_alive) {
        if (!g_worker_ended.wait(&g_worker_lock, deadline_ms) && g_worker_alive)
            return false;
    }
    return true;
}

void worker_cancel() {
    lock_hold hold(&g_worker_lock);
    if (!g_worker_alive)
        return;
    pthread_cancel(g_worker_tid);
    // The worker's clean-up gives the port back and clears `worker_busy`.
    while (g_worker_alive)
        g_worker_ended.wait(&g_worker_lock, NO_DEADLINE);
}

bool port_work_begin() {
    daemon_state &s = state();
    if (!s.at_mutex.try_lock())
        return false;
    if (!take_busy()) {
        s.at_mutex.unlock();
        return false;
    }
    return true;
}

void port_work_end() {
    daemon_state &s = state();
    s.worker_busy.store(0, std::memory_order_release);
    s.at_mutex.unlock();
}

bool port_claim_for_dial() {
    daemon_state &s = state();
    // A running worker holds the gate for its whole run: the supervisor does
    // not wait behind it, so it can serve a firmware update's re-open meanwhile.
    if (!s.at_mutex.try_lock())
        return false;
    bool free = s.worker_busy.load(std::memory_order_acquire) == 0;
    if (free)
        s.dial_in_progress.store(1, std::memory_order_release);
    s.at_mutex.unlock();
    return free;
}

void port_hold() { state().at_mutex.lock(); }

void port_release() {
    daemon_state &s = state();
    s.at_mutex.unlock();
    s.supervisor_wake.raise(); // a dial may wait for the port
}
