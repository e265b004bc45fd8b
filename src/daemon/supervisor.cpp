#include "daemon/supervisor.h"

#include "at/at.h"
#include "check/check.h"
#include "core/config.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/report.h"
#include "core/shell.h"
#include "core/stats.h"
#include "core/text.h"
#include "daemon/startup.h"
#include "modem/modem.h"
#include "sms/common.h"

#include <algorithm>
#include <cstdio>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

using phase = module_phase;

bool raised(const std::atomic<uint8_t> &flag) { return flag.load(std::memory_order_acquire) != 0; }

void publish(phase p) { state().phase.store(p, std::memory_order_release); }

// The phase of a module that is open and no action under way.
void publish_running() {
    daemon_state &s = state();
    publish(raised(s.connected) ? phase::connected
            : raised(s.auto_dial) ? phase::dialling
                                  : phase::idle);
}

void cancel_join(pthread_t &tid) {
    if (tid == 0)
        return;
    pthread_cancel(tid);
    pthread_join(tid, nullptr);
    tid = 0;
}

// Only a dial that takes `connected` from 0 to 1 or the check switch comes
// here, and every path that takes the link down stops the thread first, so
// one runs at a time.
void start_check_thread(supervisor &sv) {
    daemon_state &s = state();
    pthread_t tid;
    if (pthread_create(&tid, thread_attributes(), check_thread, &sv.paths) != 0) {
        puts("Creat check thread failed!");
        daemon_exit(0);
    }
    s.check_tid.store(tid, std::memory_order_release);
}

// `auto_check` takes effect at once while the link is up; a firmware update
// keeps the check away from the module until the reset after it.
void check_follows_switch(supervisor &sv) {
    daemon_state &s = state();
    bool running = s.check_tid.load(std::memory_order_acquire) != 0;
    bool wanted = raised(s.auto_check) && !raised(s.fota_active);
    if (wanted && !running)
        start_check_thread(sv);
    else if (!raised(s.auto_check) && running)
        check_thread_stop();
}

void stop_external_program() {
    daemon_state &s = state();
    if (s.app_name[0] != '\0' && app_running() == 0) {
        run_shell(s.killall_cmd);
        sleep_for(1, 0);
    }
}

void run_down_script() {
    char script[TEXT_FIELD_SIZE];
    setting_read(script, sizeof script, state().down_script);
    if (script[0] != '\0')
        run_shell(script);
}

// How every action on the module begins: its threads stopped, the port
// closed, the link down. The port's number may be handed out again before the
// module is back, so nothing may write to it meanwhile. From here on a
// departure of the module is the supervisor's own doing, not a loss.
// Returns whether the link was up.
bool take_module_down(supervisor &sv, bool stop_program) {
    daemon_state &s = state();
    supervisor_stop_threads(sv);
    // A worker may still be writing: the close waits for its write to end.
    at_port_close();
    // A loss the receive thread told before it stopped is still an absence
    // for the client, whichever action ends it.
    if (s.module_lost.exchange(0, std::memory_order_acq_rel) != 0)
        sv.module_absent = true;
    bool was_up = s.connected.exchange(0, std::memory_order_acq_rel) != 0;
    stats_link_down();
    if (stop_program)
        stop_external_program();
    run_shell(s.ifdown_cmd);
    return was_up;
}

// The port is open again: its threads start, the module is served again and
// the absence, if any, is over. A loss the new receive thread may report at
// once is told after the return, not before it.
void module_is_back(supervisor &sv) {
    daemon_state &s = state();
    lock_hold presence(&s.presence_lock);
    supervisor_start_threads(sv);
    publish_running();
    if (sv.module_absent)
        event_report(EVENT_MODULE, STATUS_OK, nullptr);
    sv.module_absent = false;
}

void step_to(supervisor &sv, sv_step step, int64_t due) {
    sv.step = step;
    sv.step_due_ms = due;
}

// ---- reset: power cycle, settle, bring-up ----

void power_cycle_begin(supervisor &sv, int64_t settle_ms) {
    sv.power_write = 0;
    sv.settle_after_ms = settle_ms;
    step_to(sv, sv_step::power_cycle, sv.clock());
}

void reset_begin(supervisor &sv) {
    daemon_state &s = state();
    publish(phase::resetting);
    take_module_down(sv, true);
    // Whatever the update did, the module is handed back to the supervisor here.
    s.fota_active.store(0, std::memory_order_release);
    bool power_cycle = raised(s.module_restarting) || raised(s.module_reset_request);
    // Some modules take longer to come back after installing new firmware.
    int64_t settle = sv.settle_ms;
    if (raised(s.fota_done))
        settle += current_family().fota.return_extra_ms;
    sv.misses = 0;
    if (power_cycle)
        power_cycle_begin(sv, settle);
    else
        step_to(sv, sv_step::settle, sv.clock() + settle);
}

