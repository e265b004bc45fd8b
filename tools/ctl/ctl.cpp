#include "ctl/ctl.h"

#include "core/frames.h"
#include "sms/alphabet.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <ostream>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace ctl {

namespace {

// ---- command words

bool switch_value(const std::string &word, std::string *out) {
    if (word == "on" || word == "1")
        *out = "1";
    else if (word == "off" || word == "0")
        *out = "0";
    else
        return false;
    return true;
}

request make(uint16_t code, std::vector<std::string> fields = {}) {
    request r;
    r.code = code;
    r.fields = std::move(fields);
    return r;
}

using args = std::vector<std::string>; // the words after the command's name

struct command_spec {
    const char *name;
    const char *synopsis;
    size_t min_args;
    size_t max_args;
    // Builds the requests; false with a reason for arguments it cannot take.
    bool (*build)(const args &a, command *out, std::string *error);
};

bool single(command *out, request r) {
    out->steps.push_back(std::move(r));
    return true;
}

// A query with no argument, by its code.
template <uint16_t CODE> bool query(const args &, command *out, std::string *) {
    return single(out, make(CODE));
}

bool build_dial(const args &a, command *out, std::string *error) {
    std::string v;
    if (!switch_value(a[0], &v)) {
        *error = "dial takes on or off";
        return false;
    }
    return single(out, make(CODE_AUTO_DIAL, {v}));
}

// "get SLOT" or "set SLOT [VALUE]" for the numbered settings of 521 and 523.
bool build_slots(uint16_t code, const args &a, command *out, std::string *error) {
    if (a[0] == "get" && a.size() == 2)
        return single(out, make(code, {"0", a[1]}));
    if (a[0] == "set" && a.size() <= 3) {
        request r = make(code, {"1", a[1]});
        // An empty value clears the setting: the frame simply has no third field.
        if (a.size() == 3 && !a[2].empty())
            r.fields.push_back(a[2]);
        return single(out, r);
    }
    *error = "expected get SLOT or set SLOT [VALUE]";
    return false;
}

bool build_apn(const args &a, command *out, std::string *error) { return build_slots(CODE_APN, a, out, error); }

// The six link check targets are read one request each: 523 reads one slot.
bool build_ping(const args &a, command *out, std::string *error) {
    if (a[0] == "list" && a.size() == 1) {
        for (char slot = '1'; slot <= '6'; ++slot)
            out->steps.push_back(make(CODE_PING_ADDRESS, {"0", std::string(1, slot)}));
        return true;
    }
    if (a[0] == "set" && a.size() != 3) {
        *error = "expected ping set SLOT ADDRESS (\"\" clears it)";
        return false;
    }
    return build_slots(CODE_PING_ADDRESS, a, out, error);
}

bool build_check(const args &a, command *out, std::string *error) {
    if (a.empty())
        return single(out, make(CODE_AUTO_CHECK, {"0"}));
    if (a[0] == "period" && a.size() == 1)
        return single(out, make(CODE_CHECK_PERIOD, {"0"}));
    if (a[0] == "period")
        return single(out, make(CODE_CHECK_PERIOD, {"1", a[1]}));
    std::string v;
    if (a.size() != 1 || !switch_value(a[0], &v)) {
        *error = "expected check [on|off] or check period [SECONDS]";
        return false;
    }
    return single(out, make(CODE_AUTO_CHECK, {"1", v}));
}

bool build_down_script(const args &a, command *out, std::string *) {
    if (a.empty())
        return single(out, make(CODE_DOWN_SCRIPT, {"0"}));
    request r = make(CODE_DOWN_SCRIPT, {"1"});
    if (!a[0].empty())
        r.fields.push_back(a[0]);
    return single(out, r);
}

bool build_passthrough(const args &a, command *out, std::string *error) {
    std::string v;
    if (!switch_value(a[0], &v)) {
        *error = "passthrough takes on or off";
        return false;
    }
    return single(out, make(CODE_PASSTHROUGH, {v}));
}

// The daemon ends pass-through mode when its client leaves, so a raw command
// switches it on for its own connection first.
bool build_at(const args &a, command *out, std::string *) {
    request on = make(CODE_PASSTHROUGH, {"1"});
    on.quiet = true;
    out->steps.push_back(on);
    request line = make(CODE_AT_LINE, {"1", a[0]});
    line.kind = reply_kind::at_lines;
    line.busy_retry_ms = 2000;
    out->steps.push_back(line);
    return true;
}

bool build_call(const args &a, command *out, std::string *) { return single(out, make(CODE_VOICE_DIAL, {a[0]})); }
bool build_tts(const args &a, command *out, std::string *) { return single(out, make(CODE_PLAY_TTS, {"1", a[0]})); }
bool build_tts_stop(const args &, command *out, std::string *) { return single(out, make(CODE_PLAY_TTS, {"0"})); }

bool build_lbs(const args &a, command *out, std::string *error) {
    if (a[0] == "get" && a.size() == 2)
        return single(out, make(CODE_LBS_CONFIG, {"0", a[1]}));
    if (a[0] == "set" && a.size() == 3)
        return single(out, make(CODE_LBS_CONFIG, {"1", a[1], a[2]}));
    *error = "expected get KEY or set KEY VALUE";
    return false;
}

// "send", its options, NUMBER, TEXT. Options stand before the number, so a
// text may begin with "--".
bool build_sms(const args &a, command *out, std::string *error) {
    *error = "usage: sms send [--report] [--validity 0-255] [--text-mode] NUMBER TEXT";
    bool report = false, text_mode = false, validity_given = false;
    // Relative validity 167 is one day (TS 23.040: 12 h plus 30 min per step above 143).
    std::string validity = "167";
    size_t i = 1;
    for (; a[0] == "send" && i < a.size() && a[i].rfind("--", 0) == 0; ++i) {
        char *end = nullptr;
        if (a[i] == "--") {
            ++i;
            break;
        } else if (a[i] == "--report") {
            report = true;
        } else if (a[i] == "--text-mode") {
            text_mode = true;
        } else if (a[i] == "--validity" && i + 1 < a.size() && !a[i + 1].empty() &&
                   isdigit(static_cast<unsigned char>(a[i + 1][0])) &&
                   strtoul(a[i + 1].c_str(), &end, 10) <= 255 && *end == '\0') {
            validity = a[++i];
            validity_given = true;
        } else {
            return false;
        }
    }
    // Text mode carries neither a validity nor a report request.
    if (a[0] != "send" || a.size() - i != 2 || (text_mode && (report || validity_given)))
        return false;
    const std::string &number = a[i], &text = a[i + 1];
    if (text_mode)
        return single(out, make(CODE_SMS_SEND_TEXT, {number, text}));
    // 7-bit when every character is in the GSM alphabet or its extension
    // table, else UCS-2 (which the daemon refuses for malformed UTF-8).
    std::vector<uint8_t> encoded(2 * text.size() + 2);
    int septets = utf8_to_gsm7(text.data(), text.size(), encoded.data(), encoded.size());
    bool seven = septets >= 0;
    int octets = seven ? 0 : utf8_to_utf16(text.data(), text.size(), encoded.data(), encoded.size());
    size_t units = octets > 0 ? static_cast<size_t>(octets) / 2 : 0;
    if (!single(out, make(CODE_SMS_SEND_PDU, {seven ? "0" : "1", "DEFAULT", number, text, validity,
                                report ? "1" : "0"})))
        return false;
    // A long text goes out part by part, each of which the module may take
    // its two minutes over. A part holds at least 152 septets or 66 units.
    size_t n = seven ? static_cast<size_t>(septets) : units;
    size_t parts = n <= (seven ? 160u : 70u) ? 1 : (n + (seven ? 151 : 65)) / (seven ? 152 : 66);
    parts = std::min<size_t>(parts, 10);
    out->steps[0].timeout_ms = static_cast<int>(parts) * default_timeout_ms(CODE_SMS_SEND_PDU);
    return true;
}

bool build_raw(const args &a, command *out, std::string *error) {
    char *end = nullptr;
    errno = 0;
    unsigned long code = strtoul(a[0].c_str(), &end, 10);
    if (a[0].empty() || *end != '\0' || errno != 0 || code > 0xFFFF || a[0][0] == '-') {
        *error = "raw needs a code from 0 to 65535";
        return false;
    }
    return single(out, make(static_cast<uint16_t>(code), args(a.begin() + 1, a.end())));
}

// A whole number from 0 to `max`; false for anything else.
bool count_word(const std::string &w, unsigned long max, std::string *out) {
    char *end = nullptr;
    errno = 0;
    unsigned long v = strtoul(w.c_str(), &end, 10);
    if (w.empty() || !isdigit(static_cast<unsigned char>(w[0])) || *end != '\0' || errno != 0 || v > max)
        return false;
    *out = std::to_string(v);
    return true;
}

// SOURCE, then options. The daemon opens a file by its own path, so a relative
// one is made absolute here.
bool build_fota(const args &a, command *out, std::string *error) {
    *error = "usage: fota FILE|URL [--chunk BYTES] [--pause MS]";
    std::string chunk, pause;
    for (size_t i = 1; i + 1 < a.size(); i += 2) {
        std::string *v = a[i] == "--chunk" ? &chunk : a[i] == "--pause" ? &pause : nullptr;
        if (v == nullptr || !count_word(a[i + 1], 60000, v))
            return false;
    }
    if (a.size() % 2 == 0 || a[0].empty() || chunk == "0")
        return false;
    // The module's default chunk size differs between families: a pause alone cannot be sent.
    if (chunk.empty() && !pause.empty()) {
        *error = "fota: --pause needs --chunk as well";
        return false;
    }
    const bool url = a[0].find("://") != std::string::npos;
    std::string source = a[0];
    if (!url && source[0] != '/') {
        char cwd[4096];
        if (getcwd(cwd, sizeof cwd) == nullptr) {
            *error = "fota: the current directory is unknown; give an absolute path";
            return false;
        }
        source = std::string(cwd) + "/" + source;
    }
    request r = make(CODE_FOTA, {url ? "1" : "0", source});
    if (!chunk.empty()) {
        r.fields.push_back(chunk);
        r.fields.push_back(pause.empty() ? "8" : pause);
    }
    return single(out, r);
}

// The daemon's own codes first: a module that is not ready still lets them answer.
bool build_status(const args &a, command *out, std::string *error) {
    if (a.size() == 1 && a[0] != "--json") {
        *error = "usage: status [--json]";
        return false;
    }
    static const uint16_t CODES[] = {CODE_VERSION, CODE_STATE, CODE_STATS,
                                      CODE_GET_ATI, CODE_GET_COPS, CODE_GET_CSQ};
    for (uint16_t code : CODES) {
        request r = make(code);
        // A worker replies before it frees the port: the next query may find it busy.
        if (!status_code_is_local(code))
            r.busy_retry_ms = 2000;
        out->steps.push_back(r);
    }
    out->summary = true;
    out->json = a.size() == 1;
    return true;
}

constexpr size_t MANY = REQUEST_FIELDS_MAX;

const command_spec COMMANDS[] = {
    {"version", "version                  daemon version (911)", 0, 0, query<CODE_VERSION>},
    {"state", "state                    connection state (912)", 0, 0, query<CODE_STATE>},
    {"stats", "stats                    statistics since the daemon started (913)", 0, 0, query<CODE_STATS>},
    {"status", "status [--json]          the daemon at a glance: version, state, statistics,\n"
               "                           model, operator, signal (911, 912, 913, 51, 103, 102)",
     0, 1, build_status},
    {"restart", "restart                  restart the module; answered once it is open again (901)",
     0, 0, query<CODE_RESTART>},
    {"model", "model                    module identification (51)", 0, 0, query<CODE_GET_ATI>},
    {"imei", "imei                     module IMEI (52)", 0, 0, query<CODE_GET_GSN>},
    {"imsi", "imsi                     SIM IMSI (101)", 0, 0, query<CODE_GET_CIMI>},
    {"signal", "signal                   signal level (102)", 0, 0, query<CODE_GET_CSQ>},
    {"operator", "operator                 network operator (103)", 0, 0, query<CODE_GET_COPS>},
    {"registration", "registration             area and cell of the registration (111)", 0, 0,
     query<CODE_GET_CREG>},
    {"netdev-status", "netdev-status            network device state, EC20 family (191)", 0, 0,
     query<CODE_GET_QNETDEVSTATUS>},
    {"smsc", "smsc                     SMS service centre (201)", 0, 0, query<CODE_GET_CSCA>},
    {"sms-defaults", "sms-defaults             message and call presentation defaults (301)", 0, 0,
     query<CODE_SMS_CALL_DEFAULTS>},
    {"answer", "answer                   answer the incoming call (302)", 0, 0, query<CODE_ANSWER_CALL>},
    {"hangup", "hangup                   hang up (303)", 0, 0, query<CODE_HANG_UP>},
    {"data-call", "data-call                dial the data call now (370)", 0, 0, query<CODE_DIAL>},
    {"location", "location                 cell-based position (452)", 0, 0, query<CODE_GET_QLBS>},
    {"dial", "dial on|off              keep the data link up or take it down (501)", 1, 1, build_dial},
    {"apn", "apn get N | apn set N [VALUE]   1 name, 2 user, 3 password, 4 auth (521)", 2, 3,
     build_apn},
    {"check", "check [on|off]           periodic link check switch (522)\n"
              "  check period [SECONDS]   link check period, 1 to 30000 s (524)",
     0, 2, build_check},
    {"ping", "ping list | ping get N | ping set N ADDRESS   link check targets 1 to 6 (523)", 1, 3,
     build_ping},
    {"down-script", "down-script [COMMAND]    command run after a disconnect; \"\" clears (525)",
     0, 1, build_down_script},
    {"passthrough", "passthrough on|off       raw AT mode of this connection (401)", 1, 1,
     build_passthrough},
    {"at", "at TEXT                  one raw AT line; prints the module's lines (401, 402)", 1, 1,
     build_at},
    {"call", "call NUMBER              voice call (304)", 1, 1, build_call},
    {"tts", "tts TEXT                 speak a text, EC20 family (310)", 1, 1, build_tts},
    {"tts-stop", "tts-stop                 stop speaking (310)", 0, 0, build_tts_stop},
    {"lbs", "lbs get KEY | lbs set KEY VALUE   location service setting (451)", 2, 3, build_lbs},
    {"sms", "sms send [--report] [--validity N] [--text-mode] NUMBER TEXT\n"
            "                           send an SMS, 7-bit or UCS-2 (251), in text mode (252)",
     3, 8, build_sms},
    {"fota", "fota FILE|URL [--chunk BYTES] [--pause MS]\n"
             "                           update the module firmware from a file or URL (561)",
     1, 5, build_fota},
    {"raw", "raw CODE [FIELD...]      any code with up to 6 fields", 1, 1 + MANY, build_raw},
};

// ---- frames

bool starts_with(const std::string &s, const char *prefix) { return s.compare(0, strlen(prefix), prefix) == 0; }

// ---- socket

bool send_all(int fd, const std::vector<uint8_t> &bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Connected to `name` and checked to be the daemon's; -1 with *status set and
// the reason written to `err` otherwise.
int open_trusted(const std::string &name, uid_t server_uid, std::ostream &err, int *status) {
    std::string error;
    int fd = connect_to(name, 0, &error);
    if (fd < 0) {
        err << "zolvin_4g_ctl: " << error << std::endl;
        *status = EXIT_NO_ANSWER;
        return -1;
    }
    if (!server_trusted(fd, server_uid, &error)) {
        close(fd);
        err << "zolvin_4g_ctl: " << error << "; nothing was sent (--server-uid UID names the daemon's user)"
            << std::endl;
        *status = EXIT_UNTRUSTED;
        return -1;
    }
    return fd;
}

using clock_type = std::chrono::steady_clock;

class session {
public:
    session(int fd, const options &opts, std::ostream &out, std::ostream &err, int stop_fd)
        : fd_(fd), opts_(opts), out_(out), err_(err), stop_fd_(stop_fd) {}

    int run_step(const request &r);
    // The requests of a summary, one after the other, then the summary.
    // *taken (when given) is set, and nothing printed, when the connection
    // closes before the first reply: the daemon serves another client there.
    int run_status(const std::vector<request> &steps, bool json, bool on_events = false,
                   bool *taken = nullptr);
    int listen_until_stopped();
    bool stopped() const { return stopped_; }

private:
    enum class wait_result { frame, timeout, closed, stopped, bad };
    wait_result next_frame(reply_frame *f, const clock_type::time_point *deadline);
    void print(const reply_frame &f, bool event) {
        print_style style{opts_.json};
        int percent = 0;
        std::string label;
        // On a terminal the update's percentages redraw one bar in place.
        if (opts_.tty && !opts_.json && !event && f.code == CODE_FOTA && f.status == STATUS_PROGRESS &&
            progress_percent(f, &label, &percent)) {
            out_ << "\r" << progress_bar(label, percent) << std::flush;
            bar_open_ = true;
            return;
        }
        if (bar_open_)
            out_ << "\n";
        bar_open_ = false;
        if (opts_.listen && f.code == EVENT_SMS_PART) {
            for (const joined_record &r : joiner_.take(f))
                print_joined(r);
            return;
        }
        std::string decoded = opts_.listen ? format_event(f, style) : "";
        out_ << (decoded.empty() ? format_frame(f, style, event) : decoded) << std::endl;
    }
    // A record joined from 1033 frames: shown as its 1031 would be; one that
    // does not read, or of which a frame went missing, as one frame of its text.
    void print_joined(const joined_record &r) {
        print_style style{opts_.json};
        std::string decoded = r.whole ? format_sms_record(r.text, style) : "";
        out_ << (decoded.empty() ? format_text_frame(EVENT_SMS_PART, 0, r.text, style, false) : decoded)
             << std::endl;
    }
    int failed_wait(wait_result w, const request *r);
    // The reply to `r`, kept instead of printed.
    wait_result collect(const request &r, reply_frame *reply);

    int fd_;
    const options &opts_;
    std::ostream &out_;
    std::ostream &err_;
    int stop_fd_;
    bool stopped_ = false;
    bool bar_open_ = false; // the cursor stands at the end of a progress bar
    frame_reader reader_;
    record_joiner joiner_;
};

session::wait_result session::next_frame(reply_frame *f, const clock_type::time_point *deadline) {
    for (;;) {
        if (reader_.next(f))
            return wait_result::frame;
        if (reader_.bad())
            return wait_result::bad;
        int timeout = -1;
        if (deadline != nullptr) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - clock_type::now());
            if (left.count() <= 0)
                return wait_result::timeout;
            timeout = static_cast<int>(left.count());
        }
        pollfd p[2] = {{fd_, POLLIN, 0}, {stop_fd_, POLLIN, 0}};
        int rc = poll(p, stop_fd_ >= 0 ? 2 : 1, timeout);
        if (rc < 0 && errno == EINTR)
            continue;
        if (rc < 0)
            return wait_result::closed;
        if (stop_fd_ >= 0 && (p[1].revents & POLLIN) != 0)
            return wait_result::stopped;
        if (p[0].revents == 0)
            continue;
        uint8_t buf[4096];
        ssize_t n = recv(fd_, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return wait_result::closed;
        reader_.feed(buf, static_cast<size_t>(n));
    }
}

int session::failed_wait(wait_result w, const request *r) {
    if (bar_open_)
        out_ << "\n" << std::flush; // the message starts on a line of its own
    bar_open_ = false;
    switch (w) {
    case wait_result::stopped:
        stopped_ = true;
        return EXIT_OK;
    case wait_result::timeout: {
        if (r == nullptr)
            return EXIT_NO_ANSWER;
        char secs[32];
        snprintf(secs, sizeof secs, "%.1f", r->timeout_ms / 1000.0);
        err_ << "zolvin_4g_ctl: no reply to " << r->code << " within " << secs
             << " s (--timeout SECONDS waits longer)" << std::endl;
        return EXIT_NO_ANSWER;
    }
    case wait_result::bad:
        err_ << "zolvin_4g_ctl: the daemon sent bytes that are not a reply frame" << std::endl;
        return EXIT_NO_ANSWER;
    default:
        err_ << "zolvin_4g_ctl: the daemon closed the connection (it serves one client at a "
                "time, and only root, its own user and the members of client_group)"
             << std::endl;
        return EXIT_NO_ANSWER;
    }
}

int session::run_step(const request &r) {
    std::string error;
    std::vector<uint8_t> frame = encode(r, &error);
    if (frame.empty()) {
        err_ << "zolvin_4g_ctl: " << error << std::endl;
        return EXIT_USAGE;
    }
    if (!send_all(fd_, frame))
        return failed_wait(wait_result::closed, &r);
    exchange ex(r);
    auto start = clock_type::now();
    auto deadline = start + std::chrono::milliseconds(r.timeout_ms);
    for (;;) {
        reply_frame f;
        wait_result w = next_frame(&f, &deadline);
        if (w != wait_result::frame)
            return failed_wait(w, &r);
        verdict v = ex.take(f);
        if (v == verdict::done && f.status == STATUS_BUSY && f.code == r.code &&
            clock_type::now() - start < std::chrono::milliseconds(r.busy_retry_ms)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            if (!send_all(fd_, frame))
                return failed_wait(wait_result::closed, &r);
            ex = exchange(r);
            continue;
        }
        if (v == verdict::unrelated) {
            if (opts_.events || opts_.listen)
                print(f, !opts_.listen);
            continue;
        }
        if (v == verdict::done && r.quiet && ex.exit_status() == EXIT_OK)
            return EXIT_OK;
        print(f, false);
        if (v == verdict::done)
            return ex.exit_status();
    }
}

session::wait_result session::collect(const request &r, reply_frame *reply) {
    std::string error;
    std::vector<uint8_t> frame = encode(r, &error); // a query without fields always encodes
    if (!send_all(fd_, frame))
        return wait_result::closed;
    exchange ex(r);
    auto start = clock_type::now();
    auto deadline = start + std::chrono::milliseconds(r.timeout_ms);
    for (;;) {
        wait_result w = next_frame(reply, &deadline);
        if (w != wait_result::frame)
            return w;
        verdict v = ex.take(*reply);
        if (v == verdict::unrelated && opts_.events)
            print(*reply, true);
        if (v != verdict::done)
            continue;
        if (reply->status == STATUS_BUSY &&
            clock_type::now() - start < std::chrono::milliseconds(r.busy_retry_ms)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            if (!send_all(fd_, frame))
                return wait_result::closed;
            continue;
        }
        return wait_result::frame;
    }
}

int session::run_status(const std::vector<request> &steps, bool json, bool on_events, bool *taken) {
    std::map<uint16_t, reply_frame> replies;
    for (const request &r : steps) {
        reply_frame f;
        wait_result w = collect(r, &f);
        if (w == wait_result::frame)
            replies[r.code] = f;
        else if (w == wait_result::closed && replies.empty() && taken != nullptr) {
            *taken = true;
            return EXIT_NO_ANSWER;
        }
        // A module that takes too long leaves its line unknown; the daemon's own
        // codes must answer.
        else if (w != wait_result::timeout || status_code_is_local(r.code))
            return failed_wait(w, &r);
    }
    print_style style{json};
    out_ << format_status(replies, style, on_events) << std::endl;
    return status_exit(replies);
}

int session::listen_until_stopped() {
    for (;;) {
        reply_frame f;
        wait_result w = next_frame(&f, nullptr);
        if (w != wait_result::frame) {
            if (std::optional<joined_record> r = joiner_.rest())
                print_joined(*r);
            return failed_wait(w, nullptr);
        }
        print(f, false);
    }
}

} // namespace

