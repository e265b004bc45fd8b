#include "sms/send.h"

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
constexpr uint32_t PROMPT_TIMEOUT_MS = 350;
// The network may take its time to accept a message.
constexpr uint32_t RESULT_TIMEOUT_MS = 120000;

// 14 semi-octet digits, an 'F' pad and the terminator.
constexpr size_t SEMI_OCTETS_SIZE = 20;
constexpr size_t GSM7_CHARS_MAX = 160;
constexpr size_t USER_DATA_OCTETS_MAX = 140;
// utf8_to_ucs2 is given 255 bytes, so at most 127 units: more than 140 octets
// of user data anyway, cut below.
constexpr size_t UCS2_CAPACITY = 255;
constexpr size_t PACKED_SIZE = 256;

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
};

// The user data in hexadecimal into `hex` (at most 280 characters); returns
// the user-data length field: characters for 7-bit, octets for UCS-2.
size_t user_data(uint8_t ucs2, const char *text, char (&hex)[2 * PACKED_SIZE]) {
    uint8_t packed[PACKED_SIZE];
    const auto *bytes = reinterpret_cast<const uint8_t *>(text);
    size_t len = strlen(text);
    if (!ucs2) {
        size_t chars = len < GSM7_CHARS_MAX ? len : GSM7_CHARS_MAX;
        size_t octets = gsm7_pack(packed, sizeof packed, bytes, chars);
        hex[bytes_to_hex(hex, sizeof hex - 1, packed, octets)] = '\0';
        return chars;
    }
    size_t capacity = UCS2_CAPACITY;
    size_t octets = utf8_to_ucs2(bytes, len, packed, &capacity);
    if (octets > USER_DATA_OCTETS_MAX)
        octets = USER_DATA_OCTETS_MAX;
    hex[bytes_to_hex(hex, sizeof hex - 1, packed, octets)] = '\0';
    return octets;
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

constexpr cmgs_rules PDU_RULES = {SMS_SEND_PDU_CODE, "time out!", 10, true};
constexpr cmgs_rules TEXT_RULES = {SMS_SEND_TEXT_CODE, "time out", 1, false};

enum class prompt_wait { prompt, refused, timed_out };

prompt_wait wait_for_prompt() {
    const int64_t deadline = monotonic_ms() + PROMPT_TIMEOUT_MS;
    char line[RING_LINE_SIZE];
    while (at_next_line(line, sizeof line, deadline)) {
        if (line[0] == '>')
            return prompt_wait::prompt;
        if (at_module_error(line)) {
            urc_push(line);
            return prompt_wait::refused;
        }
        if (has_prefix(line, "ERROR"))
            return prompt_wait::refused;
        if (!has_prefix(line, "AT"))
            urc_push(line);
    }
    return prompt_wait::timed_out;
}

int wait_for_result(const cmgs_rules &r, const char *body) {
    const int64_t deadline = monotonic_ms() + RESULT_TIMEOUT_MS;
    char ref[SMS_MESSAGE_REF_SIZE] = "";
    char line[RING_LINE_SIZE];
    while (at_next_line(line, sizeof line, deadline)) {
        if (has_prefix(line, "OK")) {
            // Counted before the reply, so a 913 asked on it includes this message.
            stat_add(stat_counter::sms_out);
            client_report(r.code, STATUS_OK, r.message_ref ? ref : nullptr);
            return 0;
        }
        if (r.message_ref && cmgs_reference(line, ref))
            continue;
        if (at_module_error(line)) {
            client_report(r.code, STATUS_FAIL, nullptr);
            urc_push(line);
            return -1;
        }
        if (has_prefix(line, "ERROR")) {
            client_report(r.code, STATUS_FAIL, nullptr);
            return -1;
        }
        if (strncmp(line, body, r.echo_len) != 0)
            urc_push(line);
    }
    client_report(r.code, STATUS_FAIL, r.time_out);
    return -1;
}

// The command, the prompt, the body (Ctrl-Z included), the result: one
// transaction, so nothing else reaches the module between command and body.
// *body_sent tells whether the module took a body.
int cmgs_exchange(const cmgs_rules &r, const char *cmd, const char *body, size_t body_len,
                  bool *body_sent) {
    *body_sent = false;
    at_begin();
    if (at_send(cmd, strlen(cmd)) == -1) {
        at_abort();
        at_report_send_failure(r.code);
        return -1;
    }
    prompt_wait p = wait_for_prompt();
    if (p != prompt_wait::prompt) {
        // Drained like every other end, so a line behind the refusal still
        // reaches the common thread.
        at_finish();
        client_report(r.code, STATUS_FAIL, p == prompt_wait::timed_out ? r.time_out : nullptr);
        return -1;
    }
    if (at_send(body, body_len) == -1) {
        at_abort();
        at_report_send_failure(r.code);
        return -1;
    }
    *body_sent = true;
    int result = wait_for_result(r, body);
    at_finish();
    return result;
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

bool sms_submit_build(uint8_t ucs2, const char *smsc, const char *destination, const char *text,
                      int validity, uint8_t status_report, sms_submit_pdu *out) {
    if (validity < 0 || validity > 255 || !dialable(destination, false) || !dialable(smsc, true))
        return false;
    if (!ucs2) {
        // The packing keeps 7 bits of each character: a higher byte would be garbled.
        for (const char *c = text; *c != '\0'; ++c) {
            if (static_cast<unsigned char>(*c) > 127)
                return false;
        }
    }
    char smsc_semi[SEMI_OCTETS_SIZE];
    char dest_semi[SEMI_OCTETS_SIZE];
    int smsc_len = number_to_semi_octets(smsc, smsc_semi, sizeof smsc_semi);
    int dest_len = number_to_semi_octets(destination, dest_semi, sizeof dest_semi);
    if (smsc_len < 0 || dest_len < 0)
        return false;
    char ud_hex[2 * PACKED_SIZE];
    size_t ud_len = user_data(ucs2, text, ud_hex);

    pdu_writer w{out->text, sizeof out->text};
    w.put_octet(static_cast<size_t>(smsc_len + 2) / 2);
    w.put("91");
    w.put(smsc_semi);
    const size_t smsc_part = w.len;
    // SMS-SUBMIT with a relative validity period; the module sets the reference.
    w.put(status_report ? "3100" : "1100");
    w.put_octet(strlen(destination) - (destination[0] == '+' ? 1 : 0));
    // A number that begins with 86 is taken as international.
    w.put(has_prefix(dest_semi, "68") ? "91" : "81");
    w.put(dest_semi);
    w.put("00");
    w.put(ucs2 ? "08" : "00");
    w.put_octet(static_cast<size_t>(validity));
    w.put_octet(ud_len);
    w.put(ud_hex);
    w.put(&CTRL_Z, 1);
    if (!w.ok)
        return false;
    out->len = w.len;
    out->tpdu_octets = static_cast<int>((w.len - smsc_part) / 2);
    return true;
}

int sms_send_pdu(uint8_t ucs2, const char *smsc, const char *destination, const char *text,
                 int validity, uint8_t status_report) {
    const bool stored_smsc = strncmp(smsc, "DEFAULT", 7) == 0;
    sms_submit_pdu pdu;
    // Built before anything reaches the module, so a refused request sends
    // nothing; with the stored centre it is built again below.
    if (!sms_submit_build(ucs2, stored_smsc ? "" : smsc, destination, text, validity,
                          status_report, &pdu)) {
        client_report(SMS_SEND_PDU_CODE, STATUS_BAD_PARAM, nullptr);
        return -1;
    }
    // A failed switch is not fatal: the module may be in PDU mode already.
    set_cmgf(0, 0);
    if (stored_smsc) {
        daemon_state &s = state();
        if (s.smsc_number[0] == '\0')
            get_csca(0);
        // The module's centre may be longer than a PDU address holds.
        if (!sms_submit_build(ucs2, s.smsc_number, destination, text, validity, status_report,
                              &pdu)) {
            client_report(SMS_SEND_PDU_CODE, STATUS_BAD_PARAM, nullptr);
            return -1;
        }
    }
    char cmd[24];
    snprintf(cmd, sizeof cmd, "AT+CMGS=%d\r", pdu.tpdu_octets);
    bool body_sent;
    return cmgs_exchange(PDU_RULES, cmd, pdu.text, pdu.len, &body_sent);
}

void sms_send_text(const char *destination, const char *text) {
    // The number goes into the command line. The text is the body after the
    // prompt: quotes and line breaks are its own, but Ctrl-Z would end it
    // early and let the rest run as commands, and ESC would cancel it.
    if (strnlen(destination, TEXT_DESTINATION_MAX + 1) > TEXT_DESTINATION_MAX ||
        !at_text_ok(destination) || strpbrk(text, "\x1A\x1B") != nullptr) {
        client_report(SMS_SEND_TEXT_CODE, STATUS_BAD_PARAM, nullptr);
        return;
    }
    if (set_cmgf(1, 0) != 0) {
        client_report(SMS_SEND_TEXT_CODE, STATUS_FAIL, "set_cmgf");
        set_cmgf(0, 0);
        return;
    }
    if (destination[0] == '+')
        ++destination;
    // The number in quotes after "AT+CMGS=", the line end and the terminator.
    char cmd[TEXT_DESTINATION_MAX + 16];
    snprintf(cmd, sizeof cmd, "AT+CMGS=\"%s\"\r\n", destination);
    // One message's characters, Ctrl-Z and the terminator.
    char body[GSM7_CHARS_MAX + 2];
    size_t len = strnlen(text, GSM7_CHARS_MAX);
    memcpy(body, text, len);
    body[len] = CTRL_Z;
    body[len + 1] = '\0';
    bool body_sent;
    cmgs_exchange(TEXT_RULES, cmd, body, len + 1, &body_sent);
    // The receive side reads PDUs. Without a body taken, the module may still
    // wait for one and would swallow the switch; the next PDU send makes it.
    if (body_sent)
        set_cmgf(0, 0);
}
