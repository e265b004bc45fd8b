#include "core/daemon_state.h"

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

void daemon_state_reset() {
    g_state.~daemon_state();
    new (&g_state) daemon_state();
}
