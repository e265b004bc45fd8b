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

void cancel_join(pthread_t &tid) {
    if (tid == 0)
        return;
    pthread_cancel(tid);
    pthread_join(tid, nullptr);
    tid = 0;
}

// Only a dial that takes `connected` from 0 to 1 comes here, and every path
// that takes it back to 0 stops the thread first, so one runs at a time.
void start_check_thread(supervisor &sv) {
    daemon_state &s = state();
    pthread_t tid;
    if (pthread_create(&tid, thread_attributes(), check_thread, &sv.paths) != 0) {
        puts("Creat check thread failed!");
        daemon_exit(0);
    }
    s.check_tid.store(tid, std::memory_order_release);
}

void stop_external_program() {
    daemon_state &s = state();
    if (s.app_name[0] != '\0' && app_running() == 0) {
        run_shell(s.killall_cmd);
        sleep_for(1, 0);
    }
}

// How every re-open of the module begins: its threads stopped, the port
// closed, the interface down. The port's number may be handed out again
// before the module is back, so nothing may write to it meanwhile.
void take_module_down(supervisor &sv, bool stop_program) {
    daemon_state &s = state();
    supervisor_stop_threads(sv);
    serial_close(s.at_fd.load(std::memory_order_acquire));
    s.at_fd.store(-1, std::memory_order_release);
    if (stop_program)
        stop_external_program();
    run_shell(s.ifdown_cmd);
}

void reset_action(supervisor &sv) {
    daemon_state &s = state();
    take_module_down(sv, true);
    bool power_cycle = s.module_restarting.load(std::memory_order_acquire) ||
                       s.module_reset_request.load(std::memory_order_acquire);
    bool after_fota = s.fota_done.load(std::memory_order_acquire) != 0;
    if (power_cycle)
        module_power_cycle(sv.power_line, sv.reset_line);
    // The EC20 family takes longer to come back after installing new firmware.
    int64_t settle = sv.settle_ms;
    if (s.module_type.load(std::memory_order_acquire) == MODULE_EC20 && after_fota)
        settle += sv.ec20_fota_extra_ms;
    sleep_for(static_cast<uint32_t>(settle / 1000), static_cast<uint32_t>(settle % 1000 * 1000));
    rings_reset();
    s.at_state.store(AT_IDLE, std::memory_order_release);
    if (module_bring_up(sv.paths, &s.at_fd, sv.power_line, sv.reset_line) == -1)
        daemon_exit(0);
    sleep_for(2, 0);
    supervisor_start_threads(sv);
    bool restarted = s.module_restarting.load(std::memory_order_acquire) != 0;
    // The flags are down before the report goes out: a client answered 901
    // may ask again at once and must find the module ready.
    s.module_restarting.store(0, std::memory_order_release);
    s.module_reset_request.store(0, std::memory_order_release);
    s.fota_done.store(0, std::memory_order_release);
    s.connected.store(0, std::memory_order_release);
    stats_link_down();
    call_active_set(0);
    sv.next_dial_ms = 0;
    sv.dial_failures = 0;
    if (restarted)
        client_report(EVENT_RESTARTED, STATUS_OK, nullptr);
    else if (after_fota)
        client_report(EVENT_FOTA_DONE, STATUS_OK, nullptr);
}

bool port_present() { return access(state().at_port_path, F_OK) == 0; }

void reopen_end(supervisor &sv) {
    sv.reopen = reopen_step::none;
    if (sv.port_events >= 0)
        close(sv.port_events);
    sv.port_events = -1;
}

// The port did not vanish or the module did not come back: the plain re-open
// hands the module to a reset, the EC200S action leaves the verdict to the
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
    (watch ? s.fota_reopen_watch : s.fota_reopen).store(0, std::memory_order_release);
    take_module_down(sv, !watch);
    // at_state stays: the update is still collecting the module's lines.
    rings_reset();
    sv.reopen_watch = watch;
    sv.reopen = reopen_step::port_gone;
    sv.step_due_ms = sv.clock() + sv.port_gone_ms;
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
    char path[TEXT_FIELD_SIZE];
    text_format(path, sizeof path, "%s/%s", sv.paths.dev_dir, name);
    sleep_for(0, 100000); // the node follows the bus entry
    if (serial_open(&s.at_fd, path) == -1) {
        puts("Open at port failed!");
        daemon_exit(255);
    }
    text_set(s.at_port_path, path);
    supervisor_start_threads(sv);
    return true;
}

