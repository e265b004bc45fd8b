#include "at/at.h"

#include "core/log.h"

#include <cstdio>
#include <cstring>

int at_send(const char *cmd, size_t len) {
    daemon_state &s = state();
    if (s.atprint.load(std::memory_order_acquire))
        printf("send at data:%.*s\n", static_cast<int>(len), cmd);
    return serial_write(s.at_fd.load(std::memory_order_acquire), cmd, len);
}

void splitter_reset(line_splitter *sp) {
    sp->len = 0;
    sp->line[0] = '\0';
    sp->last_rx = timeval{0, 0};
}

namespace {
void hand_over(line_splitter *sp, bool complete, line_sink sink, void *ctx) {
    sp->line[sp->len] = '\0';
    sink(sp->line, complete, ctx);
    sp->len = 0;
}
} // namespace

void splitter_feed(line_splitter *sp, const char *bytes, size_t n, line_sink sink, void *ctx) {
    for (size_t i = 0; i < n; ++i) {
        char c = bytes[i];
        if (c == '\r' || c == '\n') {
            if (sp->len > 0)
                hand_over(sp, true, sink, ctx);
        } else if (c == '>' && sp->len == 0) {
            // The SMS text prompt comes without a line end.
            sp->line[0] = '>';
            sp->len = 1;
            hand_over(sp, false, sink, ctx);
        } else if (sp->len >= LINE_KEEP || (sp->len == 0 && c == ' ')) {
            // Overlong tails and leading blanks (also the one after '>') are dropped.
        } else {
            sp->line[sp->len++] = c;
        }
    }
    gettimeofday(&sp->last_rx, nullptr);
}

void splitter_idle(line_splitter *sp, uint32_t idle_ms, line_sink sink, void *ctx) {
    if (sp->len > 0 && elapsed_reached(sp->last_rx.tv_sec, sp->last_rx.tv_usec, idle_ms))
        hand_over(sp, false, sink, ctx);
}

void line_deliver(const char *line) {
    daemon_state &s = state();
    if (s.at_passthrough.load(std::memory_order_acquire)) {
        client_report(EVENT_AT_LINE, STATUS_OK, line);
        return;
    }
    // A closing transaction is moving its leftovers to urc_ring: they go first.
    while (s.at_state.load(std::memory_order_acquire) == AT_CLOSING)
        sleep_for(0, 1000);
    if (s.at_state.load(std::memory_order_acquire) == AT_IDLE)
        urc_push(line);
    else
        ring_push(resp_ring_view(), line);
}

namespace {
void rx_sink(const char *line, bool complete, void *) {
    if (complete && state().atprint.load(std::memory_order_acquire))
        printf("receive at data:%s\n", line);
    line_deliver(line);
}
} // namespace

void *rx_thread(void *) {
    line_splitter sp;
    splitter_reset(&sp);
    char buf[RX_READ_SIZE];
    for (;;) {
        int n = serial_read(state().at_fd.load(std::memory_order_acquire), buf, sizeof buf);
        if (n > 0)
            splitter_feed(&sp, buf, static_cast<size_t>(n), rx_sink, nullptr);
        else
            splitter_idle(&sp, RX_IDLE_FLUSH_MS, rx_sink, nullptr);
        sleep_for(0, 1000);
    }
    return nullptr;
}