// ---- public

bool parse_command(const std::vector<std::string> &words, command *out, std::string *error) {
    *out = command{};
    if (words.empty()) {
        *error = "no command given";
        return false;
    }
    for (const command_spec &c : COMMANDS) {
        if (words[0] != c.name)
            continue;
        args a(words.begin() + 1, words.end());
        if (a.size() < c.min_args || a.size() > c.max_args) {
            *error = std::string("usage: ") + c.synopsis;
            return false;
        }
        if (!c.build(a, out, error))
            return false;
        for (request &r : out->steps) {
            if (r.timeout_ms == 0)
                r.timeout_ms = default_timeout_ms(r.code);
            if (encode(r, error).empty())
                return false;
        }
        return true;
    }
    *error = "unknown command '" + words[0] + "'";
    return false;
}

std::vector<uint8_t> encode(const request &r, std::string *error) {
    if (r.fields.size() > static_cast<size_t>(REQUEST_FIELDS_MAX)) {
        *error = "at most 6 fields";
        return {};
    }
    std::vector<const char *> ptrs;
    std::vector<size_t> lens;
    for (const std::string &f : r.fields) {
        if (f.empty() || f.size() >= FIELD_SIZE) {
            *error = "a field must be 1 to 999 bytes";
            return {};
        }
        ptrs.push_back(f.data());
        lens.push_back(f.size());
    }
    std::vector<uint8_t> out(REQUEST_MAX);
    size_t n = request_build(out.data(), out.size(), r.code, ptrs.data(), lens.data(),
                             static_cast<int>(r.fields.size()));
    if (n == 0) {
        *error = "the request does not fit in 1000 bytes";
        return {};
    }
    out.resize(n);
    return out;
}

