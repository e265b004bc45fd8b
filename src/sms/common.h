// The common thread: the only reader of urc_ring, where every unsolicited
// line of the module ends up. It turns calls, call progress, speech and tone
// notices, incoming SMS, status reports and module errors into client events.
//
// The line handling is kept apart from the thread and takes the time as an
// argument, so that the ring and message windows can be driven by a test clock.
#pragma once

#include "core/wait.h" // NO_DEADLINE
#include "sms/inbox.h"

#include <cstdint>

// A "RING" waits this long for its caller's number before it is reported bare.
constexpr int64_t RING_WINDOW_MS = 100;
// A "+CMT:" or "+CDS:" header waits this long for its PDU line.
constexpr int64_t SMS_WINDOW_MS = 500;

// What the common thread remembers between lines; lost on a restart of the
// thread, except the parts of long messages, which live in `inbox`.
struct common_state {
    bool ring_pending = false; // a "RING" whose caller is not reported yet
    int64_t ring_ms = 0;
    bool sms_pending = false;  // a header whose PDU line is awaited
    int32_t sms_kind = 0;      // 1 SMS-DELIVER ("+CMT:"), 2 status report ("+CDS:")
    int64_t sms_ms = 0;
    sms_assembly *inbox = &sms_inbox; // the process's, unless a test gives its own
};

// Handles one line of urc_ring taken at `now_ms` (monotonic). A window that
// ran out before `now_ms` is closed first, as the thread would have closed it
// while waiting.
void common_handle_line(common_state *st, const char *line, int64_t now_ms);
// Closes the windows that are due at `now_ms` (a bare ring is reported then,
// the parts of a long message that waited too long are) and returns when the
// next one is due, or NO_DEADLINE when none is open.
int64_t common_expire(common_state *st, int64_t now_ms);

// Thread entry; runs until cancelled, asleep while the module is silent and
// no window is open.
void *common_thread(void *arg);
