#include "e2e/board.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
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

namespace {

using clock_type = std::chrono::steady_clock;

// Lines of "<ms> <text>".
std::vector<record> records(const std::string &path) {
    std::vector<record> out;
    std::istringstream in(read_file(path));
    std::string line;
    while (std::getline(in, line)) {
        size_t space = line.find(' ');
        if (space != std::string::npos)
            out.push_back({std::atoll(line.c_str()), line.substr(space + 1)});
    }
    return out;
}

std::string link_target(const std::string &path) {
    char buf[4096];
    ssize_t n = readlink(path.c_str(), buf, sizeof buf);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

#ifdef ZOLVIN_DAEMON_COMMAND
const std::vector<std::string> DAEMON_COMMAND{ZOLVIN_DAEMON_COMMAND};
#else
const std::vector<std::string> DAEMON_COMMAND{ZOLVIN_DAEMON_BIN};
#endif

// Whether the process at /proc/PID `dir` is the daemon.
bool runs_daemon(const std::string &dir) {
#ifdef ZOLVIN_DAEMON_COMMAND
    // Under an emulator the binary is the emulator's: the command line tells.
    std::string words;
    for (const std::string &w : DAEMON_COMMAND)
        words += w + '\0';
    return read_file(dir + "/cmdline").rfind(words, 0) == 0;
#else
    return link_target(dir + "/exe") == ZOLVIN_DAEMON_BIN;
#endif
}

} // namespace

std::vector<std::string> texts(const std::vector<record> &records, size_t from) {
    std::vector<std::string> out;
    for (size_t i = from; i < records.size(); ++i)
        out.push_back(records[i].text);
    return out;
}

size_t count(const std::vector<std::string> &all, const std::string &text) {
    return static_cast<size_t>(std::count(all.begin(), all.end(), text));
}

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
        fprintf(stderr, "zolvin_simboard failed:\n%s", read_file(path("simboard.log")).c_str());
    std::error_code ignored;
    if (!dir_.empty() && getenv("ZOLVIN_E2E_KEEP") == nullptr)
        std::filesystem::remove_all(dir_, ignored);
}

std::string sim_board::skip_reason() {
    return geteuid() == 0 ? "" : "the simulated board needs root (mount, network and pid namespaces)";
}

bool sim_board::start_daemon(const std::vector<std::string> &args) { return start(DAEMON_COMMAND + args); }

bool sim_board::start(const std::vector<std::string> &command) {
    if (dir_.empty() || pid_ > 0)
        return false;
    std::vector<std::string> a{ZOLVIN_SIMBOARD_BIN, "--work", dir_, "--family", config_.family};
    if (!config_.power_line)
        a.emplace_back("--no-power-line");
    if (!config_.reset_line)
        a.emplace_back("--no-reset-line");
    if (config_.unplugged)
        a.emplace_back("--unplugged");
    if (config_.power_replug_ms >= 0)
        a.insert(a.end(), {"--power-replug", std::to_string(config_.power_replug_ms)});
    if (!config_.fota_return.empty())
        a.insert(a.end(), {"--fota-return", config_.fota_return});
    if (config_.conf) {
        std::ofstream(path("board.conf"), std::ios::binary) << *config_.conf;
        a.insert(a.end(), {"--conf", path("board.conf")});
    }
    for (const auto &[name, content] : config_.etc) {
        std::ofstream(path("etc." + name), std::ios::binary) << content;
        a.insert(a.end(), {"--etc", name, path("etc." + name)});
    }
    for (const std::vector<std::string> &words : config_.spawn) {
        a.emplace_back("--spawn");
        a.insert(a.end(), words.begin(), words.end());
        a.emplace_back("--");
    }
    a.emplace_back("--");
    a.insert(a.end(), command.begin(), command.end());
    std::vector<char *> argv;
    for (std::string &s : a)
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
        dup2(null_fd, 0);
        dup2(fd, 1);
        dup2(fd, 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid_ > 0;
}

std::optional<int> sim_board::wait_exit(milliseconds timeout) {
    if (exit_status_ || pid_ <= 0)
        return exit_status_;
    int status = 0;
    if (!wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout))
        return std::nullopt;
    exit_status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return exit_status_;
}

void sim_board::stop() {
    if (pid_ <= 0 || exit_status_)
        return;
    kill(pid_, SIGTERM);
    if (!wait_exit(milliseconds(10000))) {
        kill(pid_, SIGKILL);
        wait_exit(milliseconds(10000));
    }
}

