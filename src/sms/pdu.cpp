#include "sms/pdu.h"

#include "core/report.h"
#include "core/stats.h"
#include "sms/alphabet.h"

#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

// TS 23.040 limits: an address value is at most ten octets, the user data of
// one message at most 140 octets (160 septets). A line announcing more is not
// a PDU we take, and with these limits every text fits sms_deliver::text and
// every record SMS_RECORD_MAX.
constexpr size_t ADDRESS_DIGITS_MAX = 20;
constexpr size_t USER_DATA_MAX = 140;
constexpr size_t NUMBER_MAX = 50;

// Type of number, bits 6-4 of the type of address.
constexpr int TON_INTERNATIONAL = 1;
constexpr int TON_ALPHANUMERIC = 5;

constexpr int FIRST_OCTET_UDHI = 0x40;

// User-data header elements that join the parts of a long message.
constexpr uint8_t IEI_CONCAT_8BIT = 0x00;
constexpr uint8_t IEI_CONCAT_16BIT = 0x08;

enum class coding { gsm7, eight_bit, ucs2, none };

// The alphabet a data coding scheme gives. The message class and the
// waiting-indication bits do not change how the text reads; compressed text
// and the reserved groups are nothing a client could read.
coding coding_of(int dcs) {
    if (dcs < 0x80) {
        if (dcs & 0x20)
            return coding::none; // compressed
        switch (dcs & 0x0C) {
        case 0x04:
            return coding::eight_bit;
        case 0x08:
            return coding::ucs2;
        default:
            return coding::gsm7; // 11 is reserved, and reserved codings read as 00
        }
    }
    if (dcs < 0xC0)
        return coding::none;
    if (dcs < 0xE0)
        return coding::gsm7;
    if (dcs < 0xF0)
        return coding::ucs2;
    return (dcs & 0x04) ? coding::eight_bit : coding::gsm7;
}