void reset_end(supervisor &sv) {
    daemon_state &s = state();
    bool restarted = raised(s.module_restarting);
    bool after_fota = raised(s.fota_done);
    // The flags are down before the reports go out: a client answered 901
    // may ask again at once and must find the module ready.
    s.module_restarting.store(0, std::memory_order_release);
    s.module_reset_request.store(0, std::memory_order_release);
    s.fota_done.store(0, std::memory_order_release);
    call_active_set(0);
    sv.next_dial_ms = 0;
    sv.dial_failures = 0;
    module_is_back(sv);
    if (restarted)
        event_report(EVENT_RESTARTED, STATUS_OK, nullptr);
    else if (after_fota)
        event_report(EVENT_FOTA_DONE, STATUS_OK, nullptr);
}

// ---- the module left the bus ----

void gone_begin(supervisor &sv) {
    publish(phase::gone);
    stat_add(stat_counter::lost);
    log_printf("4G module left the bus!\n");
    if (take_module_down(sv, false))
        run_down_script();
    sv.misses = 0;
    sv.step_limit_ms = sv.clock() + sv.absent_ms;
    step_to(sv, sv_step::look, sv.clock());
}

void gone_end(supervisor &sv) {
    sv.next_dial_ms = 0;
    sv.dial_failures = 0;
    module_is_back(sv);
}

// ---- firmware re-open ----

bool port_present() { return access(state().at_port_path, F_OK) == 0; }

void reopen_end(supervisor &sv) {
    step_to(sv, sv_step::none, 0);
    if (sv.port_events >= 0)
        close(sv.port_events);
    sv.port_events = -1;
    publish_running();
}

// The port did not vanish or the module did not come back: the plain re-open
// hands the module to a reset, the watching one leaves the verdict to the
// update, which is still waiting for it.
void reopen_failed(supervisor &sv) {
    daemon_state &s = state();
    if (sv.reopen_watch)
        s.fota_port_status.store(-1, std::memory_order_release);
    else
        s.module_reset_request.store(1, std::memory_order_release);
    reopen_end(sv);
}

void reopen_begin(supervisor &sv, bool watch) {
    daemon_state &s = state();
    publish(phase::reopening);
    (watch ? s.fota_reopen_watch : s.fota_reopen).store(0, std::memory_order_release);
    take_module_down(sv, !watch);
    // at_state stays: the update is still collecting the module's lines.
    rings_reset();
    sv.reopen_watch = watch;
    sv.step_limit_ms = sv.clock() + sv.port_gone_ms;
    step_to(sv, sv_step::port_gone, sv.clock());
    // The node's removal and creation wake the loop at once; without the watch
    // the tests fall back to the 1 s rhythm.
    sv.port_events = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (sv.port_events >= 0 &&
        inotify_add_watch(sv.port_events, sv.paths.dev_dir, IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                                                IN_MOVED_TO) < 0) {
        close(sv.port_events);
        sv.port_events = -1;
    }
}

// True when the module's AT port is open again with its threads.
bool reopen_port(supervisor &sv) {
    daemon_state &s = state();
    char name[MODULE_NAME_SIZE] = {};
    if (module_find_at_port(sv.paths, name) != 0)
        return false;
    if (!module_open_port(sv.paths, name, &s.at_fd))
        daemon_exit(255);
    supervisor_start_threads(sv);
    return true;
}

// When a port test is next due: at the limit when the port's directory
// wakes the loop, else once a second.
int64_t next_port_test(const supervisor &sv, int64_t now) {
    return sv.port_events >= 0 ? sv.step_limit_ms : std::min(sv.step_limit_ms, now + sv.look_ms);
}

