// The control socket of the emulator, and its client.
#include "modem_emu/modem_emu.h"

#include "words.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

// Requests longer than this are no protocol the client speaks.
constexpr size_t MAX_REQUEST = 1 << 20;
constexpr int REQUEST_TIMEOUT_MS = 5000;

bool parse_number(const std::string &word, long long *value) {
    if (word.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    long long v = std::strtoll(word.c_str(), &end, 10);
    if (errno != 0 || *end != '\0')
        return false;
    *value = v;
    return true;
}

bool parse_int(const std::string &word, int *value) {
    long long v = 0;
    if (!parse_number(word, &v) || v < 0 || v > 86400000)
        return false;
    *value = static_cast<int>(v);
    return true;
}

bool parse_switch(const std::string &word, bool *on) {
    if (word != "on" && word != "off")
        return false;
    *on = word == "on";
    return true;
}

const char *state_name(modem_command::body_state state) {
    switch (state) {
    case modem_command::body_state::none:
        return "none";
    case modem_command::body_state::awaited:
        return "awaited";
    case modem_command::body_state::complete:
        return "complete";
    case modem_command::body_state::aborted:
        return "aborted";
    }
    return "?";
}

bool parse_state(const std::string &word, modem_command::body_state *state) {
    for (auto s : {modem_command::body_state::none, modem_command::body_state::awaited,
                   modem_command::body_state::complete, modem_command::body_state::aborted}) {
        if (word == state_name(s)) {
            *state = s;
            return true;
        }
    }
    return false;
}

// "<index> <ms> <text> <state> <body>"
std::string record_words(const modem_command &c) {
    return std::to_string(c.index) + " " + std::to_string(c.ms) + " " + control_quote(c.text) +
           " " + state_name(c.state) + " " + control_quote(c.body);
}

bool parse_record(const std::vector<std::string> &w, size_t at, modem_command *c) {
    long long index = 0, ms = 0;
    if (w.size() != at + 5 || !parse_number(w[at], &index) || index < 0 ||
        !parse_number(w[at + 1], &ms) || !parse_state(w[at + 3], &c->state))
        return false;
    c->index = static_cast<size_t>(index);
    c->ms = ms;
    c->text = w[at + 2];
    c->body = w[at + 4];
    return true;
}

// reply MODE MATCH [once] [body] [held] [delay MS] [gap MS] KIND ARGS...
bool parse_reply(const std::vector<std::string> &w, std::string *match, modem_match *how,
                 modem_reply *reply, std::string *why) {
    if (w.size() < 4) {
        *why = "reply needs a mode, a match and a kind";
        return false;
    }
    if (w[1] == "exact") {
        *how = modem_match::exact;
    } else if (w[1] == "prefix") {
        *how = modem_match::prefix;
    } else {
        *why = "mode is exact or prefix";
        return false;
    }
    *match = w[2];
    modem_reply options;
    size_t i = 3;
    for (; i < w.size(); ++i) {
        if (w[i] == "once") {
            options.once = true;
        } else if (w[i] == "body") {
            options.body = true;
        } else if (w[i] == "held") {
            options.held = true;
        } else if ((w[i] == "delay" || w[i] == "gap") && i + 1 < w.size()) {
            if (!parse_int(w[i + 1], w[i] == "delay" ? &options.delay_ms : &options.gap_ms)) {
                *why = "bad " + w[i];
                return false;
            }
            ++i;
        } else {
            break;
        }
    }
    if (i >= w.size()) {
        *why = "reply needs a kind";
        return false;
    }
    const std::string &kind = w[i];
    std::vector<std::string> args(w.begin() + static_cast<long>(i) + 1, w.end());
    int code = 0;
    if (kind == "lines") {
        *reply = modem_reply::with_lines(args);
    } else if (kind == "ok" && args.empty()) {
        *reply = modem_reply::ok();
    } else if (kind == "error" && args.empty()) {
        *reply = modem_reply::error();
    } else if ((kind == "cme" || kind == "cms") && args.size() == 1 && parse_int(args[0], &code)) {
        *reply = kind == "cme" ? modem_reply::cme_error(code) : modem_reply::cms_error(code);
    } else if (kind == "raw" && args.size() == 1) {
        std::string bytes;
        if (!control_unhex(args[0], &bytes)) {
            *why = "bad hex";
            return false;
        }
        *reply = modem_reply::raw_bytes(bytes);
    } else if (kind == "silence" && args.empty()) {
        *reply = modem_reply::silence();
    } else if (kind == "standard" && args.empty()) {
        *reply = modem_reply::standard();
    } else {
        *why = "bad kind " + kind;
        return false;
    }
    reply->delay_ms = options.delay_ms;
    reply->gap_ms = options.gap_ms;
    reply->once = options.once;
    reply->body = options.body;
    reply->held = options.held;
    return true;
}

// Writes everything unless `stop_fd` becomes readable first.
bool send_all(int fd, const std::string &data, int stop_fd) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno != EAGAIN)
            return false;
        pollfd fds[2] = {{fd, POLLOUT, 0}, {stop_fd, POLLIN, 0}};
        if (poll(fds, stop_fd >= 0 ? 2 : 1, 1000) < 0 && errno != EINTR)
            return false;
        if (fds[1].revents & POLLIN)
            return false;
    }
    return true;
}

} // namespace

