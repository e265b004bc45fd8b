#include "modem_emu/modem_emu.h"

#include "defaults.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

const char MODEM_GARBAGE[] = "\r\n\xff\xfe#%&garbage\x01*~\r\n";

namespace {

constexpr char CTRL_Z = 0x1a;
constexpr char ESC = 0x1b;
// While the daemon's side is closed, how often to look whether it came back:
// a pty master reports hang-up continuously then, so it cannot be waited on.
constexpr int ABSENT_POLL_MS = 10;
// A module's command buffer is finite; longer input is cut.
constexpr size_t MAX_COMMAND = 4096;

int64_t monotonic_ms() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

std::string frame(const std::string &line) { return "\r\n" + line + "\r\n"; }

bool starts_with(const std::string &text, const std::string &prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

} // namespace

const char *modem_family_name(modem_family family) {
    switch (family) {
    case modem_family::ec20:
        return "ec20";
    case modem_family::ec200t:
        return "ec200t";
    case modem_family::ec200s:
        return "ec200s";
    }
    return "?";
}

bool modem_family_parse(const std::string &name, modem_family *family) {
    for (modem_family f : {modem_family::ec20, modem_family::ec200t, modem_family::ec200s}) {
        if (name == modem_family_name(f)) {
            *family = f;
            return true;
        }
    }
    return false;
}

modem_reply modem_reply::with_lines(std::vector<std::string> lines) {
    modem_reply r;
    r.what = kind::lines;
    r.lines = std::move(lines);
    return r;
}

modem_reply modem_reply::ok() { return with_lines({"OK"}); }
modem_reply modem_reply::error() { return with_lines({"ERROR"}); }
modem_reply modem_reply::cme_error(int code) {
    return with_lines({"+CME ERROR: " + std::to_string(code)});
}
modem_reply modem_reply::cms_error(int code) {
    return with_lines({"+CMS ERROR: " + std::to_string(code)});
}

modem_reply modem_reply::raw_bytes(std::string bytes) {
    modem_reply r;
    r.what = kind::raw;
    r.bytes = std::move(bytes);
    return r;
}

modem_reply modem_reply::silence() {
    modem_reply r;
    r.what = kind::silence;
    return r;
}

modem_reply modem_reply::standard() { return modem_reply(); }

modem_reply modem_reply::after(int ms) const {
    modem_reply r = *this;
    r.delay_ms = ms;
    return r;
}

modem_reply modem_reply::between_lines(int ms) const {
    modem_reply r = *this;
    r.gap_ms = ms;
    return r;
}

modem_reply modem_reply::one_shot() const {
    modem_reply r = *this;
    r.once = true;
    return r;
}

modem_reply modem_reply::for_body() const {
    modem_reply r = *this;
    r.body = true;
    return r;
}

modem_reply modem_reply::until_released() const {
    modem_reply r = *this;
    r.held = true;
    return r;
}

modem_emulator::modem_emulator(modem_family family)
    : family_(family), session_(new module_session) {}

modem_emulator::~modem_emulator() {
    stop();
    if (log_ != nullptr)
        fclose(log_);
}

bool modem_emulator::start(int fd) {
    if (running_ || fd < 0)
        return false;
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0)
        return false;
    int p[2];
    if (pipe2(p, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    {
        std::lock_guard<std::mutex> lock(mu_);
        fd_ = fd;
        wake_rd_ = p[0];
        wake_wr_ = p[1];
        peer_present_ = true;
        if (!after_return_.empty()) {
            std::vector<std::pair<int, std::string>> rest;
            rest.swap(after_return_);
            last_reply_due_ = monotonic_ms() + FOTA_BOOT_MS;
            schedule_later(rest);
        }
    }
    stopping_ = false;
    running_ = true;
    thread_ = std::thread(&modem_emulator::run, this);
    return true;
}

void modem_emulator::stop() {
    stop_control();
    stop_port();
}

void modem_emulator::stop_port() {
    if (!running_)
        return;
    {
        std::lock_guard<std::mutex> lock(mu_);
        stopping_ = true;
        wake();
    }
    thread_.join();
    std::lock_guard<std::mutex> lock(mu_);
    // A stopped module's pending answers and half-heard input are gone.
    timed_.clear();
    out_.clear();
    last_reply_due_ = 0;
    holding_ = false;
    held_.clear();
    drop_input();
    ::close(wake_rd_);
    ::close(wake_wr_);
    wake_rd_ = wake_wr_ = -1;
    fd_ = -1;
    running_ = false;
}

bool modem_emulator::running() const { return running_; }

modem_family modem_emulator::family() const {
    std::lock_guard<std::mutex> lock(mu_);
    return family_;
}

void modem_emulator::set_family(modem_family family) {
    std::lock_guard<std::mutex> lock(mu_);
    family_ = family;
}

void modem_emulator::set_reply(const std::string &match, const modem_reply &reply,
                               modem_match how) {
    std::lock_guard<std::mutex> lock(mu_);
    rules_.push_back({match, how, reply});
}

void modem_emulator::clear_replies() {
    std::lock_guard<std::mutex> lock(mu_);
    rules_.clear();
}

void modem_emulator::clear_replies(const std::string &match) {
    std::lock_guard<std::mutex> lock(mu_);
    rules_.erase(std::remove_if(rules_.begin(), rules_.end(),
                                [&](const rule &r) { return r.match == match; }),
                 rules_.end());
}

void modem_emulator::set_echo_dropped(bool dropped) {
    std::lock_guard<std::mutex> lock(mu_);
    echo_dropped_ = dropped;
}

void modem_emulator::set_silent(bool silent) {
    std::lock_guard<std::mutex> lock(mu_);
    silent_ = silent;
}

void modem_emulator::set_garbage(bool garbage) {
    std::lock_guard<std::mutex> lock(mu_);
    garbage_ = garbage;
}

bool modem_emulator::echo_on() const {
    std::lock_guard<std::mutex> lock(mu_);
    return session_->echo;
}

void modem_emulator::inject_line(const std::string &line) { inject_lines({line}); }

void modem_emulator::inject_lines(const std::vector<std::string> &lines) {
    std::string bytes;
    for (const std::string &line : lines)
        bytes += frame(line);
    inject_raw(bytes);
}

void modem_emulator::inject_raw(const std::string &bytes) {
    std::lock_guard<std::mutex> lock(mu_);
    if (!peer_present_)
        return;
    // Whatever is already due goes first, so an injection never splits a line.
    release_due(monotonic_ms());
    out_ += bytes;
    wake();
}

void modem_emulator::deliver_sms(const std::string &pdu, const std::string &number,
                                 const std::string &stamp, const std::string &text) {
    bool text_mode;
    {
        std::lock_guard<std::mutex> lock(mu_);
        text_mode = session_->text_mode;
    }
    if (text_mode) {
        inject_lines({"+CMT: \"" + number + "\",,\"" + stamp + "\"", text});
        return;
    }
    // The length counts the TPDU's octets, without the centre's address.
    size_t centre = pdu.size() >= 2 ? std::strtoul(pdu.substr(0, 2).c_str(), nullptr, 16) : 0;
    size_t octets = pdu.size() / 2 > centre + 1 ? pdu.size() / 2 - centre - 1 : 0;
    inject_lines({"+CMT: ," + std::to_string(octets), pdu});
}

void modem_emulator::release() {
    std::lock_guard<std::mutex> lock(mu_);
    int64_t now = monotonic_ms();
    holding_ = false;
    for (const std::string &bytes : held_)
        timed_.emplace(now, bytes);
    held_.clear();
    last_reply_due_ = std::max(last_reply_due_, now);
    wake();
}

void modem_emulator::drop_input() {
    if (input_ != input_mode::command) {
        for (modem_command &c : records_) {
            if (c.index == body_record_) {
                c.state = modem_command::body_state::aborted;
                c.body = body_;
            }
        }
        changed_.notify_all();
    }
    body_.clear();
    input_ = input_mode::command;
    line_.clear();
    skip_lf_ = false;
    upload_left_ = 0;
}

void modem_emulator::reboot() {
    std::lock_guard<std::mutex> lock(mu_);
    drop_input();
    session_.reset(new module_session);
    timed_.clear();
    out_.clear();
    last_reply_due_ = 0;
    holding_ = false;
    held_.clear();
}

bool modem_emulator::peer_present() const {
    std::lock_guard<std::mutex> lock(mu_);
    return peer_present_;
}

std::vector<modem_command> modem_emulator::commands() const {
    std::lock_guard<std::mutex> lock(mu_);
    return records_;
}

size_t modem_emulator::command_count() const {
    std::lock_guard<std::mutex> lock(mu_);
    return next_index_;
}

void modem_emulator::forget_commands() {
    std::lock_guard<std::mutex> lock(mu_);
    records_.clear();
}

std::optional<modem_command> modem_emulator::wait_for_command(const std::string &prefix,
                                                              int timeout_ms, size_t from) const {
    return wait_impl(prefix, timeout_ms, from, nullptr);
}

std::optional<modem_command> modem_emulator::wait_impl(const std::string &prefix,
                                                       int timeout_ms, size_t from,
                                                       const std::atomic<bool> *cancel) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
        for (const modem_command &c : records_) {
            if (c.index >= from && c.state != modem_command::body_state::awaited &&
                starts_with(c.text, prefix))
                return c;
        }
        if ((cancel != nullptr && *cancel) || std::chrono::steady_clock::now() >= deadline)
            return std::nullopt;
        changed_.wait_until(lock, deadline);
    }
}

