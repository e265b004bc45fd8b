// What the client tool prints of the daemon's frames, whose text comes from
// outside the tool (the module, the network, a caller). The first byte picks
// what is fed:
//   0: one frame (code picked by the second byte, status the third, the rest
//      its text) as a line, as an event in both styles, as fota progress;
//   1: an SMS record built from parts, which must read back: one 1031 when it
//      fits a frame, else 1033 frames that the tool must join to it;
//   2: the six replies of `status`, cut from the rest at 0xFF bytes.
// Plain lines must stay one line without a control byte; JSON must be one
// object that a reader written apart from the tool's escaping accepts, and
// its values must be what the frame carried.
#include "ctl/ctl.h"

#include "fuzz_support.h"
#include "json_check.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace {

using json_check::object;

const ctl::print_style PLAIN{false}, JSON{true};

// The frame as the tool receives it: built and cut from a byte stream, so its
// text ends at the first NUL and at 492 bytes.
reply_frame received(int code, int status, const std::string &text) {
    uint8_t frame[REPLY_MAX];
    size_t len = reply_build(frame, code, status, text.c_str());
    auto block = exact_copy(frame, len);
    reply_frame f;
    check(reply_parse(block.get(), len, &f) == static_cast<long>(len));
    return f;
}

void one_plain_line(const std::string &line) {
    for (char ch : line) {
        auto c = static_cast<unsigned char>(ch);
        check(c >= 0x20 && c != 0x7F);
    }
}

object json_of(const std::string &line) {
    object o;
    check(json_check::read(line, &o));
    return o;
}

// A member that is the string `want`; a text the tool had to make valid UTF-8
// is only checked for being there.
void string_member(const object &o, const char *key, const std::string &want) {
    auto it = o.find(key);
    check(it != o.end() && it->second.is_string);
    if (json_check::utf8_valid(want))
        check(it->second.value == want);
}

void number_member(const object &o, const char *key, unsigned long want) {
    auto it = o.find(key);
    check(it != o.end() && !it->second.is_string && it->second.value == std::to_string(want));
}

const char *event_name(uint16_t code) {
    switch (code) {
    case EVENT_CALL:
        return "call";
    case EVENT_TTS_DONE:
        return "tts_done";
    case EVENT_TONE:
        return "tone";
    case EVENT_SMS:
        return "sms";
    case EVENT_SMS_REPORT:
        return "sms_report";
    case EVENT_MODULE:
        return "module";
    case EVENT_MODULE_ERROR:
        return "module_error";
    default:
        return nullptr;
    }
}

// Any frame: the raw line in both styles, as an event and as a reply.
void as_frame(const reply_frame &f) {
    const std::string text(f.text, f.text_len);
    for (bool event : {false, true}) {
        const std::string plain = ctl::format_frame(f, PLAIN, event);
        one_plain_line(plain);
        check(plain.compare(0, 6, "event ") == 0 || !event);
        const object o = json_of(ctl::format_frame(f, JSON, event));
        number_member(o, "code", f.code);
        number_member(o, "status", f.status);
        string_member(o, "status_name", ctl::status_name(f.code, f.status));
        string_member(o, "text", text);
        check(o.size() == (event ? 5u : 4u) && (!event || o.at("event").value == "true"));
    }
}

// The decoded event: both styles decode it or neither does, and the JSON
// names the event's kind.
object as_event(const reply_frame &f) {
    const std::string plain = ctl::format_event(f, PLAIN), json = ctl::format_event(f, JSON);
    check(plain.empty() == json.empty());
    const char *kind = event_name(f.code);
    // These carry any text; the others are printed raw when theirs does not read.
    if (f.code == EVENT_TTS_DONE || f.code == EVENT_TONE || f.code == EVENT_MODULE_ERROR)
        check(!plain.empty());
    if (plain.empty()) {
        check(f.code != EVENT_TTS_DONE);
        return {};
    }
    check(kind != nullptr);
    one_plain_line(plain);
    object o = json_of(json);
    string_member(o, "event", kind);
    const std::string text(f.text, f.text_len);
    if (f.code == EVENT_TONE)
        string_member(o, "tone", text);
    if (f.code == EVENT_MODULE_ERROR)
        string_member(o, "line", text);
    if (f.code == EVENT_SMS_REPORT) {
        check(!text.empty() && text.size() <= 3 &&
              text.find_first_not_of("0123456789") == std::string::npos);
        number_member(o, "reference", std::stoul(text));
        number_member(o, "status", f.status);
    }
    return o;
}

