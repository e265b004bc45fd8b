#include "at/at.h"

#include "core/report.h"

#include <cstring>

namespace {

int32_t next_slot(int32_t i) { return i + 1 > RING_SLOTS - 1 ? 0 : i + 1; }

bool ring_full(const line_ring &r) { return r.count >= RING_SLOTS; }

// Both with line_lock held.
void ring_put(line_ring &r, const char *line) {
    size_t n = strnlen(line, RING_LINE_SIZE - 1);
    memcpy(r.slots[r.write_index], line, n);
    r.slots[r.write_index][n] = '\0';
    r.write_index = next_slot(r.write_index);
    ++r.count;
    r.readable.signal();
}

void ring_take(line_ring &r, char *out, size_t size) {
    const char *slot = r.slots[r.read_index];
    size_t n = strnlen(slot, RING_LINE_SIZE - 1);
    if (n > size - 1)
        n = size - 1;
    memcpy(out, slot, n);
    out[n] = '\0';
    r.read_index = next_slot(r.read_index);
    --r.count;
    // The receive thread or a transaction may wait for this room.
    state().line_room.broadcast();
}

void ring_clear(line_ring &r) {
    r.write_index = 0;
    r.read_index = 0;
    r.count = 0;
}

// Waits for a line in `r` until the deadline; takes it. line_lock held.
bool ring_wait_take(line_ring &r, char *out, size_t size, int64_t deadline_ms) {
    daemon_state &s = state();
    while (r.count == 0) {
        if (!r.readable.wait(&s.line_lock, deadline_ms) && r.count == 0)
            return false;
    }
    ring_take(r, out, size);
    return true;
}

void urc_put_waiting(const char *line) {
    daemon_state &s = state();
    while (ring_full(s.urc_ring))
        s.line_room.wait(&s.line_lock, NO_DEADLINE);
    ring_put(s.urc_ring, line);
}

} // namespace

void urc_push(const char *line) {
    daemon_state &s = state();
    lock_hold hold(&s.line_lock);
    urc_put_waiting(line);
}

bool urc_pop(char *out, size_t size, int64_t deadline_ms) {
    daemon_state &s = state();
    lock_hold hold(&s.line_lock);
    return ring_wait_take(s.urc_ring, out, size, deadline_ms);
}

int32_t urc_waiting() {
    daemon_state &s = state();
    lock_hold hold(&s.line_lock);
    return s.urc_ring.count;
}

void rings_reset() {
    daemon_state &s = state();
    lock_hold hold(&s.line_lock);
    ring_clear(s.resp_ring);
    ring_clear(s.urc_ring);
    s.line_room.broadcast();
}

void line_deliver(const char *line) {
    daemon_state &s = state();
    if (s.at_passthrough.load(std::memory_order_acquire)) {
        client_report(EVENT_AT_LINE, STATUS_OK, line);
        return;
    }
    lock_hold hold(&s.line_lock);
    for (;;) {
        int32_t routing = s.at_state.load(std::memory_order_relaxed);
        // A closing transaction's leftovers go to urc_ring first.
        if (routing != AT_CLOSING) {
            line_ring &ring = routing == AT_IDLE ? s.urc_ring : s.resp_ring;
            if (!ring_full(ring)) {
                ring_put(ring, line);
                return;
            }
        }
        // The kernel keeps the port's bytes meanwhile: nothing is lost.
        s.line_room.wait(&s.line_lock, NO_DEADLINE);
    }
}

void at_begin() {
    daemon_state &s = state();
    at_settle();
    {
        lock_hold hold(&s.line_lock);
        ring_clear(s.resp_ring);
        s.at_state.store(AT_COLLECTING, std::memory_order_release);
        s.line_room.broadcast();
    }
    s.at_passthrough.store(0, std::memory_order_release);
}

void at_abort() {
    daemon_state &s = state();
    lock_hold hold(&s.line_lock);
    s.at_state.store(AT_IDLE, std::memory_order_release);
    s.line_room.broadcast();
}

bool at_next_line(char *out, size_t size, int64_t deadline_ms) {
    daemon_state &s = state();
    lock_hold hold(&s.line_lock);
    // A module that left the bus answers nothing more: the wait ends now,
    // as at its time-out, and lines it sent before leaving are still read.
    while (s.resp_ring.count == 0) {
        if (s.module_lost.load(std::memory_order_acquire))
            return false;
        if (!s.resp_ring.readable.wait(&s.line_lock, deadline_ms) && s.resp_ring.count == 0)
            return false;
    }
    ring_take(s.resp_ring, out, size);
    return true;
}

void at_port_hung_up() {
    daemon_state &s = state();
    // During a firmware update the module reboots on purpose; the update and
    // the supervisor's re-open follow it.
    if (s.fota_active.load(std::memory_order_acquire))
        return;
    // The send must not be cut short by a cancellation with the lock held.
    int cancel_state;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
    {
        lock_hold presence(&s.presence_lock);
        if (s.module_lost.exchange(1, std::memory_order_acq_rel) == 0)
            event_report(EVENT_MODULE, STATUS_FAIL, nullptr);
    }
    {
        lock_hold hold(&s.line_lock);
        s.resp_ring.readable.broadcast();
    }
    s.supervisor_wake.raise();
    pthread_setcancelstate(cancel_state, nullptr);
}

void at_finish() {
    daemon_state &s = state();
    lock_hold hold(&s.line_lock);
    // While closing, the receive thread holds its next line back; waits for
    // room in urc_ring release the lock, and the state keeps the order.
    s.at_state.store(AT_CLOSING, std::memory_order_release);
    char line[RING_LINE_SIZE];
    while (s.resp_ring.count > 0) {
        ring_take(s.resp_ring, line, sizeof line);
        urc_put_waiting(line);
    }
    s.at_state.store(AT_IDLE, std::memory_order_release);
    s.line_room.broadcast();
}
