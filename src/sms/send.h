// SMS sending on the worker thread: code 251 in PDU mode (7-bit or UCS-2,
// validity, status-report request) and code 252 in text mode. Each is one
// transaction: the "AT+CMGS" command, the module's '>' prompt, the body ended
// by Ctrl-Z, the final result. Every outcome is reported under its code.
#pragma once

#include <cstdint>

constexpr int SMS_SEND_PDU_CODE = 251;
constexpr int SMS_SEND_TEXT_CODE = 252;

// 0 after the module's "OK" (the message reference reported as text), -1 otherwise.
int sms_send_pdu(uint8_t ucs2, const char *smsc, const char *destination, const char *text,
                 int validity, uint8_t status_report);
void sms_send_text(const char *destination, const char *text);
