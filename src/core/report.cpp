#include "core/report.h"

#include "core/daemon_state.h"
#include "core/log.h"
#include "core/wait.h"
#include "core/stats.h"

#include <cerrno>
#include <sys/socket.h>

namespace {

// The generation the calling thread's replies belong to; 0: unbound.
thread_local uint32_t t_reply_generation = 0;
// The last generation handed out; changed under client_lock for writing.
uint32_t g_last_generation = 0;

// The subscribers' descriptors (-1: a free slot). Senders hold the lock for
// reading around their sends; attach and detach hold it for writing, so no
// frame goes to a descriptor that the server is closing.
pthread_rwlock_t g_subscriber_lock = PTHREAD_RWLOCK_INITIALIZER;
int g_subscriber_fd[SUBSCRIBERS_MAX] = {-1, -1, -1, -1, -1, -1, -1, -1};

// One frame without waiting: a peer that stops reading must not stall the
// receive thread, a worker or the supervisor, so its frame is dropped instead.
void send_frame(int fd, const uint8_t *frame, size_t n, int code, const char *who) {
    ssize_t sent = send(fd, frame, n, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        stat_add(stat_counter::dropped);
        log_printf("%s not reading, frame %d dropped\n", who, code);
    }
}

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
    send_frame(s.client_fd.load(std::memory_order_acquire), frame, n, code, "Client");
}

void event_report(int code, int status, const char *text) {
    client_report(code, status, text);
    uint8_t frame[REPLY_MAX];
    size_t n = reply_build(frame, code, status, text);
    rw_hold use(&g_subscriber_lock, rw_hold::read);
    for (int fd : g_subscriber_fd) {
        if (fd >= 0)
            send_frame(fd, frame, n, code, "Subscriber");
    }
}

int subscriber_attach(int fd) {
    rw_hold change(&g_subscriber_lock, rw_hold::write);
    for (int slot = 0; slot < SUBSCRIBERS_MAX; ++slot) {
        if (g_subscriber_fd[slot] < 0) {
            g_subscriber_fd[slot] = fd;
            return slot;
        }
    }
    return -1;
}

void subscriber_detach(int slot) {
    if (slot < 0 || slot >= SUBSCRIBERS_MAX)
        return;
    // Waits for a send under way; none starts after.
    rw_hold change(&g_subscriber_lock, rw_hold::write);
    g_subscriber_fd[slot] = -1;
}

void subscriber_report(int slot, int code, int status, const char *text) {
    if (slot < 0 || slot >= SUBSCRIBERS_MAX)
        return;
    uint8_t frame[REPLY_MAX];
    size_t n = reply_build(frame, code, status, text);
    rw_hold use(&g_subscriber_lock, rw_hold::read);
    if (g_subscriber_fd[slot] >= 0)
        send_frame(g_subscriber_fd[slot], frame, n, code, "Subscriber");
}