bool modem_emulator::set_log_file(const std::string &path) {
    std::lock_guard<std::mutex> lock(mu_);
    if (log_ != nullptr)
        fclose(log_);
    log_ = nullptr;
    if (path.empty())
        return true;
    log_ = fopen(path.c_str(), "ae");
    return log_ != nullptr;
}

// Emulator thread.

void modem_emulator::run() {
    while (!stopping_)
        run_once();
}

void modem_emulator::run_once() {
    int64_t now = monotonic_ms();
    int timeout = -1;
    bool present = false;
    bool want_out = false;
    std::function<void()> leave;
    {
        std::lock_guard<std::mutex> lock(mu_);
        release_due(now);
        flush_output();
        present = peer_present_;
        want_out = !out_.empty();
        if (!timed_.empty())
            timeout = static_cast<int>(std::clamp<int64_t>(timed_.begin()->first - now, 0, INT_MAX));
        if (leave_due_) {
            leave_due_ = false;
            leave = bus_leave_;
        }
    }
    if (leave)
        leave();

    if (!present) {
        pollfd w = {wake_rd_, POLLIN, 0};
        poll(&w, 1, timeout < 0 ? ABSENT_POLL_MS : std::min(timeout, ABSENT_POLL_MS));
        char drain[64];
        while (read(wake_rd_, drain, sizeof drain) > 0) {
        }
        pollfd p = {fd_, POLLIN, 0};
        if (poll(&p, 1, 0) >= 0 && !(p.revents & (POLLHUP | POLLERR | POLLNVAL))) {
            std::lock_guard<std::mutex> lock(mu_);
            peer_present_ = true;
        }
        return;
    }

    pollfd fds[2] = {{fd_, static_cast<short>(POLLIN | (want_out ? POLLOUT : 0)), 0},
                     {wake_rd_, POLLIN, 0}};
    if (poll(fds, 2, timeout) < 0)
        return;
    if (fds[1].revents & POLLIN) {
        char drain[64];
        while (read(wake_rd_, drain, sizeof drain) > 0) {
        }
    }
    if (fds[0].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) {
        char buf[4096];
        ssize_t n = read(fd_, buf, sizeof buf);
        if (n > 0) {
            std::lock_guard<std::mutex> lock(mu_);
            feed(buf, static_cast<size_t>(n), monotonic_ms());
        } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
            // EIO: the daemon closed its side; it opens the port again after a reset.
            std::lock_guard<std::mutex> lock(mu_);
            peer_present_ = false;
            out_.clear();
        }
    }
}

