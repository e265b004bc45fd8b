// The supervisor: the main thread's loop after start-up. It keeps the data
// call up or down as `auto_dial` says and serves the reset requests that other
// threads raise, one action per pass, in a fixed order of priority. Between
// passes it sleeps until a flag is raised or its next deadline comes.
#pragma once

#include "core/wait.h"
#include "module/module.h"

#include <cstdint>
#include <pthread.h>

constexpr const char *DHCP_CMD_FORMAT =
    "busybox udhcpc -f -n -t 5 -q -s /usr/share/udhcpc/zolvin_4g.script -i %s";
constexpr int DIAL_FAILURES_BEFORE_RESET = 10;
// A failed dial is tried again 51 passes of 100 ms later.
constexpr int64_t DIAL_RETRY_MS = 5100;
constexpr int64_t PASS_MS = 100;      // from one action to the next pass
constexpr int64_t DIAL_BUSY_MS = 10;  // a dial put off by supervisor work

// Where a re-open for a firmware update stands: the module reboots on its
// own time, so the wait spans passes and each pass tests again.
enum class reopen_step { none, port_gone, port_back, watch };

struct supervisor {
    module_paths paths;
    int power_line = -1;
    int reset_line = -1;
    pthread_t rx_tid = 0;
    pthread_t common_tid = 0;
    int64_t (*clock)() = monotonic_ms;
    int64_t next_dial_ms = 0; // 0: the next dial is due at once
    int dial_failures = 0;

    // The module's own times; tests shorten them.
    int64_t settle_ms = 20000;          // after a power cycle or a firmware end
    int64_t ec20_fota_extra_ms = 40000; // the EC20 installs its firmware for longer
    int64_t port_gone_ms = 30000;       // 30 tests 1 s apart for the old port to vanish
    int64_t port_back_ms = 60000;       // 60 tries 1 s apart for the module to come back
    int64_t watch_ms = 1198000;         // the EC200S reboots after updating within this

    reopen_step reopen = reopen_step::none;
    bool reopen_watch = false; // the EC200S action: watch the port after the re-open
    int64_t step_due_ms = 0;
    // inotify on the port's directory while a re-open waits, else -1.
    int port_events = -1;
};

// Starts the receive thread, then the common thread; ends the process when
// one cannot be created.
void supervisor_start_threads(supervisor &sv);
// Cancels and joins the common, receive and check threads, in that order.
void supervisor_stop_threads(supervisor &sv);

// One pass: performs the first action that applies. Returns when the next
// pass is due (sv.clock), or NO_DEADLINE when only news can change anything.
int64_t supervisor_pass(supervisor &sv);

// Sleeps until news, the deadline or, during a re-open, a change of the
// port's directory.
void supervisor_sleep(supervisor &sv, uint64_t seen, int64_t due);

[[noreturn]] void supervisor_run(supervisor &sv);
