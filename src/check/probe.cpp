#include "check/check.h"

#include "core/config.h"
#include "core/daemon_state.h"
#include "core/stats.h"
#include "core/wait.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t BIND_NAME_COPY = 16; // the kernel's interface name size
constexpr socklen_t BIND_OPTION_SIZE = 32;

// Closes the probe's socket however the probe ends, cancellation included.
class socket_hold {
public:
    explicit socket_hold(int fd) : fd_(fd) {}
    ~socket_hold() { close(fd_); }
    socket_hold(const socket_hold &) = delete;
    socket_hold &operator=(const socket_hold &) = delete;

private:
    int fd_;
};

bool resolve(const char *address, sockaddr_in *dest) {
    memset(dest, 0, sizeof *dest);
    dest->sin_family = AF_INET;
    in_addr_t a = inet_addr(address);
    if (a != INADDR_NONE) {
        dest->sin_addr.s_addr = a;
        return true;
    }
    // The C library's resolver is not safe to cancel: a thread cancelled while
    // it waits on a name server leaves the resolver's lock taken, and the next
    // look-up of any thread then blocks where no cancel reaches it. So the
    // look-up runs to its end (the resolver's own time-outs bound it), and a
    // stop asked meanwhile takes effect right after.
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM; // any one type: one entry per address
    int cancel_state;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
    addrinfo *found = nullptr;
    int failed = getaddrinfo(address, nullptr, &hints, &found);
    bool ok = failed == 0 && found->ai_family == AF_INET;
    if (ok)
        dest->sin_addr = reinterpret_cast<const sockaddr_in *>(found->ai_addr)->sin_addr;
    if (failed == 0)
        freeaddrinfo(found);
    pthread_setcancelstate(cancel_state, nullptr);
    pthread_testcancel();
    return ok;
}

// Waits for the matching reply; every unrelated datagram starts a new 3 s wait.
int recv_reply(int fd, uint16_t ident) {
    unsigned char rx[ICMP_BUFFER_SIZE];
    int64_t deadline = monotonic_ms() + ICMP_REPLY_WAIT_MS;
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        int ready = poll(&p, 1, poll_timeout(deadline)); // a cancellation point
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return -1;
        ssize_t n = recvfrom(fd, rx, sizeof rx, MSG_DONTWAIT, nullptr, nullptr);
        if (n > 0 && icmp_check_reply(rx, static_cast<size_t>(n), ident) == 0)
            return 0;
        deadline = monotonic_ms() + ICMP_REPLY_WAIT_MS;
    }
}

} // namespace

uint16_t icmp_checksum(const void *buf, size_t len) {
    const unsigned char *p = static_cast<const unsigned char *>(buf);
    uint32_t sum = 0;
    for (; len > 1; len -= 2, p += 2) {
        uint16_t word;
        memcpy(&word, p, sizeof word);
        sum += word;
    }
    if (len == 1) {
        uint16_t word = 0;
        memcpy(&word, p, 1);
        sum += word;
    }
    sum = (sum & 0xffff) + (sum >> 16);
    sum += sum >> 16;
    return static_cast<uint16_t>(~sum);
}

size_t icmp_build_echo(unsigned char *buf, size_t size, uint16_t ident, uint16_t seq,
                       uint32_t data_len) {
    size_t len = ICMP_HEADER_SIZE + data_len;
    if (data_len > size || len > size)
        return 0;
    memset(buf, 0, len);
    buf[0] = 8; // echo request
    memcpy(buf + 4, &ident, sizeof ident);
    memcpy(buf + 6, &seq, sizeof seq);
    uint16_t sum = icmp_checksum(buf, len);
    memcpy(buf + 2, &sum, sizeof sum);
    return len;
}

int icmp_check_reply(const unsigned char *datagram, size_t len, uint16_t ident) {
    if (len == 0)
        return -1;
    size_t ip_len = static_cast<size_t>(datagram[0] & 0x0f) * 4;
    if (len < ip_len + ICMP_HEADER_SIZE)
        return -1;
    const unsigned char *icmp = datagram + ip_len;
    if (icmp[0] != 0) // echo reply
        return -1;
    uint16_t got;
    memcpy(&got, icmp + 4, sizeof got);
    return got == ident ? 0 : -1;
}

int icmp_ping(const char *ifname, const char *address) {
    // The protocol number is fixed: a board without /etc/protocols probes too.
    int fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
    if (fd < 0)
        return -1;
    socket_hold hold(fd);
    // Bound to the module's interface, the probe tests that link whatever the
    // routing table says.
    char device[BIND_OPTION_SIZE] = {};
    strncpy(device, ifname, BIND_NAME_COPY);
    if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, device, BIND_OPTION_SIZE) != 0)
        return -1;
    // The raw socket is open: the rights that opened it are not needed further.
    // Only a daemon started set-user-ID has any to give up; asking anyway would
    // make the C library stop every thread to change nothing, at every probe.
    if (geteuid() != getuid()) {
        int dropped = setuid(getuid());
        (void)dropped;
    }
    int rcvbuf = ICMP_RCVBUF_BYTES;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
    sockaddr_in dest;
    if (!resolve(address, &dest))
        return -1;

    daemon_state &s = state();
    uint16_t ident = static_cast<uint16_t>(getpid());
    uint16_t seq = static_cast<uint16_t>(++s.icmp_seq);
    unsigned char tx[ICMP_BUFFER_SIZE];
    size_t len = icmp_build_echo(tx, sizeof tx, ident, seq, s.icmp_data_len);
    stat_add(stat_counter::probes);
    // A failed send shows as the silence that follows.
    sendto(fd, tx, len, 0, reinterpret_cast<const sockaddr *>(&dest), sizeof dest);
    int result = recv_reply(fd, ident);
    if (result != 0)
        stat_add(stat_counter::probe_failures);
    return result;
}

int link_check() {
    daemon_state &s = state();
    if (s.net_if_name[0] == '\0')
        return -1;
    for (const char *field : s.ping_address) {
        char address[TEXT_FIELD_SIZE];
        setting_read(address, sizeof address, field);
        if (address[0] != '\0' && icmp_ping(s.net_if_name, address) == 0)
            return 0;
    }
    return -1;
}
