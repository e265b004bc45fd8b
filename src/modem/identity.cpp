#include "modem/member.h"
#include "modem/modem.h"

#include "core/text.h"

#include <cstdio>
#include <cstring>

namespace {

// ATI has no error rule: whatever the module says up to "OK", an unsolicited
// line too, is part of the model text.
constexpr at_member ATI_ROW = at_collect_until_ok(CODE_GET_ATI, 350);
// The IMEI query has no error rule either: an error answer ends by time-out.
constexpr at_member GSN_ROW = at_digit_line(CODE_GET_GSN, 350);
constexpr at_member CIMI_ROW = at_digit_line(CODE_GET_CIMI, 350).with_errors(AT_ERRORS_ALL);
constexpr at_member CSQ_ROW = at_query(CODE_GET_CSQ, 350, "+CSQ:");
constexpr at_member COPS_ROW = at_query(CODE_GET_COPS, 5000, "+COPS:");
constexpr at_member CSCA_ROW = at_query(CODE_GET_CSCA, 350, "+CSCA:");
constexpr at_member CREG_SET_ROW = at_setter(CODE_SET_CREG, 300);
constexpr at_member CREG_ROW = at_query(CODE_GET_CREG, 5000, "+CREG:");

struct field_ref {
    char *text;
    size_t size;
};

// The whole answer is the value: stored, and the outcome's text.
void store_answer(const char *answer, op_outcome *out, void *ctx) {
    auto *field = static_cast<field_ref *>(ctx);
    text_copy(field->text, field->size, answer, field->size - 1);
    out->set_text(answer);
}

op_outcome query_into(char *field, size_t size, const at_member &row, const char *cmd) {
    field_ref ref{field, size};
    return at_transaction(row, cmd, store_answer, &ref);
}

void store_csq(const char *line, op_outcome *out, void *) {
    char value[CSQ_VALUE_SIZE];
    csq_value(line, value);
    text_set(state().signal_rssi, value);
    out->set_text(value);
}

void store_cops(const char *line, op_outcome *out, void *) {
    char name[IDENTITY_SIZE];
    bool named = cops_operator(line, name, sizeof name);
    // An answer without a usable name still says "no operator": forget the old one.
    text_set(state().operator_name, named ? name : "");
    if (named)
        out->set_text(name);
}

void store_csca(const char *line, op_outcome *out, void *unusable) {
    daemon_state &s = state();
    char number[sizeof s.smsc_number];
    if (!csca_number(line, number, sizeof number)) {
        if (unusable != nullptr)
            *static_cast<bool *>(unusable) = true;
        out->status = STATUS_FAIL;
        out->set_text("Wrong number!");
        return;
    }
    text_set(s.smsc_number, number);
    out->set_text(number);
}

void read_creg(const char *line, op_outcome *out, void *) {
    char text[120];
    if (!creg_location(line, text, sizeof text)) {
        // Not registered: the query worked, there is just no location to give.
        out->status = STATUS_FAIL;
        return;
    }
    out->set_text(text);
}

} // namespace

op_outcome get_ati() {
    daemon_state &s = state();
    return query_into(s.module_model, sizeof s.module_model, ATI_ROW, "ATI\r\n");
}

op_outcome get_gsn() {
    daemon_state &s = state();
    return query_into(s.module_imei, sizeof s.module_imei, GSN_ROW, "AT+GSN\r\n");
}

op_outcome get_cimi() {
    daemon_state &s = state();
    return query_into(s.sim_imsi, sizeof s.sim_imsi, CIMI_ROW, "AT+CIMI\r\n");
}

op_outcome get_csq() { return at_transaction(CSQ_ROW, "AT+CSQ\r\n", store_csq); }

op_outcome get_cops() { return at_transaction(COPS_ROW, "AT+COPS?\r\n", store_cops); }

op_outcome get_csca(bool *unusable) {
    // A failed query must not leave an old centre for SMS sending to use.
    memset(state().smsc_number, 0, sizeof state().smsc_number);
    return at_transaction(CSCA_ROW, "AT+CSCA?\r\n", store_csca, unusable);
}

op_outcome set_creg(int32_t n) {
    char cmd[32];
    snprintf(cmd, sizeof cmd, "AT+CREG=%d\r\n", n);
    return at_transaction(CREG_SET_ROW, cmd);
}

op_outcome get_creg() {
    // Mode 2 makes the answer carry the area code and the cell identity.
    if (!set_creg(2).ok())
        return outcome(CODE_GET_CREG, STATUS_FAIL);
    return at_transaction(CREG_ROW, "AT+CREG?\r\n", read_creg);
}
