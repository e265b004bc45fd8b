#include "ctl/events.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace ctl {

namespace {

void put_utf8_escape(std::string *out, unsigned code_point) {
    char buf[8];
    snprintf(buf, sizeof buf, "\\u%04x", code_point);
    *out += buf;
}

// Length of the valid UTF-8 sequence at `p`, or 0.
size_t utf8_sequence(const unsigned char *p, size_t left) {
    unsigned char c = p[0];
    size_t n;
    unsigned min;
    unsigned cp;
    if (c >= 0xC2 && c <= 0xDF) {
        n = 2, min = 0x80, cp = c & 0x1Fu;
    } else if (c >= 0xE0 && c <= 0xEF) {
        n = 3, min = 0x800, cp = c & 0x0Fu;
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4, min = 0x10000, cp = c & 0x07u;
    } else {
        return 0;
    }
    if (left < n)
        return 0;
    for (size_t i = 1; i < n; ++i) {
        if ((p[i] & 0xC0) != 0x80)
            return 0;
        cp = (cp << 6) | (p[i] & 0x3Fu);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        return 0;
    return n;
}

} // namespace

std::string plain_escape(const std::string &bytes) {
    std::string out;
    for (char ch : bytes) {
        auto c = static_cast<unsigned char>(ch);
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7F) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\x%02X", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}
std::string quoted(const std::string &s) { return "\"" + json_escape(s) + "\""; }

// The start of an event's JSON object, named as the protocol names it.
std::string json_event(uint16_t code) { return std::string("{\"event\":\"") + code_name(code) + "\""; }

std::string status_name(uint16_t code, uint16_t status) {
    if (code == EVENT_SMS_REPORT)
        return "sms-report";
    switch (status) {
    case STATUS_OK: return "ok";
    case STATUS_FAIL: return "failed";
    case STATUS_CALL_STATE: return "call-state";
    case STATUS_PROGRESS: return "progress";
    case STATUS_BAD_PARAM: return "bad-parameter";
    case STATUS_PASSTHROUGH_OFF: return "passthrough-off";
    case STATUS_BUSY: return "busy";
    case STATUS_NOT_READY: return "not-ready";
    case STATUS_NOT_SERVED: return "not-allowed";
    case STATUS_UNKNOWN_CODE: return "unknown-code";
    default: return "status-" + std::to_string(status);
    }
}

std::string json_escape(const std::string &bytes) {
    std::string out;
    const auto *p = reinterpret_cast<const unsigned char *>(bytes.data());
    size_t n = bytes.size();
    for (size_t i = 0; i < n;) {
        unsigned char c = p[i];
        if (c == '"') {
            out += "\\\"";
        } else if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7F) {
            put_utf8_escape(&out, c);
        } else if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            size_t len = utf8_sequence(p + i, n - i);
            if (len == 0) {
                // Not UTF-8 (a garbled module line): the replacement character keeps the JSON valid.
                put_utf8_escape(&out, 0xFFFD);
                ++i;
                continue;
            }
            out.append(bytes, i, len);
            i += len;
            continue;
        }
        ++i;
    }
    return out;
}

std::string format_frame(const reply_frame &f, const print_style &style, bool event) {
    return format_text_frame(f.code, f.status, std::string(f.text, f.text_len), style, event);
}

std::string format_text_frame(uint16_t code, uint16_t status, const std::string &text,
                              const print_style &style, bool event) {
    const reply_frame f{code, status, 0, {}};
    std::string name = status_name(f.code, f.status);
    if (style.json) {
        std::string out = "{";
        if (event)
            out += "\"event\":true,";
        out += "\"code\":" + std::to_string(f.code) + ",\"status\":" + std::to_string(f.status) +
               ",\"status_name\":\"" + name + "\",\"text\":\"" + json_escape(text) + "\"}";
        return out;
    }
    std::string out = event ? "event " : "";
    out += std::to_string(f.code) + " " + name + "(" + std::to_string(f.status) + ")";
    if (!text.empty())
        out += " " + plain_escape(text);
    return out;
}

