#include "sms/send.h"

#include "sms/alphabet.h"

#include "at/at.h"
#include "core/convert.h"
#include "core/daemon_state.h"
#include "core/stats.h"
#include "core/text.h"
#include "core/wait.h"
#include "modem/modem.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr char CTRL_Z = 0x1a;
constexpr char ESC = 0x1b;
constexpr uint32_t PROMPT_TIMEOUT_MS = 350;
// The network may take its time to accept a message.
constexpr uint32_t RESULT_TIMEOUT_MS = 120000;

// 14 semi-octet digits, an 'F' pad and the terminator.
constexpr size_t SEMI_OCTETS_SIZE = 20;
// Text mode sends one message's characters.
constexpr size_t TEXT_CHARS_MAX = 160;
constexpr size_t USER_DATA_OCTETS_MAX = 140;
// The concatenation header: its length, element 00 (8-bit reference) of
// three octets, then reference, part count, part number.
constexpr size_t CONCAT_HEADER_OCTETS = 6;
// A 7-bit text after that header starts on a septet boundary: one fill bit.
constexpr unsigned CONCAT_FILL_BITS = 1;
constexpr size_t CONCAT_HEADER_SEPTETS = 7;
constexpr uint8_t FIRST_OCTET_SUBMIT = 0x11; // SMS-SUBMIT, relative validity period
constexpr uint8_t FIRST_OCTET_SRR = 0x20;    // status report requested
constexpr uint8_t FIRST_OCTET_UDHI = 0x40;   // the user data begins with a header

// The text-mode number's work area is 50 bytes, its terminator included.
constexpr size_t TEXT_DESTINATION_MAX = 49;

// Appends to the PDU string; the longest PDU (14-digit numbers, 140 octets of
// user data) takes 329 characters, so `ok` only guards the arithmetic above.
struct pdu_writer {
    char *buf;
    size_t size;
    size_t len = 0;
    bool ok = true;

    void put(const char *s, size_t n) {
        if (!ok || n >= size - len) {
            ok = false;
            return;
        }
        memcpy(buf + len, s, n);
        len += n;
        buf[len] = '\0';
    }
    void put(const char *s) { put(s, strlen(s)); }
    // Every octet of the layout is below 256, where "0%1X" and "%2X" both give two digits.
    void put_octet(size_t v) {
        char hex[3];
        snprintf(hex, sizeof hex, "%02X", static_cast<unsigned>(v & 0xFF));
        put(hex, 2);
    }
    void put_octets(const uint8_t *octets, size_t n) {
        for (size_t i = 0; i < n; ++i)
            put_octet(octets[i]);
    }
};

bool is_high_surrogate(const uint8_t *unit) { return unit[0] >= 0xD8 && unit[0] <= 0xDB; }

// One part's user data (header included) and its length field: septets for
// 7-bit, octets for UCS-2. False when it would not fit 140 octets, which the
// split's part sizes rule out.
bool part_user_data(const sms_text_parts &t, size_t part, uint8_t reference, uint8_t *ud,
                    size_t *ud_octets, size_t *udl) {
    const uint8_t *data = t.data + t.start[part];
    const size_t n = t.start[part + 1] - t.start[part];
    size_t at = 0;
    if (t.count > 1) {
        const uint8_t header[CONCAT_HEADER_OCTETS] = {
            5, 0x00, 3, reference, static_cast<uint8_t>(t.count), static_cast<uint8_t>(part + 1)};
        memcpy(ud, header, sizeof header);
        at = sizeof header;
    }
    if (t.ucs2) {
        if (n > USER_DATA_OCTETS_MAX - at)
            return false;
        memcpy(ud + at, data, n);
        *ud_octets = at + n;
        *udl = at + n;
        return true;
    }
    size_t packed = gsm7_pack_at(ud + at, USER_DATA_OCTETS_MAX - at, data, n,
                                 at != 0 ? CONCAT_FILL_BITS : 0);
    if (packed == 0 && n > 0)
        return false;
    *ud_octets = at + packed;
    *udl = (at != 0 ? CONCAT_HEADER_SEPTETS : 0) + n;
    return true;
}

