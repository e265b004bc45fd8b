// The supervisor: the main thread's loop after start-up. It keeps the data
// call up or down as `auto_dial` says and serves the reset requests that other
// threads raise, one action per 100 ms pass, in a fixed order of priority.
#pragma once

#include "module/module.h"

#include <pthread.h>

constexpr const char *DHCP_CMD_FORMAT =
    "busybox udhcpc -f -n -t 5 -q -s /usr/share/udhcpc/zolvin_4g.script -i %s";
constexpr int DIAL_FAILURES_BEFORE_RESET = 10;
constexpr int DIAL_PACER_PASSES = 50;

struct supervisor {
    module_paths paths;
    int power_line = -1;
    int reset_line = -1;
    pthread_t rx_tid = 0;
    pthread_t common_tid = 0;
    int dial_pacer = 0;
    int dial_failures = 0;
};

// Starts the receive thread, then the common thread; ends the process when
// one cannot be created.
void supervisor_start_threads(supervisor &sv);
// Cancels and joins the common, receive and check threads, in that order.
void supervisor_stop_threads(supervisor &sv);

// One pass: performs the first action that applies. Returns false when the
// pass must not be followed by the usual 100 ms sleep.
bool supervisor_pass(supervisor &sv);

[[noreturn]] void supervisor_run(supervisor &sv);

// Ends the process from any thread: output flushed, no static destructors run
// under threads that are still working.
[[noreturn]] void daemon_exit(int status);

// Runs a shell command whose result the daemon has no use for.
void run_shell(const char *cmd);