void modem_emulator::wake() {
    if (wake_wr_ >= 0) {
        ssize_t ignored = write(wake_wr_, "", 1);
        (void)ignored;
    }
}

void modem_emulator::release_due(int64_t now) {
    auto end = timed_.upper_bound(now);
    auto it = timed_.begin();
    for (; it != end && !leave_due_; ++it) {
        if (it->second == FOTA_REBOOT)
            leave_due_ = true; // nothing after it leaves on this port
        else
            out_ += it->second;
    }
    timed_.erase(timed_.begin(), it);
}

void modem_emulator::flush_output() {
    if (!peer_present_ || fd_ < 0) {
        // Nobody listens: a module's output to a closed port is lost.
        if (!peer_present_)
            out_.clear();
        return;
    }
    while (!out_.empty()) {
        ssize_t n = write(fd_, out_.data(), out_.size());
        if (n > 0) {
            out_.erase(0, static_cast<size_t>(n));
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            if (n < 0 && errno != EAGAIN)
                out_.clear();
            return;
        }
    }
}

bool modem_emulator::echo_active() const { return session_->echo && !echo_dropped_ && !silent_; }

void modem_emulator::echo_byte(char c, int64_t now) {
    if (!echo_active())
        return;
    // An answer already due precedes the echo of the next command.
    release_due(now);
    out_ += c;
}