namespace {

// The fields of an SMS record (event 1031).
struct sms_fields {
    std::string from, time, text; // time as "YYYY-MM-DD hh:mm:ss"
};

// `n` decimal digits at `pos`, or -1 when the text has fewer.
long digits_at(const std::string &t, size_t pos, size_t n) {
    if (pos > t.size() || t.size() - pos < n)
        return -1;
    long v = 0;
    for (size_t i = pos; i < pos + n; ++i) {
        if (t[i] < '0' || t[i] > '9')
            return -1;
        v = v * 10 + (t[i] - '0');
    }
    return v;
}

// Number length (2 digits), number, "14", time stamp, text length (3 digits),
// text. The frame ends at the first NUL, so a text shorter than announced is
// what arrived of it; anything else that does not add up is no record.
bool sms_record_parse(const std::string &t, sms_fields *out) {
    long number_len = digits_at(t, 0, 2);
    if (number_len < 0 || t.size() - 2 < static_cast<size_t>(number_len))
        return false;
    size_t pos = 2 + static_cast<size_t>(number_len);
    if (digits_at(t, pos, 2) != 14 || digits_at(t, pos + 2, 14) < 0)
        return false;
    std::string stamp = t.substr(pos + 2, 14);
    long text_len = digits_at(t, pos + 16, 3);
    if (text_len < 0 || t.size() - (pos + 19) > static_cast<size_t>(text_len))
        return false;
    out->from = t.substr(2, static_cast<size_t>(number_len));
    out->time = stamp.substr(0, 4) + "-" + stamp.substr(4, 2) + "-" + stamp.substr(6, 2) + " " +
                stamp.substr(8, 2) + ":" + stamp.substr(10, 2) + ":" + stamp.substr(12, 2);
    out->text = t.substr(pos + 19);
    return true;
}

// What a status report's status octet says (TS 23.040 ranges).
const char *report_outcome(uint16_t status) {
    if (status < 0x20)
        return "delivered";
    return status < 0x40 ? "pending" : "failed";
}

// The words of a call event: state, and the reason or number, if any.
bool call_words(const reply_frame &f, const std::string &text, std::string *state, std::string *detail) {
    static const char *const ENDS[] = {"no carrier", "busy", "no dial tone"};
    if (f.status == STATUS_OK && text.empty()) {
        *state = "incoming";
    } else if (f.status == 1 && !text.empty()) {
        *state = "incoming";
        *detail = text;
    } else if (f.status == STATUS_CALL_STATE && text == "0") {
        *state = "answered";
    } else if (f.status == STATUS_CALL_STATE && text.size() == 1 && text[0] >= '1' && text[0] <= '3') {
        *state = "ended";
        *detail = ENDS[text[0] - '1'];
    } else {
        return false;
    }
    return true;
}


} // namespace

std::string format_event(const reply_frame &f, const print_style &style) {
    const std::string text(f.text, f.text_len);
    const bool json = style.json;
    switch (f.code) {
    case EVENT_CALL: {
        std::string state, detail;
        if (!call_words(f, text, &state, &detail))
            return "";
        if (json) {
            std::string more = detail.empty() ? ""
                               : state == "ended" ? ",\"reason\":" + quoted(detail)
                                                  : ",\"number\":" + quoted(detail);
            return json_event(EVENT_CALL) + ",\"state\":\"" + state + "\"" + more + "}";
        }
        if (state == "ended")
            return "call ended (" + detail + ")";
        if (state == "incoming")
            return "call incoming " + (detail.empty() ? std::string("(no number)") : plain_escape(detail));
        return "call " + state;
    }
    case EVENT_TTS_DONE:
        return json ? json_event(EVENT_TTS_DONE) + "}" : "tts done";
    case EVENT_TONE:
        return json ? json_event(EVENT_TONE) + ",\"tone\":" + quoted(text) + "}" : "tone " + plain_escape(text);
    case EVENT_SMS:
        return format_sms_record(text, style);
    case EVENT_SMS_REPORT: {
        // The length first: a long run of digits would overflow the reading.
        if (text.empty() || text.size() > 3)
            return "";
        long reference = digits_at(text, 0, text.size());
        if (reference < 0)
            return "";
        std::string status = std::to_string(f.status);
        if (json)
            return json_event(EVENT_SMS_REPORT) + ",\"reference\":" + std::to_string(reference) + ",\"status\":" +
                   status + ",\"outcome\":\"" + report_outcome(f.status) + "\"}";
        return "sms report ref " + std::to_string(reference) + " status " + status + " (" +
               report_outcome(f.status) + ")";
    }
    case EVENT_MODULE: {
        if (!text.empty() || (f.status != STATUS_OK && f.status != STATUS_FAIL))
            return "";
        const char *state = f.status == STATUS_FAIL ? "left" : "back";
        return json ? json_event(EVENT_MODULE) + ",\"state\":\"" + state + "\"}"
                    : std::string(f.status == STATUS_FAIL ? "module left the bus" : "module back");
    }
    case EVENT_MODULE_ERROR:
        return json ? json_event(EVENT_MODULE_ERROR) + ",\"line\":" + quoted(text) + "}"
                    : "module error " + plain_escape(text);
    default:
        return "";
    }
}

std::string format_sms_record(const std::string &record, const print_style &style) {
    sms_fields sms;
    if (!sms_record_parse(record, &sms))
        return "";
    if (style.json) {
        std::string iso = sms.time;
        iso[10] = 'T';
        return json_event(EVENT_SMS) + ",\"from\":" + quoted(sms.from) + ",\"time\":\"" + iso +
               "\",\"text\":" + quoted(sms.text) + "}";
    }
    return "sms from " + plain_escape(sms.from) + " at " + sms.time + ": " + plain_escape(sms.text);
}

