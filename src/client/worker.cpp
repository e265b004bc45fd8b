#include "client/client.h"

#include "at/at.h"
#include "core/config.h"
#include "core/daemon_state.h"
#include "core/text.h"
#include "fota/fota.h"
#include "modem/modem.h"
#include "sms/send.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>

#include "core/sanitizer.h"
#ifdef ZOLVIN_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace {

// The digit of field 1: its first character minus '0'.
int32_t digit(const request_frame &f) { return static_cast<int32_t>(f.fields[0][0] - '0'); }

// The client interface is the one place outcomes become reply frames.
void reply(const op_outcome &o) {
    if (o.status != STATUS_NONE)
        client_report(o.code, o.status, o.reply_text());
}
void reply_now(const op_outcome &o, void *) { reply(o); }
const reply_sink TO_CLIENT{reply_now, nullptr};

op_outcome passthrough_switch(const request_frame &f) {
    state().at_passthrough.store(f.fields[0][0] == '0' ? 0 : 1, std::memory_order_release);
    return outcome(f.code, STATUS_OK);
}

op_outcome raw_at_line(const request_frame &f) {
    daemon_state &s = state();
    if (s.at_passthrough.load(std::memory_order_acquire) != 1)
        return outcome(f.code, STATUS_PASSTHROUGH_OFF);
    size_t len = strlen(f.fields[1]);
    if (len > FIELD_SIZE - 3)
        return outcome(f.code, STATUS_BAD_PARAM);
    char line[FIELD_SIZE];
    memcpy(line, f.fields[1], len);
    memcpy(line + len, "\r\n", 3);
    // The answer comes back line by line as pass-through events.
    if (at_send(line, len + 2) == -1)
        return at_send_failure(f.code);
    return outcome(f.code, STATUS_NONE);
}

op_outcome speak(const request_frame &f) {
    if (f.fields[0][0] == '0')
        return play_tts(0, "");
    if (f.field_count < 2)
        return outcome(f.code, STATUS_BAD_PARAM);
    return play_tts(1, f.fields[1]);
}

op_outcome location_config(const request_frame &f) {
    if (f.fields[0][0] == '1' && f.field_count < 3)
        return outcome(f.code, STATUS_BAD_PARAM);
    return lbs_config(f.fields[0][0] == '1' ? 1 : 0, f.fields[1], f.fields[2]);
}

// The validity octet of a 251 request, in decimal; -1, which the operation
// refuses, when the field is no number from 0 to 255.
int validity_field(const char *field) {
    int v = 0;
    for (const char *c = field; *c != '\0'; ++c) {
        if (*c < '0' || *c > '9')
            return -1;
        // Stops before a long field could overflow.
        v = v * 10 + (*c - '0');
        if (v > 255)
            return -1;
    }
    return field[0] == '\0' ? -1 : v;
}

op_outcome send_sms_pdu(const request_frame &f) {
    return sms_send_pdu(f.fields[0][0] != '0', f.fields[1], f.fields[2], f.fields[3],
                        validity_field(f.fields[4]), f.fields[5][0] != '0', TO_CLIENT);
}

// A whole-number field; a text that is no number gives 0, which the update
// refuses, and a huge one is held where it cannot overflow.
int64_t integer_field(const char *field) {
    long long v = strtoll(field, nullptr, 10);
    return v > INT32_MAX ? INT32_MAX : v < INT32_MIN ? INT32_MIN : v;
}

op_outcome firmware_update(const request_frame &f, const client_peer &peer) {
    const int mode = digit(f);
    const family_fota &fw = current_family().fota;
    if (mode == 0 && !fw.takes_file)
        return outcome(f.code, STATUS_BAD_PARAM);
    int chunk = fw.chunk_size;
    int64_t pause_us = fw.chunk_pause_us;
    // Only a family that takes a file is paced by the client.
    if (fw.takes_file && f.field_count >= 4) {
        chunk = static_cast<int>(integer_field(f.fields[2]));
        pause_us = integer_field(f.fields[3]) * 1000;
    }
    return fota_update(mode, f.fields[1], chunk, pause_us, peer, TO_CLIENT);
}

