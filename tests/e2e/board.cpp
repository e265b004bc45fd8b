#include "e2e/board.h"

#include "client/client.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using clock_type = std::chrono::steady_clock;

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// Lines of "<ms> <text>".
std::vector<std::pair<long long, std::string>> records(const std::string &path) {
    std::vector<std::pair<long long, std::string>> out;
    std::istringstream in(slurp(path));
    std::string line;
    while (std::getline(in, line)) {
        size_t space = line.find(' ');
        if (space == std::string::npos)
            continue;
        out.emplace_back(std::atoll(line.substr(0, space).c_str()), line.substr(space + 1));
    }
    return out;
}

// Polls `ready` until it holds or the time is up; the board's records are
// files, so there is no event to block on.
template <typename Pred>
bool poll_until(std::chrono::milliseconds timeout, Pred ready) {
    auto deadline = clock_type::now() + timeout;
    for (;;) {
        if (ready())
            return true;
        if (clock_type::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

int connect_unix(const std::string &path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        return -1;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int exit_code(int status) { return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status); }

} // namespace

// ---- modem_port

modem_port::~modem_port() {
    if (fd_ >= 0)
        close(fd_);
}

modem_port::modem_port(modem_port &&other) noexcept
    : fd_(other.fd_), closed_(other.closed_), received_(std::move(other.received_)) {
    other.fd_ = -1;
}

modem_port &modem_port::operator=(modem_port &&other) noexcept {
    if (this != &other) {
        if (fd_ >= 0)
            close(fd_);
        fd_ = other.fd_;
        closed_ = other.closed_;
        received_ = std::move(other.received_);
        other.fd_ = -1;
    }
    return *this;
}

bool modem_port::send(const std::string &bytes) {
    size_t done = 0;
    while (fd_ >= 0 && done < bytes.size()) {
        ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return fd_ >= 0;
}

bool modem_port::read_some(int timeout_ms) {
    if (fd_ < 0 || closed_)
        return false;
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0)
        return false;
    char buf[4096];
    ssize_t n = recv(fd_, buf, sizeof buf, 0);
    if (n <= 0) {
        closed_ = true;
        return false;
    }
    received_.append(buf, static_cast<size_t>(n));
    return true;
}

bool modem_port::wait_for(const std::string &text, std::chrono::milliseconds timeout) {
    auto deadline = clock_type::now() + timeout;
    while (received_.find(text) == std::string::npos) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_type::now());
        if (left.count() <= 0 || closed_ || fd_ < 0)
            return false;
        read_some(static_cast<int>(left.count()));
    }
    return true;
}

bool modem_port::wait_closed(std::chrono::milliseconds timeout) {
    auto deadline = clock_type::now() + timeout;
    while (!closed_ && fd_ >= 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_type::now());
        if (left.count() <= 0)
            return false;
        read_some(static_cast<int>(left.count()));
    }
    return true;
}

// ---- sim_board

sim_board::sim_board(board_config config) : config_(std::move(config)) {
    char tmpl[] = "/tmp/zolvin_e2e.XXXXXX";
    if (mkdtemp(tmpl) != nullptr)
        dir_ = tmpl;
}

sim_board::~sim_board() {
    stop();
    // Whatever a test checked, a sanitizer's report from the daemon fails it.
    std::string err = stderr_text();
    if (err.find("Sanitizer") != std::string::npos || err.find("runtime error:") != std::string::npos)
        ADD_FAILURE() << "the daemon's standard error holds a sanitizer report:\n" << err;
    // A board that could not be built says why only in its own log.
    if (exit_status_ == 125)
        fprintf(stderr, "zolvin_simboard failed:\n%s", slurp(path("simboard.log")).c_str());
    if (!dir_.empty() && getenv("ZOLVIN_E2E_KEEP") == nullptr) {
        std::string cmd = "rm -rf '" + dir_ + "'";
        int ignored = system(cmd.c_str());
        (void)ignored;
    }
}

std::string sim_board::skip_reason() {
    if (geteuid() != 0)
        return "the simulated board needs root (mount, network and pid namespaces)";
    return "";
}

std::vector<std::string> sim_board::board_arguments() const {
    std::vector<std::string> a{ZOLVIN_SIMBOARD_BIN, "--work", dir_, "--family", config_.family};
    if (!config_.tty.empty())
        a.insert(a.end(), {"--tty", config_.tty});
    if (!config_.ifname.empty())
        a.insert(a.end(), {"--ifname", config_.ifname});
    if (config_.usb_upper)
        a.emplace_back("--usb-upper");
    if (!config_.net_dir)
        a.emplace_back("--no-net-dir");
    if (!config_.power_line)
        a.emplace_back("--no-power-line");
    if (!config_.reset_line)
        a.emplace_back("--no-reset-line");
    if (config_.conf) {
        std::ofstream(path("board.conf"), std::ios::binary) << *config_.conf;
        a.insert(a.end(), {"--conf", path("board.conf")});
    } else {
        a.emplace_back("--no-conf");
    }
    if (config_.relay_modem)
        a.insert(a.end(), {"--modem", "relay"});
    if (config_.power_replug_ms >= 0)
        a.insert(a.end(), {"--power-replug", std::to_string(config_.power_replug_ms)});
    for (const std::vector<std::string> &words : config_.spawn) {
        a.emplace_back("--spawn");
        a.insert(a.end(), words.begin(), words.end());
        a.emplace_back("--");
    }
    a.emplace_back("--");
    return a;
}

bool sim_board::start_daemon(const std::vector<std::string> &args) {
    std::vector<std::string> command{ZOLVIN_DAEMON_BIN};
    command.insert(command.end(), args.begin(), args.end());
    return start(command);
}

