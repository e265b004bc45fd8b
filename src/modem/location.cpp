#include "modem/member.h"
#include "modem/modem.h"

#include "core/text.h"

#include <cstdio>

namespace {

constexpr size_t LBS_TEXT_SIZE = 100;

struct lbs_exchange {
    bool setting;
    const char *key;
    char text[LBS_TEXT_SIZE];
};

void lbs_answer_line(const char *line, void *ctx) {
    auto *x = static_cast<lbs_exchange *>(ctx);
    qlbscfg_answer(line, x->text, sizeof x->text);
}

void lbs_done(const char *, op_outcome *out, void *ctx) {
    auto *x = static_cast<lbs_exchange *>(ctx);
    if (x->setting)
        snprintf(x->text, sizeof x->text, "set %s", x->key);
    out->set_text(x->text);
}

// The read answer comes as a line before "OK"; there is no module-error rule,
// so such an answer ends by time-out.
constexpr at_member QLBSCFG_ROW = at_ok_or_error(CODE_LBS_CONFIG, 5000)
                                     .with_info("+QLBSCFG: \"", lbs_answer_line);
// Locating can take the module up to two minutes.
constexpr at_member QLBS_ROW = at_query(CODE_GET_QLBS, 120000, "+QLBS: ");

void read_position(const char *line, op_outcome *out, void *) {
    char text[LBS_TEXT_SIZE];
    // An error code is the module's answer: status 1 with it.
    if (!qlbs_answer(line, text, sizeof text))
        out->status = STATUS_FAIL;
    out->set_text(text);
}

} // namespace

op_outcome lbs_config(int32_t mode, const char *key, const char *value) {
    const lbs_key *k = lbs_key_find(key);
    bool setting = mode == 1;
    // The key is matched by its start, so the whole of it is checked as the
    // value is: both go into the command line, a bare value outside quotes.
    if (k == nullptr || !at_text_ok(key) ||
        (setting && !(k->quoted ? at_text_ok(value) : at_bare_text_ok(value))))
        return outcome(CODE_LBS_CONFIG, STATUS_BAD_PARAM);
    // Room for a key and a value as long as request fields can carry.
    char cmd[2 * FIELD_SIZE + 32];
    bool formed = !setting    ? format_command(cmd, sizeof cmd, "AT+QLBSCFG=\"%s\"\r\n", key)
                  : k->quoted ? format_command(cmd, sizeof cmd, "AT+QLBSCFG=\"%s\",\"%s\"\r\n",
                                               key, value)
                              : format_command(cmd, sizeof cmd, "AT+QLBSCFG=\"%s\",%s\r\n", key,
                                               value);
    if (!formed)
        return outcome(CODE_LBS_CONFIG, STATUS_BAD_PARAM);
    lbs_exchange x{setting, key, {}};
    return at_transaction(QLBSCFG_ROW, cmd, lbs_done, &x);
}

op_outcome get_qlbs() { return at_transaction(QLBS_ROW, "AT+QLBS\r\n", read_position); }