int hex_nibble(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// The characters of a PDU line that carry octets: up to the first character
// that is not hexadecimal (modules end the line with a stray quote or blank),
// whole octets only.
size_t hex_span(const char *pdu, size_t len) {
    size_t n = 0;
    while (n < len && hex_nibble(pdu[n]) >= 0)
        ++n;
    return n & ~static_cast<size_t>(1);
}

// The walk through the octets of a PDU line. Every step first checks the
// characters left, so a length that promises more than the line holds stops
// the walk instead of reading past the line's end.
struct pdu_cursor {
    const char *p;
    size_t left; // characters, all hexadecimal, an even count

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
    bool octets(uint8_t *dst, size_t n) {
        const char *at;
        if (n > left / 2 || !take(2 * n, &at))
            return false;
        for (size_t i = 0; i < n; ++i)
            dst[i] = static_cast<uint8_t>(hex_nibble(at[2 * i]) << 4 | hex_nibble(at[2 * i + 1]));
        return true;
    }
    bool octet(int *value) {
        uint8_t v;
        if (!octets(&v, 1))
            return false;
        *value = v;
        return true;
    }
    // An address: its length in semi-octets, the type of address, the value.
    // Digits are the swapped semi-octets; an alphanumeric value is GSM 7-bit
    // text, as many septets as the semi-octets hold.
    bool address(char *number, size_t size) {
        int digits;
        int type;
        uint8_t value[ADDRESS_DIGITS_MAX / 2];
        if (!octet(&digits) || static_cast<size_t>(digits) > ADDRESS_DIGITS_MAX ||
            !octet(&type) || !octets(value, static_cast<size_t>(digits + 1) / 2))
            return false;
        const size_t octet_count = static_cast<size_t>(digits + 1) / 2;
        const int ton = type >> 4 & 7;
        if (ton == TON_ALPHANUMERIC) {
            uint8_t septets[ADDRESS_DIGITS_MAX * 4 / 7];
            size_t count = gsm7_unpack_at(septets, sizeof septets, value, octet_count, 0,
                                          static_cast<size_t>(digits) * 4 / 7);
            size_t used;
            size_t n = gsm7_to_utf8(septets, count, number, size - 1, &used);
            number[n] = '\0';
            return used == count;
        }
        static const char HEX_DIGITS[] = "0123456789ABCDEF";
        size_t out = 0;
        if (ton == TON_INTERNATIONAL)
            number[out++] = '+';
        for (int i = 0; i < digits; ++i) {
            if (out + 1 >= size)
                return false;
            // Low semi-octet first; the filler of an odd count is never reached.
            uint8_t pair = value[i / 2];
            number[out++] = HEX_DIGITS[i % 2 == 0 ? pair & 0x0F : pair >> 4];
        }
        number[out] = '\0';
        return true;
    }
};

// Skips the service-centre address; the TPDU's first octet is returned.
bool smsc_and_first_octet(pdu_cursor *c, int *first) {
    int smsc;
    return c->octet(&smsc) && c->skip(2 * static_cast<size_t>(smsc)) && c->octet(first);
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

// The elements of a user-data header. Only the concatenation elements matter;
// one that names no part (a count or number of 0, a number past the count) is
// ignored as if absent, and of two the later one holds. An element whose
// length runs past the header means the header cannot be trusted.
bool header_elements(const uint8_t *h, size_t len, sms_deliver *out) {
    size_t i = 0;
    while (i < len) {
        if (len - i < 2 || h[i + 1] > len - i - 2)
            return false;
        const uint8_t iei = h[i];
        const uint8_t iel = h[i + 1];
        const uint8_t *d = h + i + 2;
        int reference = -1;
        if (iei == IEI_CONCAT_8BIT && iel == 3)
            reference = d[0];
        else if (iei == IEI_CONCAT_16BIT && iel == 4)
            reference = d[0] << 8 | d[1];
        if (reference >= 0) {
            const uint8_t count = d[iel - 2];
            const uint8_t part = d[iel - 1];
            if (count != 0 && part != 0 && part <= count) {
                out->concatenated = true;
                out->reference = static_cast<uint16_t>(reference);
                out->part_count = count;
                out->part = part;
            }
        }
        i += 2 + iel;
    }
    return true;
}

// The text of `n` user-data octets, the header's `header` octets first, into
// out->text. For 7-bit text `udl` counts the septets, the header's included:
// the text starts at the first septet boundary after the header.
bool user_text(coding cs, const uint8_t *ud, size_t n, size_t header, size_t udl,
               sms_deliver *out) {
    const uint8_t *text = ud + header;
    const size_t text_octets = n - header;
    switch (cs) {
    case coding::gsm7: {
        const size_t header_septets = (header * 8 + 6) / 7;
        if (udl < header_septets)
            return false;
        uint8_t septets[USER_DATA_MAX * 8 / 7];
        size_t count = gsm7_unpack_at(septets, sizeof septets, text, text_octets,
                                      static_cast<unsigned>(header_septets * 7 - header * 8),
                                      udl - header_septets);
        out->text_len = gsm7_to_utf8(septets, count, out->text, sizeof out->text);
        return true;
    }
    case coding::eight_bit:
        memcpy(out->text, text, text_octets);
        out->text_len = text_octets;
        return true;
    case coding::ucs2:
        out->text_len = utf16_to_utf8(text, text_octets, out->text, sizeof out->text);
        return true;
    case coding::none:
        break;
    }
    return false;
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
    pdu_cursor c{pdu, hex_span(pdu, len)};
    int first;
    int dcs;
    int udl;
    struct tm t;
    if (!smsc_and_first_octet(&c, &first) || !c.address(out->sender, sizeof out->sender) ||
        !c.skip(2) || !c.octet(&dcs) || !time_stamp(&c, &t) || !c.octet(&udl))
        return false;
    const coding cs = coding_of(dcs);
    if (cs == coding::none)
        return false;

    // The user data is the rest of the line; its announced length, in
    // septets for 7-bit text, must not promise more than that.
    size_t n = c.left / 2;
    size_t announced = cs == coding::gsm7 ? (static_cast<size_t>(udl) * 7 + 7) / 8
                                          : static_cast<size_t>(udl);
    if (n > USER_DATA_MAX || announced > n)
        return false;
    n = announced;
    uint8_t ud[USER_DATA_MAX];
    if (!c.octets(ud, n))
        return false;
    out->concatenated = false;
    out->reference = 0;
    out->part_count = 1;
    out->part = 1;
    size_t header = 0;
    if (first & FIRST_OCTET_UDHI) {
        if (n < 1 || static_cast<size_t>(ud[0]) + 1 > n || !header_elements(ud + 1, ud[0], out))
            return false;
        header = static_cast<size_t>(ud[0]) + 1;
    }
    if (!user_text(cs, ud, n, header, static_cast<size_t>(udl), out))
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
    return true;
}

bool sms_status_parse(const char *pdu, size_t len, int *status, int *reference) {
    pdu_cursor c{pdu, hex_span(pdu, len)};
    int first;
    char recipient[NUMBER_MAX];
    // The two time stamps (service centre and discharge) are not reported.
    return smsc_and_first_octet(&c, &first) && c.octet(reference) &&
           c.address(recipient, sizeof recipient) && c.skip(28) && c.octet(status);
}