// A fota progress text: its number is a percentage and the bar is drawn to it.
void as_progress(const reply_frame &f) {
    std::string label;
    int percent = -1;
    if (!ctl::progress_percent(f, &label, &percent))
        return;
    check(percent >= 0 && percent <= 100);
    const std::string text(f.text, f.text_len);
    check(text.compare(0, label.size(), label) == 0 && text.back() == '%');
    // A terminal shows it as it is: the label's bytes come partly from the module.
    const std::string bar = ctl::progress_bar(label, percent);
    one_plain_line(bar);
    const size_t open = bar.rfind(" ["), close = bar.rfind(']');
    check(open != std::string::npos && close == open + 32);
    check(bar.find_first_not_of('#', open + 2) ==
          open + 2 + static_cast<size_t>(percent * 30 / 100));
}

// One 1033 frame met with nothing kept: the last of a record gives it back
// at once, an earlier one is kept until listening ends, one with a count no
// record of the daemon has is given back at once, not kept.
void alone_joined(const reply_frame &f) {
    ctl::record_joiner joiner;
    const std::vector<ctl::joined_record> done = joiner.take(f);
    const std::string text(f.text, f.text_len);
    if (f.status == 0 || f.status >= ctl::record_joiner::FRAMES_MAX) {
        check(done.size() == 1 && done[0].text == text && done[0].whole == (f.status == 0) && !joiner.rest());
        return;
    }
    check(done.empty());
    std::optional<ctl::joined_record> rest = joiner.rest();
    check(rest && !rest->whole && rest->text == text && !joiner.rest());
}

// The record the daemon writes for a received SMS: number length (2 digits),
// number, "14", a 14-digit time stamp, text length (3 digits), text. The
// announced length may exceed what arrived: the frame ends where it ends.
void sms_record(const uint8_t *data, size_t size) {
    if (size < 17)
        return;
    size_t number_len = data[0] % 100, extra = data[1] % 8 == 0 ? data[1] : 0;
    char stamp[15];
    for (size_t i = 0; i < 14; ++i)
        stamp[i] = static_cast<char>('0' + data[2 + i] % 10);
    stamp[14] = '\0';
    data += 16;
    size -= 16;
    if (number_len > size)
        number_len = size;
    const std::string number(reinterpret_cast<const char *>(data), number_len),
        text(reinterpret_cast<const char *>(data) + number_len, size - number_len);
    size_t announced = text.size() + extra > 999 ? 999 : text.size() + extra;
    char head[3], length[4];
    snprintf(head, sizeof head, "%02zu", number_len);
    snprintf(length, sizeof length, "%03zu", announced);
    const std::string record = head + number + "14" + stamp + length + text;
    std::string arrived;
    object o;
    if (record.size() <= REPLY_TEXT_MAX) {
        const reply_frame f = received(EVENT_SMS, 0, record);
        arrived.assign(f.text, f.text_len);
        o = as_event(f);
    } else {
        // Cut anywhere (the tool must not rely on whole characters), each
        // piece ending at its NUL as it arrives; the joiner must give back
        // exactly what arrived, as one record.
        std::vector<std::string> pieces;
        for (size_t at = 0; at < record.size();) {
            size_t take = std::min(record.size() - at, REPLY_TEXT_MAX - (pieces.size() * 3 + number_len) % 4);
            pieces.push_back(record.substr(at, take));
            at += take;
        }
        ctl::record_joiner joiner;
        std::vector<ctl::joined_record> done;
        bool intact = true;
        for (size_t i = 0; i < pieces.size(); ++i) {
            const reply_frame f = received(EVENT_SMS_PART, static_cast<int>(pieces.size() - 1 - i), pieces[i]);
            arrived.append(f.text, f.text_len);
            intact = intact && f.text_len == pieces[i].size();
            check(done.empty());
            done = joiner.take(f);
        }
        check(done.size() == 1 && done[0].whole && done[0].text == arrived && !joiner.rest());
        const std::string plain = ctl::format_sms_record(arrived, PLAIN), json = ctl::format_sms_record(arrived, JSON);
        check(plain.empty() == json.empty());
        if (!plain.empty()) {
            one_plain_line(plain);
            o = json_of(json);
            string_member(o, "event", "sms");
        }
        // A NUL ended a piece early: the joined text lost bytes inside, so
        // whether it reads is not known from its length alone.
        if (!intact)
            return;
    }

    // Whole up to its text, and no more text than announced: it reads.
    const size_t text_at = 2 + number_len + 2 + 14 + 3;
    const bool reads = arrived.size() >= text_at && arrived.size() - text_at <= announced;
    check(o.empty() != reads);
    if (!reads)
        return;
    string_member(o, "from", number);
    string_member(o, "text", arrived.substr(text_at));
    const std::string s(stamp);
    string_member(o, "time",
                  s.substr(0, 4) + "-" + s.substr(4, 2) + "-" + s.substr(6, 2) + "T" +
                      s.substr(8, 2) + ":" + s.substr(10, 2) + ":" + s.substr(12, 2));
}