int64_t reopen_step(supervisor &sv, int64_t now) {
    daemon_state &s = state();
    switch (sv.step) {
    case sv_step::port_gone:
        if (port_present()) {
            if (now < sv.step_limit_ms)
                return next_port_test(sv, now);
            reopen_failed(sv);
            return now + PASS_MS;
        }
        sv.step = sv_step::port_back;
        sv.step_limit_ms = now + sv.port_back_ms;
        [[fallthrough]];
    case sv_step::port_back:
        if (!reopen_port(sv)) {
            if (now >= sv.step_limit_ms) {
                reopen_failed(sv);
                return now + PASS_MS;
            }
            // The bus entries in sysfs raise no inotify events and may come
            // after the node, so the tries keep their 1 s rhythm too.
            return std::min(sv.step_limit_ms, now + sv.look_ms);
        }
        if (!sv.reopen_watch) {
            reopen_end(sv);
            return sv.clock() + PASS_MS;
        }
        sv.step = sv_step::watch;
        sv.step_limit_ms = sv.clock() + sv.watch_ms;
        return sv.port_events >= 0 ? sv.step_limit_ms : sv.clock() + PASS_MS;
    case sv_step::watch:
        // Vanishing again means the module rebooted into its new firmware.
        if (!port_present()) {
            s.fota_port_status.store(1, std::memory_order_release);
            reopen_end(sv);
            return now + PASS_MS;
        }
        if (now >= sv.step_limit_ms) {
            reopen_failed(sv);
            return now + PASS_MS;
        }
        return sv.port_events >= 0 ? sv.step_limit_ms : now + PASS_MS;
    default:
        break;
    }
    return now + PASS_MS;
}

// ---- the steps of a reset or of the search for a module that left ----

int64_t module_step(supervisor &sv, int64_t now) {
    daemon_state &s = state();
    if (now < sv.step_due_ms)
        return sv.step_due_ms;
    switch (sv.step) {
    case sv_step::power_cycle: {
        const power_cycle_step &w = POWER_CYCLE[sv.power_write++];
        power_cycle_write(w, sv.power_line, sv.reset_line);
        if (sv.power_write < POWER_CYCLE_STEPS)
            step_to(sv, sv_step::power_cycle, now + w.then_ms);
        else
            step_to(sv, sv_step::settle, now + sv.settle_after_ms);
        return sv.step_due_ms;
    }
    case sv_step::settle:
        rings_reset();
        s.at_state.store(AT_IDLE, std::memory_order_release);
        step_to(sv, sv_step::look, now);
        [[fallthrough]];
    case sv_step::look:
        switch (module_try_open(sv.paths, &s.at_fd)) {
        case module_open_result::opened:
            step_to(sv, sv_step::opened, sv.clock() + sv.open_wait_ms);
            return sv.step_due_ms;
        case module_open_result::failed:
            daemon_exit(0);
        case module_open_result::absent:
            break;
        }
        if (s.phase.load(std::memory_order_relaxed) == phase::gone) {
            if (now < sv.step_limit_ms) {
                step_to(sv, sv_step::look, std::min(now + sv.look_ms, sv.step_limit_ms));
                return sv.step_due_ms;
            }
            // Not back in time: a power cycle, as after ten failed dials.
            log_printf("4G module did not come back,begin to reset module!\n");
            s.module_reset_request.store(1, std::memory_order_release);
            reset_begin(sv);
            return module_step(sv, sv.clock());
        }
        if (++sv.misses == BRING_UP_MISSES) {
            log_printf("4G module work incorrect,begin to reset!\n");
            sv.misses = 0;
            power_cycle_begin(sv, sv.settle_ms);
        } else {
            step_to(sv, sv_step::look, now + sv.look_ms);
        }
        return sv.step_due_ms;
    case sv_step::opened:
        step_to(sv, sv_step::none, 0);
        if (s.phase.load(std::memory_order_relaxed) == phase::gone)
            gone_end(sv);
        else
            reset_end(sv);
        return sv.clock() + PASS_MS;
    default:
        break;
    }
    return now + PASS_MS;
}

// ---- dialling ----

void log_sim_state() {
    daemon_state &s = state();
    if (get_cimi().ok()) {
        log_printf("Sim imsi: %s\n", s.sim_imsi);
        if (get_cops().ok())
            log_printf("COPS: %s\n", s.operator_name);
        if (get_csq().ok())
            log_printf("Signal: %s\n", s.signal_rssi);
    } else {
        log_printf("Sim status: SIM_ABSENT\n");
    }
    sleep_for(1, 0);
}