// Server side.

bool modem_emulator::serve_control(const std::string &path) {
    std::lock_guard<std::mutex> lock(control_mu_);
    sockaddr_un addr{};
    if (control_listen_ >= 0 || path.empty() || path.size() >= sizeof addr.sun_path)
        return false;
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size());
    int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0)
        return false;
    int p[2] = {-1, -1};
    unlink(path.c_str());
    if (bind(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(s, 8) != 0 ||
        pipe2(p, O_CLOEXEC | O_NONBLOCK) != 0) {
        ::close(s);
        return false;
    }
    control_listen_ = s;
    control_stop_rd_ = p[0];
    control_stop_wr_ = p[1];
    control_path_ = path;
    control_closing_ = false;
    control_thread_ = std::thread(&modem_emulator::accept_loop, this);
    return true;
}

void modem_emulator::stop_control() {
    std::thread acceptor;
    {
        std::lock_guard<std::mutex> lock(control_mu_);
        if (control_listen_ < 0)
            return;
        control_closing_ = true;
        // Never drained: every control thread sees it until they have all ended.
        ssize_t ignored = write(control_stop_wr_, "", 1);
        (void)ignored;
        acceptor = std::move(control_thread_);
    }
    {
        // Ends a "wait" that a connection is blocked in.
        std::lock_guard<std::mutex> lock(mu_);
        changed_.notify_all();
    }
    acceptor.join();
    std::vector<std::thread> connections;
    {
        std::lock_guard<std::mutex> lock(control_mu_);
        connections.swap(connections_);
    }
    for (std::thread &t : connections)
        t.join();
    std::lock_guard<std::mutex> lock(control_mu_);
    ::close(control_listen_);
    ::close(control_stop_rd_);
    ::close(control_stop_wr_);
    unlink(control_path_.c_str());
    control_listen_ = control_stop_rd_ = control_stop_wr_ = -1;
}