int default_timeout_ms(uint16_t code) { return code_answer_ms(code); }

bool progress_percent(const reply_frame &f, std::string *label, int *percent) {
    std::string text(f.text, f.text_len);
    size_t space = text.rfind(' ');
    if (space == std::string::npos || text.size() < space + 3 || text.back() != '%')
        return false;
    std::string digits = text.substr(space + 1, text.size() - space - 2), value;
    if (!count_word(digits, 100, &value))
        return false;
    *label = text.substr(0, space);
    *percent = atoi(value.c_str());
    return true;
}

std::string progress_bar(const std::string &label, int percent) {
    constexpr int WIDTH = 30;
    int filled = percent * WIDTH / 100;
    char tail[8];
    snprintf(tail, sizeof tail, "] %3d%%", percent);
    // The label carries the module's bytes ("Fota updating <its line>"): escaped
    // like every other line, so that none of them reaches the terminal raw.
    // Padded so that a shorter label overwrites a longer one.
    std::string padded = plain_escape(label);
    if (padded.size() < 20)
        padded.resize(20, ' ');
    return padded + " [" + std::string(static_cast<size_t>(filled), '#') +
           std::string(static_cast<size_t>(WIDTH - filled), '.') + tail;
}

bool is_failure_status(uint16_t status) { return status == STATUS_FAIL || (status >= 10 && status <= 20); }

