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

void passthrough_switch(const request_frame &f) {
    state().at_passthrough.store(f.fields[0][0] == '0' ? 0 : 1, std::memory_order_release);
    client_report(f.code, STATUS_OK, nullptr);
}

void raw_at_line(const request_frame &f) {
    daemon_state &s = state();
    if (s.at_passthrough.load(std::memory_order_acquire) != 1) {
        client_report(f.code, STATUS_PASSTHROUGH_OFF, nullptr);
        return;
    }
    size_t len = strlen(f.fields[1]);
    if (len > FIELD_SIZE - 3) {
        client_report(f.code, STATUS_BAD_PARAM, nullptr);
        return;
    }
    char line[FIELD_SIZE];
    memcpy(line, f.fields[1], len);
    memcpy(line + len, "\r\n", 3);
    // The answer comes back line by line as pass-through events.
    if (at_send(line, len + 2) == -1)
        at_report_send_failure(f.code);
}

void speak(const request_frame &f) {
    if (f.fields[0][0] == '0') {
        play_tts(0, "");
    } else if (f.field_count < 2) {
        client_report(f.code, STATUS_BAD_PARAM, nullptr);
    } else {
        play_tts(1, f.fields[1]);
    }
}

void location_config(const request_frame &f) {
    if (f.fields[0][0] == '1' && f.field_count < 3)
        client_report(f.code, STATUS_BAD_PARAM, nullptr);
    else
        lbs_config(f.fields[0][0] == '1' ? 1 : 0, f.fields[1], f.fields[2]);
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

void send_sms_pdu(const request_frame &f) {
    sms_send_pdu(f.fields[0][0] != '0', f.fields[1], f.fields[2], f.fields[3],
                 validity_field(f.fields[4]), f.fields[5][0] != '0');
}

// A whole-number field; a text that is no number gives 0, which the update
// refuses, and a huge one is held where it cannot overflow.
int64_t integer_field(const char *field) {
    long long v = strtoll(field, nullptr, 10);
    return v > INT32_MAX ? INT32_MAX : v < INT32_MIN ? INT32_MIN : v;
}

void firmware_update(const request_frame &f, const client_peer &peer) {
    const int mode = digit(f);
    const family_fota &fw = current_family().fota;
    if (mode == 0 && !fw.takes_file) {
        client_report(f.code, STATUS_BAD_PARAM, nullptr);
        return;
    }
    int chunk = fw.chunk_size;
    int64_t pause_us = fw.chunk_pause_us;
    // Only a family that takes a file is paced by the client.
    if (fw.takes_file && f.field_count >= 4) {
        chunk = static_cast<int>(integer_field(f.fields[2]));
        pause_us = integer_field(f.fields[3]) * 1000;
    }
    fota_update(mode, f.fields[1], chunk, pause_us, peer);
}

struct worker_code {
    uint16_t code;
    int min_fields; // fewer answer status 10
    void (*run)(const request_frame &f);
    // Instead of run, for a code that acts for the client as who it is.
    void (*run_as)(const request_frame &f, const client_peer &peer) = nullptr;
};

// What each code runs. Operations send their own replies. A code that only
// some families serve is answered 20 on the others (family_serves).
const worker_code WORKER_CODES[] = {
    {51, 0, [](const request_frame &) { get_ati(1); }},
    {52, 0, [](const request_frame &) { get_gsn(1); }},
    {101, 0, [](const request_frame &) { get_cimi(1); }},
    {102, 0, [](const request_frame &) { get_csq(1); }},
    {103, 0, [](const request_frame &) { get_cops(1); }},
    {110, 1, [](const request_frame &f) { set_creg(digit(f), 1); }},
    {111, 0, [](const request_frame &) { get_creg(); }},
    {190, 1, [](const request_frame &f) { set_qnetdevstatus(digit(f), 1); }},
    {191, 0, [](const request_frame &) { get_qnetdevstatus(1); }},
    {201, 0, [](const request_frame &) { get_csca(1); }},
    {231, 1, [](const request_frame &f) { set_cmgf(digit(f), 1); }},
    {232, 1, [](const request_frame &f) { set_csms(digit(f), 1); }},
    {233, 1, [](const request_frame &f) { set_cnmi(digit(f), 1); }},
    {234, 1, [](const request_frame &f) { set_colp(digit(f), 1); }},
    {235, 1, [](const request_frame &f) { set_qtonedet(digit(f), 1); }},
    {236, 1, [](const request_frame &f) { set_clip(digit(f), 1); }},
    {237, 1, [](const request_frame &f) { set_cscs(f.fields[0], 1); }},
    {238, 1, [](const request_frame &f) { set_ate(digit(f), 1); }},
    {251, 6, [](const request_frame &f) { send_sms_pdu(f); }},
    {252, 2, [](const request_frame &f) { sms_send_text(f.fields[0], f.fields[1]); }},
    {301, 0, [](const request_frame &) { set_sms_call_defaults(); }},
    {302, 0, [](const request_frame &) { answer_call(); }},
    {303, 0, [](const request_frame &) { hang_up(); }},
    {304, 1, [](const request_frame &f) { voice_dial(f.fields[0]); }},
    {310, 1, [](const request_frame &f) { speak(f); }},
    {351, 0,
     [](const request_frame &) {
         apn_settings apn = apn_snapshot();
         set_qicsgp(1, 1, apn.name, apn.user, apn.passwd, apn.auth, 1);
     }},
    {352, 0, [](const request_frame &) { set_qideact(1, 1); }},
    {353, 0, [](const request_frame &) { set_qiact(1, 1); }},
    {360, 1, [](const request_frame &f) { set_qnetdevctl(digit(f), 1, 1); }},
    {362, 1, [](const request_frame &f) { set_qcrmcall(digit(f), 1, 1); }},
    {370, 0, [](const request_frame &) { dial(current_family(), 1); }},
    {401, 1, [](const request_frame &f) { passthrough_switch(f); }},
    {402, 2, [](const request_frame &f) { raw_at_line(f); }},
    {451, 2, [](const request_frame &f) { location_config(f); }},
    {452, 0, [](const request_frame &) { get_qlbs(); }},
    {551, 1, [](const request_frame &f) { set_usbifc(digit(f), 1); }},
    {561, 2, nullptr, firmware_update},
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
    if (f.code != 401 && f.code != 402)
        state().at_passthrough.store(0, std::memory_order_release);
    for (const worker_code &c : WORKER_CODES) {
        if (c.code != f.code || !family_serves(current_family(), f.code))
            continue;
        if (f.field_count < c.min_fields)
            client_report(f.code, STATUS_BAD_PARAM, nullptr);
        else if (c.run_as != nullptr)
            c.run_as(f, raw.peer);
        else
            c.run(f);
        return;
    }
    client_report(f.code, STATUS_UNKNOWN_CODE, nullptr);
}

} // namespace