struct worker_code {
    uint16_t code;
    int min_fields; // fewer answer status 10
    op_outcome (*run)(const request_frame &f);
    // Instead of run, for a code that acts for the client as who it is.
    op_outcome (*run_as)(const request_frame &f, const client_peer &peer) = nullptr;
};

// What each code runs; its outcome is the reply. A code that only some
// families serve is answered 20 on the others (family_serves).
const worker_code WORKER_CODES[] = {
    {CODE_GET_ATI, 0, [](const request_frame &) { return get_ati(); }},
    {CODE_GET_GSN, 0, [](const request_frame &) { return get_gsn(); }},
    {CODE_GET_CIMI, 0, [](const request_frame &) { return get_cimi(); }},
    {CODE_GET_CSQ, 0, [](const request_frame &) { return get_csq(); }},
    {CODE_GET_COPS, 0, [](const request_frame &) { return get_cops(); }},
    {CODE_SET_CREG, 1, [](const request_frame &f) { return set_creg(digit(f)); }},
    {CODE_GET_CREG, 0, [](const request_frame &) { return get_creg(); }},
    {CODE_SET_QNETDEVSTATUS, 1, [](const request_frame &f) { return set_qnetdevstatus(digit(f)); }},
    {CODE_GET_QNETDEVSTATUS, 0, [](const request_frame &) { return get_qnetdevstatus(); }},
    {CODE_GET_CSCA, 0, [](const request_frame &) { return get_csca(); }},
    {CODE_SET_CMGF, 1, [](const request_frame &f) { return set_cmgf(digit(f)); }},
    {CODE_SET_CSMS, 1, [](const request_frame &f) { return set_csms(digit(f)); }},
    {CODE_SET_CNMI, 1, [](const request_frame &f) { return set_cnmi(digit(f)); }},
    {CODE_SET_COLP, 1, [](const request_frame &f) { return set_colp(digit(f)); }},
    {CODE_SET_QTONEDET, 1, [](const request_frame &f) { return set_qtonedet(digit(f)); }},
    {CODE_SET_CLIP, 1, [](const request_frame &f) { return set_clip(digit(f)); }},
    {CODE_SET_CSCS, 1, [](const request_frame &f) { return set_cscs(f.fields[0]); }},
    {CODE_SET_ATE, 1, [](const request_frame &f) { return set_ate(digit(f)); }},
    {CODE_SMS_SEND_PDU, 6, [](const request_frame &f) { return send_sms_pdu(f); }},
    {CODE_SMS_SEND_TEXT, 2,
     [](const request_frame &f) { return sms_send_text(f.fields[0], f.fields[1]); }},
    {CODE_SMS_CALL_DEFAULTS, 0, [](const request_frame &) { return set_sms_call_defaults(); }},
    {CODE_ANSWER_CALL, 0, [](const request_frame &) { return answer_call(); }},
    {CODE_HANG_UP, 0, [](const request_frame &) { return hang_up(); }},
    {CODE_VOICE_DIAL, 1, [](const request_frame &f) { return voice_dial(f.fields[0]); }},
    {CODE_PLAY_TTS, 1, [](const request_frame &f) { return speak(f); }},
    {CODE_SET_QICSGP, 0,
     [](const request_frame &) {
         apn_settings apn = apn_snapshot();
         return set_qicsgp(1, 1, apn.name, apn.user, apn.passwd, apn.auth);
     }},
    {CODE_SET_QIDEACT, 0, [](const request_frame &) { return set_qideact(1); }},
    {CODE_SET_QIACT, 0, [](const request_frame &) { return set_qiact(1); }},
    {CODE_SET_QNETDEVCTL, 1, [](const request_frame &f) { return set_qnetdevctl(digit(f), 1); }},
    {CODE_SET_QCRMCALL, 1, [](const request_frame &f) { return set_qcrmcall(digit(f), 1); }},
    {CODE_DIAL, 0, [](const request_frame &) { return dial(current_family()); }},
    {CODE_PASSTHROUGH, 1, [](const request_frame &f) { return passthrough_switch(f); }},
    {CODE_AT_LINE, 2, [](const request_frame &f) { return raw_at_line(f); }},
    {CODE_LBS_CONFIG, 2, [](const request_frame &f) { return location_config(f); }},
    {CODE_GET_QLBS, 0, [](const request_frame &) { return get_qlbs(); }},
    {CODE_SET_USBIFC, 1, [](const request_frame &f) { return set_usbifc(digit(f)); }},
    {CODE_FOTA, 2, nullptr, firmware_update},
};