void modem_emulator::feed(const char *data, size_t len, int64_t now) {
    for (size_t i = 0; i < len; ++i) {
        char c = data[i];
        if (skip_lf_) {
            skip_lf_ = false;
            if (c == '\n') {
                // Part of the command's line end: echoed like its CR, ahead of
                // the answer, even when the command just switched the echo.
                if (lf_echo_)
                    out_ += c;
                continue;
            }
        }
        switch (input_) {
        case input_mode::upload:
            body_ += c;
            if (--upload_left_ == 0)
                complete_body(false, now);
            break;
        case input_mode::message_body:
            if (c == CTRL_Z) {
                complete_body(false, now);
            } else if (c == ESC) {
                complete_body(true, now);
            } else {
                body_ += c;
                echo_byte(c, now);
            }
            break;
        case input_mode::command:
            // ESC cancels a message body; at the command line there is
            // nothing to cancel and the module passes over it unechoed.
            if (c == ESC)
                break;
            echo_byte(c, now);
            if (c == '\r') {
                skip_lf_ = true;
                lf_echo_ = echo_active();
                complete_command(now);
            } else if (c != '\n' && line_.size() < MAX_COMMAND) {
                line_ += c;
            }
            break;
        }
    }
}

const modem_emulator::rule *modem_emulator::find_rule(const std::string &text, bool body) const {
    for (auto it = rules_.rbegin(); it != rules_.rend(); ++it) {
        if (it->reply.body != body)
            continue;
        if (it->how == modem_match::exact ? text == it->match : starts_with(text, it->match))
            return &*it;
    }
    return nullptr;
}

void modem_emulator::use_rule(const rule *r) {
    if (r->reply.once)
        rules_.erase(rules_.begin() + (r - rules_.data()));
}

void modem_emulator::record_command(modem_command command) {
    command.index = next_index_++;
    if (log_ != nullptr) {
        fprintf(log_, "%lld %s\n", static_cast<long long>(command.ms), command.text.c_str());
        fflush(log_);
    }
    records_.push_back(std::move(command));
    changed_.notify_all();
}

void modem_emulator::complete_command(int64_t now) {
    std::string text;
    text.swap(line_);
    // A bare CR (or the LF of a CR LF split across reads) is no command.
    if (text.empty())
        return;
    modem_command record;
    record.ms = now;
    record.text = text;
    if (silent_) {
        record_command(record);
        return;
    }
    int delay = 0, gap = 0;
    if (answer_override(text, false, now, &record, &delay, &gap))
        return;

    answer_plan plan = standard_answer(family_, text, *session_);
    std::string tail;
    if (plan.next != answer_plan::then::command) {
        record.state = modem_command::body_state::awaited;
        body_record_ = next_index_;
        body_command_ = text;
        body_.clear();
        if (plan.next == answer_plan::then::message_body) {
            input_ = input_mode::message_body;
            tail = "\r\n> ";
        } else {
            input_ = input_mode::upload;
            upload_left_ = plan.upload_size;
        }
    }
    record_command(record);
    schedule_reply(plan.lines, tail, delay, gap, now);
    schedule_later(plan.later);
}

