// Helpers for the tests: a fresh daemon state, scratch directories and files,
// and a module port: a pty whose slave the daemon's code opens as its AT port
// (state().at_fd), a receive thread on it, and a client socket pair that
// collects the frames the daemon sends.
#pragma once

#include "core/daemon_state.h"
#include "core/frames.h"
#include "core/outcome.h"
#include "core/stats.h"
#include "core/wait.h"
#include "modem_emu/modem_emu.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <string>
#include <utility>
#include <vector>

// An outcome as the reply frame the client would get, in the form
// client_end::frames() shows frames ("code status text|"); "" when none is owed.
std::string shown(const op_outcome &o);
// Collects the outcomes handed to a reply_sink, shown as above.
struct sink_capture {
    std::string got;
    reply_sink sink() {
        return {[](const op_outcome &o, void *ctx) { static_cast<sink_capture *>(ctx)->got += shown(o); },
                this};
    }
};

// A fresh daemon state and statistics for the life of the object.
struct fresh_state {
    fresh_state() { reset(); }
    ~fresh_state() { reset(); }
    // Waits first for a worker that is still finishing.
    static void reset();
};

// One value of the 913 text ("dials"), read back through stats_format; -1
// when the text has no such key.
long long stat_value(const std::string &key);

class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;

    const std::string &path() const { return path_; }
    // Writes `content` to path()/name (creating parent folders) and returns the full path.
    std::string write(const std::string &name, const std::string &content) const;
    std::string mkdir(const std::string &name) const;

private:
    std::string path_;
};

std::string read_file(const std::string &path);
// The descriptors process `pid` holds open.
size_t open_descriptors(pid_t pid);
// The exit status of `command` run by the shell (-1: none) and what it printed
// on its standard output and error.
std::pair<int, std::string> run_command(const std::string &command);
// What a real JSON parser makes of `json`: its members in order, as Python
// writes them back, or the parser's complaint (and a failure).
std::string parsed_json(const std::string &json);

// Polls `cond` every `poll_ms` until it holds or `timeout_ms` passes.
template <typename F> bool wait_until(F cond, long timeout_ms, long poll_ms = 1) {
    long deadline = monotonic_ms() + timeout_ms;
    while (!cond()) {
        if (monotonic_ms() > deadline)
            return cond();
        struct timespec ts = {poll_ms / 1000, poll_ms % 1000 * 1000000};
        nanosleep(&ts, nullptr);
    }
    return true;
}

// The next reply frame from `fd`, whose bytes read before wait in `pending`;
// false when none is whole by the time-out. Throws on a stream that is not frames.
bool next_frame(int fd, std::vector<uint8_t> &pending, reply_frame *out, long timeout_ms);

// The bytes of a request frame with these fields.
std::string request_bytes(uint16_t code, const std::vector<std::string> &fields = {});

// The connected client's side of the daemon's socket.
class client_end {
public:
    client_end();  // attaches as the daemon's client (client_attach)
    ~client_end(); // disconnects them
    client_end(const client_end &) = delete;
    client_end &operator=(const client_end &) = delete;

    // Next frame within the deadline; false on time-out.
    bool next(reply_frame *out, long timeout_ms);
    // The frames sent so far, as "code status text|": a marker sent now
    // arrives behind them.
    std::string frames();
    // The next `count` frames, each within `timeout_ms`, as above.
    std::string frames(size_t count, long timeout_ms);

private:
    int fds_[2] = {-1, -1};
    std::vector<uint8_t> pending_;
};

class at_port {
public:
    // Opens the pty and points state().at_fd at its slave, opened by serial_open.
    at_port();
    ~at_port(); // stops the receive thread, closes everything
    at_port(const at_port &) = delete;
    at_port &operator=(const at_port &) = delete;

    void start_rx();
    void stop_rx();
    // Writes bytes as the module would.
    void module_says(const std::string &bytes);
    // What the daemon wrote to the port until `until` (a substring) arrived or the time ran out.
    std::string module_reads(const std::string &until, long timeout_ms);
    // Closes the daemon's side of the port, as a vanished device would leave it.
    void close_port();
    // Closes the module's side: the daemon's side hangs up, as when the module
    // leaves the bus.
    void hang_up();

protected:
    int master_ = -1;
    pthread_t rx_ = 0;
    bool rx_running_ = false;
};

// The next line in urc_ring within the deadline, or "<none>".
std::string urc_next(long timeout_ms);
// The lines in urc_ring ahead of `marker`, as "line|".
std::string urc_before(const std::string &marker);

// The AT port with the modem emulator playing the module and the receive
// thread running: a transaction can run against it as against a module.
class emulated_port : public at_port {
public:
    explicit emulated_port(modem_family family = modem_family::ec200t);
    ~emulated_port();

    modem_emulator &module() { return emu_; }

private:
    modem_emulator emu_;
};

// A fresh daemon state, the emulated module on the port and a connected client.
struct emulated_bench {
    fresh_state fresh;
    emulated_port port;
    client_end client;
};

// The daemon's row for the emulator's module family.
const module_family &family_of(modem_family family);

// Runs one request as the server starts a worker, with a module of `family`
// present: the AT gate taken and worker_busy set, for the worker to give back.
void run_worker(const std::string &raw, modem_family family);

// A fresh daemon state, the AT port with its receive thread and the test
// playing the module, and a connected client. Each look at a side returns what
// arrived there since the previous look: a marker sent now arrives behind it.
class port_test : public testing::Test {
protected:
    port_test() { port.start_rx(); }

    // The bytes the module received.
    std::string module_got();
    // The lines passed on to urc_ring, as "line|".
    std::string urc() { port.module_says("MARK\r\n"); return urc_before("MARK"); }

    fresh_state fresh;
    at_port port;
    client_end client;
};
