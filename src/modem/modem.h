// The AT command operations: each runs one exchange of the transaction frame
// (get_creg two) and returns its outcome under its own code, which is also the
// client command that runs it; it is the client interface's to reply with.
// They run on the thread that holds the right to use the AT port.
#pragma once

#include "core/codes.h"
#include "core/family.h"
#include "core/outcome.h"

#include <cstddef>
#include <cstdint>

// ---- identity and network queries ----
op_outcome get_ati();  // module_model: the answer lines joined by ','
op_outcome get_gsn();  // module_imei
op_outcome get_cimi(); // sim_imsi
op_outcome get_csq();  // signal_rssi, "-1" when unknown
op_outcome get_cops(); // operator_name, empty when the answer names none
// smsc_number, emptied first; an unusable answer is status 1 "Wrong number!"
// and sets `unusable`, when given.
op_outcome get_csca(bool *unusable = nullptr);
op_outcome set_creg(int32_t n);
// Registration with location: "area,cell", or status 1 without text when the
// answer carries none. Answers under 111 also when setting mode 2 fails.
op_outcome get_creg();

// ---- message service and module settings ----
op_outcome set_cscs(const char *charset);
op_outcome set_cmgf(int32_t mode); // 0 PDU, other text
op_outcome set_csms(int32_t on);
op_outcome set_cnmi(int32_t mode); // 0, 1, 2; any other value gives 3
op_outcome set_ate(int32_t on);
op_outcome set_usbifc(int32_t on); // not every family has it

// ---- data call ----
op_outcome set_qideact(int32_t cid);
op_outcome set_qicsgp(int32_t cid, int32_t type, const char *apn, const char *user,
                      const char *password, int32_t auth);
op_outcome set_qiact(int32_t cid);
op_outcome set_qnetdevctl(int32_t op, int32_t cid);
op_outcome set_qcrmcall(int32_t action, int32_t profile);
op_outcome set_qnetdevstatus(int32_t on);
// The module's network device; `up`, when given, is set when the answer says
// it is up.
op_outcome get_qnetdevstatus(bool *up = nullptr);
// The dial procedure of `family` under CODE_DIAL: its steps in order, or the
// external program when that owns the link; status 1 with the failed step's
// name. dial_in_progress is 1 while the steps run and cleared before it returns.
op_outcome dial(const module_family &family);
// One data-call step, on its own: >= 0 on success.
int data_step_run(data_step step);

// ---- voice calls ----
op_outcome answer_call(); // "NO CARRIER": status 1 with that text
op_outcome hang_up();
op_outcome set_colp(int32_t on);
op_outcome set_clip(int32_t on);

// ---- text-to-speech and tone detection ----
op_outcome set_qtonedet(int32_t on);
// start 0 stops speaking (text unused); otherwise speaks the UTF-8 text, of
// which the first 127 characters are kept.
op_outcome play_tts(int32_t start, const char *text);

// ---- cell-based location ----
// mode 1 sets `key` to `value`, any other mode reads `key`. A key that starts
// with none of the service's setting names is status 10 and nothing is sent.
op_outcome lbs_config(int32_t mode, const char *key, const char *value);
// The position, or status 1 with "errCode:<code>".
op_outcome get_qlbs();

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
