// The AT transport: the receive thread that cuts the port's bytes into lines
// and routes them, the two line rings, the AT engine (begin, send, wait for a
// line judged by the exchange's rows, finish) with the one transaction frame
// built on it, and the access rule: who may use the port, and the life of the
// one request worker.
#pragma once

#include "at/serial.h"
#include "core/daemon_state.h"
#include "core/outcome.h"

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
// The outcome of a write that failed: status 13 when the module is not ready
// (it left the bus: the failed write may be the first sign), else status 1
// "at send error!".
op_outcome at_send_failure(int code);
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
// at_begin, then the command written; false (collecting stopped again, nothing
// drained) when it could not be written.
bool at_start(const char *cmd, size_t len);
// The next collected line into `out`; false when the deadline passed first or
// the module has left the bus.
bool at_next_line(char *out, size_t size, int64_t deadline_ms);
// Moves every unread collected line to urc_ring and stops collecting, as one
// step against the receive thread, so no line is left behind or reordered.
void at_finish();

// What a line means to the exchange that waits for it.
enum class at_verdict : uint8_t {
    success,     // ends the wait with success
    failure,     // ends the wait with failure
    info,        // the exchange reads it and waits on
    passed_over, // nothing happens to it (an "OK" before a result line, an echo)
    unsolicited, // not the exchange's: it goes to urc_ring
    timed_out,   // from at_wait only: the deadline passed or the module left
};

// A line an exchange owns: its first characters and, where given, a test on
// the whole line. The first row whose prefix and test both hold decides.
struct at_row {
    const char *prefix;             // nullptr: any line
    bool (*test)(const char *line); // nullptr: the prefix alone
    at_verdict verdict;
    int tag = 0;          // the exchange's own name for the row
    bool pass_on = false; // the line also reaches urc_ring, after the exchange's report
};

// Which error lines end a wait with failure.
enum at_errors : uint8_t {
    AT_ERRORS_NONE = 0,
    AT_ERROR_PLAIN = 1,  // "ERROR"
    AT_ERROR_MODULE = 2, // "+CME ERROR:" / "+CMS ERROR:" (also passed on to urc_ring)
    AT_ERRORS_ALL = 3,
};

// How an exchange reads the lines it waits for: its rows first, then the
// lines every exchange shares, in this order: a recognised module error
// (failure, passed on: the common thread reports it too), a recognised
// "ERROR" (failure), the echo (passed over). Any other line is `otherwise`;
// where an error line is not recognised, it is such a line, and the wait
// runs into its time-out.
struct at_rules {
    const at_row *rows;
    size_t row_count;
    uint8_t errors; // at_errors
    // The echo: nullptr for the command's (a line starting "AT"), else the
    // body just sent, whose first `echo_len` characters the module repeats.
    const char *echo = nullptr;
    size_t echo_len = 0;
    at_verdict otherwise = at_verdict::unsolicited; // info: an exchange that collects
};

// "+CME ERROR:" or "+CMS ERROR:": a numbered module error.
bool at_module_error(const char *line);
// A line that starts with a digit: an answer that has no prefix.
bool at_digit_first(const char *line);

struct at_judgement {
    at_verdict verdict;
    bool pass_on;
    const at_row *row; // nullptr: one of the shared lines, or `otherwise`
};
// The one place a line is judged. Pure.
at_judgement at_judge(const at_rules &r, const char *line);

// A line the exchange must act on, as at_wait judged it.
struct at_heard : at_judgement {
    char line[RING_LINE_SIZE];
};
// Waits until the deadline for a line that ends the wait or is information;
// lines passed over vanish and unsolicited ones go to urc_ring in the order
// they came. Returns the line's verdict, or timed_out.
at_verdict at_wait(const at_rules &r, int64_t deadline_ms, at_heard *h);
// Ends the exchange after the line that ended its wait: that line to urc_ring
// first when it is passed on, then at_finish. On a thread that holds passed-on
// lines, such an exchange stays open until at_settle().
void at_end(const at_heard &h);
// A request worker replies after its operation has returned, yet the client
// must get the reply before the event its last line makes (the common thread's
// "NO CARRIER" or module error): with `on`, the calling thread's exchanges that
// end on a passed-on line stay open, still collecting, so that no later line
// overtakes it, until at_settle() or the thread's next exchange ends them.
void at_hold_passed_on(bool on);
void at_settle();

