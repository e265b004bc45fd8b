#include "core/report.h"

#include "core/daemon_state.h"
#include "core/log.h"
#include "core/wait.h"
#include "core/stats.h"

#include <cerrno>
#include <sys/socket.h>

namespace {

constexpr int FIRST_EVENT_CODE = 1000;

// The generation the calling thread's replies belong to; 0: unbound.
thread_local uint32_t t_reply_generation = 0;
// The last generation handed out; changed under client_lock for writing.
uint32_t g_last_generation = 0;

} // namespace

uint32_t client_attach(int fd) {
    daemon_state &s = state();
    rw_hold change(&s.client_lock, rw_hold::write);
    if (++g_last_generation == 0)
        g_last_generation = 1;
    s.client_fd.store(fd, std::memory_order_release);
    s.client_generation.store(g_last_generation, std::memory_order_release);
    s.client_connected.store(1, std::memory_order_release);
    return g_last_generation;
}

void client_detach() {
    daemon_state &s = state();
    // Waits for a send under way; none starts after.
    rw_hold change(&s.client_lock, rw_hold::write);
    s.client_connected.store(0, std::memory_order_release);
    s.client_generation.store(0, std::memory_order_release);
}

void client_reply_bind(uint32_t generation) { t_reply_generation = generation; }

void client_report(int code, int status, const char *text) {
    daemon_state &s = state();
    if (s.client_connected.load(std::memory_order_acquire) != 1)
        return;
    uint8_t frame[REPLY_MAX];
    size_t n = reply_build(frame, code, status, text);
    rw_hold use(&s.client_lock, rw_hold::read);
    if (s.client_connected.load(std::memory_order_acquire) != 1)
        return;
    if (t_reply_generation != 0 && code < FIRST_EVENT_CODE &&
        s.client_generation.load(std::memory_order_acquire) != t_reply_generation) {
        log_printf("Client gone, reply %d dropped\n", code);
        return;
    }
    // A client that stops reading must not stall the receive thread, a worker
    // or the supervisor: its frames are dropped instead.
    ssize_t sent = send(s.client_fd.load(std::memory_order_acquire), frame, n,
                        MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        stat_add(stat_counter::dropped);
        log_printf("Client not reading, frame %d dropped\n", code);
    }
}
