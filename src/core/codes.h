// Every code of the client protocol, for the daemon and the client tool alike:
// the requests (those the server answers itself, those a worker runs on the
// module) and the events, each with its name and how long a client waits for
// its answer by default. A code answers under itself; 402, 561 and 901 are
// requests whose later frames are events as well.
#pragma once

#include <cstddef>
#include <cstdint>

enum : uint16_t {
    // ---- answered by the server itself ----
    CODE_AUTO_DIAL = 501,
    CODE_APN = 521,
    CODE_AUTO_CHECK = 522,
    CODE_PING_ADDRESS = 523,
    CODE_CHECK_PERIOD = 524,
    CODE_DOWN_SCRIPT = 525,
    CODE_RESTART = 901, // answered, as an event, once the module is open again
    CODE_VERSION = 911,
    CODE_STATE = 912,
    CODE_STATS = 913,

    // ---- run by a worker on the module ----
    CODE_GET_ATI = 51,
    CODE_GET_GSN = 52,
    CODE_GET_CIMI = 101,
    CODE_GET_CSQ = 102,
    CODE_GET_COPS = 103,
    CODE_SET_CREG = 110,
    CODE_GET_CREG = 111,
    CODE_SET_QNETDEVSTATUS = 190,
    CODE_GET_QNETDEVSTATUS = 191,
    CODE_GET_CSCA = 201,
    CODE_SET_CMGF = 231,
    CODE_SET_CSMS = 232,
    CODE_SET_CNMI = 233,
    CODE_SET_COLP = 234,
    CODE_SET_QTONEDET = 235,
    CODE_SET_CLIP = 236,
    CODE_SET_CSCS = 237,
    CODE_SET_ATE = 238,
    CODE_SMS_SEND_PDU = 251,
    CODE_SMS_SEND_TEXT = 252,
    CODE_SMS_CALL_DEFAULTS = 301,
    CODE_ANSWER_CALL = 302,
    CODE_HANG_UP = 303,
    CODE_VOICE_DIAL = 304,
    CODE_PLAY_TTS = 310,
    CODE_SET_QICSGP = 351,
    CODE_SET_QIDEACT = 352,
    CODE_SET_QIACT = 353,
    CODE_SET_QNETDEVCTL = 360,
    CODE_SET_QCRMCALL = 362,
    CODE_DIAL = 370,
    CODE_PASSTHROUGH = 401,
    CODE_AT_LINE = 402, // also the event of each module line in pass-through mode
    CODE_LBS_CONFIG = 451,
    CODE_GET_QLBS = 452,
    CODE_SET_USBIFC = 551,
    CODE_FOTA = 561, // its progress frames, then, after the module's reboot, an event

    // ---- events: frames the daemon sends unprompted ----
    EVENT_AT_LINE = CODE_AT_LINE,
    EVENT_FOTA_DONE = CODE_FOTA,
    EVENT_RESTARTED = CODE_RESTART,
    EVENT_CALL = 1001,
    EVENT_TTS_DONE = 1011,
    EVENT_TONE = 1021,
    EVENT_SMS = 1031,
    EVENT_SMS_REPORT = 1032,
    EVENT_SMS_PART = 1033, // a piece of a record longer than one frame; status: pieces to come
    EVENT_MODULE = 1101,   // status 1: the module left the bus; 0: it is back
    EVENT_MODULE_ERROR = 1201,
};

// Codes from here on are events only.
constexpr uint16_t FIRST_EVENT_CODE = 1000;

// The wait a client allows by default for an answer that needs the module: a
// query's 5 s time-out at most, with room for the port to come free.
constexpr int32_t ANSWER_MS_DEFAULT = 15000;

struct code_info {
    uint16_t code;
    const char *name;
    // How long a client waits for the answer by default: the longest the
    // daemon's own time-outs behind the code can take, with room for the port
    // to come free; 0 for ANSWER_MS_DEFAULT, and for events, which answer
    // nothing.
    int32_t answer_ms;
};

