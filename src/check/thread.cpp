#include "check/check.h"

#include "at/at.h"
#include "core/config.h"
#include "core/daemon_state.h"
#include "core/shell.h"
#include "core/wait.h"
#include "modem/modem.h"

#include <cerrno>
#include <ctime>
#include <limits>
#include <pthread.h>

namespace {

// Set at start-up, before any check thread exists.
reply_sink g_client_frames;

// ---- the real world of the thread ----

// Returns once the call is over or at the deadline. pthread_cond_timedwait
// inside wake_signal::wait is the cancellation point.
void wait_call_end(int64_t deadline_ms) {
    daemon_state &s = state();
    for (;;) {
        uint64_t seen = s.call_news.count();
        if (!s.call_active.load(std::memory_order_acquire) || monotonic_ms() >= deadline_ms)
            return;
        s.call_news.wait(seen, deadline_ms);
    }
}

// One wait to the end of the period; clock_nanosleep is the cancellation point.
void sleep_until(int64_t deadline_ms) {
    timespec at;
    // A period of years must not wrap a 32-bit time_t into the past.
    int64_t sec = deadline_ms / 1000;
    constexpr int64_t max_sec = std::numeric_limits<time_t>::max();
    at.tv_sec = static_cast<time_t>(sec < max_sec ? sec : max_sec);
    at.tv_nsec = static_cast<long>(deadline_ms % 1000) * 1000000;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR) {
    }
}

void release_port(void *) { port_release(); }

// The check thread's exchanges exclude a client's worker and the start of a
// dial; the port goes back even when the thread is cancelled in mid-exchange.
template <typename F> int with_port(F exchange) {
    int result;
    port_hold();
    pthread_cleanup_push(release_port, nullptr);
    result = exchange();
    pthread_cleanup_pop(1);
    return result;
}

int reassert(link_reassert how) {
    switch (how) {
    case link_reassert::network_device:
        return with_port([] { return set_qnetdevctl(1, 1).ok() ? 0 : -1; });
    case link_reassert::data_call:
        return with_port([] {
            bool up = false;
            op_outcome status = get_qnetdevstatus(&up);
            // A port that cannot be written is news the client gets even unasked.
            if (status.unsent)
                g_client_frames(status);
            if (up)
                return 0;
            // The deactivation clears a half-up call that would refuse the activation.
            set_qcrmcall(0, 1);
            return set_qcrmcall(1, 1).ok() ? 0 : -1;
        });
    }
    return -1;
}

void start_app() { app_start(); }

// The re-assertion when the external program owns the link: false to give up.
bool keep_app_running(check_counters &c, const check_env &env) {
    if (env.app_running() == 0) {
        c.app_restarts = 0;
        return true;
    }
    // The module gone or another one attached: restarting the program is no use.
    if (env.probe_family(*env.paths) != &current_family())
        return false;
    if (c.app_restarts >= CHECK_APP_RESTARTS)
        return false;
    ++c.app_restarts;
    env.start_app();
    return true;
}

} // namespace

void check_frames_to(const reply_sink &sink) { g_client_frames = sink; }

check_env check_env_real(const module_paths *paths) {
    check_env env;
    env.clock = monotonic_ms;
    env.wait_call_end = wait_call_end;
    env.sleep_until = sleep_until;
    env.link_check = link_check;
    env.reassert = reassert;
    env.app_running = app_running;
    env.probe_family = module_probe_family;
    env.start_app = start_app;
    env.paths = paths;
    return env;
}

bool check_round(check_counters &c, const check_env &env) {
    daemon_state &s = state();
    // A call pauses the checks; a flag left set for 600 s is dropped.
    if (s.call_active.load(std::memory_order_acquire))
        env.wait_call_end(env.clock() + CHECK_CALL_PAUSE_MS);
    call_active_set(0);

    int64_t period_ms = CHECK_RETRY_MS;
    if (c.probe_failures == 0 && c.reassert_failures == 0)
        period_ms = static_cast<int64_t>(s.check_timeS.load(std::memory_order_acquire)) * 1000;
    if (period_ms < CHECK_MIN_PERIOD_MS)
        period_ms = CHECK_MIN_PERIOD_MS;
    env.sleep_until(env.clock() + period_ms);
    if (s.call_active.load(std::memory_order_acquire))
        return true;

    if (!s.ping_disabled.load(std::memory_order_acquire)) {
        if (env.link_check() == 0) {
            c.probe_failures = 0;
            c.reassert_failures = 0;
            return true;
        }
        if (++c.probe_failures >= CHECK_FAILURE_LIMIT)
            return false;
    }

    // A client holds the port in pass-through: leave the module alone, but not forever.
    if (s.at_passthrough.load(std::memory_order_acquire)) {
        if (++c.passthrough_periods > CHECK_PASSTHROUGH_PERIODS) {
            c.passthrough_periods = 0;
            s.at_passthrough.store(0, std::memory_order_release);
        }
        return true;
    }
    c.passthrough_periods = 0;

    const module_family &family = current_family();
    if (external_program_owns_link(family, s.app_name)) // app_name is fixed at start-up
        return keep_app_running(c, env);
    int result = env.reassert(family.reassert);
    if (result >= 0) {
        c.reassert_failures = 0;
        return true;
    }
    return ++c.reassert_failures < CHECK_FAILURE_LIMIT;
}

void *check_thread(void *arg) {
    pthread_setname_np(pthread_self(), "zolvin_check");
    check_env env = check_env_real(static_cast<const module_paths *>(arg));
    check_counters counters;
    while (check_round(counters, env)) {
    }
    supervisor_request(state().module_reset_request, 1);
    return nullptr;
}

void check_thread_stop() {
    pthread_t tid = state().check_tid.exchange(0, std::memory_order_acq_rel);
    if (tid == 0)
        return;
    pthread_cancel(tid);
    pthread_join(tid, nullptr);
}
