#include "sms/pdu.h"

#include "core/convert.h"
#include "core/report.h"
#include "core/stats.h"

#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

// TS 23.040 limits: an address value is at most ten octets, the user data of
// one message at most 140 octets. A line announcing more is not a PDU we take,
// and with these limits every record fits SMS_RECORD_MAX.
constexpr size_t ADDRESS_DIGITS_MAX = 20;
constexpr size_t USER_DATA_MAX = 140;
constexpr size_t NUMBER_MAX = 50;
constexpr size_t TEXT_MAX = 500;

constexpr int DCS_GSM7 = 0;
constexpr int DCS_8BIT = 4;
constexpr int DCS_UCS2 = 8;

bool is_upper_hex(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); }

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// The walk through a PDU line. Every step first checks the characters left,
// so a length that promises more than the line holds stops the walk instead
// of reading past the line's end.
struct pdu_cursor {
    const char *p;
    size_t left;

    bool take(size_t chars, const char **at) {
        if (chars > left)
            return false;
        *at = p;
        p += chars;
        left -= chars;
        return true;
    }
    bool skip(size_t chars) {
        const char *unused;
        return take(chars, &unused);
    }
    bool octet(int *value) {
        const char *at;
        if (!take(2, &at))
            return false;
        *value = hex_byte_value(at);
        return true;
    }
    // An address: digit count, type of address, the swapped digits.
    bool address(char *number, size_t size) {
        int digits;
        const char *type;
        const char *semi;
        if (!octet(&digits) || static_cast<size_t>(digits) > ADDRESS_DIGITS_MAX ||
            !take(2, &type) || !take(static_cast<size_t>(digits + 1) / 2 * 2, &semi))
            return false;
        size_t out = 0;
        if (type[0] == '9' && type[1] == '1')
            number[out++] = '+';
        for (int i = 0; i < digits; ++i) {
            if (out + 1 >= size)
                return false;
            number[out++] = semi[i ^ 1]; // the filler of an odd count is never reached
        }
        number[out] = '\0';
        return true;
    }
};

// An odd character count or a character that is not upper-case hexadecimal
// means the line was damaged: its octets cannot be trusted.
bool is_hex_line(const char *pdu, size_t len) {
    if (len % 2 != 0)
        return false;
    for (size_t i = 0; i < len; ++i)
        if (!is_upper_hex(pdu[i]))
            return false;
    return true;
}

// Skips the service-centre address and the TPDU's first octet.
bool skip_smsc(pdu_cursor *c) {
    int smsc;
    return c->octet(&smsc) && c->skip(2 * static_cast<size_t>(smsc) + 2);
}

// Six semi-octet pairs, year first, then the time zone, skipped (its sign bit
// makes it no decimal pair). Normalised as local time with daylight saving
// unknown, so valid fields stay as received.
bool time_stamp(pdu_cursor *c, struct tm *t) {
    const char *at;
    if (!c->take(14, &at))
        return false;
    int v[6];
    for (int i = 0; i < 6; ++i) {
        if (!is_digit(at[2 * i]) || !is_digit(at[2 * i + 1]))
            return false;
        v[i] = (at[2 * i + 1] - '0') * 10 + (at[2 * i] - '0');
    }
    *t = {};
    t->tm_year = v[0] + 100;
    t->tm_mon = v[1] - 1;
    t->tm_mday = v[2];
    t->tm_hour = v[3];
    t->tm_min = v[4];
    t->tm_sec = v[5];
    t->tm_isdst = -1;
    return mktime(t) != static_cast<time_t>(-1);
}

// The text of the user data octets; returns its length or -1 for a coding
// the client does not get.
int user_text(int dcs, const uint8_t *ud, size_t n, char *text) {
    switch (dcs) {
    case DCS_GSM7:
        return static_cast<int>(gsm7_unpack(text, TEXT_MAX, ud, n));
    case DCS_8BIT:
        memcpy(text, ud, n);
        return static_cast<int>(n);
    case DCS_UCS2: {
        size_t capacity = TEXT_MAX;
        size_t written = ucs2_to_utf8(ud, n, reinterpret_cast<uint8_t *>(text), &capacity);
        // The client's text ends at a NUL unit, and so does its announced length.
        return static_cast<int>(strnlen(text, written));
    }
    default:
        return -1;
    }
}

} // namespace

size_t sms_deliver_parse(const char *pdu, size_t len, char *record, size_t record_size) {
    if (!is_hex_line(pdu, len))
        return 0;
    pdu_cursor c{pdu, len};
    char number[NUMBER_MAX];
    int dcs;
    int udl;
    struct tm t;
    if (!skip_smsc(&c) || !c.address(number, sizeof number) || !c.skip(2) || !c.octet(&dcs) ||
        !time_stamp(&c, &t) || !c.octet(&udl))
        return 0;
    if (dcs != DCS_GSM7 && dcs != DCS_8BIT && dcs != DCS_UCS2)
        return 0;

    // The user data is the rest of the line; its announced length, in
    // septets for 7-bit text, must not promise more than that.
    size_t n = c.left / 2;
    size_t announced = dcs == DCS_GSM7 ? (static_cast<size_t>(udl) * 7 + 7) / 8
                                       : static_cast<size_t>(udl);
    if (n > USER_DATA_MAX || announced > n)
        return 0;
    uint8_t ud[USER_DATA_MAX];
    hex_to_bytes(ud, sizeof ud, c.p, c.left);
    char text[TEXT_MAX];
    int text_len = user_text(dcs, ud, n, text);
    if (text_len < 0)
        return 0;

    int head = snprintf(record, record_size, "%02d%s%02d%04d%02d%02d%02d%02d%02d%03d",
                        static_cast<int>(strlen(number)), number, 14, t.tm_year + 1900,
                        t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, text_len);
    size_t total = static_cast<size_t>(head) + static_cast<size_t>(text_len);
    if (head < 0 || total + 1 > record_size)
        return 0;
    memcpy(record + head, text, static_cast<size_t>(text_len));
    record[total] = '\0';
    return total;
}

bool sms_status_parse(const char *pdu, size_t len, int *status, int *reference) {
    if (!is_hex_line(pdu, len))
        return false;
    pdu_cursor c{pdu, len};
    char recipient[NUMBER_MAX];
    // The two time stamps (service centre and discharge) are not reported.
    return skip_smsc(&c) && c.octet(reference) && c.address(recipient, sizeof recipient) &&
           c.skip(28) && c.octet(status);
}

void sms_deliver_decode(const char *pdu) {
    char record[SMS_RECORD_MAX];
    if (sms_deliver_parse(pdu, strlen(pdu), record, sizeof record) > 0) {
        stat_add(stat_counter::sms_in);
        client_report(EVENT_SMS, STATUS_OK, record);
    }
}

void sms_status_decode(const char *pdu) {
    int status;
    int reference;
    if (!sms_status_parse(pdu, strlen(pdu), &status, &reference))
        return;
    char text[8];
    snprintf(text, sizeof text, "%d", reference);
    client_report(EVENT_SMS_REPORT, status, text);
}