std::vector<record> sim_board::calls() const { return records(path("calls.log")); }
std::vector<record> sim_board::events() const { return records(path("board.log")); }

std::vector<echo_record> sim_board::pings() const {
    std::vector<echo_record> out;
    for (const record &r : records(path("pings.log"))) {
        std::istringstream words(r.text);
        echo_record e{r.ms, {}, {}, {}};
        std::string hex;
        words >> e.source >> e.destination >> hex;
        for (size_t i = 0; i + 1 < hex.size(); i += 2)
            e.icmp.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
        out.push_back(e);
    }
    return out;
}

std::vector<record> sim_board::lines() const {
    std::vector<record> out = records(path("lines.log"));
    for (record &r : out)
        r.text.erase(3, r.text.size() > 4 ? 1 : 0); // "pwr 1" as "pwr1"
    return out;
}

bool sim_board::called(const std::string &text) const { return count(texts(calls()), text) > 0; }

std::string sim_board::event(const std::string &prefix) const {
    for (const record &e : events()) {
        if (e.text.rfind(prefix, 0) == 0)
            return e.text;
    }
    return "";
}

std::vector<long long> sim_board::stdout_times(const std::string &text) const {
    // stdout.times holds "<ms> <bytes received so far>".
    std::vector<record> marks = records(path("stdout.times"));
    std::string out = stdout_text();
    std::vector<long long> times;
    for (size_t at = out.find(text); at != std::string::npos; at = out.find(text, at + 1)) {
        auto seen = std::find_if(marks.begin(), marks.end(), [&](const record &m) {
            return std::atoll(m.text.c_str()) >= static_cast<long long>(at + text.size());
        });
        if (seen != marks.end())
            times.push_back(seen->ms);
    }
    return times;
}

std::string sim_board::control(const std::string &command) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string sock = path("control.sock");
    memcpy(addr.sun_path, sock.c_str(), std::min(sock.size(), sizeof addr.sun_path - 1));
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval limit{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    std::string reply, line = command + "\n";
    char c;
    if (wait_until([&] { return ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0; }) &&
        ::send(fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size())) {
        while (recv(fd, &c, 1, 0) == 1 && c != '\n')
            reply += c;
    }
    ::close(fd);
    return reply;
}

