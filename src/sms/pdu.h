// Received SMS PDUs (SMS-DELIVER and status reports, each preceded by its
// service-centre address) taken apart; inbox.h makes them client events. The
// parse steps are pure; every announced length is checked against the bytes
// left and the room of the destination, and a PDU that does not add up gives
// nothing. The SMS-SUBMIT for sending is built in send.h.
#pragma once

#include <cstddef>
#include <cstdint>

// A record's text length has three digits; a sender is at most 20 digits or
// 11 GSM characters, the time stamp 14 digits.
constexpr size_t SMS_TEXT_MAX = 999;
constexpr size_t SMS_SENDER_SIZE = 48;    // UTF-8, terminator included
constexpr size_t SMS_PART_TEXT_MAX = 480; // one PDU's text as UTF-8
constexpr size_t SMS_RECORD_MAX = 2 + SMS_SENDER_SIZE + 2 + 14 + 3 + SMS_TEXT_MAX + 1;

// One SMS-DELIVER taken apart. The text is UTF-8 for GSM 7-bit and UCS-2
// coding, the raw octets for 8-bit data (then it may hold any byte).
struct sms_deliver {
    char sender[SMS_SENDER_SIZE]; // terminated; '+' first for an international number
    char stamp[15];               // YYYYMMDDhhmmss, terminated
    char text[SMS_PART_TEXT_MAX];
    size_t text_len;
    // A part of a concatenated message (user-data header element 00 or 08).
    bool concatenated;
    uint16_t reference;
    uint8_t part_count; // 1 to 255
    uint8_t part;       // 1 to part_count
};

// Writes the 1031 record of `sender`, `stamp` and `text_len` bytes of text:
// sender length (2 digits), sender, "14", stamp, text length (3 digits),
// text. Returns its length (terminated), or 0 when the text has more than
// SMS_TEXT_MAX bytes or the record does not fit `size`.
size_t sms_record_build(const char *sender, const char *stamp, const char *text,
                        size_t text_len, char *record, size_t size);

// Takes one SMS-DELIVER apart. Reads the `len` characters of `pdu` (no
// terminator needed) up to the first one that is not hexadecimal (either
// case), whole octets only. The sender is '+' and digits for an international
// number, the GSM text of an alphanumeric one. A user-data header is skipped;
// its concatenation element, if any, fills the part fields (else
// `concatenated` is false, part 1 of 1). False, with `out` undefined, when the
// data coding gives no event (compressed text, the reserved groups) or the
// PDU does not add up:
//  - an SMSC length, address length or fixed field past the octets read, or
//    an address of more than 20 semi-octets;
//  - a time-stamp field (year to second) that is not two decimal digits;
//  - more than 140 octets of user data, or a user-data length (septets for
//    7-bit) announcing more octets than the line carries;
//  - a header longer than the user data, an element running past the header,
//    or 7-bit text whose septets would start past the announced length.
bool sms_deliver_parse(const char *pdu, size_t len, sms_deliver *out);

// The status octet and the message reference of one status report; false
// when the PDU does not add up (the line is read, and the recipient address
// checked, as above). The status is the octet after the two time stamps, so
// optional parameters after it do not change it.
bool sms_status_parse(const char *pdu, size_t len, int *status, int *reference);