bool modem_emulator::answer_override(const std::string &text, bool body, int64_t now,
                                     const modem_command *record, int *delay, int *gap) {
    if (garbage_) {
        if (record != nullptr)
            record_command(*record);
        schedule_reply({}, MODEM_GARBAGE, 0, 0, now);
        return true;
    }
    const rule *r = find_rule(text, body);
    if (r == nullptr)
        return false;
    modem_reply reply = r->reply;
    use_rule(r);
    holding_ = holding_ || reply.held;
    if (reply.what == modem_reply::kind::standard) {
        *delay = reply.delay_ms;
        *gap = reply.gap_ms;
        return false;
    }
    if (record != nullptr)
        record_command(*record);
    answer_with(reply, now);
    return true;
}

void modem_emulator::complete_body(bool aborted, int64_t now) {
    input_ = input_mode::command;
    for (modem_command &c : records_) {
        if (c.index == body_record_) {
            c.state = aborted ? modem_command::body_state::aborted
                              : modem_command::body_state::complete;
            c.body = body_;
        }
    }
    body_.clear();
    changed_.notify_all();
    const std::string &text = body_command_;
    if (silent_)
        return;
    int delay = 0, gap = 0;
    if (answer_override(text, true, now, nullptr, &delay, &gap))
        return;
    answer_plan plan = standard_body_answer(family_, text, aborted, *session_);
    schedule_reply(plan.lines, "", delay, gap, now);
    schedule_later(plan.later);
}

void modem_emulator::answer_with(const modem_reply &reply, int64_t now) {
    switch (reply.what) {
    case modem_reply::kind::lines:
        schedule_reply(reply.lines, "", reply.delay_ms, reply.gap_ms, now);
        break;
    case modem_reply::kind::raw:
        schedule_reply({}, reply.bytes, reply.delay_ms, 0, now);
        break;
    case modem_reply::kind::silence:
    case modem_reply::kind::standard:
        break;
    }
}

void modem_emulator::schedule_reply(const std::vector<std::string> &lines,
                                    const std::string &tail, int delay_ms, int gap_ms,
                                    int64_t now) {
    if (holding_) {
        for (const std::string &line : lines)
            held_.push_back(frame(line));
        if (!tail.empty())
            held_.push_back(tail);
        return;
    }
    // Answers leave in the order of their commands, as from a module that
    // works through its commands one at a time.
    int64_t t = std::max(now + delay_ms, last_reply_due_);
    for (size_t i = 0; i < lines.size(); ++i) {
        if (i > 0)
            t += gap_ms;
        timed_.emplace(t, frame(lines[i]));
    }
    if (!tail.empty())
        timed_.emplace(t, tail);
    last_reply_due_ = t;
}

void modem_emulator::schedule_later(const std::vector<std::pair<int, std::string>> &later) {
    int64_t t = last_reply_due_;
    for (size_t i = 0; i < later.size(); ++i) {
        const auto &item = later[i];
        if (item.second == FOTA_REBOOT) {
            if (!bus_leave_ || holding_)
                continue;
            after_return_.assign(later.begin() + static_cast<std::ptrdiff_t>(i) + 1, later.end());
            timed_.emplace(t + item.first, FOTA_REBOOT);
            return;
        }
        if (holding_) {
            held_.push_back(frame(item.second));
        } else {
            t += item.first;
            timed_.emplace(t, frame(item.second));
        }
    }
}

void modem_emulator::forget_update() {
    std::lock_guard<std::mutex> lock(mu_);
    after_return_.clear();
}

void modem_emulator::set_bus_leave(std::function<void()> leave) {
    std::lock_guard<std::mutex> lock(mu_);
    bus_leave_ = std::move(leave);
}

int open_modem_pty(std::string *slave_path) {
    int fd = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    char name[128];
    termios t;
    if (grantpt(fd) != 0 || unlockpt(fd) != 0 || ptsname_r(fd, name, sizeof name) != 0 ||
        tcgetattr(fd, &t) != 0) {
        ::close(fd);
        return -1;
    }
    // Set on the master, this applies to the slave: nothing the emulator
    // writes before the daemon opens the port is echoed back or translated.
    cfmakeraw(&t);
    if (tcsetattr(fd, TCSANOW, &t) != 0) {
        ::close(fd);
        return -1;
    }
    *slave_path = name;
    return fd;
}
