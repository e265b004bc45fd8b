// The simulated board around the real daemon binary, for end-to-end tests.
//
// A sim_board runs zolvin_simboard in the background with a scratch work
// directory, and reads back what the board recorded there: the command's
// standard output, the writes to the control lines, the system commands run,
// and the board's own events. A test can also play the module through the AT
// port's other end, and unplug and re-plug the module.
#pragma once

#include "modem_emu/modem_emu.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

struct board_config {
    std::string family = "ec200t"; // ec20, ec200t, ec200s or none
    std::string tty;                // empty: the family's own
    std::string ifname;             // empty: the family's own
    bool usb_upper = false;
    bool net_dir = true;
    bool power_line = true;
    bool reset_line = true;
    std::optional<std::string> conf; // content of /etc/zolvin_4g.conf; none: no file
    int power_replug_ms = -1;        // >= 0: power "0" unplugs, power "1" re-plugs after this
    bool relay_modem = false;        // play the module through connect_modem(), not the emulator
    std::vector<std::vector<std::string>> spawn; // idle processes, by command line
};

inline board_config board_for(const std::string &family) {
    board_config c;
    c.family = family;
    return c;
}

struct line_write {
    long long ms;     // CLOCK_MONOTONIC
    std::string line; // "pwr" or "rst"
    char value;
};

struct command_call {
    long long ms;
    std::string text; // argv joined by single spaces, program by its base name
};

struct board_event {
    long long ms;
    std::string text; // e.g. "spawned 2 /usr/bin/dialer -s apn", "unplugged", "exit 0"
};

// The module's end of the AT port.
class modem_port {
public:
    explicit modem_port(int fd = -1) : fd_(fd) {}
    ~modem_port();
    modem_port(modem_port &&other) noexcept;
    modem_port &operator=(modem_port &&other) noexcept;
    modem_port(const modem_port &) = delete;
    modem_port &operator=(const modem_port &) = delete;

    bool connected() const { return fd_ >= 0; }
    bool send(const std::string &bytes);
    // True once everything received so far contains `text`.
    bool wait_for(const std::string &text, std::chrono::milliseconds timeout);
    // True once the board has closed this end (module unplugged or board gone).
    bool wait_closed(std::chrono::milliseconds timeout);
    const std::string &received() const { return received_; }

private:
    bool read_some(int timeout_ms);

    int fd_;
    bool closed_ = false;
    std::string received_;
};

class sim_board {
public:
    using ms = std::chrono::milliseconds;

    explicit sim_board(board_config config = {});
    ~sim_board(); // stops the board and removes the work directory
    sim_board(const sim_board &) = delete;
    sim_board &operator=(const sim_board &) = delete;

    // Why the board cannot run here (not root), or empty.
    static std::string skip_reason();

    // Runs the daemon binary with `args` on the board.
    bool start_daemon(const std::vector<std::string> &args = {});
    // Runs any command on the board (PATH as on the board, fake commands first).
    bool start(const std::vector<std::string> &command);

    bool wait_for_stdout(const std::string &text, ms timeout) const;
    // The board's exit status (the command's, 128 + signal when killed), or none
    // if it is still running after `timeout`.
    std::optional<int> wait_exit(ms timeout);
    bool wait_for_event(const std::string &prefix, ms timeout) const;
    // Polls `ready` (over the records, say) until it holds or the time is up.
    static bool wait_until(const std::function<bool()> &ready, ms timeout);
    bool running() { return pid_ > 0 && !wait_exit(ms(0)); }

    std::string stdout_text() const;
    std::string stderr_text() const;
    // When the board had received standard output up to the end of the first
    // `text`; -1 if it has not.
    long long stdout_time(const std::string &text) const;
    std::vector<line_write> lines() const;
    std::vector<command_call> calls() const;
    std::vector<board_event> events() const;
    std::string exit_file() const;

    // One command on the control socket ("plug", "unplug", "status"); the reply line.
    std::string control(const std::string &command, ms timeout = ms(5000));
    bool unplug() { return control("unplug").rfind("ok", 0) == 0; }
    bool plug() { return control("plug").rfind("ok", 0) == 0; }
    modem_port connect_modem(ms timeout = ms(5000));
    // The modem emulator's control (boards without relay_modem); false when it
    // could not be reached in time.
    bool modem(modem_control *control, ms timeout = ms(5000));
    // Every AT command the emulator received so far, in order.
    std::vector<modem_command> at_commands();
    // A client socket connected to the daemon's "@phone_server" in the board's
    // network namespace, or -1 when none could connect in time.
    int connect_client(ms timeout = ms(5000));

    // SIGTERM, then SIGKILL if the board has not gone after a while.
    void stop();
    pid_t pid() const { return pid_; }
    const std::string &dir() const { return dir_; }
    std::string path(const std::string &name) const { return dir_ + "/" + name; }

private:
    std::vector<std::string> board_arguments() const;

    board_config config_;
    std::string dir_;
    pid_t pid_ = -1;
    std::optional<int> exit_status_;
};

#define SKIP_WITHOUT_BOARD()                                                                          \
    do {                                                                                              \
        std::string reason_ = sim_board::skip_reason();                                               \
        if (!reason_.empty())                                                                         \
            GTEST_SKIP() << reason_;                                                                  \
    } while (0)
