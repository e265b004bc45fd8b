// SMS sending on the worker thread: code 251 in PDU mode (7-bit or UCS-2,
// validity, status-report request) and code 252 in text mode. Each is one
// transaction: the "AT+CMGS" command, the module's '>' prompt, the body ended
// by Ctrl-Z, the final result. Every outcome is reported under its code.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr int SMS_SEND_PDU_CODE = 251;
constexpr int SMS_SEND_TEXT_CODE = 252;

constexpr size_t SMS_PDU_SIZE = 512;

// The SMS-SUBMIT as the module takes it after the prompt: the service-centre
// address, then the TPDU, in upper-case hexadecimal, ended by Ctrl-Z.
struct sms_submit_pdu {
    char text[SMS_PDU_SIZE]; // terminated after the Ctrl-Z
    size_t len;              // characters, Ctrl-Z included
    int tpdu_octets;         // the length "AT+CMGS=" announces
};

// Builds the PDU (no I/O). A 7-bit text is cut to 160 characters, any user
// data to 140 octets. False, with nothing to send, when a number has 15 or
// more digits or anything but digits after its '+' (or the destination is
// empty), a 7-bit text holds a byte above 127 or the validity is not 0 to 255.
bool sms_submit_build(uint8_t ucs2, const char *smsc, const char *destination, const char *text,
                      int validity, uint8_t status_report, sms_submit_pdu *out);

// The reference the module gives a sent message: up to 10 characters.
constexpr size_t SMS_MESSAGE_REF_SIZE = 11;
// True for the module's "+CMGS: <ref>" line; its reference, which stands after
// the colon and its blank, then replaces `ref` (cut to 10 characters). A line
// too short to hold one leaves `ref` as it was.
bool cmgs_reference(const char *line, char (&ref)[SMS_MESSAGE_REF_SIZE]);

// 0 after the module's "OK" (the message reference reported as text), -1 otherwise.
// smsc "DEFAULT" (its first 7 characters) takes the stored centre, asking the
// module for it when none is stored.
int sms_send_pdu(uint8_t ucs2, const char *smsc, const char *destination, const char *text,
                 int validity, uint8_t status_report);
// Switches the module to text mode for the message and back to PDU mode once
// the body has been sent.
void sms_send_text(const char *destination, const char *text);