// The replies of `status`, each "status byte, text", cut at 0xFF bytes.
void status_summary(const uint8_t *data, size_t size) {
    static const uint16_t CODES[] = {911, 912, 913, 51, 103, 102};
    std::map<uint16_t, reply_frame> replies;
    size_t at = 0;
    for (uint16_t code : CODES) {
        if (at >= size)
            break;
        const uint8_t *end = static_cast<const uint8_t *>(memchr(data + at, 0xFF, size - at));
        size_t piece_end = end != nullptr ? static_cast<size_t>(end - data) : size;
        // A first byte of 0xFE leaves the code without a reply.
        if (piece_end > at && data[at] != 0xFE) {
            std::string text(reinterpret_cast<const char *>(data) + at + 1, piece_end - at - 1);
            replies[code] = received(code, data[at] % 16, text);
        }
        at = piece_end + 1;
    }
    const std::string plain = ctl::format_status(replies, PLAIN);
    size_t from = 0;
    for (size_t nl = plain.find('\n'); from <= plain.size(); nl = plain.find('\n', from)) {
        const size_t stop = nl == std::string::npos ? plain.size() : nl;
        one_plain_line(plain.substr(from, stop - from));
        from = stop + 1;
    }
    const object o = json_of(ctl::format_status(replies, JSON));
    check(o.size() == 5 + ctl::STATS_KEY_COUNT);
    auto it = replies.find(913);
    ctl::daemon_stats stats;
    const bool read = it != replies.end() && it->second.status == STATUS_OK &&
                      ctl::parse_stats(std::string(it->second.text, it->second.text_len), &stats);
    check(ctl::status_exit(replies) == (read ? ctl::EXIT_OK : ctl::EXIT_FAILED));
    for (size_t i = 0; i < ctl::STATS_KEY_COUNT; ++i) {
        const json_check::member &m = o.at(ctl::STATS_KEYS[i]);
        check(!m.is_string &&
              m.value == (read && stats.known[i] ? std::to_string(stats.value[i]) : "null"));
    }
    for (auto [key, code] :
         {std::pair<const char *, uint16_t>{"version", 911}, {"model", 51}, {"operator", 103}}) {
        const json_check::member &m = o.at(key);
        auto r = replies.find(code);
        const bool answered = r != replies.end() && r->second.status == STATUS_OK;
        check(m.is_string == answered && (m.is_string || m.value == "null"));
        if (answered && json_check::utf8_valid(std::string(r->second.text, r->second.text_len)))
            check(m.value == std::string(r->second.text, r->second.text_len));
    }
    const json_check::member &signal = o.at("signal");
    check(!signal.is_string && (signal.value == "null" || signal.value.find_first_not_of(
                                                              "-0123456789") == std::string::npos));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 3)
        return 0;
    switch (data[0] % 3) {
    case 0: {
        static const uint16_t CODES[] = {EVENT_CALL,
                                         EVENT_TTS_DONE,
                                         EVENT_TONE,
                                         EVENT_SMS,
                                         EVENT_SMS_REPORT,
                                         EVENT_MODULE,
                                         EVENT_MODULE_ERROR,
                                         EVENT_AT_LINE,
                                         EVENT_FOTA_DONE,
                                         EVENT_RESTARTED,
                                         913,
                                         102,
                                         EVENT_SMS_PART};
        constexpr size_t N = sizeof CODES / sizeof CODES[0];
        // Past the table, the code is the byte itself: any other code.
        const uint16_t code = data[1] < N ? CODES[data[1]] : data[1];
        const std::string text(reinterpret_cast<const char *>(data) + 3, size - 3);
        const reply_frame f = received(code, data[2], text);
        as_frame(f);
        as_event(f);
        as_progress(f);
        if (code == EVENT_SMS_PART)
            alone_joined(f);
        break;
    }
    case 1:
        sms_record(data + 1, size - 1);
        break;
    default:
        status_summary(data + 1, size - 1);
        break;
    }
    return 0;
}
