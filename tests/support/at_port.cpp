#include "support/at_port.h"

#include "at/at.h"
#include "core/daemon_state.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

client_end::client_end() {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_) != 0)
        throw std::runtime_error("socketpair");
    state().client_fd.store(fds_[0], std::memory_order_release);
    state().client_connected.store(1, std::memory_order_release);
}

client_end::~client_end() {
    state().client_connected.store(0, std::memory_order_release);
    close(fds_[0]);
    close(fds_[1]);
}

bool client_end::next(reply_frame *out, long timeout_ms) {
    long deadline = monotonic_ms() + timeout_ms;
    for (;;) {
        if (!pending_.empty()) {
            long used = reply_parse(pending_.data(), pending_.size(), out);
            if (used < 0)
                throw std::runtime_error("malformed reply frame");
            if (used > 0) {
                pending_.erase(pending_.begin(), pending_.begin() + used);
                return true;
            }
        }
        long left = deadline - monotonic_ms();
        if (left < 0)
            return false;
        pollfd p{fds_[1], POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) <= 0)
            return false;
        uint8_t buf[1024];
        ssize_t n = read(fds_[1], buf, sizeof buf);
        if (n <= 0)
            return false;
        pending_.insert(pending_.end(), buf, buf + n);
    }
}

bool client_end::silent(long quiet_ms) {
    reply_frame f;
    return !next(&f, quiet_ms);
}

at_port::at_port() {
    master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0)
        throw std::runtime_error("pty");
    std::atomic<int32_t> fd{-1};
    if (serial_open(&fd, ptsname(master_)) != 0)
        throw std::runtime_error("serial_open on pty slave");
    state().at_fd.store(fd.load(), std::memory_order_release);
}

at_port::~at_port() {
    stop_rx();
    close(state().at_fd.load());
    state().at_fd.store(-1);
    close(master_);
}

void at_port::start_rx() {
    if (pthread_create(&rx_, nullptr, rx_thread, nullptr) != 0)
        throw std::runtime_error("pthread_create");
    rx_running_ = true;
}

void at_port::stop_rx() {
    if (!rx_running_)
        return;
    pthread_cancel(rx_);
    pthread_join(rx_, nullptr);
    rx_running_ = false;
}

void at_port::module_says(const std::string &bytes) {
    if (write(master_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error("write to pty master");
}

std::string at_port::module_reads(const std::string &until, long timeout_ms) {
    std::string got;
    long deadline = monotonic_ms() + timeout_ms;
    while (got.find(until) == std::string::npos) {
        long left = deadline - monotonic_ms();
        if (left < 0)
            break;
        pollfd p{master_, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) <= 0)
            break;
        char buf[512];
        ssize_t n = read(master_, buf, sizeof buf);
        if (n <= 0)
            break;
        got.append(buf, static_cast<size_t>(n));
    }
    return got;
}

std::string urc_next(long timeout_ms) {
    char line[RING_LINE_SIZE];
    bool got = urc_pop(line, sizeof line, monotonic_ms() + timeout_ms);
    return got ? std::string(line) : std::string("<none>");
}

emulated_port::emulated_port(modem_family family) : emu_(family) {
    std::string slave;
    master_ = open_modem_pty(&slave);
    std::atomic<int32_t> fd{-1};
    if (master_ < 0 || serial_open(&fd, slave.c_str()) != 0)
        throw std::runtime_error("emulated AT port");
    state().at_fd.store(fd.load(), std::memory_order_release);
    if (!emu_.start(master_) || pthread_create(&rx_, nullptr, rx_thread, nullptr) != 0)
        throw std::runtime_error("emulator or receive thread");
}

emulated_port::~emulated_port() {
    pthread_cancel(rx_);
    pthread_join(rx_, nullptr);
    emu_.stop();
    close_port();
    close(master_);
}

void emulated_port::close_port() {
    int fd = state().at_fd.exchange(-1);
    if (fd >= 0)
        close(fd);
}