// How one "AT+CMGS" exchange differs between the two codes.
struct cmgs_rules {
    int code;
    const char *time_out;
    // First characters of a line that equal the body's: the module's echo of it.
    size_t echo_len;
    // Whether "+CMGS:" gives the reference reported with "OK"; otherwise it is
    // a line for the common thread.
    bool message_ref;
};

constexpr cmgs_rules PDU_RULES = {CODE_SMS_SEND_PDU, "time out!", 10, true};
constexpr cmgs_rules TEXT_RULES = {CODE_SMS_SEND_TEXT, "time out", 1, false};

// The module's '>' asks for the body.
constexpr at_row PROMPT_ROWS[] = {{">", nullptr, at_verdict::success}};
constexpr at_rules PROMPT = {PROMPT_ROWS, 1, AT_ERRORS_ALL};

// "OK" after the body ends the exchange; "+CMGS:" before it carries the
// reference, which only PDU mode reports (text mode leaves it to urc_ring).
enum : int { CMGS_REFERENCE = 1 };
constexpr at_row RESULT_ROWS[] = {
    {"OK", nullptr, at_verdict::success},
    {"+CMGS:", nullptr, at_verdict::info, CMGS_REFERENCE},
};

// The command, the prompt, the body (Ctrl-Z included), the result: one
// exchange, so nothing else reaches the module between command and body.
// Status 0 after the module's "OK", the message reference in `ref` (empty
// when the module gave none); a failure under the rules' code.
op_outcome cmgs_exchange(const cmgs_rules &r, const char *cmd, const char *body, size_t body_len,
                         char (&ref)[SMS_MESSAGE_REF_SIZE]) {
    ref[0] = '\0';
    if (!at_start(cmd, strlen(cmd)))
        return at_send_failure(r.code);
    at_heard h;
    at_verdict v = at_wait(PROMPT, monotonic_ms() + PROMPT_TIMEOUT_MS, &h);
    if (v != at_verdict::success) {
        // Drained like every other end, so a line behind the refusal still
        // reaches the common thread.
        if (v == at_verdict::timed_out)
            at_finish();
        else
            at_end(h);
        return outcome(r.code, STATUS_FAIL, v == at_verdict::timed_out ? r.time_out : nullptr);
    }
    if (at_send(body, body_len) == -1) {
        at_abort();
        return at_send_failure(r.code);
    }
    const at_rules result = {RESULT_ROWS, r.message_ref ? 2u : 1u, AT_ERRORS_ALL, body, r.echo_len};
    const int64_t deadline = monotonic_ms() + RESULT_TIMEOUT_MS;
    for (;;) {
        v = at_wait(result, deadline, &h);
        if (v == at_verdict::info) {
            cmgs_reference(h.line, ref);
            continue;
        }
        if (v == at_verdict::timed_out) {
            at_finish();
            return outcome(r.code, STATUS_FAIL, r.time_out);
        }
        at_end(h);
        return outcome(r.code, v == at_verdict::success ? STATUS_OK : STATUS_FAIL);
    }
}

// Decimal digits after one optional '+': all an address's semi-octets carry
// here. The stored centre may be empty; a destination may not.
bool dialable(const char *number, bool may_be_empty) {
    if (number[0] == '+')
        ++number;
    if (number[0] == '\0')
        return may_be_empty;
    for (; *number != '\0'; ++number) {
        if (*number < '0' || *number > '9')
            return false;
    }
    return true;
}

} // namespace

bool cmgs_reference(const char *line, char (&ref)[SMS_MESSAGE_REF_SIZE]) {
    if (!has_prefix(line, "+CMGS:"))
        return false;
    if (strlen(line) > 7)
        text_set(ref, line + 7);
    return true;
}

