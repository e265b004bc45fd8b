// A module port for tests: a pty whose slave the daemon's code opens as its AT
// port (state().at_fd), a receive thread on it, and a client socket pair that
// collects the frames the daemon sends.
#pragma once

#include "core/frames.h"
#include "core/wait.h"

#include <pthread.h>
#include <string>
#include <vector>

// Polls `cond` every millisecond until it holds or `timeout_ms` passes.
template <typename F> bool wait_until(F cond, long timeout_ms) {
    long deadline = monotonic_ms() + timeout_ms;
    while (!cond()) {
        if (monotonic_ms() > deadline)
            return cond();
        struct timespec ts = {0, 1000000};
        nanosleep(&ts, nullptr);
    }
    return true;
}

// The connected client's side of the daemon's socket.
class client_end {
public:
    client_end();  // connects state().client_fd / client_connected
    ~client_end(); // disconnects them
    client_end(const client_end &) = delete;
    client_end &operator=(const client_end &) = delete;

    // Next frame within the deadline; false on time-out.
    bool next(reply_frame *out, long timeout_ms);
    // True when no frame arrives within `quiet_ms`.
    bool silent(long quiet_ms);

private:
    int fds_[2] = {-1, -1};
    std::vector<uint8_t> pending_;
};

class at_port {
public:
    // Opens the pty and points state().at_fd at its raw slave.
    at_port();
    ~at_port(); // stops the receive thread, closes everything

    int master() const { return master_; }
    void start_rx();
    void stop_rx();
    // Writes bytes as the module would.
    void module_says(const std::string &bytes);
    // What the daemon wrote to the port until `until` (a substring) arrived or the time ran out.
    std::string module_reads(const std::string &until, long timeout_ms);

private:
    int master_ = -1;
    pthread_t rx_ = 0;
    bool rx_running_ = false;
};

// The next line in urc_ring within the deadline, or "<none>".
std::string urc_next(long timeout_ms);

#include "modem_emu/modem_emu.h"

// The AT port with the modem emulator playing the module and the receive
// thread running: a transaction can run against it as against a module.
class emulated_port {
public:
    explicit emulated_port(modem_family family = modem_family::ec200t);
    ~emulated_port();

    modem_emulator &module() { return emu_; }
    // Closes the daemon's side of the port, as a vanished device would leave it.
    void close_port();

private:
    modem_emulator emu_;
    int master_ = -1;
    pthread_t rx_ = 0;
};
