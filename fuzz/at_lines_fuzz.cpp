// The module's bytes through the receive path: cut into lines by the splitter
// in arbitrary pieces on a moving clock, each line routed by line_deliver as
// the routing stands (idle, a transaction collecting, pass-through to the
// client), and read back as the common thread, a transaction and the client
// would read them, never letting a ring fill. Every line must be within its
// bound, without NUL, CR or LF inside, not empty, and must come out of the
// place it was routed to, in order.
//
// Input: steps of one control byte, one clock byte and up to 63 bytes of
// module output. Control bits 0-5: how many bytes follow; bits 6-7: 0 feed,
// 1 start or finish a transaction, 2 switch pass-through, 3 a reader takes a
// line from each ring. The clock moves on by 8 ms times the clock byte.
#include "at/at.h"

#include "fuzz_support.h"

#include <deque>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int g_client[2] = {-1, -1};

struct expected {
    std::deque<std::string> urc;    // the common thread's ring
    std::deque<std::string> resp;   // the transaction's ring
    std::deque<std::string> client; // pass-through events
    bool collecting = false;
    bool passthrough = false;
    line_splitter *sp = nullptr;
};

void pop_urc(expected &e) {
    std::unique_ptr<char[]> line(new char[RING_LINE_SIZE]);
    check(!e.urc.empty() && urc_pop(line.get(), RING_LINE_SIZE, 0));
    check(e.urc.front() == line.get());
    e.urc.pop_front();
}

void pop_resp(expected &e) {
    std::unique_ptr<char[]> line(new char[RING_LINE_SIZE]);
    check(!e.resp.empty() && at_next_line(line.get(), RING_LINE_SIZE, 0));
    check(e.resp.front() == line.get());
    e.resp.pop_front();
}

// The pass-through events sent so far, each against the line it carries.
void read_client(expected &e) {
    static uint8_t stream[1 << 16];
    size_t len = 0;
    ssize_t n;
    while (len < sizeof stream && (n = read(g_client[1], stream + len, sizeof stream - len)) > 0)
        len += static_cast<size_t>(n);
    for (size_t pos = 0; pos < len;) {
        reply_frame f;
        long used = reply_parse(stream + pos, len - pos, &f);
        check(used > 0 && f.code == EVENT_AT_LINE && !e.client.empty());
        check(e.client.front().compare(0, REPLY_TEXT_MAX, f.text) == 0);
        e.client.pop_front();
        pos += static_cast<size_t>(used);
    }
    check(e.client.empty());
}

void sink(const char *line, bool, void *ctx) {
    auto &e = *static_cast<expected *>(ctx);
    size_t n = strnlen(line, RING_LINE_SIZE);
    // The splitter's length is the line's: no NUL inside.
    check(n >= 1 && n <= LINE_KEEP && n == e.sp->len);
    check(memchr(line, '\r', n) == nullptr && memchr(line, '\n', n) == nullptr && line[0] != ' ');
    if (e.passthrough) {
        e.client.emplace_back(line);
        line_deliver(line);
        read_client(e);
        return;
    }
    // A full ring would hold the receive path until a reader takes a line.
    if (e.collecting) {
        if (e.resp.size() == RING_SLOTS)
            pop_resp(e);
        e.resp.emplace_back(line);
    } else {
        if (e.urc.size() == RING_SLOTS)
            pop_urc(e);
        e.urc.emplace_back(line);
    }
    line_deliver(line);
    check(urc_waiting() == static_cast<int32_t>(e.urc.size()));
}

void switch_transaction(expected &e) {
    if (!e.collecting) {
        at_begin(); // also ends pass-through
        e.passthrough = false;
        e.resp.clear();
    } else {
        // What the transaction left unread moves on to the common thread.
        while (e.urc.size() + e.resp.size() > RING_SLOTS)
            pop_urc(e);
        at_finish();
        e.urc.insert(e.urc.end(), e.resp.begin(), e.resp.end());
        e.resp.clear();
    }
    e.collecting = !e.collecting;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_client) != 0)
        __builtin_trap();
    fcntl(g_client[1], F_SETFL, O_NONBLOCK);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    daemon_state_reset();
    daemon_state &s = state();
    s.client_fd.store(g_client[0]);
    s.client_connected.store(1);
    line_splitter sp;
    splitter_reset(&sp);
    expected e;
    e.sp = &sp;
    int64_t now = 1000;

    for (size_t at = 0; at + 2 <= size;) {
        uint8_t control = data[at];
        now += 8 * data[at + 1];
        at += 2;
        size_t n = control & 0x3F;
        if (n > size - at)
            n = size - at;
        switch (control >> 6) {
        case 1:
            switch_transaction(e);
            break;
        case 2:
            e.passthrough = !e.passthrough;
            s.at_passthrough.store(e.passthrough ? 1 : 0);
            break;
        case 3:
            if (!e.urc.empty())
                pop_urc(e);
            if (!e.resp.empty())
                pop_resp(e);
            break;
        default:
            break;
        }
        // The receive thread's wake-up when nothing came: an unfinished line
        // whose time is up is handed over, and none is left overdue.
        splitter_idle(&sp, now, sink, &e);
        int64_t due = splitter_flush_due(&sp);
        check(due == NO_DEADLINE || due > now);
        auto chunk = exact_copy<char>(data + at, n);
        splitter_feed(&sp, chunk.get(), n, now, sink, &e);
        check(sp.len <= LINE_KEEP);
        at += n;
    }
    splitter_idle(&sp, now + RX_IDLE_FLUSH_MS, sink, &e);
    check(sp.len == 0);
    while (!e.resp.empty())
        pop_resp(e);
    while (!e.urc.empty())
        pop_urc(e);
    check(urc_waiting() == 0);
    s.client_connected.store(0);
    return 0;
}
