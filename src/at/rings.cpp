#include "at/at.h"

#include <cstring>
#include <initializer_list>

namespace {
int32_t next_slot(int32_t i) { return i + 1 > RING_SLOTS - 1 ? 0 : i + 1; }
} // namespace

ring_view resp_ring_view() {
    daemon_state &s = state();
    return {s.resp_ring, s.resp_write_index, s.resp_ready_index, s.resp_read_index};
}

ring_view urc_ring_view() {
    daemon_state &s = state();
    return {s.urc_ring, s.urc_write_index, s.urc_ready_index, s.urc_read_index};
}

void ring_push(ring_view ring, const char *line) {
    int32_t w = ring.write_index.load(std::memory_order_relaxed);
    if (w < 0 || w >= RING_SLOTS)
        w = 0;
    // No fullness test, but the slot about to be reused must be ordered after the
    // reader's last copy out of it: take the reader's progress with acquire.
    (void)ring.read_index.load(std::memory_order_acquire);
    size_t n = strnlen(line, RING_LINE_SIZE - 1);
    memcpy(ring.slots[w], line, n);
    ring.slots[w][n] = '\0';
    w = next_slot(w);
    ring.write_index.store(w, std::memory_order_relaxed);
    // The slot is complete: publish it.
    ring.ready_index.store(w, std::memory_order_release);
}

bool ring_pop(ring_view ring, char *out, size_t size) {
    int32_t r = ring.read_index.load(std::memory_order_relaxed);
    if (r == ring.ready_index.load(std::memory_order_acquire))
        return false;
    if (r < 0 || r >= RING_SLOTS)
        r = 0;
    size_t n = strnlen(ring.slots[r], RING_LINE_SIZE - 1);
    if (n > size - 1)
        n = size - 1;
    memcpy(out, ring.slots[r], n);
    out[n] = '\0';
    ring.read_index.store(next_slot(r), std::memory_order_release);
    return true;
}

void urc_push(const char *line) { ring_push(urc_ring_view(), line); }

void resp_drain_to_urc() {
    char line[RING_LINE_SIZE];
    while (ring_pop(resp_ring_view(), line, sizeof line))
        urc_push(line);
}

void rings_reset() {
    daemon_state &s = state();
    for (std::atomic<int32_t> *i : {&s.resp_write_index, &s.resp_ready_index, &s.resp_read_index,
                                    &s.urc_write_index, &s.urc_ready_index, &s.urc_read_index})
        i->store(0, std::memory_order_release);
}