std::vector<joined_record> record_joiner::take(const reply_frame &f) {
    std::vector<joined_record> done;
    // A frame the daemon dropped for a full socket leaves a gap in the count:
    // what came before it is given back as it is.
    if (expect_ >= 0 && f.status != expect_) {
        done.push_back({std::move(joined_), false});
        joined_.clear();
        expect_ = -1;
    }
    if (f.status >= FRAMES_MAX) {
        done.push_back({std::string(f.text, f.text_len), false});
        return done;
    }
    joined_.append(f.text, f.text_len);
    if (f.status == 0) {
        done.push_back({std::move(joined_), true});
        joined_.clear();
        expect_ = -1;
    } else {
        expect_ = f.status - 1;
    }
    return done;
}

std::optional<joined_record> record_joiner::rest() {
    if (expect_ < 0)
        return std::nullopt;
    expect_ = -1;
    joined_record r{std::move(joined_), false};
    joined_.clear();
    return r;
}

// ---- status

const char *const STATS_KEYS[STATS_KEY_COUNT] = {
    "up", "link", "link_s", "dials", "dial_failures", "resets",
    "lost", "probes", "probe_failures", "sms_in", "sms_out", "dropped"};

std::optional<uint64_t> daemon_stats::get(const std::string &key) const {
    for (size_t i = 0; i < STATS_KEY_COUNT; ++i) {
        if (key == STATS_KEYS[i])
            return known[i] ? std::optional<uint64_t>(value[i]) : std::nullopt;
    }
    return std::nullopt;
}

// 1 to 20 decimal digits whose value fits in 64 bits.
bool stats_number(const std::string &v, uint64_t *out) {
    if (v.empty() || v.size() > 20)
        return false;
    uint64_t n = 0;
    for (char c : v) {
        if (c < '0' || c > '9')
            return false;
        auto digit = static_cast<uint64_t>(c - '0');
        if (n > (UINT64_MAX - digit) / 10)
            return false;
        n = n * 10 + digit;
    }
    *out = n;
    return true;
}

bool parse_stats(const std::string &text, daemon_stats *out) {
    *out = daemon_stats{};
    daemon_stats got;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find(' ', pos);
        if (end == std::string::npos)
            end = text.size();
        if (end == pos) {
            ++pos;
            continue;
        }
        std::string word = text.substr(pos, end - pos);
        pos = end;
        size_t eq = word.find('=');
        if (eq == std::string::npos)
            return false;
        const std::string key = word.substr(0, eq);
        size_t i = 0;
        while (i < STATS_KEY_COUNT && key != STATS_KEYS[i])
            ++i;
        if (i == STATS_KEY_COUNT)
            continue; // a newer daemon's: not ours to show
        uint64_t v;
        if (got.known[i] || !stats_number(word.substr(eq + 1), &v) || (key == "link" && v > 1))
            return false;
        got.known[i] = true;
        got.value[i] = v;
    }
    *out = got;
    return true;
}

void frame_reader::feed(const uint8_t *bytes, size_t n) { pending_.insert(pending_.end(), bytes, bytes + n); }

bool frame_reader::next(reply_frame *out) {
    if (bad_ || pending_.empty())
        return false;
    long used = reply_parse(pending_.data(), pending_.size(), out);
    if (used < 0) {
        bad_ = true;
        return false;
    }
    if (used == 0)
        return false;
    pending_.erase(pending_.begin(), pending_.begin() + used);
    return true;
}

// ---- the daemon's sockets

int connect_to(const std::string &name, int flags, std::string *error) {
    sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (name.empty() || name.size() >= sizeof addr.sun_path) {
        *error = "bad socket name '" + name + "'";
        return -1;
    }
    memcpy(addr.sun_path, name.c_str(), name.size());
    socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    if (name[0] == '@')
        addr.sun_path[0] = '\0'; // abstract: the name's bytes without a terminator
    else
        len = static_cast<socklen_t>(len + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    if (fd < 0) {
        *error = std::string("socket: ") + strerror(errno);
        return -1;
    }
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), len) != 0) {
        int e = errno;
        close(fd);
        *error = "cannot connect to " + name + ": " + strerror(e);
        if (e == ECONNREFUSED || e == ENOENT)
            *error += " (is the daemon running?)";
        return -1;
    }
    return fd;
}

bool server_trusted(int fd, uid_t expected, std::string *error) {
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof cred) {
        *error = std::string("cannot read the server's credentials: ") + strerror(errno);
        return false;
    }
    if (cred.uid == expected)
        return true;
    *error = "the socket belongs to uid " + std::to_string(cred.uid) + " (pid " + std::to_string(cred.pid) +
             "), not to uid " + std::to_string(expected) + ": not the daemon";
    return false;
}

} // namespace ctl