bool is_final_at_line(const std::string &line) {
    static const char *const FINAL[] = {"OK", "ERROR", "+CME ERROR:", "+CMS ERROR:", "NO CARRIER",
                                        "BUSY", "NO ANSWER", "NO DIALTONE", "NO DIAL"};
    for (const char *f : FINAL) {
        if (starts_with(line, f))
            return true;
    }
    return false;
}

verdict exchange::take(const reply_frame &f) {
    if (f.code != request_.code)
        return verdict::unrelated;
    if (request_.kind == reply_kind::at_lines) {
        // A refusal (not in pass-through mode, busy, no such field) ends it at once.
        if (f.status != STATUS_OK) {
            exit_status_ = EXIT_FAILED;
            return verdict::done;
        }
        std::string line(f.text, f.text_len);
        if (!is_final_at_line(line))
            return verdict::progress;
        exit_status_ = starts_with(line, "OK") ? EXIT_OK : EXIT_FAILED;
        return verdict::done;
    }
    if (f.status == STATUS_PROGRESS)
        return verdict::progress;
    exit_status_ = is_failure_status(f.status) ? EXIT_FAILED : EXIT_OK;
    return verdict::done;
}

std::string duration_words(uint64_t seconds) {
    struct unit {
        uint64_t seconds;
        const char *name;
    };
    static const unit UNITS[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};
    size_t first = 0;
    while (first + 1 < 4 && seconds < UNITS[first].seconds)
        ++first;
    std::string out = std::to_string(seconds / UNITS[first].seconds) + " " + UNITS[first].name;
    if (first + 1 < 4) {
        uint64_t second = seconds % UNITS[first].seconds / UNITS[first + 1].seconds;
        if (second != 0)
            out += " " + std::to_string(second) + " " + UNITS[first + 1].name;
    }
    return out;
}