void modem_emulator::accept_loop() {
    for (;;) {
        pollfd fds[2] = {{control_listen_, POLLIN, 0}, {control_stop_rd_, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR)
            return;
        if (fds[1].revents & POLLIN)
            return;
        if (!(fds[0].revents & POLLIN))
            continue;
        int c = accept4(control_listen_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (c < 0)
            continue;
        std::lock_guard<std::mutex> lock(control_mu_);
        connections_.emplace_back(&modem_emulator::serve_connection, this, c);
    }
}

void modem_emulator::serve_connection(int fd) {
    std::string in;
    for (;;) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {control_stop_rd_, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR)
            break;
        if (fds[1].revents & POLLIN)
            break;
        if (!(fds[0].revents & (POLLIN | POLLHUP | POLLERR)))
            continue;
        char buf[4096];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (n <= 0)
            break;
        in.append(buf, static_cast<size_t>(n));
        bool failed = false;
        size_t nl;
        while (!failed && (nl = in.find('\n')) != std::string::npos) {
            std::string line = in.substr(0, nl);
            in.erase(0, nl + 1);
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            failed = !send_all(fd, control_answer(line), control_stop_rd_);
        }
        if (failed || in.size() > MAX_REQUEST)
            break;
    }
    ::close(fd);
}

std::string modem_emulator::control_answer(const std::string &line) {
    std::vector<std::string> w;
    if (!control_split(line, &w))
        return "error bad quoting\n";
    if (w.empty())
        return "error empty request\n";
    const std::string &op = w[0];
    bool on = false;
    if (op == "ping" && w.size() == 1)
        return "ok\n";
    if (op == "reply") {
        std::string match, why;
        modem_match how = modem_match::exact;
        modem_reply reply;
        if (!parse_reply(w, &match, &how, &reply, &why))
            return "error " + why + "\n";
        set_reply(match, reply, how);
        return "ok\n";
    }
    if (op == "clear" && w.size() <= 2) {
        if (w.size() == 1)
            clear_replies();
        else
            clear_replies(w[1]);
        return "ok\n";
    }
    if (op == "inject" && w.size() >= 2) {
        inject_lines(std::vector<std::string>(w.begin() + 1, w.end()));
        return "ok\n";
    }
    if (op == "sms" && w.size() == 5) {
        deliver_sms(w[1], w[2], w[3], w[4]);
        return "ok\n";
    }
    if (op == "inject-raw" && w.size() == 2) {
        std::string bytes;
        if (!control_unhex(w[1], &bytes))
            return "error bad hex\n";
        inject_raw(bytes);
        return "ok\n";
    }
    if ((op == "silence" || op == "echo" || op == "garbage") && w.size() == 2 &&
        parse_switch(w[1], &on)) {
        if (op == "silence")
            set_silent(on);
        else if (op == "echo")
            set_echo_dropped(!on);
        else
            set_garbage(on);
        return "ok\n";
    }
    if (op == "family" && w.size() == 2) {
        modem_family f;
        if (!modem_family_parse(w[1], &f))
            return "error unknown family\n";
        set_family(f);
        return "ok\n";
    }
    if (op == "release" && w.size() == 1) {
        release();
        return "ok\n";
    }
    if (op == "reboot" && w.size() == 1) {
        reboot();
        return "ok\n";
    }
    if (op == "forget" && w.size() == 1) {
        forget_commands();
        return "ok\n";
    }
    if (op == "log" && w.size() == 2) {
        if (!set_log_file(w[1] == "off" ? "" : w[1]))
            return "error cannot open the log file\n";
        return "ok\n";
    }
    long long from = 0;
    if (op == "commands" && w.size() <= 2) {
        if (w.size() == 2 && (!parse_number(w[1], &from) || from < 0))
            return "error bad index\n";
        std::string out;
        size_t count = 0;
        for (const modem_command &c : commands()) {
            if (c.index < static_cast<size_t>(from))
                continue;
            out += "cmd " + record_words(c) + "\n";
            ++count;
        }
        return out + "ok " + std::to_string(count) + "\n";
    }
    int timeout = 0;
    if (op == "wait" && (w.size() == 3 || w.size() == 4)) {
        if (!parse_int(w[2], &timeout) ||
            (w.size() == 4 && (!parse_number(w[3], &from) || from < 0)))
            return "error bad number\n";
        auto c = wait_impl(w[1], timeout, static_cast<size_t>(from), &control_closing_);
        if (!c)
            return "error timeout\n";
        return "ok " + record_words(*c) + "\n";
    }
    return "error unknown request " + control_quote(op) + "\n";
}

// Client side.

modem_control::~modem_control() { close(); }

void modem_control::close() {
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    in_.clear();
}

bool modem_control::connect(const std::string &path, int timeout_ms) {
    close();
    sockaddr_un addr{};
    if (path.empty() || path.size() >= sizeof addr.sun_path) {
        error_ = "bad socket path";
        return false;
    }
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size());
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (s < 0) {
            error_ = strerror(errno);
            return false;
        }
        if (::connect(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) {
            fd_ = s;
            return true;
        }
        error_ = strerror(errno);
        ::close(s);
        // The emulator may not be listening yet.
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

bool modem_control::request(const std::vector<std::string> &words, int timeout_ms,
                            std::vector<std::vector<std::string>> *data,
                            std::vector<std::string> *result) {
    if (fd_ < 0) {
        error_ = "not connected";
        return false;
    }
    std::string line;
    for (const std::string &w : words)
        line += (line.empty() ? "" : " ") + control_quote(w);
    if (!send_all(fd_, line + "\n", -1)) {
        error_ = "send failed";
        close();
        return false;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        size_t nl;
        while ((nl = in_.find('\n')) != std::string::npos) {
            std::vector<std::string> w;
            bool parsed = control_split(in_.substr(0, nl), &w);
            in_.erase(0, nl + 1);
            if (!parsed || w.empty()) {
                error_ = "unreadable answer";
                close();
                return false;
            }
            if (w[0] == "ok") {
                if (result != nullptr)
                    result->assign(w.begin() + 1, w.end());
                return true;
            }
            if (w[0] == "error") {
                error_.clear();
                for (size_t i = 1; i < w.size(); ++i)
                    error_ += (i > 1 ? " " : "") + w[i];
                return false;
            }
            if (data != nullptr)
                data->push_back(w);
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0) {
            // The answer may still come; the connection no longer pairs them.
            error_ = "no answer";
            close();
            return false;
        }
        pollfd p = {fd_, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) < 0 && errno != EINTR) {
            error_ = strerror(errno);
            close();
            return false;
        }
        if (!(p.revents & (POLLIN | POLLHUP | POLLERR)))
            continue;
        char buf[4096];
        ssize_t n = read(fd_, buf, sizeof buf);
        if (n <= 0) {
            error_ = "connection closed";
            close();
            return false;
        }
        in_.append(buf, static_cast<size_t>(n));
    }
}

bool modem_control::set_reply(const std::string &match, const modem_reply &reply,
                              modem_match how) {
    std::vector<std::string> w = {"reply", how == modem_match::exact ? "exact" : "prefix", match};
    if (reply.once)
        w.push_back("once");
    if (reply.body)
        w.push_back("body");
    if (reply.held)
        w.push_back("held");
    w.insert(w.end(), {"delay", std::to_string(reply.delay_ms), "gap",
                       std::to_string(reply.gap_ms)});
    switch (reply.what) {
    case modem_reply::kind::lines:
        w.push_back("lines");
        w.insert(w.end(), reply.lines.begin(), reply.lines.end());
        break;
    case modem_reply::kind::raw:
        w.insert(w.end(), {"raw", control_hex(reply.bytes)});
        break;
    case modem_reply::kind::silence:
        w.push_back("silence");
        break;
    case modem_reply::kind::standard:
        w.push_back("standard");
        break;
    }
    return request(w, REQUEST_TIMEOUT_MS);
}

bool modem_control::clear_replies() { return request({"clear"}, REQUEST_TIMEOUT_MS); }

bool modem_control::clear_replies(const std::string &match) {
    return request({"clear", match}, REQUEST_TIMEOUT_MS);
}

bool modem_control::inject_line(const std::string &line) { return inject_lines({line}); }

bool modem_control::inject_lines(const std::vector<std::string> &lines) {
    std::vector<std::string> w = {"inject"};
    w.insert(w.end(), lines.begin(), lines.end());
    return request(w, REQUEST_TIMEOUT_MS);
}

bool modem_control::deliver_sms(const std::string &pdu, const std::string &number,
                                const std::string &stamp, const std::string &text) {
    return request({"sms", pdu, number, stamp, text}, REQUEST_TIMEOUT_MS);
}

bool modem_control::inject_raw(const std::string &bytes) {
    return request({"inject-raw", control_hex(bytes)}, REQUEST_TIMEOUT_MS);
}

bool modem_control::release() { return request({"release"}, REQUEST_TIMEOUT_MS); }

bool modem_control::set_echo_dropped(bool dropped) {
    return request({"echo", dropped ? "off" : "on"}, REQUEST_TIMEOUT_MS);
}

bool modem_control::set_silent(bool silent) {
    return request({"silence", silent ? "on" : "off"}, REQUEST_TIMEOUT_MS);
}

bool modem_control::set_garbage(bool garbage) {
    return request({"garbage", garbage ? "on" : "off"}, REQUEST_TIMEOUT_MS);
}

bool modem_control::set_family(modem_family family) {
    return request({"family", modem_family_name(family)}, REQUEST_TIMEOUT_MS);
}

bool modem_control::reboot() { return request({"reboot"}, REQUEST_TIMEOUT_MS); }

bool modem_control::set_log_file(const std::string &path) {
    return request({"log", path.empty() ? "off" : path}, REQUEST_TIMEOUT_MS);
}

bool modem_control::forget_commands() { return request({"forget"}, REQUEST_TIMEOUT_MS); }

std::optional<std::vector<modem_command>> modem_control::commands(size_t from) {
    std::vector<std::vector<std::string>> data;
    if (!request({"commands", std::to_string(from)}, REQUEST_TIMEOUT_MS, &data))
        return std::nullopt;
    std::vector<modem_command> out;
    for (const auto &w : data) {
        modem_command c;
        if (w.empty() || w[0] != "cmd" || !parse_record(w, 1, &c)) {
            error_ = "unreadable command record";
            return std::nullopt;
        }
        out.push_back(c);
    }
    return out;
}

std::optional<modem_command> modem_control::wait_for_command(const std::string &prefix,
                                                             int timeout_ms, size_t from) {
    std::vector<std::string> result;
    if (!request({"wait", prefix, std::to_string(timeout_ms), std::to_string(from)},
                 timeout_ms + REQUEST_TIMEOUT_MS, nullptr, &result))
        return std::nullopt;
    modem_command c;
    if (!parse_record(result, 0, &c)) {
        error_ = "unreadable command record";
        return std::nullopt;
    }
    return c;
}
