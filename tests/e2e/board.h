// The simulated board around the real daemon binary, for end-to-end tests.
//
// A sim_board runs zolvin_simboard in the background with a scratch work
// directory and reads back what the board recorded there: the command's
// standard output, the writes to the control lines, the system commands run
// and the board's own events. The module is the modem emulator, driven through
// its control socket; a client_conn talks to the daemon's "@phone_server".
#pragma once

#include "support/test_support.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

using std::chrono::milliseconds;
const milliseconds WAIT(15000);
// The daemon's answer to 911, as show() writes it.
const std::string VERSION = "911/0/ZOLVIN 4G SERVER V1.23";

struct board_config {
    explicit board_config(std::string family_ = "ec200t", std::optional<std::string> conf_ = std::nullopt)
        : family(std::move(family_)), conf(std::move(conf_)) {}
    std::string family;              // ec20, ec200t, ec200s or none
    std::optional<std::string> conf; // content of /etc/zolvin_4g.conf; none: no file
    bool power_line = true;
    bool reset_line = true;
    bool unplugged = false;          // the module comes on the bus only with plug()
    std::string fota_return;         // --fota-return: milliseconds or "never"; "": the board's
    int power_replug_ms = -1;        // --power-replug: a power cycle plugs the module back; -1: it does not
    std::vector<std::vector<std::string>> spawn; // idle processes, by command line
    std::vector<std::pair<std::string, std::string>> etc; // more files in /etc: name, content
};

// One line of a board record: "modprobe option", "rst0", "plugged ec200t ...".
struct record {
    long long ms; // CLOCK_MONOTONIC
    std::string text;
};
// The records' texts from index `from` on.
std::vector<std::string> texts(const std::vector<record> &records, size_t from = 0);
size_t count(const std::vector<std::string> &all, const std::string &text);

// What the daemon runs at start-up and to dial.
const std::vector<std::string> DRIVERS = {"modprobe rndis_host", "modprobe cdc_ether", "modprobe option"};
const std::string DHCP = "busybox udhcpc -f -n -t 5 -q -s /usr/share/udhcpc/zolvin_4g.script -i ";
// The fake ifconfig records its calls, so it shows when a down script of this name ran.
const std::string DOWN_SCRIPT = "ifconfig down_script_ran";
// Each family's dial with the APN cmnet, and a power cycle on the control lines.
const std::string QICSGP = "AT+QICSGP=1,1,\"cmnet\",\"\",\"\",1";
const std::vector<std::string> EC200_DIAL = {"ATE0", "AT+QIDEACT=1", QICSGP, "AT+QIACT=1", "AT+QNETDEVCTL=1,1"};
const std::vector<std::string> EC20_DIAL = {"ATE0", "AT$QCRMCALL=0,1,1,2,1", "AT+QIDEACT=1", QICSGP, "AT+QIACT=1",
                                            "AT$QCRMCALL=1,1,1,2,1"};
const std::vector<std::string> POWER_CYCLE = {"rst1", "pwr0", "rst0", "pwr1"};

inline std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string> &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The far end of the module's link (see the simulated board's README).
const std::string MODULE_ADDRESS = "10.64.0.2", FAR_ADDRESS = "10.64.0.1", SILENT_ADDRESS = "10.64.0.3";

// An echo request as the far end saw it.
struct echo_record {
    long long ms;
    std::string source, destination;
    std::vector<uint8_t> icmp; // the ICMP message, header included
};

struct client_user {
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups; // supplementary
};

class sim_board {
public:
    explicit sim_board(board_config config = board_config());
    ~sim_board(); // stops the board and removes the work directory
    sim_board(const sim_board &) = delete;
    sim_board &operator=(const sim_board &) = delete;

    // Why the board cannot run here (not root), or empty.
    static std::string skip_reason();
    // Polls `ready` (over the records, say) until it holds or the time is up:
    // the board's records are files, with no event to block on.
    static bool wait_until(const std::function<bool()> &ready, milliseconds timeout = WAIT,
                           milliseconds poll = milliseconds(2)) {
        return ::wait_until(ready, timeout.count(), poll.count());
    }

    // Runs the daemon binary with `args` on the board, or any command.
    bool start_daemon(const std::vector<std::string> &args = {});
    bool start(const std::vector<std::string> &command);
    // The board's exit status (128 + signal when killed), or none if it still
    // runs after `timeout`.
    std::optional<int> wait_exit(milliseconds timeout);
    // SIGTERM, then SIGKILL if the board has not gone after a while.
    void stop();

    std::string stdout_text() const { return read_file(path("stdout")); }
    std::string stderr_text() const { return read_file(path("stderr")); }
    std::string exit_file() const { return read_file(path("exit")); }
    // When the board had received each occurrence of `text` on standard output.
    std::vector<long long> stdout_times(const std::string &text) const;
    std::vector<record> lines() const; // "pwr1", "rst0"
    std::vector<record> calls() const; // argv joined by spaces, program by its base name
    std::vector<record> events() const;
    // Echo requests that reached the far end of the module's link.
    std::vector<echo_record> pings() const;
    bool called(const std::string &text) const;
    // The first event that begins with `prefix`, or "".
    std::string event(const std::string &prefix) const;