bool sms_text_split(uint8_t ucs2, const char *text, size_t len, sms_text_parts *out) {
    out->ucs2 = ucs2;
    out->count = 0;
    int encoded = ucs2 ? utf8_to_utf16(text, len, out->data, sizeof out->data)
                       : utf8_to_gsm7(text, len, out->data, sizeof out->data);
    if (encoded < 0)
        return false;
    // Counted in septets or in UTF-16 units.
    const size_t unit = ucs2 ? 2 : 1;
    const size_t n = static_cast<size_t>(encoded) / unit;
    const size_t whole = ucs2 ? SMS_UNITS_MAX : SMS_SEPTETS_MAX;
    const size_t part = ucs2 ? SMS_PART_UNITS : SMS_PART_SEPTETS;
    out->start[0] = 0;
    if (n <= whole) {
        out->count = 1;
        out->start[1] = n * unit;
        return true;
    }
    size_t at = 0;
    while (at < n) {
        if (out->count == SMS_PARTS_MAX)
            return false;
        size_t end = at + part < n ? at + part : n;
        // An escape (it is never an extension code itself) or a high
        // surrogate left last would be parted from what it belongs to.
        if (end < n && (ucs2 ? is_high_surrogate(out->data + (end - 1) * 2)
                             : out->data[end - 1] == GSM7_ESCAPE))
            --end;
        out->start[++out->count] = end * unit;
        at = end;
    }
    return true;
}

bool sms_submit_build(uint8_t ucs2, const char *smsc, const char *destination, const char *text,
                      int validity, uint8_t status_report, uint8_t reference, sms_submit *out) {
    out->count = 0;
    if (validity < 0 || validity > 255 || !dialable(destination, false) || !dialable(smsc, true))
        return false;
    char smsc_semi[SEMI_OCTETS_SIZE];
    char dest_semi[SEMI_OCTETS_SIZE];
    int smsc_len = number_to_semi_octets(smsc, smsc_semi, sizeof smsc_semi);
    int dest_len = number_to_semi_octets(destination, dest_semi, sizeof dest_semi);
    if (smsc_len < 0 || dest_len < 0)
        return false;
    sms_text_parts t;
    if (!sms_text_split(ucs2, text, strlen(text), &t))
        return false;
    const bool international = destination[0] == '+' || has_prefix(destination, "86");
    uint8_t first = FIRST_OCTET_SUBMIT | (status_report ? FIRST_OCTET_SRR : 0) |
                    (t.count > 1 ? FIRST_OCTET_UDHI : 0);
    for (size_t i = 0; i < t.count; ++i) {
        uint8_t ud[USER_DATA_OCTETS_MAX];
        size_t ud_octets, udl;
        if (!part_user_data(t, i, reference, ud, &ud_octets, &udl))
            return false;
        sms_submit_pdu &pdu = out->parts[i];
        pdu_writer w{pdu.text, sizeof pdu.text};
        w.put_octet(static_cast<size_t>(smsc_len + 2) / 2);
        w.put("91");
        w.put(smsc_semi);
        const size_t smsc_part = w.len;
        // The module sets the message reference.
        w.put_octet(first);
        w.put("00");
        w.put_octet(strlen(destination) - (destination[0] == '+' ? 1 : 0));
        // A number given with '+', or beginning with 86, is international.
        w.put(international ? "91" : "81");
        w.put(dest_semi);
        w.put("00");
        w.put(ucs2 ? "08" : "00");
        w.put_octet(static_cast<size_t>(validity));
        w.put_octet(udl);
        w.put_octets(ud, ud_octets);
        w.put(&CTRL_Z, 1);
        if (!w.ok)
            return false;
        pdu.len = w.len;
        pdu.tpdu_octets = static_cast<int>((w.len - smsc_part) / 2);
    }
    out->count = t.count;
    return true;
}

