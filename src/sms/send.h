// SMS sending on the worker thread: code 251 in PDU mode (GSM 7-bit or UCS-2,
// validity, status-report request; a long text as concatenated parts) and
// code 252 in text mode. Each message or part is one transaction: the
// "AT+CMGS" command, the module's '>' prompt, the body ended by Ctrl-Z, the
// final result. Each returns its outcome under its code.
#pragma once

#include "core/outcome.h"

#include <cstddef>
#include <cstdint>

constexpr size_t SMS_PDU_SIZE = 512;

// What one message carries, and one part of a concatenated message once its
// header (8-bit reference, part count, part number) takes its share.
constexpr size_t SMS_SEPTETS_MAX = 160;
constexpr size_t SMS_PART_SEPTETS = 153;
constexpr size_t SMS_UNITS_MAX = 70; // UTF-16 code units
constexpr size_t SMS_PART_UNITS = 67;
// A longer text is refused: receivers join few parts reliably.
constexpr size_t SMS_PARTS_MAX = 10;
// The encoded text of a request field (999 bytes): two septets or two octets
// a byte at most.
constexpr size_t SMS_ENCODED_MAX = 2048;

// A text encoded for the network and cut into the parts it is sent in.
struct sms_text_parts {
    uint8_t ucs2;
    // 7-bit: septets, one a byte, extension characters as the escape and
    // their code. UCS-2: UTF-16 big-endian, surrogate pairs above U+FFFF.
    uint8_t data[SMS_ENCODED_MAX];
    size_t count;                     // 1 to SMS_PARTS_MAX
    size_t start[SMS_PARTS_MAX + 1];  // part i is data[start[i]] up to data[start[i + 1]]
};

// Encodes `len` bytes of UTF-8 and cuts them into parts (no I/O): one part
// when the text fits one message, else parts of at most 153 septets or 67
// units, never cutting between an escape and its code or between the two
// halves of a surrogate pair. False when the UTF-8 is malformed, a 7-bit
// character is in neither the default alphabet nor its extension table, or
// the text needs more than 10 parts.
bool sms_text_split(uint8_t ucs2, const char *text, size_t len, sms_text_parts *out);

// The SMS-SUBMIT as the module takes it after the prompt: the service-centre
// address, then the TPDU, in upper-case hexadecimal, ended by Ctrl-Z.
struct sms_submit_pdu {
    char text[SMS_PDU_SIZE]; // terminated after the Ctrl-Z
    size_t len;              // characters, Ctrl-Z included
    int tpdu_octets;         // the length "AT+CMGS=" announces
};

// Every part of one message, each a PDU of its own.
struct sms_submit {
    size_t count; // 1 to SMS_PARTS_MAX
    sms_submit_pdu parts[SMS_PARTS_MAX];
};

// Builds the PDUs (no I/O). Parts of a long text carry the concatenation
// header with `reference`; a text that fits one message carries none. False,
// with nothing to send, when a number has 15 or more digits or anything but
// digits after its '+' (or the destination is empty), the validity is not 0
// to 255, or sms_text_split refuses the text.
bool sms_submit_build(uint8_t ucs2, const char *smsc, const char *destination, const char *text,
                      int validity, uint8_t status_report, uint8_t reference, sms_submit *out);

// The reference the module gives a sent message: up to 10 characters.
constexpr size_t SMS_MESSAGE_REF_SIZE = 11;
// True for the module's "+CMGS: <ref>" line; its reference, which stands after
// the colon and its blank, then replaces `ref` (cut to 10 characters). A line
// too short to hold one leaves `ref` as it was.
bool cmgs_reference(const char *line, char (&ref)[SMS_MESSAGE_REF_SIZE]);

// Status 0 after the module's "OK" to every part, their message references
// as text, joined by ','; otherwise the first failing part's outcome, which
// ends the send. smsc "DEFAULT" (its first 7 characters) takes the stored
// centre, asking the module for it when none is stored: an unusable answer
// goes to `aside` as the query's own outcome (201), and the send goes on.
op_outcome sms_send_pdu(uint8_t ucs2, const char *smsc, const char *destination, const char *text,
                        int validity, uint8_t status_report, const reply_sink &aside = {});
// Switches the module to text mode for the message and back to PDU mode
// after it; a send that failed first cancels a body the module may still wait
// for (ESC).
op_outcome sms_send_text(const char *destination, const char *text);
