// The link check: ICMP echo probes through the module's network interface,
// and the check thread that watches an established data call, re-asserts it
// with the module family's own command or restarts the external connection
// program, and asks the supervisor for a module reset when that keeps failing.
#pragma once

#include "core/outcome.h"
#include "module/module.h"

#include <cstddef>
#include <cstdint>

// ---- the probe ----
constexpr size_t ICMP_HEADER_SIZE = 8;
constexpr int ICMP_REPLY_WAIT_MS = 3000; // restarted after every unrelated datagram
constexpr int ICMP_RCVBUF_BYTES = 51200;

// The Internet checksum (RFC 1071) over `len` bytes taken as machine-order words.
uint16_t icmp_checksum(const void *buf, size_t len);
// Writes the echo request (type 8, code 0, identifier and sequence in host
// byte order, `data_len` zero bytes) into `buf`; returns its length, or 0 when
// it does not fit in `size`.
size_t icmp_build_echo(unsigned char *buf, size_t size, uint16_t ident, uint16_t seq,
                       uint32_t data_len);
// 0 when the datagram (IP header included) is an echo reply carrying `ident`,
// -1 otherwise. The sequence is not compared: a late reply still proves the link.
int icmp_check_reply(const unsigned char *datagram, size_t len, uint16_t ident);
// One echo request to `address` (dotted IPv4 or a host name) leaving through
// `ifname` only: 0 when the reply came, -1 on any failure or a 3 s silence.
// A host name's look-up is no cancellation point; a cancel asked during it
// takes effect as it ends.
int icmp_ping(const char *ifname, const char *address);
// Probes ping_address1..6 in order, skipping empty ones, on `net_if_name`:
// 0 at the first answer, -1 when none answered or nothing can be probed.
int link_check();

// ---- the check thread ----
constexpr int CHECK_FAILURE_LIMIT = 10;       // probe or re-assertion failures in a row
constexpr int CHECK_APP_RESTARTS = 3;         // restarts of the external program in a row
constexpr int CHECK_PASSTHROUGH_PERIODS = 200; // periods a client may hold pass-through
constexpr int64_t CHECK_CALL_PAUSE_MS = 600000;
constexpr int64_t CHECK_RETRY_MS = 10000;     // the period after a failure
// A period of 0 checks round after round, but a second apart: a healthy link
// answering at once must not keep a core busy.
constexpr int64_t CHECK_MIN_PERIOD_MS = 1000;

struct check_counters {
    int probe_failures = 0;
    int reassert_failures = 0;
    int app_restarts = 0;
    int passthrough_periods = 0;
};

// What a round of the thread does to the world; the thread uses the real
// ones, tests put a clock they move in their place.
struct check_env {
    int64_t (*clock)();
    // Returns once `call_active` is clear or at the deadline.
    void (*wait_call_end)(int64_t deadline_ms);
    void (*sleep_until)(int64_t deadline_ms);
    int (*link_check)();
    // The data call re-asserted over the AT port as the family does it: >= 0 on success.
    int (*reassert)(link_reassert how);
    int (*app_running)();
    const module_family *(*probe_family)(const module_paths &paths);
    void (*start_app)();
    const module_paths *paths;
};

// The real world: monotonic clock, waits that are cancellation points, the
// probe, the AT re-assertions between port_hold() and port_release().
check_env check_env_real(const module_paths *paths);

// One round: call pause, the period's sleep, probe, re-assertion. false when
// the thread gives up (the caller then asks for a module reset).
bool check_round(check_counters &c, const check_env &env);

// Cancels and joins the check thread if one runs, and clears `check_tid`.
// Whoever takes `check_tid` first joins it, so the supervisor and a firmware
// update may both call this. A host name's look-up is not cancelled, so the
// stop may wait for it: with silent name servers, up to the resolver's own
// time-outs (by its defaults 10 s for one server, 28 s for three, twice that
// when a search domain adds a second name; resolv.conf's options shorten it).
void check_thread_stop();

// Where the check thread sends the frames the client gets although it did not
// ask: a port that cannot be written when the EC20 re-assertion asks for the
// network device's state (191, as at_send_failure says). Set before the first
// check thread starts.
void check_frames_to(const reply_sink &sink);

// Thread entry; `arg` is the supervisor's const module_paths *. Returns only
// after giving up, with `module_reset_request` raised.
void *check_thread(void *arg);