bool sim_board::start(const std::vector<std::string> &command) {
    if (std::string(ZOLVIN_SIMBOARD_BIN).empty()) {
        fprintf(stderr, "zolvin_simboard is not part of this build\n");
        return false;
    }
    if (dir_.empty() || pid_ > 0)
        return false;
    std::vector<std::string> args = board_arguments();
    args.insert(args.end(), command.begin(), command.end());
    std::vector<char *> argv;
    for (std::string &s : args)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    std::string log = path("simboard.log");
    pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        // A test that dies takes its board with it.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent)
            _exit(125);
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int null_fd = open("/dev/null", O_RDONLY);
        if (fd >= 0 && null_fd >= 0) {
            dup2(null_fd, 0);
            dup2(fd, 1);
            dup2(fd, 2);
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid_ > 0;
}

std::optional<int> sim_board::wait_exit(ms timeout) {
    if (exit_status_ || pid_ <= 0)
        return exit_status_;
    int status = 0;
    bool done = poll_until(timeout, [&] {
        pid_t r = waitpid(pid_, &status, WNOHANG);
        return r == pid_ || (r < 0 && errno == ECHILD);
    });
    if (!done)
        return std::nullopt;
    exit_status_ = exit_code(status);
    return exit_status_;
}

void sim_board::stop() {
    if (pid_ <= 0 || exit_status_)
        return;
    kill(pid_, SIGTERM);
    if (!wait_exit(ms(10000))) {
        kill(pid_, SIGKILL);
        wait_exit(ms(10000));
    }
}

bool sim_board::wait_for_stdout(const std::string &text, ms timeout) const {
    return poll_until(timeout, [&] { return stdout_text().find(text) != std::string::npos; });
}

bool sim_board::wait_for_event(const std::string &prefix, ms timeout) const {
    return poll_until(timeout, [&] {
        for (const board_event &e : events()) {
            if (e.text.rfind(prefix, 0) == 0)
                return true;
        }
        return false;
    });
}

bool sim_board::wait_until(const std::function<bool()> &ready, ms timeout) {
    return poll_until(timeout, ready);
}

std::string sim_board::stdout_text() const { return slurp(path("stdout")); }
std::string sim_board::stderr_text() const { return slurp(path("stderr")); }
std::string sim_board::exit_file() const { return slurp(path("exit")); }

long long sim_board::stdout_time(const std::string &text) const {
    size_t at = stdout_text().find(text);
    if (at == std::string::npos)
        return -1;
    long long end = static_cast<long long>(at + text.size());
    for (const auto &r : records(path("stdout.times"))) {
        if (std::atoll(r.second.c_str()) >= end)
            return r.first;
    }
    return -1;
}

std::vector<line_write> sim_board::lines() const {
    std::vector<line_write> out;
    for (const auto &r : records(path("lines.log"))) {
        size_t space = r.second.find(' ');
        if (space != std::string::npos && space + 1 < r.second.size())
            out.push_back({r.first, r.second.substr(0, space), r.second[space + 1]});
    }
    return out;
}

std::vector<command_call> sim_board::calls() const {
    std::vector<command_call> out;
    for (const auto &r : records(path("calls.log")))
        out.push_back({r.first, r.second});
    return out;
}

std::vector<board_event> sim_board::events() const {
    std::vector<board_event> out;
    for (const auto &r : records(path("board.log")))
        out.push_back({r.first, r.second});
    return out;
}

std::string sim_board::control(const std::string &command, ms timeout) {
    int fd = -1;
    poll_until(timeout, [&] { return (fd = connect_unix(path("control.sock"))) >= 0; });
    if (fd < 0)
        return "error no control socket";
    std::string reply;
    std::string line = command + "\n";
    if (::send(fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size())) {
        auto deadline = clock_type::now() + timeout;
        while (reply.find('\n') == std::string::npos) {
            auto left = std::chrono::duration_cast<ms>(deadline - clock_type::now()).count();
            pollfd p{fd, POLLIN, 0};
            char buf[256];
            ssize_t n = left > 0 && poll(&p, 1, static_cast<int>(left)) > 0 ? recv(fd, buf, sizeof buf, 0) : -1;
            if (n <= 0)
                break;
            reply.append(buf, static_cast<size_t>(n));
        }
    }
    close(fd);
    size_t eol = reply.find('\n');
    return eol == std::string::npos ? "error no reply" : reply.substr(0, eol);
}

modem_port sim_board::connect_modem(ms timeout) {
    int fd = -1;
    poll_until(timeout, [&] { return (fd = connect_unix(path("modem.sock"))) >= 0; });
    return modem_port(fd);
}

bool sim_board::modem(modem_control *control, ms timeout) {
    return poll_until(timeout, [&] {
        return control->connect(path("modem.ctl"), 200);
    });
}

std::vector<modem_command> sim_board::at_commands() {
    modem_control control;
    if (!modem(&control))
        return {};
    return control.commands().value_or(std::vector<modem_command>{});
}

int sim_board::connect_client(ms timeout) {
    int fd = -1;
    std::string ns = "/proc/" + std::to_string(pid_) + "/ns/net";
    int ns_fd = open(ns.c_str(), O_RDONLY | O_CLOEXEC);
    if (ns_fd < 0)
        return -1;
    // The namespace is entered by a thread of its own: sockets keep the
    // namespace they were made in, the test's threads keep theirs.
    std::thread([&] {
        if (setns(ns_fd, CLONE_NEWNET) != 0)
            return;
        sockaddr_un addr;
        socklen_t len = server_address(&addr);
        poll_until(timeout, [&] {
            int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (s < 0)
                return false;
            if (::connect(s, reinterpret_cast<sockaddr *>(&addr), len) == 0) {
                fd = s;
                return true;
            }
            close(s);
            return false;
        });
    }).join();
    close(ns_fd);
    return fd;
}