    // One command on the board's control socket; its reply line.
    std::string control(const std::string &command);
    bool plug() { return control("plug").rfind("ok", 0) == 0; }
    bool unplug() { return control("unplug").rfind("ok unplugged", 0) == 0; }
    // Connects `control` to the modem emulator; false when it could not in time.
    bool modem(modem_control *control) {
        return wait_until([&] { return control->connect(path("modem.ctl"), 200); });
    }
    // A socket connected to "@phone_server" in the board's network namespace,
    // or -1 when none could connect in time. With `as`, a thread of that
    // user and groups makes the connection, so the daemon sees those credentials.
    int connect_client(milliseconds timeout = WAIT, const client_user *as = nullptr) {
        return connect_to(server_address, timeout, as);
    }
    // The same on "@phone_events": a subscriber.
    int connect_subscriber(milliseconds timeout = WAIT, const client_user *as = nullptr) {
        return connect_to(events_address, timeout, as);
    }
    // Binds the daemon's socket name in the board's network namespace as
    // `as`, and lets it go at once: 0 when the name was free, else the errno.
    int bind_server_name(const client_user &as);
    // Runs `fn` on a thread of its own in the board's network namespace, with
    // the credentials of `as` if given.
    void in_network(const std::function<void()> &fn, const client_user *as = nullptr) const;
    // The daemon's pid on the host, or -1.
    pid_t daemon_pid() const;

    pid_t pid() const { return pid_; }
    std::string path(const std::string &name) const { return dir_ + "/" + name; }

private:
    int connect_to(socklen_t (*address)(sockaddr_un *), milliseconds timeout, const client_user *as);
    board_config config_;
    std::string dir_;
    pid_t pid_ = -1;
    std::optional<int> exit_status_;
};

// A process's resident memory in kB or -1: VmRSS, or under an emulator the
// resident pages of the daemon's own address range.
long resident_kb(pid_t pid);

// One connection to the daemon's socket.
class client_conn {
public:
    explicit client_conn(int fd) : fd_(fd) {}
    ~client_conn() { close(); }
    client_conn(const client_conn &) = delete;
    client_conn &operator=(const client_conn &) = delete;

    bool valid() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    void close() { if (fd_ >= 0) ::close(std::exchange(fd_, -1)); }
    bool send(uint16_t code, const std::vector<std::string> &fields = {});
    // The next frame from the daemon; none after the time-out.
    std::optional<reply_frame> next(milliseconds timeout);
    // The first frame with `code`, also one met before while waiting for
    // another; frames of other codes met meanwhile go to `others`.
    std::optional<reply_frame> reply(uint16_t code, milliseconds timeout = WAIT);
    // "code/status/text" of the reply to a request.
    std::string ask(uint16_t code, const std::vector<std::string> &fields = {});
    // As ask(), sent again while the answer is busy: a worker replies before it
    // frees the port, so a request right after a reply may still find it busy.
    std::string ask_settled(uint16_t code, const std::vector<std::string> &fields = {});
    // Waits until 912 answers with this state text (so the module is ready).
    bool state_becomes(const std::string &state);

    std::vector<reply_frame> others;

private:
    int fd_;
    std::vector<uint8_t> pending_;
};

// A client that has been answered (911). One that connects while another is
// still served is closed at once: it connects again, as a real client does.
std::unique_ptr<client_conn> served_client(sim_board &board);
std::string show(const std::optional<reply_frame> &f);
// The frames shown up to and including the first one shown as `last`, or all
// that came within WAIT of each other.
std::vector<std::string> frames_until(client_conn &c, const std::string &last);
// True when the daemon closes the connection without a frame (a reset when
// it closed with the requests still unread).
bool closed_without_reply(int fd, milliseconds within = WAIT);
// Polls `ready` every 50 ms, as each poll may be a request to the daemon.
inline bool eventually(const std::function<bool()> &ready, milliseconds timeout = WAIT) {
    return sim_board::wait_until(ready, timeout, milliseconds(50));
}

// The emulator's record from index `from` on, and the index of the next command.
std::vector<std::string> commands_since(modem_control &emu, size_t from = 0);
size_t next_index(modem_control &emu);

// The daemon with the emulator as its module and a client connected once the
// module is open.
struct ready_board {
    explicit ready_board(board_config config = board_config()) : board(std::move(config)) {}
    bool start();
    sim_board board;
    modem_control emu;
    std::unique_ptr<client_conn> client;
};

// Skips without root; else declares `b`, a ready_board of the arguments, and
// ends the test if the daemon does not come up on it with a client.
#define READY_BOARD(b, ...)                                                                           \
    SKIP_WITHOUT_BOARD();                                                                             \
    ready_board b{__VA_ARGS__};                                                                       \
    ASSERT_TRUE(b.start())

#define SKIP_WITHOUT_BOARD()                                                                          \
    do {                                                                                              \
        if (std::string reason_ = sim_board::skip_reason(); !reason_.empty())                         \
            GTEST_SKIP() << reason_;                                                                  \
    } while (0)
