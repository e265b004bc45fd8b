#include "core/report.h"

#include "core/daemon_state.h"
#include "core/log.h"
#include "core/wait.h"
#include "core/stats.h"

#include <cerrno>
#include <sys/socket.h>

void client_report(int code, int status, const char *text) {
    daemon_state &s = state();
    if (s.client_connected.load(std::memory_order_acquire) != 1)
        return;
    uint8_t frame[REPLY_MAX];
    size_t n = reply_build(frame, code, status, text);
    rw_hold use(&s.client_lock, rw_hold::read);
    if (s.client_connected.load(std::memory_order_acquire) != 1)
        return;
    // A client that stops reading must not stall the receive thread, a worker
    // or the supervisor: its frames are dropped instead.
    ssize_t sent = send(s.client_fd.load(std::memory_order_acquire), frame, n,
                        MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        stat_add(stat_counter::dropped);
        log_printf("Client not reading, frame %d dropped\n", code);
    }
}
