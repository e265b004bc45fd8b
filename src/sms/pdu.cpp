#include "sms/pdu.h"

#include "core/convert.h"
#include "core/report.h"
#include "core/stats.h"
#include "sms/alphabet.h"

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

// The text of the user data octets into out->text; false for a coding the
// client does not get.
bool user_text(int dcs, const uint8_t *ud, size_t n, int udl, sms_deliver *out) {
    switch (dcs) {
    case DCS_GSM7: {
        uint8_t septets[USER_DATA_MAX * 8 / 7];
        size_t count = gsm7_unpack_at(septets, sizeof septets, ud, n, 0, static_cast<size_t>(udl));
        out->text_len = gsm7_to_utf8(septets, count, out->text, sizeof out->text);
        return true;
    }
    case DCS_8BIT:
        memcpy(out->text, ud, n);
        out->text_len = n;
        return true;
    case DCS_UCS2:
        out->text_len = utf16_to_utf8(ud, n, out->text, sizeof out->text);
        return true;
    default:
        return false;
    }
}

} // namespace

size_t sms_record_build(const char *sender, const char *stamp, const char *text,
                        size_t text_len, char *record, size_t size) {
    if (text_len > SMS_TEXT_MAX)
        return 0;
    int head = snprintf(record, size, "%02d%s14%s%03d", static_cast<int>(strlen(sender)), sender,
                        stamp, static_cast<int>(text_len));
    if (head < 0)
        return 0;
    size_t total = static_cast<size_t>(head) + text_len;
    if (total + 1 > size)
        return 0;
    memcpy(record + head, text, text_len);
    record[total] = '\0';
    return total;
}

bool sms_deliver_parse(const char *pdu, size_t len, sms_deliver *out) {
    if (!is_hex_line(pdu, len))
        return false;
    pdu_cursor c{pdu, len};
    int dcs;
    int udl;
    struct tm t;
    if (!skip_smsc(&c) || !c.address(out->sender, sizeof out->sender) || !c.skip(2) ||
        !c.octet(&dcs) || !time_stamp(&c, &t) || !c.octet(&udl))
        return false;
    if (dcs != DCS_GSM7 && dcs != DCS_8BIT && dcs != DCS_UCS2)
        return false;

    // The user data is the rest of the line; its announced length, in
    // septets for 7-bit text, must not promise more than that.
    size_t n = c.left / 2;
    size_t announced = dcs == DCS_GSM7 ? (static_cast<size_t>(udl) * 7 + 7) / 8
                                       : static_cast<size_t>(udl);
    if (n > USER_DATA_MAX || announced > n)
        return false;
    n = announced;
    uint8_t ud[USER_DATA_MAX];
    hex_to_bytes(ud, sizeof ud, c.p, 2 * n);
    if (!user_text(dcs, ud, n, udl, out))
        return false;
    // Normalised fields stay in their widths: a two-digit year gives 2000 to 2099.
    const int fields[6] = {t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec};
    char *d = out->stamp;
    for (int i = 0; i < 6; ++i) {
        unsigned v = static_cast<unsigned>(fields[i]);
        if (i == 0) {
            *d++ = static_cast<char>('0' + v / 1000 % 10);
            *d++ = static_cast<char>('0' + v / 100 % 10);
        }
        *d++ = static_cast<char>('0' + v / 10 % 10);
        *d++ = static_cast<char>('0' + v % 10);
    }
    *d = '\0';
    out->concatenated = false;
    out->reference = 0;
    out->part_count = 1;
    out->part = 1;
    return true;
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
