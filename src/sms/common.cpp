#include "sms/common.h"

#include "at/at.h"
#include "core/report.h"
#include "core/text.h"
#include "modem/modem.h"
#include "sms/pdu.h"

#include <cstring>

namespace {

constexpr size_t CALLER_SIZE = 50;
// The caller's quotes are looked for at these indexes of a "+CLIP:" line.
constexpr size_t CLIP_QUOTE_FIRST = 6;
constexpr size_t CLIP_QUOTE_LAST = 29;
constexpr size_t CLIP_MIN_DIGITS = 2;
// The tone's two characters follow "+QTONEDET:" and its blank.
constexpr size_t TONE_AT = 11;

enum : int32_t { SMS_KIND_DELIVER = 1, SMS_KIND_STATUS = 2 };

void call_ended(common_state &st, const char *why) {
    call_active_set(0);
    st.ring_pending = false;
    event_report(EVENT_CALL, STATUS_CALL_STATE, why);
}

void on_ring(common_state &st, const char *, int64_t now) {
    call_active_set(1);
    st.ring_ms = now;
    st.ring_pending = true;
}

void on_clip(common_state &st, const char *line, int64_t) {
    call_active_set(1);
    quote_span q;
    if (!find_quotes(line, CLIP_QUOTE_FIRST, CLIP_QUOTE_LAST, &q) ||
        q.close - q.open - 1 < CLIP_MIN_DIGITS)
        return; // the ring is reported bare when its window closes
    char caller[CALLER_SIZE];
    text_copy(caller, sizeof caller, line + q.open + 1, q.close - q.open - 1);
    event_report(EVENT_CALL, 1, caller);
    st.ring_pending = false;
}

void on_colp(common_state &, const char *, int64_t) {
    call_active_set(1);
    event_report(EVENT_CALL, STATUS_CALL_STATE, "0");
}

void on_no_carrier(common_state &st, const char *, int64_t) { call_ended(st, "1"); }
void on_busy(common_state &st, const char *, int64_t) { call_ended(st, "2"); }
void on_no_dial(common_state &st, const char *, int64_t) { call_ended(st, "3"); }

void on_tts_done(common_state &, const char *, int64_t) {
    event_report(EVENT_TTS_DONE, STATUS_OK, nullptr);
}

void on_tone(common_state &, const char *line, int64_t) {
    char tone[3] = {};
    // A cut line gives what it has, never the bytes past its end.
    size_t len = strnlen(line, TONE_AT + 2);
    if (len > TONE_AT)
        memcpy(tone, line + TONE_AT, len - TONE_AT);
    event_report(EVENT_TONE, 1, tone);
}

void sms_header(common_state &st, int32_t kind, int64_t now) {
    // A second header before the PDU restarts the wait and decides the kind.
    st.sms_ms = now;
    st.sms_pending = true;
    st.sms_kind = kind;
}
void on_cmt(common_state &st, const char *, int64_t now) { sms_header(st, SMS_KIND_DELIVER, now); }
void on_cds(common_state &st, const char *, int64_t now) { sms_header(st, SMS_KIND_STATUS, now); }

void on_module_error(common_state &, const char *line, int64_t) {
    event_report(EVENT_MODULE_ERROR, STATUS_FAIL, line);
}

// Only a line that starts with a digit is a PDU; the "OK" that the module may
// send between header and PDU leaves the header pending.
void on_pdu_line(common_state &st, const char *line, int64_t now) {
    if (!st.sms_pending || line[0] < '0' || line[0] > '9')
        return;
    st.sms_pending = false;
    if (st.sms_kind == SMS_KIND_DELIVER)
        sms_inbox_deliver(st.inbox, line, now);
    else if (st.sms_kind == SMS_KIND_STATUS)
        sms_status_decode(line);
}

struct urc_row {
    const char *prefix;
    void (*handle)(common_state &st, const char *line, int64_t now);
};

// Tried in this order; the first prefix that matches decides. The empty
// prefix of the last row takes every line left, for the PDU after a header.
constexpr urc_row URC_ROWS[] = {
    {"RING", on_ring},
    {"+CLIP:", on_clip},
    {"+COLP:", on_colp},
    {"NO CARRIER", on_no_carrier},
    {"BUSY", on_busy},
    {"NO DIAL", on_no_dial}, // also the longer no-dial-tone line
    {"+QWTTS: 0", on_tts_done},
    {"+QTONEDET:", on_tone},
    {"+CMT:", on_cmt},
    {"+CDS:", on_cds},
    {"+CME ERROR:", on_module_error},
    {"+CMS ERROR:", on_module_error},
    {"", on_pdu_line},
};

// Closes the windows due at `now`, or, with `strictly`, only those due before it.
int64_t expire(common_state &st, int64_t now, bool strictly) {
    auto due = [&](int64_t at) { return strictly ? now > at : now >= at; };
    if (st.ring_pending && due(st.ring_ms + RING_WINDOW_MS)) {
        st.ring_pending = false;
        event_report(EVENT_CALL, STATUS_OK, nullptr);
    }
    if (st.sms_pending && due(st.sms_ms + SMS_WINDOW_MS))
        st.sms_pending = false;
    int64_t next = sms_inbox_expire(st.inbox, strictly ? now - 1 : now);
    auto sooner = [&next](int64_t at) {
        if (next == NO_DEADLINE || at < next)
            next = at;
    };
    if (st.ring_pending)
        sooner(st.ring_ms + RING_WINDOW_MS);
    if (st.sms_pending)
        sooner(st.sms_ms + SMS_WINDOW_MS);
    return next;
}

} // namespace

void common_handle_line(common_state *st, const char *line, int64_t now_ms) {
    // A line taken exactly when a window closes still belongs to it.
    expire(*st, now_ms, true);
    for (const urc_row &row : URC_ROWS) {
        if (has_prefix(line, row.prefix)) {
            row.handle(*st, line, now_ms);
            return;
        }
    }
}

int64_t common_expire(common_state *st, int64_t now_ms) { return expire(*st, now_ms, false); }

void *common_thread(void *) {
    pthread_setname_np(pthread_self(), "zolvin_common");
    common_state st;
    char line[RING_LINE_SIZE];
    int was;
    for (;;) {
        // A cancellation waits for the handling of a line to end, so that the
        // store of long messages, which outlives this thread, is never left
        // half-updated; the wait alone is where the thread may be stopped.
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &was);
        int64_t deadline = common_expire(&st, monotonic_ms());
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &was);
        // Asleep until a line comes or the next window closes; with nothing
        // open, until the module speaks.
        if (!urc_pop(line, sizeof line, deadline))
            continue;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &was);
        common_handle_line(&st, line, monotonic_ms());
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &was);
    }
    return nullptr;
}