void sim_board::in_network(const std::function<void()> &fn, const client_user *as) const {
    // Namespaces and credentials are the thread's own, and what it makes keeps
    // them. The raw calls change this thread alone (the C library's wrappers
    // would change every thread), and it ends with them.
    int ns_fd = open(("/proc/" + std::to_string(pid_) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
    if (ns_fd < 0)
        return;
    std::thread([&] {
        if (setns(ns_fd, CLONE_NEWNET) == 0 &&
            (as == nullptr || (syscall(SYS_setgroups, as->groups.size(), as->groups.data()) == 0 &&
                               syscall(SYS_setresgid, as->gid, as->gid, as->gid) == 0 &&
                               syscall(SYS_setresuid, as->uid, as->uid, as->uid) == 0)))
            fn();
    }).join();
    close(ns_fd);
}

int sim_board::bind_server_name(const client_user &as) {
    int error = -1;
    in_network([&] {
        sockaddr_un addr;
        socklen_t len = server_address(&addr);
        int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        error = bind(s, reinterpret_cast<sockaddr *>(&addr), len) == 0 ? 0 : errno;
        ::close(s);
    }, &as);
    return error;
}

int sim_board::connect_to(socklen_t (*address)(sockaddr_un *), milliseconds timeout, const client_user *as) {
    // The board has its network namespace once it serves its control socket.
    wait_until([&] { return access(path("control.sock").c_str(), F_OK) == 0; }, timeout);
    int fd = -1;
    // The daemon sees the credentials of the connecting thread.
    in_network([&] {
        sockaddr_un addr;
        socklen_t len = address(&addr);
        wait_until(
            [&] {
                int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
                if (::connect(s, reinterpret_cast<sockaddr *>(&addr), len) == 0) {
                    fd = s;
                    return true;
                }
                ::close(s);
                return false;
            },
            timeout);
    }, as);
    return fd;
}

pid_t sim_board::daemon_pid() const {
    // The process in the board's network namespace that runs the daemon.
    std::string ns = link_target("/proc/" + std::to_string(pid_) + "/ns/net");
    for (const std::filesystem::directory_entry &e : std::filesystem::directory_iterator("/proc")) {
        if (runs_daemon(e.path()) && link_target(e.path() / "ns/net") == ns)
            return std::atoi(e.path().filename().c_str());
    }
    return -1;
}

long resident_kb(pid_t pid) {
#ifdef ZOLVIN_DAEMON_MEMORY
    const unsigned long long range[] = {ZOLVIN_DAEMON_MEMORY};
    std::istringstream in(read_file("/proc/" + std::to_string(pid) + "/smaps"));
    std::string line;
    long kb = -1;
    bool inside = false;
    while (std::getline(in, line)) {
        unsigned long long from = 0, to = 0;
        if (std::sscanf(line.c_str(), "%llx-%llx ", &from, &to) == 2)
            inside = from >= range[0] && to <= range[1];
        else if (inside && line.rfind("Rss:", 0) == 0)
            kb = std::max(kb, 0L) + std::atol(line.c_str() + 4);
    }
    return kb;
#else
    std::istringstream in(read_file("/proc/" + std::to_string(pid) + "/status"));
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmRSS:", 0) == 0)
            return std::atol(line.c_str() + 6);
    }
    return -1;
#endif
}

// ---- client_conn

bool client_conn::send(uint16_t code, const std::vector<std::string> &fields) {
    std::string bytes = request_bytes(code, fields);
    return fd_ >= 0 && ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::optional<reply_frame> client_conn::next(milliseconds timeout) {
    reply_frame f;
    if (fd_ >= 0 && next_frame(fd_, pending_, &f, static_cast<long>(timeout.count())))
        return f;
    return std::nullopt;
}

std::optional<reply_frame> client_conn::reply(uint16_t code, milliseconds timeout) {
    auto early = std::find_if(others.begin(), others.end(), [&](const reply_frame &f) { return f.code == code; });
    if (early != others.end()) {
        reply_frame f = *early;
        others.erase(early);
        return f;
    }
    auto deadline = clock_type::now() + timeout;
    for (;;) {
        auto left = std::chrono::duration_cast<milliseconds>(deadline - clock_type::now());
        std::optional<reply_frame> f = next(std::max(left, milliseconds(0)));
        if (!f || f->code == code)
            return f;
        others.push_back(*f);
    }
}

std::string client_conn::ask(uint16_t code, const std::vector<std::string> &fields) {
    return send(code, fields) ? show(reply(code)) : "<not sent>";
}

std::string client_conn::ask_settled(uint16_t code, const std::vector<std::string> &fields) {
    std::string r;
    eventually([&] { return (r = ask(code, fields)).rfind(std::to_string(code) + "/12/", 0) != 0; });
    return r;
}

bool client_conn::state_becomes(const std::string &state) {
    return eventually([&] { return ask(912) == "912/0/" + state; });
}

bool ready_board::start() {
    if (!board.start_daemon() || !board.modem(&emu))
        return false;
    client = std::make_unique<client_conn>(board.connect_client());
    return client->valid() && eventually([&] { return client->ask(912).rfind("912/0/", 0) == 0; });
}

std::unique_ptr<client_conn> served_client(sim_board &board) {
    std::unique_ptr<client_conn> c;
    eventually([&] {
        c = std::make_unique<client_conn>(board.connect_client());
        return c->ask(911) == VERSION;
    });
    return c;
}

std::string show(const std::optional<reply_frame> &f) {
    return f ? std::to_string(f->code) + "/" + std::to_string(f->status) + "/" + std::string(f->text, f->text_len)
             : "<none>";
}

bool closed_without_reply(int fd, milliseconds within) {
    pollfd p{fd, POLLIN, 0};
    char byte;
    if (poll(&p, 1, static_cast<int>(within.count())) != 1)
        return false;
    ssize_t n = recv(fd, &byte, 1, MSG_DONTWAIT);
    return n == 0 || (n < 0 && errno == ECONNRESET);
}

std::vector<std::string> frames_until(client_conn &c, const std::string &last) {
    std::vector<std::string> got;
    while (std::optional<reply_frame> f = c.next(WAIT)) {
        got.push_back(show(f));
        if (got.back() == last)
            break;
    }
    return got;
}

std::vector<std::string> commands_since(modem_control &emu, size_t from) {
    std::vector<std::string> out;
    for (const modem_command &c : emu.commands(from).value_or(std::vector<modem_command>{}))
        out.push_back(c.text);
    return out;
}

size_t next_index(modem_control &emu) {
    std::optional<std::vector<modem_command>> all = emu.commands();
    return all && !all->empty() ? all->back().index + 1 : 0;
}