int64_t dial_action(supervisor &sv) {
    daemon_state &s = state();
    if (raised(s.connected)) {
        check_follows_switch(sv);
        return NO_DEADLINE;
    }
    publish(phase::dialling);
    if (sv.clock() < sv.next_dial_ms)
        return sv.next_dial_ms;
    // A worker or the link check holds the port: its release wakes the loop.
    if (!port_claim_for_dial())
        return NO_DEADLINE;

    const module_family &family = current_family();
    if (s.debug.load(std::memory_order_acquire))
        log_sim_state();
    bool dialled = dial(family).ok();
    s.dial_in_progress.store(0, std::memory_order_release);
    if (dialled) {
        s.connected.store(1, std::memory_order_release);
        stats_link_up(monotonic_ms());
        sv.next_dial_ms = 0;
        sv.dial_failures = 0;
        // An external program that owns the link gets the address itself.
        if (!external_program_owns_link(family, s.app_name)) {
            char dhcp[160];
            text_format(dhcp, sizeof dhcp, DHCP_CMD_FORMAT, s.net_if_name);
            run_shell(dhcp);
        }
        // "Connected" once the link has its address.
        publish(phase::connected);
        if (raised(s.auto_check))
            start_check_thread(sv);
        return NO_DEADLINE;
    }
    sv.next_dial_ms = sv.clock() + DIAL_RETRY_MS;
    if (++sv.dial_failures < DIAL_FAILURES_BEFORE_RESET) {
        log_printf("Dial failed,retry to dail!\n");
        return sv.next_dial_ms;
    }
    sv.dial_failures = 0;
    s.module_reset_request.store(1, std::memory_order_release);
    log_printf("Dial failed,reaches maximum times,begin to reset module!\n");
    return sv.clock() + PASS_MS;
}

// Runs a tear-down command as supervisor work, unless a worker owns the port.
template <typename F> void as_supervisor_work(F command) {
    if (!port_work_begin())
        return;
    command();
    port_work_end();
}

void disconnect_action() {
    daemon_state &s = state();
    log_printf("Disconnect 4G network.\n");
    check_thread_stop();
    run_shell(s.ifdown_cmd);
    const module_family &family = current_family();
    if (external_program_owns_link(family, s.app_name)) {
        run_shell(s.killall_cmd);
        sleep_for(3, 0);
    } else {
        as_supervisor_work([&family] { data_step_run(family.hang_up); });
    }
    s.connected.store(0, std::memory_order_release);
    stats_link_down();
    publish(phase::idle);
    run_down_script();
}

} // namespace

void supervisor_start_threads(supervisor &sv) {
    if (pthread_create(&sv.rx_tid, thread_attributes(), rx_thread, nullptr) != 0) {
        puts("Creat receive thread failed!");
        daemon_exit(0);
    }
    if (pthread_create(&sv.common_tid, thread_attributes(), common_thread, nullptr) != 0) {
        puts("Creat commone thread failed!");
        daemon_exit(0);
    }
}

void supervisor_stop_threads(supervisor &sv) {
    cancel_join(sv.common_tid);
    cancel_join(sv.rx_tid);
    check_thread_stop();
}

int64_t supervisor_pass(supervisor &sv) {
    daemon_state &s = state();
    const int64_t now = sv.clock();
    switch (s.phase.load(std::memory_order_relaxed)) {
    case phase::reopening:
        // A re-open holds the loop until it ends, as one action would: a
        // reset asked meanwhile comes after it.
        return reopen_step(sv, now);
    case phase::gone:
        // A restart or reset ends the search: its bring-up finds the module.
        if (raised(s.module_restarting) || raised(s.module_reset_request)) {
            reset_begin(sv);
            return module_step(sv, sv.clock());
        }
        return module_step(sv, now);
    case phase::resetting:
        return module_step(sv, now);
    default:
        break;
    }
    if (raised(s.module_restarting) || raised(s.module_reset_request) || raised(s.fota_done)) {
        reset_begin(sv);
        return module_step(sv, sv.clock());
    }
    if (raised(s.fota_reopen) || raised(s.fota_reopen_watch)) {
        reopen_begin(sv, !raised(s.fota_reopen));
        return reopen_step(sv, sv.clock());
    }
    if (raised(s.module_lost)) {
        gone_begin(sv);
        return module_step(sv, sv.clock());
    }
    if (raised(s.auto_dial))
        return dial_action(sv);
    if (raised(s.connected)) {
        disconnect_action();
        return sv.clock() + PASS_MS;
    }
    publish(phase::idle);
    sv.next_dial_ms = 0;
    sv.dial_failures = 0;
    return NO_DEADLINE;
}

void supervisor_sleep(supervisor &sv, uint64_t seen, int64_t due) {
    if (sv.port_events < 0) {
        state().supervisor_wake.wait(seen, due);
        return;
    }
    // During a firmware re-open only the port's comings and goings matter: no
    // request is served before it ends.
    pollfd p{sv.port_events, POLLIN, 0};
    if (poll(&p, 1, poll_timeout(due)) > 0) {
        char drain[4096];
        while (read(sv.port_events, drain, sizeof drain) > 0) {
        }
    }
}

void supervisor_run(supervisor &sv) {
    wake_signal &news = state().supervisor_wake;
    for (;;) {
        // Noted before the pass: a request raised during it is not slept through.
        uint64_t seen = news.count();
        int64_t due = supervisor_pass(sv);
        supervisor_sleep(sv, seen, due);
    }
}