WORKER_FRAME_UNGUARDED void *request_worker(void *request_copy) {
    pthread_setname_np(pthread_self(), "zolvin_worker");
    // A worker cancelled by a restart request still gives the AT port back.
    pthread_cleanup_push(cleanup, nullptr);
    run_request(*static_cast<const worker_request *>(request_copy));
    pthread_cleanup_pop(1);
    return nullptr;
}

int set_sms_call_defaults() {
    struct step {
        const char *name;
        int (*run)();
    };
    static const step STEPS[] = {
        {"set_cscs", [] { return set_cscs("GSM", 0); }},
        {"set_cmgf", [] { return set_cmgf(0, 0); }},
        {"set_csms", [] { return set_csms(0, 0); }},
        {"set_cnmi", [] { return set_cnmi(2, 0); }},
        {"set_colp", [] { return set_colp(1, 0); }},
        {"set_clip", [] { return set_clip(1, 0); }},
    };
    set_ate(0, 0);
    for (const step &st : STEPS) {
        if (st.run() < 0) {
            client_report(301, STATUS_FAIL, st.name);
            return -1;
        }
    }
    client_report(301, STATUS_OK, nullptr);
    return 0;
}

int voice_dial(const char *number) {
    daemon_state &s = state();
    char line[50];
    // The number stands bare after "ATD": a quote, a control byte or a ';'
    // would let it carry commands of its own.
    if (strlen(number) > 43 || !at_bare_text_ok(number)) {
        client_report(304, STATUS_BAD_PARAM, nullptr);
        return -1;
    }
    s.at_passthrough.store(0, std::memory_order_release);
    int n = text_format(line, sizeof line, "ATD%s;\r\n", number);
    call_active_set(1);
    // Not a transaction: the module's answers come as call events.
    if (at_send(line, static_cast<size_t>(n)) == -1) {
        call_active_set(0);
        at_report_send_failure(304);
        return -1;
    }
    client_report(304, STATUS_OK, nullptr);
    return 0;
}