namespace {

std::string counted(uint64_t n, const char *one, const char *many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

// "3 dials" and, when its second key is known, ", 1 failed".
std::string with_failures(const daemon_stats &s, const char *key, const char *failures_key,
                          const char *one, const char *many) {
    std::optional<uint64_t> n = s.get(key), failed = s.get(failures_key);
    if (!n)
        return "";
    return counted(*n, one, many) + (failed ? ", " + std::to_string(*failed) + " failed" : "");
}

// Why a reply gives no value: "no reply", "busy", "not ready", or the status's name.
std::string why_not(const reply_frame *f) {
    if (f == nullptr)
        return "no reply";
    if (f->status == STATUS_BUSY)
        return "busy";
    if (f->status == STATUS_NOT_READY)
        return "not ready";
    return status_name(f->code, f->status);
}

const reply_frame *reply_to(const std::map<uint16_t, reply_frame> &replies, uint16_t code) {
    auto it = replies.find(code);
    return it != replies.end() ? &it->second : nullptr;
}

// The text of a status 0 reply, or none.
std::optional<std::string> answer_text(const std::map<uint16_t, reply_frame> &replies, uint16_t code) {
    const reply_frame *f = reply_to(replies, code);
    if (f == nullptr || f->status != STATUS_OK)
        return std::nullopt;
    return std::string(f->text, f->text_len);
}

// The statistics when 913 answered with a text that reads.
std::optional<daemon_stats> stats_of(const std::map<uint16_t, reply_frame> &replies) {
    std::optional<std::string> text = answer_text(replies, CODE_STATS);
    daemon_stats s;
    if (!text || !parse_stats(*text, &s))
        return std::nullopt;
    return s;
}

// The signal level as a number: "20", or "-1" when the module does not know it.
std::optional<long> signal_level(const std::map<uint16_t, reply_frame> &replies) {
    std::optional<std::string> text = answer_text(replies, CODE_GET_CSQ);
    if (!text)
        return std::nullopt;
    size_t sign = !text->empty() && (*text)[0] == '-' ? 1 : 0;
    uint64_t v;
    if (text->size() - sign > 5 || !stats_number(text->substr(sign), &v))
        return std::nullopt;
    return sign ? -static_cast<long>(v) : static_cast<long>(v);
}

std::string json_text(const std::optional<std::string> &s) { return s ? quoted(*s) : "null"; }

} // namespace

stats_phrases stats_words(const daemon_stats &s) {
    stats_phrases p;
    if (std::optional<uint64_t> up = s.get("up"))
        p.up = "up " + duration_words(*up);
    std::optional<uint64_t> link = s.get("link"), link_s = s.get("link_s");
    if (link)
        p.link = *link == 0 ? "link down" : link_s ? "link up for " + duration_words(*link_s) : "link up";
    p.dials = with_failures(s, "dials", "dial_failures", "dial", "dials");
    p.probes = with_failures(s, "probes", "probe_failures", "probe", "probes");
    if (std::optional<uint64_t> lost = s.get("lost"))
        p.lost = counted(*lost, "module loss", "module losses");
    if (std::optional<uint64_t> resets = s.get("resets"))
        p.resets = counted(*resets, "reset", "resets");
    std::optional<uint64_t> in = s.get("sms_in"), out = s.get("sms_out");
    if (in && out)
        p.sms = std::to_string(*in) + " in, " + std::to_string(*out) + " out";
    else if (in || out)
        p.sms = in ? std::to_string(*in) + " in" : std::to_string(*out) + " out";
    if (std::optional<uint64_t> dropped = s.get("dropped"))
        p.dropped = counted(*dropped, "frame dropped", "frames dropped");
    return p;
}

bool status_code_is_local(uint16_t code) { return code == CODE_VERSION || code == CODE_STATE || code == CODE_STATS; }

int status_exit(const std::map<uint16_t, reply_frame> &replies) {
    return stats_of(replies) ? EXIT_OK : EXIT_FAILED;
}

std::string format_status(const std::map<uint16_t, reply_frame> &replies, const print_style &style,
                          bool on_events) {
    const std::optional<daemon_stats> stats = stats_of(replies);
    const std::optional<std::string> version = answer_text(replies, CODE_VERSION);
    // 912 carries its state text with busy (12) too; not ready (13) has none.
    const reply_frame *state_reply = reply_to(replies, CODE_STATE);
    std::optional<std::string> state;
    if (state_reply != nullptr && state_reply->text_len > 0 &&
        (state_reply->status == STATUS_OK || state_reply->status == STATUS_BUSY))
        state = std::string(state_reply->text, state_reply->text_len);
    const std::optional<long> signal = signal_level(replies);

    if (style.json) {
        std::string out = "{\"version\":" + json_text(version) + ",\"state\":" + json_text(state);
        for (size_t i = 0; i < STATS_KEY_COUNT; ++i) {
            out += ",\"" + std::string(STATS_KEYS[i]) + "\":";
            out += stats && stats->known[i] ? std::to_string(stats->value[i]) : "null";
        }
        out += ",\"model\":" + json_text(answer_text(replies, CODE_GET_ATI)) +
               ",\"operator\":" + json_text(answer_text(replies, CODE_GET_COPS)) +
               ",\"signal\":" + (signal ? std::to_string(*signal) : "null");
        if (on_events)
            out += ",\"asked_on\":\"events\",\"not_asked\":[\"model\",\"operator\",\"signal\"]";
        return out + "}";
    }

    std::string out;
    auto line = [&out](const char *label, const std::string &first, const std::string &second = "",
                       const char *joint = ", ") {
        if (first.empty() && second.empty())
            return;
        if (!out.empty())
            out += "\n";
        std::string padded = std::string(label) + ":";
        padded.resize(std::max<size_t>(padded.size() + 1, 10), ' ');
        out += padded + first + (!first.empty() && !second.empty() ? joint : "") + second;
    };
    const stats_phrases words = stats ? stats_words(*stats) : stats_phrases{};
    line("daemon", version ? plain_escape(*version) : "version " + why_not(reply_to(replies, CODE_VERSION)), words.up);
    line("state", state ? plain_escape(*state) : why_not(state_reply), words.link);
    if (!stats) {
        const reply_frame *f = reply_to(replies, CODE_STATS);
        line("stats", f != nullptr && f->status == STATUS_OK ? "unreadable: " + plain_escape(std::string(f->text, f->text_len))
                                                             : why_not(f));
    }
    line("dials", words.dials);
    // Only the command socket reaches the module: its lines were not asked.
    const std::string not_asked = "not asked (the command socket serves another client)";
    const reply_frame *model = reply_to(replies, CODE_GET_ATI);
    line("module", on_events ? not_asked
                   : model != nullptr && model->status == STATUS_OK ? plain_escape(std::string(model->text, model->text_len))
                                                                    : why_not(model));
    line("faults", words.lost, words.resets);
    std::optional<std::string> operator_name = answer_text(replies, CODE_GET_COPS);
    line("operator", on_events ? not_asked
                     : operator_name ? plain_escape(*operator_name) : why_not(reply_to(replies, CODE_GET_COPS)));
    const reply_frame *signal_reply = reply_to(replies, CODE_GET_CSQ);
    std::string signal_words = !signal ? why_not(signal_reply)
                               : *signal < 0 || *signal == 99 ? "unknown"
                                                              : std::to_string(*signal) + " of 31";
    if (signal_reply != nullptr && signal_reply->status == STATUS_OK && !signal)
        signal_words = plain_escape(std::string(signal_reply->text, signal_reply->text_len));
    if (on_events)
        signal_words = not_asked;
    line("signal", signal_words);
    line("checks", words.probes);
    line("SMS", words.sms);
    line("client", words.dropped);
    return out;
}

bool parse_options(const std::vector<std::string> &a, options *out, std::string *error) {
    *out = options{};
    size_t i = 0;
    for (; i < a.size() && a[i].size() > 1 && a[i][0] == '-'; ++i) {
        const std::string &o = a[i];
        if (o == "--") {
            ++i;
            break;
        }
        if (o == "--json") {
            out->json = true;
        } else if (o == "--events") {
            out->events = true;
        } else if (o == "-h" || o == "--help") {
            out->help = true;
        } else if (o == "--timeout" || o == "--socket" || o == "--events-socket" || o == "--server-uid") {
            if (i + 1 >= a.size()) {
                *error = o + " needs a value";
                return false;
            }
            const std::string &v = a[++i];
            if (o == "--socket") {
                out->socket_name = v;
                continue;
            }
            if (o == "--events-socket") {
                out->events_socket_name = v;
                continue;
            }
            if (o == "--server-uid") {
                char *end = nullptr;
                errno = 0;
                unsigned long uid = strtoul(v.c_str(), &end, 10);
                // (uid_t)-1 is nobody's.
                if (v.empty() || !isdigit(static_cast<unsigned char>(v[0])) || *end != '\0' || errno != 0 ||
                    uid >= static_cast<uid_t>(-1)) {
                    *error = "--server-uid takes a user number";
                    return false;
                }
                out->server_uid = static_cast<uid_t>(uid);
                continue;
            }
            char *end = nullptr;
            double secs = strtod(v.c_str(), &end);
            if (v.empty() || *end != '\0' || !(secs > 0) || secs > 86400) {
                *error = "--timeout takes seconds, more than 0";
                return false;
            }
            out->timeout_ms = static_cast<int>(secs * 1000 + 0.5);
            if (out->timeout_ms == 0)
                out->timeout_ms = 1;
        } else {
            *error = "unknown option " + o;
            return false;
        }
    }
    if (out->help)
        return true;
    if (i < a.size() && a[i] == "listen") {
        out->listen = true;
        ++i;
    }
    out->words.assign(a.begin() + static_cast<long>(i), a.end());
    if (!out->listen && out->words.empty()) {
        *error = "no command given";
        return false;
    }
    return true;
}

std::string usage() {
    std::string u =
        "usage: zolvin_4g_ctl [--json] [--events] [--timeout SECONDS] [--socket NAME] [--server-uid UID]\n"
        "                     [--events-socket NAME] COMMAND [ARGS...]\n"
        "       zolvin_4g_ctl [--json] [--socket NAME] [--server-uid UID] listen [COMMAND [ARGS...]]\n"
        "\n"
        "Sends one request to the daemon and prints its reply as CODE STATUS-NAME(STATUS) TEXT,\n"
        "or a JSON object per line with --json. listen subscribes to @phone_events beside the\n"
        "client and prints every event as it arrives (after running COMMAND, if given: there\n"
        "only version, state and stats are served) until SIGINT or SIGTERM. status asks version,\n"
        "state and stats there when the command socket serves another client.\n"
        "The socket must belong to root (or to --server-uid UID), or nothing is sent.\n"
        "Exit status: 0 success, 1 failure status (1, 10 to 20), 2 usage, 3 no connection,\n"
        "no reply in time, or the daemon went away, 4 the socket belongs to another user.\n"
        "\n"
        "commands:\n";
    for (const command_spec &c : COMMANDS)
        u += std::string("  ") + c.synopsis + "\n";
    return u;
}

int run(const options &opts, std::ostream &out, std::ostream &err, int stop_fd) {
    if (opts.help) {
        out << usage();
        return EXIT_OK;
    }
    command cmd;
    std::string error;
    if (!opts.words.empty() && !parse_command(opts.words, &cmd, &error)) {
        err << "zolvin_4g_ctl: " << error << "\n" << usage();
        return EXIT_USAGE;
    }
    for (request &r : cmd.steps) {
        if (opts.timeout_ms > 0)
            r.timeout_ms = opts.timeout_ms;
    }
    // A listener subscribes beside the application that is the client.
    const std::string events_name = opts.events_socket_name.empty() ? EVENTS_SOCKET_NAME : opts.events_socket_name;
    std::string name = opts.socket_name;
    if (name.empty())
        name = opts.listen ? events_name : SERVER_SOCKET_NAME;
    int status = EXIT_OK;
    int fd = open_trusted(name, opts.server_uid, err, &status);
    if (fd < 0)
        return status;
    session s(fd, opts, out, err, opts.listen ? stop_fd : -1);
    if (cmd.summary && !opts.listen) {
        // The application holds the command socket: the daemon's own codes are
        // still served to a subscriber.
        bool taken = false;
        status = s.run_status(cmd.steps, opts.json || cmd.json, false, &taken);
        close(fd);
        if (!taken)
            return status;
        fd = open_trusted(events_name, opts.server_uid, err, &status);
        if (fd < 0)
            return status;
        std::vector<request> local;
        for (const request &r : cmd.steps) {
            if (status_code_is_local(r.code))
                local.push_back(r);
        }
        session e(fd, opts, out, err, -1);
        status = e.run_status(local, opts.json || cmd.json, true);
        close(fd);
        return status;
    }
    if (cmd.summary)
        status = s.run_status(cmd.steps, opts.json || cmd.json);
    for (size_t i = 0; !cmd.summary && i < cmd.steps.size(); ++i) {
        status = s.run_step(cmd.steps[i]);
        if (status != EXIT_OK || s.stopped())
            break;
    }
    if (status == EXIT_OK && opts.listen && !s.stopped())
        status = s.listen_until_stopped();
    close(fd);
    return status;
}

} // namespace ctl
