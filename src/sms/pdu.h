// SMS PDUs: the received ones (SMS-DELIVER and status reports, each preceded
// by its service-centre address) taken apart into client events, and the
// SMS-SUBMIT string built for sending. The parse and build steps are pure;
// every announced length is checked against the bytes left and the room of
// the destination, and a PDU that does not add up gives nothing.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr int EVENT_SMS_RECEIVED = 1031;
constexpr int EVENT_SMS_STATUS = 1032;
constexpr size_t SMS_RECORD_MAX = 500; // bytes of a record, terminator included

// The record of one SMS-DELIVER: number length (2 digits), number ('+' first
// for an international one), "14", the time stamp YYYYMMDDhhmmss, text length
// (3 digits), text (7-bit characters, raw octets or UTF-8 from UCS-2).
// Returns the record's length in `record` (terminated), or 0 when the PDU
// does not add up or its data coding is not 7-bit, 8-bit or UCS-2.
size_t sms_deliver_parse(const char *pdu, size_t len, char *record, size_t record_size);

// The status octet and the message reference of one status report; false
// when the PDU does not add up.
bool sms_status_parse(const char *pdu, size_t len, int *status, int *reference);

// The common thread's entries: parse the PDU line and report event 1031 or
// 1032 to the client; a PDU that does not add up reports nothing.
void sms_deliver_decode(const char *pdu);
void sms_status_decode(const char *pdu);
