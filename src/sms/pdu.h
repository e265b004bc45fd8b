// Received SMS PDUs (SMS-DELIVER and status reports, each preceded by its
// service-centre address) taken apart into client events. The parse steps are
// pure; every announced length is checked against the bytes left and the room
// of the destination, and a PDU that does not add up gives nothing. The
// SMS-SUBMIT for sending is built in send.h.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t SMS_RECORD_MAX = 500; // bytes of a record, terminator included

// The record of one SMS-DELIVER: number length (2 digits), number ('+' first
// for an international one), "14", the time stamp YYYYMMDDhhmmss, text length
// (3 digits), text (7-bit characters, raw octets or UTF-8 from UCS-2).
// The user data is the rest of the line: a 7-bit text of 7k octets thus ends
// with a character of value 0, counted in the text length. The time stamp is
// normalised as local time. Reads only the `len` characters of `pdu` (no
// terminator needed). Returns the record's length in `record` (terminated;
// a 7-bit text may hold bytes of value 0 before it), or 0 when the data
// coding is not 7-bit, 8-bit or UCS-2 or the PDU does not add up:
//  - an odd number of characters, or any character not '0'-'9' or 'A'-'F';
//  - an SMSC length, address digit count or fixed field past the line's end,
//    or an address of more than 20 digits;
//  - a time-stamp field (year to second) that is not two decimal digits;
//  - more than 140 octets of user data, or a user-data length (septets for
//    7-bit) announcing more octets than the line carries;
//  - a record longer than `record_size` - 1.
size_t sms_deliver_parse(const char *pdu, size_t len, char *record, size_t record_size);

// The status octet and the message reference of one status report; false
// when the PDU does not add up (same rules for the characters, the lengths
// and the recipient address as above). The status is the octet after the two
// time stamps, so optional parameters after it do not change it.
bool sms_status_parse(const char *pdu, size_t len, int *status, int *reference);

// The common thread's entries: parse the PDU line and report event 1031 or
// 1032 to the client; a PDU that does not add up reports nothing.
void sms_deliver_decode(const char *pdu);
void sms_status_decode(const char *pdu);
