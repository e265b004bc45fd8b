// The supervisor: the main thread's loop after start-up. It keeps the data
// call up or down as `auto_dial` says, and serves the requests that other
// threads raise (restart, reset, the firmware update's re-opens, the module
// leaving the bus) in a fixed order of priority. Its state is `phase` in
// daemon_state; an action that spans time (a reset, a re-open, the search
// for a module that left) is a sequence of steps, each ending at a deadline
// of the loop's one wait, so the loop never sleeps inside an action.
#pragma once

#include "core/daemon_state.h"
#include "core/wait.h"
#include "module/module.h"

#include <cstdint>
#include <pthread.h>

constexpr const char *DHCP_CMD_FORMAT =
    "busybox udhcpc -f -n -t 5 -q -s /usr/share/udhcpc/zolvin_4g.script -i %s";
constexpr int DIAL_FAILURES_BEFORE_RESET = 10;
// A failed dial is tried again 51 passes of 100 ms later.
constexpr int64_t DIAL_RETRY_MS = 5100;
constexpr int64_t PASS_MS = 100; // from one action to the next pass

// Where an action under way stands.
enum class sv_step : uint8_t {
    none,
    power_cycle, // the control lines' writes, one deadline per pause
    settle,      // the module boots after a power cycle or its update
    look,        // discovery once a second until the module is there
    opened,      // the port is open; the threads start 2 s later
    port_gone,   // firmware re-open: the old port must vanish first,
    port_back,   // then the module come back,
    watch,       // then (when watched) vanish again once its new firmware boots
};

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
    int64_t open_wait_ms = 2000;        // from the port's opening to the threads' start
    int64_t look_ms = 1000;             // discovery's rhythm
    int64_t absent_ms = 60000;          // a module gone this long is power-cycled
    int64_t port_gone_ms = 30000;       // 30 tests 1 s apart for the old port to vanish
    int64_t port_back_ms = 60000;       // 60 tries 1 s apart for the module to come back
    int64_t watch_ms = 1198000;         // a watched module reboots after updating within this

    sv_step step = sv_step::none;
    int64_t step_due_ms = 0;   // the step's next look or write
    int64_t step_limit_ms = 0; // when the step gives up
    int power_write = 0;       // the next write of the power cycle
    int misses = 0;            // discovery misses since the last power cycle
    int64_t settle_after_ms = 0; // the settle that follows the power cycle
    bool reopen_watch = false;   // watch the port after the re-open
    bool module_absent = false; // (1101, 1) went out; (1101, 0) follows the next opening
    // inotify on the port's directory while a firmware re-open waits, else -1.
    int port_events = -1;
};

// Starts the receive thread, then the common thread; ends the process when
// one cannot be created.
void supervisor_start_threads(supervisor &sv);
// Cancels and joins the common, receive and check threads, in that order.
void supervisor_stop_threads(supervisor &sv);

// One pass: serves the first request that applies, or takes the action under
// way one step on. Returns when the next pass is due (sv.clock), or
// NO_DEADLINE when only news can change anything.
int64_t supervisor_pass(supervisor &sv);

// Sleeps until news, the deadline or, during a firmware re-open, a change of
// the port's directory.
void supervisor_sleep(supervisor &sv, uint64_t seen, int64_t due);

[[noreturn]] void supervisor_run(supervisor &sv);
