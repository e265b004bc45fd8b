// The AT transport: the receive thread that cuts the port's bytes into lines
// and routes them, the two line rings, the AT engine (begin, send, wait for a
// line, finish) with the one transaction frame built on it, and the access
// rule: who may use the port, and the life of the one request worker.
#pragma once

#include "at/serial.h"
#include "core/daemon_state.h"
#include "core/report.h"

#include <cstddef>
#include <cstdint>

// Routing states of `at_state`.
enum : int32_t { AT_IDLE = 0, AT_CLOSING = 1, AT_COLLECTING = 2 };

constexpr size_t RX_READ_SIZE = 100;
constexpr size_t LINE_KEEP = 498; // characters a line keeps
constexpr uint32_t RX_IDLE_FLUSH_MS = 1000;

// ---- rings ----
// Pushes a line (cut to 499 characters) into urc_ring, waiting for room.
void urc_push(const char *line);
// Takes the next line of urc_ring into `out` (cut to `size` - 1); waits until
// one comes or the deadline passes (false).
bool urc_pop(char *out, size_t size, int64_t deadline_ms);
// How many lines wait in urc_ring.
int32_t urc_waiting();
// Empties both rings and wakes whoever waits for room. `at_state` is left
// alone: after a firmware download the update is still collecting.
void rings_reset();

// ---- receive path ----
// Writes a command (with its own line end) or raw bytes to the AT port: the
// length, or -1 (also while the port is closed).
int at_send(const char *cmd, size_t len);
// The reply to a write that failed: status 13 when the module is not ready
// (it left the bus: the failed write may be the first sign), else status 1
// "at send error!".
void at_report_send_failure(int code);
// Closes the port (`at_fd` -1) once no write is under way; the receive thread
// must be stopped first. The supervisor's alone.
void at_port_close();

// Cuts a byte stream into lines: CR/LF end a line, empty lines vanish, a '>'
// at the start of a line is a line of its own, leading spaces and NUL bytes
// are dropped and a line keeps its first 498 characters.
struct line_splitter {
    char line[RING_LINE_SIZE];
    size_t len;
    int64_t last_rx_ms; // monotonic time of the last bytes
};
using line_sink = void (*)(const char *line, bool complete, void *ctx);
void splitter_reset(line_splitter *sp);
// `complete` is true for lines ended by CR/LF, false for the '>' prompt.
void splitter_feed(line_splitter *sp, const char *bytes, size_t n, int64_t now_ms,
                   line_sink sink, void *ctx);
// When the unfinished line is due to be handed over as it is, or NO_DEADLINE.
int64_t splitter_flush_due(const line_splitter *sp);
// Hands over the unfinished line once its flush is due at `now_ms`.
void splitter_idle(line_splitter *sp, int64_t now_ms, line_sink sink, void *ctx);

// Routes one line: to the client in pass-through mode, else to resp_ring while
// a transaction collects and to urc_ring otherwise. Waits while the chosen
// ring is full or a transaction is closing.
void line_deliver(const char *line);

// The port hung up by itself (the module left the bus): status 13 from now
// on, event (1101, 1), a waiting transaction ends, the supervisor is woken.
// Nothing while a firmware update runs; once per absence.
void at_port_hung_up();

// Thread entry of the only reader of the AT port; runs until cancelled and
// sleeps in poll() while the module says nothing.
void *rx_thread(void *arg);

// ---- the engine: the steps every exchange with the module is made of ----
// Empties resp_ring and starts collecting the module's lines there; ends
// pass-through mode. The caller holds the right to use the port.
void at_begin();
// After a failed send: stop collecting, nothing to drain.
void at_abort();
// The next collected line into `out`; false when the deadline passed first or
// the module has left the bus.
bool at_next_line(char *out, size_t size, int64_t deadline_ms);
// Moves every unread collected line to urc_ring and stops collecting, as one
// step against the receive thread, so no line is left behind or reordered.
void at_finish();

// ---- the transaction frame ----
// "+CME ERROR:" or "+CMS ERROR:": a numbered module error, which the common
// thread reports as well once the line reaches urc_ring.
bool at_module_error(const char *line);

enum class at_end : uint8_t {
    ok,         // "OK" ends with success
    prefix,     // the result prefix line ends with success; "OK" is passed over
    digit_line, // a line starting with '0'..'9' ends with success; "OK" passed over
    collect_ok, // "OK" ends; every other line but the echo is collected, joined by ','
};

// Which error lines end the wait with failure.
enum at_errors : uint8_t {
    AT_ERRORS_NONE = 0,
    AT_ERROR_PLAIN = 1,  // "ERROR"
    AT_ERROR_MODULE = 2, // "+CME ERROR:" / "+CMS ERROR:" (also passed on to urc_ring)
    AT_ERRORS_ALL = 3,
};