op_outcome sms_send_pdu(uint8_t ucs2, const char *smsc, const char *destination, const char *text,
                        int validity, uint8_t status_report, const reply_sink &aside) {
    const bool stored_smsc = strncmp(smsc, "DEFAULT", 7) == 0;
    daemon_state &s = state();
    // A long message takes the next reference; one that fits takes none.
    const uint8_t reference = static_cast<uint8_t>(s.sms_reference.load() + 1);
    sms_submit message;
    // Built before anything reaches the module, so a refused request sends
    // nothing; with the stored centre it is built again below.
    if (!sms_submit_build(ucs2, stored_smsc ? "" : smsc, destination, text, validity,
                          status_report, reference, &message))
        return outcome(CODE_SMS_SEND_PDU, STATUS_BAD_PARAM);
    // A failed switch is not fatal: the module may be in PDU mode already.
    set_cmgf(0);
    if (stored_smsc) {
        if (s.smsc_number[0] == '\0') {
            // An unusable centre is the client's to know; the send goes on
            // without one.
            bool unusable = false;
            op_outcome centre = get_csca(&unusable);
            if (unusable)
                aside(centre);
        }
        // The module's centre may be longer than a PDU address holds.
        if (!sms_submit_build(ucs2, s.smsc_number, destination, text, validity, status_report,
                              reference, &message))
            return outcome(CODE_SMS_SEND_PDU, STATUS_BAD_PARAM);
    }
    if (message.count > 1)
        s.sms_reference.store(reference);
    // Up to 10 references of up to 10 characters, joined by ','.
    char refs[SMS_PARTS_MAX * SMS_MESSAGE_REF_SIZE] = "";
    size_t refs_len = 0;
    for (size_t i = 0; i < message.count; ++i) {
        const sms_submit_pdu &pdu = message.parts[i];
        char cmd[24];
        snprintf(cmd, sizeof cmd, "AT+CMGS=%d\r", pdu.tpdu_octets);
        char ref[SMS_MESSAGE_REF_SIZE];
        // The first failing part's outcome ends the send; the parts after it are not sent.
        op_outcome sent = cmgs_exchange(PDU_RULES, cmd, pdu.text, pdu.len, ref);
        if (!sent.ok())
            return sent;
        if (i > 0)
            refs[refs_len++] = ',';
        size_t n = strnlen(ref, sizeof ref - 1);
        memcpy(refs + refs_len, ref, n);
        refs_len += n;
        refs[refs_len] = '\0';
    }
    // Counted before the reply, so a 913 asked on it includes this message.
    stat_add(stat_counter::sms_out);
    return outcome(CODE_SMS_SEND_PDU, STATUS_OK, refs);
}

op_outcome sms_send_text(const char *destination, const char *text) {
    // The number goes into the command line. The text is the body after the
    // prompt: quotes and line breaks are its own, but Ctrl-Z would end it
    // early and let the rest run as commands, and ESC would cancel it.
    if (strnlen(destination, TEXT_DESTINATION_MAX + 1) > TEXT_DESTINATION_MAX ||
        !at_text_ok(destination) || strpbrk(text, "\x1A\x1B") != nullptr)
        return outcome(CODE_SMS_SEND_TEXT, STATUS_BAD_PARAM);
    if (!set_cmgf(1).ok()) {
        set_cmgf(0);
        return outcome(CODE_SMS_SEND_TEXT, STATUS_FAIL, "set_cmgf");
    }
    if (destination[0] == '+')
        ++destination;
    // The number in quotes after "AT+CMGS=", the line end and the terminator.
    char cmd[TEXT_DESTINATION_MAX + 16];
    snprintf(cmd, sizeof cmd, "AT+CMGS=\"%s\"\r\n", destination);
    // One message's characters, Ctrl-Z and the terminator.
    char body[TEXT_CHARS_MAX + 2];
    size_t len = strnlen(text, TEXT_CHARS_MAX);
    memcpy(body, text, len);
    body[len] = CTRL_Z;
    body[len + 1] = '\0';
    char ref[SMS_MESSAGE_REF_SIZE];
    op_outcome sent = cmgs_exchange(TEXT_RULES, cmd, body, len + 1, ref);
    if (sent.ok()) {
        stat_add(stat_counter::sms_out);
    } else {
        // The module may still wait for a body (a late prompt, a result that
        // never came): ESC cancels it, and a module back at its command line
        // passes over a byte before "AT". Without it the switch below would
        // become the message.
        at_send(&ESC, 1);
    }
    // The receive side reads PDUs: in text mode incoming messages would come
    // as text, which it cannot take apart.
    set_cmgf(0);
    return sent;
}
