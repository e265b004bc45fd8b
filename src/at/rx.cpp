#include "at/at.h"

#include "core/wait.h"

#include <cerrno>
#include <cstdio>
#include <poll.h>
#include <unistd.h>

int at_send(const char *cmd, size_t len) {
    daemon_state &s = state();
    if (s.atprint.load(std::memory_order_acquire))
        printf("send at data:%.*s\n", static_cast<int>(len), cmd);
    int written;
    bool hung_up;
    {
        rw_hold use(&s.port_lock, rw_hold::read);
        int fd = s.at_fd.load(std::memory_order_acquire);
        if (fd < 0)
            return -1;
        written = serial_write(fd, cmd, len);
        hung_up = written < 0 && (errno == EIO || errno == ENXIO || errno == ENODEV);
    }
    // The module may have left before the receive thread saw its port go.
    if (hung_up)
        at_port_hung_up();
    return written;
}

op_outcome at_send_failure(int code) {
    op_outcome o = module_ready() ? outcome(code, STATUS_FAIL, "at send error!")
                                  : outcome(code, STATUS_NOT_READY);
    o.unsent = true;
    return o;
}

void at_port_close() {
    daemon_state &s = state();
    rw_hold closing(&s.port_lock, rw_hold::write);
    int fd = s.at_fd.exchange(-1, std::memory_order_acq_rel);
    if (fd >= 0)
        serial_close(fd);
}

void splitter_reset(line_splitter *sp) {
    sp->len = 0;
    sp->line[0] = '\0';
    sp->last_rx_ms = 0;
}

namespace {
void hand_over(line_splitter *sp, bool complete, line_sink sink, void *ctx) {
    sp->line[sp->len] = '\0';
    sink(sp->line, complete, ctx);
    sp->len = 0;
}
} // namespace

void splitter_feed(line_splitter *sp, const char *bytes, size_t n, int64_t now_ms,
                   line_sink sink, void *ctx) {
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
        } else if (c == '\0' || sp->len >= LINE_KEEP || (sp->len == 0 && c == ' ')) {
            // NUL bytes, overlong tails and leading blanks (also the one after
            // '>') are dropped.
        } else {
            sp->line[sp->len++] = c;
        }
    }
    sp->last_rx_ms = now_ms;
}

int64_t splitter_flush_due(const line_splitter *sp) {
    return sp->len > 0 ? sp->last_rx_ms + RX_IDLE_FLUSH_MS : NO_DEADLINE;
}

void splitter_idle(line_splitter *sp, int64_t now_ms, line_sink sink, void *ctx) {
    int64_t due = splitter_flush_due(sp);
    if (due != NO_DEADLINE && now_ms >= due)
        hand_over(sp, false, sink, ctx);
}

namespace {

void rx_sink(const char *line, bool complete, void *) {
    if (complete && state().atprint.load(std::memory_order_acquire))
        printf("receive at data:%s\n", line);
    line_deliver(line);
}

// A port that hung up (the module left the bus) has nothing more to say: the
// supervisor is told, the unfinished line still gets its flush, then the
// thread sleeps until the supervisor cancels it.
[[noreturn]] void park(line_splitter *sp) {
    at_port_hung_up();
    int64_t due = splitter_flush_due(sp);
    if (due != NO_DEADLINE) {
        while (monotonic_ms() < due)
            poll(nullptr, 0, poll_timeout(due));
        splitter_idle(sp, monotonic_ms(), rx_sink, nullptr);
    }
    for (;;)
        poll(nullptr, 0, -1);
}

} // namespace

void *rx_thread(void *) {
    pthread_setname_np(pthread_self(), "zolvin_rx");
    line_splitter sp;
    splitter_reset(&sp);
    char buf[RX_READ_SIZE];
    const int fd = state().at_fd.load(std::memory_order_acquire);
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        // Blocks until the module speaks; only an unfinished line sets a time-out.
        int ready = poll(&p, 1, poll_timeout(splitter_flush_due(&sp)));
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            park(&sp);
        }
        if (ready == 0) {
            splitter_idle(&sp, monotonic_ms(), rx_sink, nullptr);
            continue;
        }
        if ((p.revents & POLLIN) == 0)
            park(&sp); // hung up, error, or no port at all
        ssize_t n = read(fd, buf, sizeof buf);
        if (n > 0)
            splitter_feed(&sp, buf, static_cast<size_t>(n), monotonic_ms(), rx_sink, nullptr);
        else if (n == 0 || (errno != EAGAIN && errno != EINTR))
            park(&sp);
    }
    return nullptr;
}
