// What the daemon has done since it started, for code 913: counters that any
// thread adds to without a lock, and the time the link has been up.
#pragma once

#include <cstddef>
#include <cstdint>

// In the order the 913 text lists them.
enum class stat_counter : uint8_t {
    dials,          // dials that connected, the supervisor's and a client's 370 alike
    dial_failures,  // failed dial attempts
    resets,         // power cycles after start-up's first switch-on
    lost,           // module departures noticed
    probes,         // echo requests the link check tried to send
    probe_failures, // of those, the ones that got no reply
    sms_in,         // messages made into events
    sms_out,        // messages the module accepted, one per request
    dropped,        // frames dropped for a client's full socket
    count
};

void stat_add(stat_counter c);
// Process start on the monotonic clock (ms); start-up calls it once.
void stats_start(int64_t now_ms);
// The supervisor: the link came up (`connected` 1) or went down (0).
void stats_link_up(int64_t now_ms);
void stats_link_down();

// The longest text stats_format() writes, its terminator included.
constexpr size_t STATS_TEXT_SIZE = 384;
// The 913 text at `now_ms`: "up=S link=0|1 link_s=S dials=N ... dropped=N",
// times in whole seconds. NUL-terminated and cut to `size`; returns the
// length written.
size_t stats_format(char *out, size_t size, int64_t now_ms);
// Everything back to zero and the link down; for tests.
void stats_reset();
