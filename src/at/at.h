// The AT transport: the receive thread that cuts the port's bytes into lines
// and routes them, the two line rings, `at_send`, and the one transaction frame
// that every AT exchange of the daemon runs.
#pragma once

#include "at/serial.h"
#include "client/frames.h"
#include "core/daemon_state.h"

#include <cstddef>
#include <cstdint>
#include <sys/time.h>

// Routing states of `at_state`.
enum : int32_t { AT_IDLE = 0, AT_CLOSING = 1, AT_COLLECTING = 2 };

constexpr size_t RX_READ_SIZE = 100;
constexpr size_t LINE_KEEP = 498;       // characters a line keeps
constexpr uint32_t RX_IDLE_FLUSH_MS = 1000;

// ---- rings ----
struct ring_view {
    char (*slots)[RING_LINE_SIZE];
    std::atomic<int32_t> &write_index;
    std::atomic<int32_t> &ready_index;
    std::atomic<int32_t> &read_index;
};
ring_view resp_ring_view();
ring_view urc_ring_view();

// Copies the line (cut to 499 characters) into the next slot and publishes it.
// There is no fullness test: 20 lines ahead of the reader, lines are lost.
void ring_push(ring_view ring, const char *line);
// Copies the next unread line into `out` (cut to `size` - 1) and returns true,
// or returns false when the ring is empty.
bool ring_pop(ring_view ring, char *out, size_t size);

void urc_push(const char *line);
// Moves every unread response line to urc_ring.
void resp_drain_to_urc();
// Empties both rings (all six indices 0), as before a new receive thread starts.
void rings_reset();

// ---- receive path ----
// Writes a command (with its own line end) to the AT port: its length, or -1.
int at_send(const char *cmd, size_t len);

// Cuts a byte stream into lines: CR/LF end a line, empty lines vanish, a '>'
// at the start of a line is a line of its own, leading spaces are skipped and
// a line keeps its first 498 characters.
struct line_splitter {
    char line[RING_LINE_SIZE];
    size_t len;
    timeval last_rx;
};
using line_sink = void (*)(const char *line, bool complete, void *ctx);
void splitter_reset(line_splitter *sp);
// `complete` is true for lines ended by CR/LF, false for the '>' prompt.
void splitter_feed(line_splitter *sp, const char *bytes, size_t n, line_sink sink, void *ctx);
// Hands over a partial line once nothing arrived for `idle_ms` since last_rx.
void splitter_idle(line_splitter *sp, uint32_t idle_ms, line_sink sink, void *ctx);

// Routes one line: to the client in pass-through mode, else to resp_ring while
// a transaction collects and to urc_ring otherwise.
void line_deliver(const char *line);

// Thread entry of the only reader of the AT port; runs until cancelled.
void *rx_thread(void *arg);

// ---- transaction ----
enum class at_end : uint8_t {
    ok,          // "OK" ends with success
    prefix,      // the result prefix line ends with success; "OK" is passed over
    digit_line,  // a line starting with '0'..'9' ends with success; "OK" passed over
    collect_ok,  // "OK" ends; every other line but the echo is collected, joined by ','
};

// One row of the AT command family.
struct at_member {
    int report_code;
    uint32_t timeout_ms;
    at_end success;
    const char *prefix;  // for at_end::prefix
    bool module_errors;  // "+CME ERROR:" / "+CMS ERROR:" fail (and reach urc_ring)
    bool plain_error;    // "ERROR" fails
    bool send_error_always_reported = false; // "at send error!" even when report is 0
    // A line that also ends the wait through the parse step and is then passed
    // on to urc_ring, for an event the common thread must see as well (a call
    // that ends while "ATA" is answered).
    const char *event_end = nullptr;
    // Lines that are handed to `info` while the wait goes on (an answer line
    // that comes before the closing "OK").
    const char *info_prefix = nullptr;
    void (*info)(const char *line, void *ctx) = nullptr;
};

// What a member's parse step makes of its success line.
struct at_outcome {
    int result;          // the member's return value
    int status;          // reported status
    bool has_text;
    bool always_report;  // report even when the caller asked for silence
    char text[REPLY_TEXT_MAX + 1];
};
using at_parse = void (*)(const char *line, at_outcome *out, void *ctx);

// Runs one exchange: send `cmd`, wait for the member's ending line or its
// time-out, parse, report when `report` is set. Returns the outcome's result,
// or -1 on an error line, time-out or send failure.
int at_transaction(const at_member &m, const char *cmd, uint8_t report, at_parse parse = nullptr,
                   void *ctx = nullptr);

// The common end of every exchange after a successful send: hold the receive
// thread, move leftovers to urc_ring, go idle.
void at_txn_finish();