// ---- the transaction frame: one command, one answer ----
using at_info = void (*)(const char *line, void *ctx);

constexpr size_t AT_MEMBER_ROWS = 4; // "OK", the result, a line that also ends, an answer line

// One row of the AT command family: the rows its answer is read by, and the
// code its outcome answers.
struct at_member {
    int report_code;
    uint32_t timeout_ms;
    at_row rows[AT_MEMBER_ROWS];
    uint8_t row_count;
    uint8_t errors; // at_errors
    // Every line no rule takes is part of the answer, joined by ','; "OK" ends it.
    bool collects;
    at_info info; // given the lines of an answer row while the wait goes on

    constexpr at_rules rules() const {
        return {rows, row_count, errors, nullptr, 0,
                collects ? at_verdict::info : at_verdict::unsolicited};
    }
    constexpr at_member with_row(const at_row &row) const {
        at_member m = *this;
        m.rows[m.row_count++] = row;
        return m;
    }
    constexpr at_member with_errors(uint8_t e) const {
        at_member m = *this;
        m.errors = e;
        return m;
    }
    // A line that also ends the wait through the parse step and is then passed
    // on to urc_ring, for an event the common thread must see as well.
    constexpr at_member also_ending_on(const char *line) const {
        return with_row({line, nullptr, at_verdict::success, 0, true});
    }
    // Lines handed to `fn` while the wait goes on (an answer line before "OK").
    constexpr at_member with_info(const char *prefix, at_info fn) const {
        at_member m = with_row({prefix, nullptr, at_verdict::info});
        m.info = fn;
        return m;
    }
};

// A member that reads its answer by the rows added to it.
constexpr at_member at_member_reading(int code, uint32_t timeout_ms, uint8_t errors) {
    return {code, timeout_ms, {}, 0, errors, false, nullptr};
}
// "OK" ends; every error line fails.
constexpr at_member at_setter(int code, uint32_t timeout_ms) {
    return at_member_reading(code, timeout_ms, AT_ERRORS_ALL)
        .with_row({"OK", nullptr, at_verdict::success});
}
// "OK" ends; only "ERROR" fails, a module error waits for the time-out.
constexpr at_member at_ok_or_error(int code, uint32_t timeout_ms) {
    return at_setter(code, timeout_ms).with_errors(AT_ERROR_PLAIN);
}
// The result line ends; "OK" is passed over (the module sends it after the
// result, so it reaches urc_ring once the transaction has finished); every
// error line fails.
constexpr at_member at_query(int code, uint32_t timeout_ms, const char *prefix) {
    return at_member_reading(code, timeout_ms, AT_ERRORS_ALL)
        .with_row({"OK", nullptr, at_verdict::passed_over})
        .with_row({prefix, nullptr, at_verdict::success});
}
// A line that starts with a digit ends; "OK" is passed over; no error line
// fails unless added.
constexpr at_member at_digit_line(int code, uint32_t timeout_ms) {
    return at_member_reading(code, timeout_ms, AT_ERRORS_NONE)
        .with_row({"OK", nullptr, at_verdict::passed_over})
        .with_row({nullptr, at_digit_first, at_verdict::success});
}
// "OK" ends; the lines before it are the answer; no error line fails.
constexpr at_member at_collect_until_ok(int code, uint32_t timeout_ms) {
    at_member m = at_setter(code, timeout_ms).with_errors(AT_ERRORS_NONE);
    m.collects = true;
    return m;
}

// What a member's parse step makes of its success line: it starts as status
// 0 without text under the member's code.
using at_parse = void (*)(const char *line, op_outcome *out, void *ctx);

// Runs one exchange: send `cmd`, wait for the member's ending line or its
// time-out, parse. Returns the outcome: the parse step's, status 1 on an
// error line (no text) or the time-out ("time out!"), at_send_failure's when
// the command could not be written.
op_outcome at_transaction(const at_member &m, const char *cmd, at_parse parse = nullptr,
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
