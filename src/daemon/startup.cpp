#include "daemon/startup.h"

#include "at/at.h"
#include "check/check.h"
#include "client/client.h"
#include "core/config.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/shell.h"
#include "core/stats.h"
#include "core/wait.h"
#include "daemon/supervisor.h"
#include "modem/modem.h"
#include "module/module.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {
pthread_attr_t g_thread_attr;

// The frames the client gets from the daemon's own work, unasked.
void to_client(const op_outcome &o, void *) { client_report(o.code, o.status, o.reply_text()); }
} // namespace

void parse_command_line(int argc, char **argv) {
    daemon_state &s = state();
    if (argc > 1 && strcmp(argv[1], "debug") == 0)
        s.debug.store(1, std::memory_order_release);
    if (argc > 2 && strcmp(argv[2], "atprint") == 0)
        s.atprint.store(1, std::memory_order_release);
}

pthread_attr_t *thread_attributes() { return &g_thread_attr; }

int daemon_main(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0); // a pipe or the journal gets each line as it is logged
    stats_start(monotonic_ms());
    daemon_state &s = state();
    parse_command_line(argc, argv);
    s.check_tid.store(0, std::memory_order_release);

    run_shell("modprobe rndis_host");
    run_shell("modprobe cdc_ether");
    run_shell("modprobe option");
    puts(BANNER);

    // Without both control lines this is not the board the daemon is made for.
    int power_line = open(POWER_LINE_PATH, O_RDWR | O_CLOEXEC);
    if (power_line < 0)
        return 0;
    int reset_line = open(RESET_LINE_PATH, O_RDWR | O_CLOEXEC);
    if (reset_line < 0) {
        close(power_line);
        return 0;
    }
    control_line_write(reset_line, '0');
    control_line_write(power_line, '1');

    config_read(CONFIG_PATH);
    app_cmd_build();
    snprintf(s.killall_cmd, sizeof s.killall_cmd, "killall %s", s.app_name);
    if (s.app_name[0] != '\0' && app_running() == 0)
        run_shell(s.killall_cmd);
    for (const char *address : s.ping_address) {
        if (address[0] != '\0')
            s.ping_disabled.store(0, std::memory_order_release);
    }

    check_frames_to({to_client, nullptr});

    pthread_attr_init(&g_thread_attr);
    pthread_attr_setstacksize(&g_thread_attr, THREAD_STACK_SIZE);

    pthread_t interface_tid;
    if (pthread_create(&interface_tid, &g_thread_attr, interface_thread, nullptr) != 0) {
        puts("Creat interface thread failed!");
        daemon_exit(0);
    }

    supervisor sv;
    sv.power_line = power_line;
    sv.reset_line = reset_line;
    // The module may take its time to appear: this waits, power-cycling it now and then.
    if (module_bring_up(sv.paths, &s.at_fd, power_line, reset_line) == -1)
        daemon_exit(0);
    sleep_for(2, 0);
    if (s.auto_dial.load(std::memory_order_acquire) != 1)
        run_shell(s.ifdown_cmd);
    supervisor_start_threads(sv);
    s.module_restarting.store(0, std::memory_order_release);
    s.phase.store(module_phase::idle, std::memory_order_release); // the supervisor's from here
    if (s.restart_report_pending.load(std::memory_order_acquire))
        event_report(EVENT_RESTARTED, STATUS_OK, nullptr);
    // A client's worker may already own the port: the identity is then not logged.
    if (s.debug.load(std::memory_order_acquire) && port_work_begin()) {
        if (get_ati().ok())
            log_printf("Module: %s\n", s.module_model);
        if (get_gsn().ok())
            log_printf("Module imei: %s\n", s.module_imei);
        port_work_end();
    }
    supervisor_run(sv);
}