// One pass of a re-open under way; returns when the next test is due.
int64_t reopen_pass(supervisor &sv) {
    daemon_state &s = state();
    int64_t now = sv.clock();
    int64_t next_test = sv.port_events >= 0 ? sv.step_due_ms : std::min(sv.step_due_ms, now + 1000);
    switch (sv.reopen) {
    case reopen_step::port_gone:
        if (port_present()) {
            if (now < sv.step_due_ms)
                return next_test;
            reopen_failed(sv);
            return now + PASS_MS;
        }
        sv.reopen = reopen_step::port_back;
        sv.step_due_ms = now + sv.port_back_ms;
        [[fallthrough]];
    case reopen_step::port_back:
        if (!reopen_port(sv)) {
            if (now >= sv.step_due_ms) {
                reopen_failed(sv);
                return now + PASS_MS;
            }
            // The bus entries in sysfs raise no inotify events and may come
            // after the node, so the tries keep their 1 s rhythm too.
            return std::min(sv.step_due_ms, now + 1000);
        }
        if (!sv.reopen_watch) {
            reopen_end(sv);
            return sv.clock() + PASS_MS;
        }
        sv.reopen = reopen_step::watch;
        sv.step_due_ms = sv.clock() + sv.watch_ms;
        return sv.port_events >= 0 ? sv.step_due_ms : sv.clock() + PASS_MS;
    case reopen_step::watch:
        // Vanishing again means the module rebooted into its new firmware.
        if (!port_present()) {
            s.fota_port_status.store(1, std::memory_order_release);
            reopen_end(sv);
            return now + PASS_MS;
        }
        if (now >= sv.step_due_ms) {
            reopen_failed(sv);
            return now + PASS_MS;
        }
        return sv.port_events >= 0 ? sv.step_due_ms : now + PASS_MS;
    case reopen_step::none:
        break;
    }
    return now + PASS_MS;
}

void log_sim_state() {
    daemon_state &s = state();
    if (get_cimi(0) == 0) {
        log_printf("Sim imsi: %s\n", s.sim_imsi);
        if (get_cops(0) == 0)
            log_printf("COPS: %s\n", s.operator_name);
        if (get_csq(0) == 0)
            log_printf("Signal: %s\n", s.signal_rssi);
    } else {
        log_printf("Sim status: SIM_ABSENT\n");
    }
    sleep_for(1, 0);
}

int64_t dial_action(supervisor &sv) {
    daemon_state &s = state();
    if (s.connected.load(std::memory_order_acquire) == 1)
        return NO_DEADLINE;
    if (sv.clock() < sv.next_dial_ms)
        return sv.next_dial_ms;
    if (!port_claim_for_dial())
        return sv.clock() + DIAL_BUSY_MS;

    bool ec200 = s.module_type.load(std::memory_order_acquire) != MODULE_EC20;
    if (s.debug.load(std::memory_order_acquire))
        log_sim_state();
    int result = ec200 ? dial_ec200(0) : dial_ec20(0);
    s.dial_in_progress.store(0, std::memory_order_release);
    if (result == 0) {
        s.connected.store(1, std::memory_order_release);
        stats_link_up(monotonic_ms());
        sv.next_dial_ms = 0;
        sv.dial_failures = 0;
        // With an external program on the EC20 the program gets the address itself.
        if (ec200 || s.app_name[0] == '\0') {
            char dhcp[160];
            text_format(dhcp, sizeof dhcp, DHCP_CMD_FORMAT, s.net_if_name);
            run_shell(dhcp);
        }
        if (s.auto_check.load(std::memory_order_acquire))
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
    if (s.module_type.load(std::memory_order_acquire) != MODULE_EC20) {
        as_supervisor_work([] { set_qnetdevctl(0, 1, 0); });
    } else if (s.app_name[0] != '\0') {
        run_shell(s.killall_cmd);
        sleep_for(3, 0);
    } else {
        as_supervisor_work([] { set_qcrmcall(0, 1, 0); });
    }
    s.connected.store(0, std::memory_order_release);
    stats_link_down();
    char script[TEXT_FIELD_SIZE];
    setting_read(script, sizeof script, s.down_script);
    if (script[0] != '\0')
        run_shell(script);
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
    // A re-open under way holds the loop until it ends, as one action would:
    // a reset asked meanwhile comes after it.
    if (sv.reopen != reopen_step::none)
        return reopen_pass(sv);
    if (s.module_restarting.load(std::memory_order_acquire) ||
        s.module_reset_request.load(std::memory_order_acquire) ||
        s.fota_done.load(std::memory_order_acquire)) {
        reset_action(sv);
        return sv.clock() + PASS_MS;
    }
    if (s.fota_reopen.load(std::memory_order_acquire) ||
        s.fota_reopen_watch.load(std::memory_order_acquire)) {
        reopen_begin(sv, s.fota_reopen.load(std::memory_order_acquire) == 0);
        return reopen_pass(sv);
    }
    if (s.auto_dial.load(std::memory_order_acquire))
        return dial_action(sv);
    if (s.connected.load(std::memory_order_acquire)) {
        disconnect_action();
        return sv.clock() + PASS_MS;
    }
    sv.next_dial_ms = 0;
    sv.dial_failures = 0;
    return NO_DEADLINE;
}

void supervisor_sleep(supervisor &sv, uint64_t seen, int64_t due) {
    if (sv.port_events < 0) {
        state().supervisor_wake.wait(seen, due);
        return;
    }
    // During a re-open only the port's comings and goings matter: no flag is
    // served before it ends.
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
        // Noted before the pass: a flag raised during it is not slept through.
        uint64_t seen = news.count();
        int64_t due = supervisor_pass(sv);
        supervisor_sleep(sv, seen, due);
    }
}