constexpr code_info CODES[] = {
    {CODE_AUTO_DIAL, "auto_dial", 0},
    {CODE_APN, "apn", 0},
    {CODE_AUTO_CHECK, "auto_check", 0},
    {CODE_PING_ADDRESS, "ping_address", 0},
    {CODE_CHECK_PERIOD, "check_period", 0},
    {CODE_DOWN_SCRIPT, "down_script", 0},
    // A power cycle, the 20 s settle and the bring-up.
    {CODE_RESTART, "restart", 120000},
    {CODE_VERSION, "version", 0},
    {CODE_STATE, "state", 0},
    {CODE_STATS, "stats", 0},

    {CODE_GET_ATI, "get_ati", 0},
    {CODE_GET_GSN, "get_gsn", 0},
    {CODE_GET_CIMI, "get_cimi", 0},
    {CODE_GET_CSQ, "get_csq", 0},
    {CODE_GET_COPS, "get_cops", 0},
    {CODE_SET_CREG, "set_creg", 0},
    {CODE_GET_CREG, "get_creg", 0},
    {CODE_SET_QNETDEVSTATUS, "set_qnetdevstatus", 0},
    {CODE_GET_QNETDEVSTATUS, "get_qnetdevstatus", 0},
    {CODE_GET_CSCA, "get_csca", 0},
    {CODE_SET_CMGF, "set_cmgf", 0},
    {CODE_SET_CSMS, "set_csms", 0},
    {CODE_SET_CNMI, "set_cnmi", 0},
    {CODE_SET_COLP, "set_colp", 20000}, // 15 s
    {CODE_SET_QTONEDET, "set_qtonedet", 0},
    {CODE_SET_CLIP, "set_clip", 20000}, // 15 s
    {CODE_SET_CSCS, "set_cscs", 0},
    {CODE_SET_ATE, "set_ate", 0},
    // The module may take 120 s to answer a message (a part, for a long one).
    {CODE_SMS_SEND_PDU, "sms_send_pdu", 130000},
    {CODE_SMS_SEND_TEXT, "sms_send_text", 130000},
    // Seven settings, two of them up to 15 s.
    {CODE_SMS_CALL_DEFAULTS, "set_sms_call_defaults", 60000},
    {CODE_ANSWER_CALL, "answer_call", 0},
    {CODE_HANG_UP, "hang_up", 100000}, // 90 s
    {CODE_VOICE_DIAL, "voice_dial", 0},
    {CODE_PLAY_TTS, "play_tts", 0},
    {CODE_SET_QICSGP, "set_qicsgp", 0},
    {CODE_SET_QIDEACT, "set_qideact", 50000}, // 40 s
    {CODE_SET_QIACT, "set_qiact", 160000},    // 150 s, the network's activation
    {CODE_SET_QNETDEVCTL, "set_qnetdevctl", 0},
    {CODE_SET_QCRMCALL, "set_qcrmcall", 0},
    // Every step of a dial: about 205 s, 150 s of it the activation.
    {CODE_DIAL, "dial", 300000},
    {CODE_PASSTHROUGH, "passthrough", 0},
    // The module's lines come as events until its final one.
    {CODE_AT_LINE, "at_line", 30000},
    {CODE_LBS_CONFIG, "lbs_config", 0},
    {CODE_GET_QLBS, "get_qlbs", 150000}, // up to 120 s to locate
    {CODE_SET_USBIFC, "set_usbifc", 0},
    // The update phase of the slowest family alone may take 20 min (a URL's
    // download up to 30 min before it); progress frames come meanwhile.
    {CODE_FOTA, "fota", 1300000},

    {EVENT_CALL, "call", 0},
    {EVENT_TTS_DONE, "tts_done", 0},
    {EVENT_TONE, "tone", 0},
    {EVENT_SMS, "sms", 0},
    {EVENT_SMS_REPORT, "sms_report", 0},
    {EVENT_SMS_PART, "sms_part", 0},
    {EVENT_MODULE, "module", 0},
    {EVENT_MODULE_ERROR, "module_error", 0},
};

// The row of `code`; null for a code the protocol does not have.
constexpr const code_info *code_find(uint16_t code) {
    for (const code_info &c : CODES) {
        if (c.code == code)
            return &c;
    }
    return nullptr;
}

// Its name; "unknown" for a code the protocol does not have.
constexpr const char *code_name(uint16_t code) {
    const code_info *c = code_find(code);
    return c != nullptr ? c->name : "unknown";
}

// How long a client waits for the answer to `code` by default.
constexpr int32_t code_answer_ms(uint16_t code) {
    const code_info *c = code_find(code);
    return c != nullptr && c->answer_ms > 0 ? c->answer_ms : ANSWER_MS_DEFAULT;
}

// One row per code: a second would never be found.
constexpr bool codes_unique() {
    for (size_t i = 0; i < sizeof CODES / sizeof CODES[0]; ++i) {
        for (size_t j = i + 1; j < sizeof CODES / sizeof CODES[0]; ++j) {
            if (CODES[i].code == CODES[j].code)
                return false;
        }
    }
    return true;
}
static_assert(codes_unique(), "a code has two rows");
