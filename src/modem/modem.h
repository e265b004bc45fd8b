// The AT command operations: each runs one exchange of the transaction frame
// (get_creg two) and reports under its own code, which is also the client
// command that runs it. With `report` 1 the outcome goes to the client, with 0
// the operation stays silent; operations without `report` always report. They
// return 0 on success and -1 on failure unless said otherwise, and run on the
// thread that holds the right to use the AT port.
#pragma once

#include "core/family.h"

#include <cstddef>
#include <cstdint>

// Report codes (equal to the client command codes).
enum : int {
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
    CODE_ANSWER_CALL = 302,
    CODE_HANG_UP = 303,
    CODE_PLAY_TTS = 310,
    CODE_SET_QICSGP = 351,
    CODE_SET_QIDEACT = 352,
    CODE_SET_QIACT = 353,
    CODE_SET_QNETDEVCTL = 360,
    CODE_SET_QCRMCALL = 362,
    CODE_DIAL = 370,
    CODE_LBS_CONFIG = 451,
    CODE_GET_QLBS = 452,
    CODE_SET_USBIFC = 551,
};

// ---- identity and network queries ----
int get_ati(uint8_t report);  // module_model: the answer lines joined by ','
int get_gsn(uint8_t report);  // module_imei
int get_cimi(uint8_t report); // sim_imsi
int get_csq(uint8_t report);  // signal_rssi, "-1" when unknown
int get_cops(uint8_t report); // operator_name, empty when the answer names none
// smsc_number, emptied first; an unusable answer always reports "Wrong number!".
int get_csca(uint8_t report);
int set_creg(int32_t n, uint8_t report);
// Registration with location: reports "area,cell" (or status 1 when the answer
// carries none, still returning 0). Always reports.
int get_creg();

// ---- message service and module settings ----
int set_cscs(const char *charset, uint8_t report);
int set_cmgf(int32_t mode, uint8_t report); // 0 PDU, other text
int set_csms(int32_t on, uint8_t report);
int set_cnmi(int32_t mode, uint8_t report); // 0, 1, 2; any other value gives 3
int set_ate(int32_t on, uint8_t report);
int set_usbifc(int32_t on, uint8_t report); // not every family has it

// ---- data call ----
int set_qideact(int32_t cid, uint8_t report);
int set_qicsgp(int32_t cid, int32_t type, const char *apn, const char *user, const char *password,
               int32_t auth, uint8_t report);
int set_qiact(int32_t cid, uint8_t report);
int set_qnetdevctl(int32_t op, int32_t cid, uint8_t report);
int set_qcrmcall(int32_t action, int32_t profile, uint8_t report);
int set_qnetdevstatus(int32_t on, uint8_t report);
// 1 when the module's network device is up, 0 when not, -1 when the query
// failed. A send failure is reported whatever `report` says.
int get_qnetdevstatus(uint8_t report);
// The dial procedure of `family`: its steps in order, or the external
// program when that owns the link. 0 connected, -1 when a step failed
// (reported under CODE_DIAL with the step's name). dial_in_progress is 1
// while the steps run.
int dial(const module_family &family, uint8_t report);
// One data-call step, silent: >= 0 on success.
int data_step_run(data_step step);

// ---- voice calls ----
int answer_call(); // always reports; "NO CARRIER" reports status 1 yet returns 0
int hang_up();     // always reports
int set_colp(int32_t on, uint8_t report);
int set_clip(int32_t on, uint8_t report);

// ---- text-to-speech and tone detection ----
int set_qtonedet(int32_t on, uint8_t report);
// start 0 stops speaking (text unused); otherwise speaks the UTF-8 text, of
// which the first 127 characters are kept. Always reports.
int play_tts(int32_t start, const char *text);

// ---- cell-based location ----
// mode 1 sets `key` to `value`, any other mode reads `key`. A key that starts
// with none of the service's setting names reports status 10 and sends nothing.
// Always reports.
int lbs_config(int32_t mode, const char *key, const char *value);
// Reports the position, or status 1 with "errCode:<code>" (still returning 0).
// Always reports.
int get_qlbs();

// ---- answer parsing (no I/O; every scan stops at the line's end) ----
struct quote_span {
    size_t open = 0;
    size_t close = 0;
};
// The first two '"' at indexes `from` to `last` inclusive.
bool find_quotes(const char *line, size_t from, size_t last, quote_span *q);

constexpr size_t CSQ_VALUE_SIZE = 6;
// The first number of a "+CSQ:" line: up to five characters from index 6,
// before the first ','; "-1" when the module calls the level unknown.
void csq_value(const char *line, char (&value)[CSQ_VALUE_SIZE]);
// The operator between the first quotes of a "+COPS:" line; false when there
// are fewer than two characters or the closing quote lies beyond index 29.
bool cops_operator(const char *line, char *out, size_t size);
// The SMS centre number of a "+CSCA:" line without its leading '+'; false when
// unusable or when it would not fit `size` with its terminator.
bool csca_number(const char *line, char *out, size_t size);
// "area,cell" from the two quoted fields of a "+CREG:" line; false when either
// is missing or shorter than two characters.
bool creg_location(const char *line, char *out, size_t size);
// 1 when a "+QNETDEVSTATUS:" line says the device is up, else 0; *text is the
// part of the line after the prefix and its blank.
int qnetdevstatus_parse(const char *line, const char **text);

// A setting of the location service, matched by the leading characters of a key.
struct lbs_key {
    const char *name;
    bool quoted; // its value travels in double quotes
};
const lbs_key *lbs_key_find(const char *key);
// "name: value" from a "+QLBSCFG: \"" answer line into `out`; false (and `out`
// untouched) when the line names no known setting or a quoted value is missing.
bool qlbscfg_answer(const char *line, char *out, size_t size);
// From a "+QLBS: " line: true with the position, or false with "errCode:<code>".
bool qlbs_answer(const char *line, char *out, size_t size);

constexpr size_t TTS_COMMAND_SIZE = 560;
// The speaking command for `text`; returns its length.
size_t tts_command(const char *text, char (&cmd)[TTS_COMMAND_SIZE]);