using at_info = void (*)(const char *line, void *ctx);

// One row of the AT command family: what ends its wait, and how it reports.
struct at_member {
    int report_code;
    uint32_t timeout_ms;
    at_end success;
    const char *result_prefix; // for at_end::prefix
    uint8_t errors;            // at_errors
    bool send_error_always_reported; // "at send error!" even when report is 0
    // A line that also ends the wait through the parse step and is then passed
    // on to urc_ring, for an event the common thread must see as well.
    const char *also_ends;
    // Lines handed to `info` while the wait goes on (an answer line before "OK").
    const char *info_prefix;
    at_info info;

    constexpr at_member with_errors(uint8_t e) const {
        at_member m = *this;
        m.errors = e;
        return m;
    }
    constexpr at_member send_error_always() const {
        at_member m = *this;
        m.send_error_always_reported = true;
        return m;
    }
    constexpr at_member also_ending_on(const char *line) const {
        at_member m = *this;
        m.also_ends = line;
        return m;
    }
    constexpr at_member with_info(const char *prefix, at_info fn) const {
        at_member m = *this;
        m.info_prefix = prefix;
        m.info = fn;
        return m;
    }
};

// "OK" ends; every error line fails.
constexpr at_member at_setter(int code, uint32_t timeout_ms) {
    return {code, timeout_ms, at_end::ok, nullptr, AT_ERRORS_ALL, false, nullptr, nullptr, nullptr};
}
// "OK" ends; only "ERROR" fails, a module error waits for the time-out.
constexpr at_member at_ok_or_error(int code, uint32_t timeout_ms) {
    return at_setter(code, timeout_ms).with_errors(AT_ERROR_PLAIN);
}
// The result line ends; "OK" is passed over; every error line fails.
constexpr at_member at_query(int code, uint32_t timeout_ms, const char *prefix) {
    return {code, timeout_ms, at_end::prefix, prefix, AT_ERRORS_ALL, false, nullptr, nullptr, nullptr};
}
// A line that starts with a digit ends; no error line fails unless added.
constexpr at_member at_digit_line(int code, uint32_t timeout_ms) {
    return {code,  timeout_ms, at_end::digit_line, nullptr, AT_ERRORS_NONE,
            false, nullptr,    nullptr,            nullptr};
}
// "OK" ends; the lines before it are the answer; no error line fails.
constexpr at_member at_collect_until_ok(int code, uint32_t timeout_ms) {
    return {code,  timeout_ms, at_end::collect_ok, nullptr, AT_ERRORS_NONE,
            false, nullptr,    nullptr,            nullptr};
}

// What a member's parse step makes of its success line.
struct at_outcome {
    int result;         // the member's return value
    int status;         // reported status
    bool has_text;
    bool always_report; // report even when the caller asked for silence
    char text[REPLY_TEXT_MAX + 1];
};
using at_parse = void (*)(const char *line, at_outcome *out, void *ctx);

// Runs one exchange: send `cmd`, wait for the member's ending line or its
// time-out, parse, report when `report` is set. Returns the outcome's result,
// or -1 on an error line, time-out or send failure.
int at_transaction(const at_member &m, const char *cmd, uint8_t report, at_parse parse = nullptr,
                   void *ctx = nullptr);

// ---- the right to use the port ----
// One exchange at a time: a request worker (for its whole life), the
// supervisor's own work, a dial or the link check. `at_mutex` is held by a
// worker from before its start to its end, and by the link check around its
// exchanges; `worker_busy` and `dial_in_progress` tell the client it must wait.
enum class worker_start_result { started, busy, failed };
// Starts `entry(arg)` as the detached request worker, unless the port is taken.
// Waits while the link check holds the port.
worker_start_result worker_start(void *(*entry)(void *), void *arg);
// The worker's last act on every path, also when cancelled: gives the port back
// and tells whoever waits for its end.
void worker_finished();
// Waits until no worker runs, or the deadline (false).
bool worker_wait_ended(int64_t deadline_ms);
// Cancels the running worker, if any, and waits for its end.
void worker_cancel();

// Supervisor work between dials (start-up queries, tear-down): false when a
// worker owns the port; otherwise the port is held until port_work_end().
bool port_work_begin();
void port_work_end();
// Marks a dial as running (`dial_in_progress`) when the port is free; false
// at once when a worker or the link check holds it. Their release wakes the
// supervisor, which tries again.
bool port_claim_for_dial();
// The link check's exchanges: waits for a running worker.
void port_hold();
void port_release();
