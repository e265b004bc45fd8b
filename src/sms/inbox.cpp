#include "sms/inbox.h"

#include "core/report.h"
#include "core/stats.h"
#include "core/wait.h"
#include "sms/alphabet.h"
#include "sms/pdu.h"

#include <cstdio>
#include <cstring>

sms_assembly sms_inbox;

namespace {

// The longest record (about 1070 bytes) takes three frames.
constexpr size_t RECORD_PIECES_MAX = 4;

void report_message(void *, const char *sender, const char *stamp, const char *text, size_t text_len,
                    size_t) {
    char record[SMS_RECORD_MAX];
    size_t len = sms_record_build(sender, stamp, text, text_len, record, sizeof record);
    if (len > 0)
        sms_record_report(record, len);
}

const assembly_sink TO_CLIENT{report_message, nullptr};

} // namespace

size_t record_pieces(const char *record, size_t len, size_t piece_max, size_t *ends, size_t max) {
    size_t count = 0;
    for (size_t at = 0; at < len;) {
        size_t take = len - at < piece_max ? len - at : piece_max;
        size_t whole = utf8_cut(record + at, take);
        // Bytes that are not UTF-8 have no characters to keep whole.
        if (whole > 0)
            take = whole;
        if (count == max)
            return 0;
        at += take;
        ends[count++] = at;
    }
    return count;
}

void sms_record_report(const char *record, size_t len) {
    stat_add(stat_counter::sms_in);
    if (len <= REPLY_TEXT_MAX) {
        event_report(EVENT_SMS, STATUS_OK, record);
        return;
    }
    size_t ends[RECORD_PIECES_MAX];
    size_t count = record_pieces(record, len, REPLY_TEXT_MAX, ends, RECORD_PIECES_MAX);
    char piece[REPLY_TEXT_MAX + 1];
    for (size_t i = 0, from = 0; i < count; from = ends[i++]) {
        memcpy(piece, record + from, ends[i] - from);
        piece[ends[i] - from] = '\0';
        event_report(EVENT_SMS_PART, static_cast<int>(count - 1 - i), piece);
    }
}

void sms_inbox_deliver(sms_assembly *a, const char *pdu, int64_t now_ms) {
    sms_deliver sms;
    if (sms_deliver_parse(pdu, strlen(pdu), &sms))
        assembly_take(a, sms, now_ms, TO_CLIENT);
}

int64_t sms_inbox_expire(sms_assembly *a, int64_t now_ms) { return assembly_expire(a, now_ms, TO_CLIENT); }

void sms_status_decode(const char *pdu) {
    int status;
    int reference;
    if (!sms_status_parse(pdu, strlen(pdu), &status, &reference))
        return;
    char text[8];
    snprintf(text, sizeof text, "%d", reference);
    event_report(EVENT_SMS_REPORT, status, text);
}
