#include "core/daemon_state.h"
#include "core/sanitizer.h"

#include <cerrno>
#include <new>

at_gate::at_gate() { sem_init(&sem_, 0, 1); }

at_gate::~at_gate() { sem_destroy(&sem_); }

void at_gate::lock() {
    while (sem_wait(&sem_) != 0 && errno == EINTR) {
    }
}

bool at_gate::try_lock() { return sem_trywait(&sem_) == 0; }

void at_gate::unlock() {
    // Binary: a release of a gate that is already open must not let two holders in.
    int value = 0;
    sem_getvalue(&sem_, &value);
    if (value < 1)
        sem_post(&sem_);
}

namespace {
daemon_state g_state;
}

daemon_state &state() { return g_state; }

void supervisor_request(std::atomic<uint8_t> &flag, uint8_t value) {
    flag.store(value, std::memory_order_release);
    g_state.supervisor_wake.raise();
}

const module_family &current_family() {
    return *g_state.family.load(std::memory_order_acquire);
}

bool module_ready() {
    const daemon_state &s = g_state;
    switch (s.phase.load(std::memory_order_acquire)) {
    case module_phase::starting:
    case module_phase::resetting:
    case module_phase::gone:
        return false;
    default:
        break;
    }
    // A request not yet taken up counts as served: the answer must not wait
    // for the supervisor.
    return !s.module_restarting.load(std::memory_order_acquire) &&
           !s.module_reset_request.load(std::memory_order_acquire) &&
           !s.fota_done.load(std::memory_order_acquire) &&
           !s.module_lost.load(std::memory_order_acquire);
}

void call_active_set(uint8_t on) {
    g_state.call_active.store(on, std::memory_order_release);
    g_state.call_news.raise();
}

void daemon_state_reset() {
    g_state.~daemon_state();
    new (&g_state) daemon_state();
}

#ifdef ZOLVIN_ASAN
// The daemon stops its threads by cancellation. The sanitizer's alternate
// signal stack is taken down at a thread's end on the stack of the frames the
// cancellation unwound, whose guards it never cleared, and reports them as an
// overflow. Without that stack the false report goes away. This file is in
// every program that uses the daemon's code, so the setting is too.
extern "C" __attribute__((used, visibility("default"))) const char *__asan_default_options() {
    return "use_sigaltstack=0";
}
#endif