#ifdef ZOLVIN_ASAN
// A cancelled worker's frames are unwound without the address sanitizer
// clearing their stack guards, and the sanitizer's own stack clearing on the
// way out runs on that stack and reports the stale guards as an overflow.
// Everything below this frame is dead stack by now: clear it first. The frame
// that holds the clean-up is kept free of guards for the same reason.
#define WORKER_FRAME_UNGUARDED __attribute__((no_sanitize_address))
void clear_dead_stack() {
    pthread_attr_t attr;
    void *low = nullptr;
    size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attr) != 0)
        return;
    pthread_attr_getstack(&attr, &low, &size);
    pthread_attr_destroy(&attr);
    char *here = static_cast<char *>(__builtin_frame_address(0));
    char *bottom = static_cast<char *>(low);
    if (bottom != nullptr && here > bottom && here <= bottom + size)
        __asan_unpoison_memory_region(bottom, static_cast<size_t>(here - bottom));
}
#else
#define WORKER_FRAME_UNGUARDED
void clear_dead_stack() {}
#endif

void cleanup(void *) {
    clear_dead_stack();
    worker_finished();
}

void run_request(const worker_request &raw) {
    request_frame f;
    if (request_parse(raw.bytes, raw.len, &f) != 0 || f.oversize_field)
        return; // an oversize field ends the request without a reply
    if (f.code != CODE_PASSTHROUGH && f.code != CODE_AT_LINE)
        state().at_passthrough.store(0, std::memory_order_release);
    for (const worker_code &c : WORKER_CODES) {
        if (c.code != f.code || !family_serves(current_family(), f.code))
            continue;
        if (f.field_count < c.min_fields)
            reply(outcome(f.code, STATUS_BAD_PARAM));
        else if (c.run_as != nullptr)
            reply(c.run_as(f, raw.peer));
        else
            reply(c.run(f));
        // The events of the exchange's last line follow the reply.
        at_settle();
        return;
    }
    reply(outcome(f.code, STATUS_UNKNOWN_CODE));
}

} // namespace

WORKER_FRAME_UNGUARDED void *request_worker(void *request_copy) {
    pthread_setname_np(pthread_self(), "zolvin_worker");
    // A worker cancelled by a restart request still gives the AT port back.
    pthread_cleanup_push(cleanup, nullptr);
    at_hold_passed_on(true);
    run_request(*static_cast<const worker_request *>(request_copy));
    at_hold_passed_on(false);
    pthread_cleanup_pop(1);
    return nullptr;
}

op_outcome set_sms_call_defaults() {
    struct step {
        const char *name;
        op_outcome (*run)();
    };
    static const step STEPS[] = {
        {"set_cscs", [] { return set_cscs("GSM"); }},
        {"set_cmgf", [] { return set_cmgf(0); }},
        {"set_csms", [] { return set_csms(0); }},
        {"set_cnmi", [] { return set_cnmi(2); }},
        {"set_colp", [] { return set_colp(1); }},
        {"set_clip", [] { return set_clip(1); }},
    };
    set_ate(0);
    for (const step &st : STEPS) {
        if (!st.run().ok())
            return outcome(CODE_SMS_CALL_DEFAULTS, STATUS_FAIL, st.name);
    }
    return outcome(CODE_SMS_CALL_DEFAULTS, STATUS_OK);
}

op_outcome voice_dial(const char *number) {
    daemon_state &s = state();
    char line[50];
    // The number stands bare after "ATD": a quote, a control byte or a ';'
    // would let it carry commands of its own.
    if (strlen(number) > 43 || !at_bare_text_ok(number))
        return outcome(CODE_VOICE_DIAL, STATUS_BAD_PARAM);
    s.at_passthrough.store(0, std::memory_order_release);
    int n = text_format(line, sizeof line, "ATD%s;\r\n", number);
    call_active_set(1);
    // Not a transaction: the module's answers come as call events.
    if (at_send(line, static_cast<size_t>(n)) == -1) {
        call_active_set(0);
        return at_send_failure(CODE_VOICE_DIAL);
    }
    return outcome(CODE_VOICE_DIAL, STATUS_OK);
}
