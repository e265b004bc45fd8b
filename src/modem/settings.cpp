#include "modem/member.h"
#include "modem/modem.h"

#include "core/text.h"

namespace {

constexpr uint32_t SETTING_TIMEOUT_MS = 350;

constexpr at_member CSCS_ROW = at_setter(CODE_SET_CSCS, SETTING_TIMEOUT_MS);
constexpr at_member CMGF_ROW = at_setter(CODE_SET_CMGF, SETTING_TIMEOUT_MS);
constexpr at_member CSMS_ROW = at_setter(CODE_SET_CSMS, SETTING_TIMEOUT_MS);
constexpr at_member CNMI_ROW = at_setter(CODE_SET_CNMI, SETTING_TIMEOUT_MS);
constexpr at_member ATE_ROW = at_setter(CODE_SET_ATE, SETTING_TIMEOUT_MS);
constexpr at_member USBIFC_ROW = at_setter(CODE_SET_USBIFC, SETTING_TIMEOUT_MS);

} // namespace

op_outcome set_cscs(const char *charset) {
    // Room for any name a request field can carry.
    char cmd[FIELD_SIZE + 16];
    if (!at_text_ok(charset) || !format_command(cmd, sizeof cmd, "AT+CSCS=\"%s\"\r\n", charset))
        return outcome(CODE_SET_CSCS, STATUS_BAD_PARAM);
    return at_transaction(CSCS_ROW, cmd);
}

op_outcome set_cmgf(int32_t mode) {
    return at_transaction(CMGF_ROW, mode != 0 ? "AT+CMGF=1\r\n" : "AT+CMGF=0\r\n");
}

op_outcome set_csms(int32_t on) {
    return at_transaction(CSMS_ROW, on != 0 ? "AT+CSMS=1\r\n" : "AT+CSMS=0\r\n");
}

op_outcome set_cnmi(int32_t mode) {
    const char *cmd = mode == 0   ? "AT+CNMI=2,0,0,1,0\r\n"
                      : mode == 1 ? "AT+CNMI=2,1,0,1,0\r\n"
                      : mode == 2 ? "AT+CNMI=2,2,0,1,0\r\n"
                                  : "AT+CNMI=2,3,0,1,0\r\n";
    return at_transaction(CNMI_ROW, cmd);
}

op_outcome set_ate(int32_t on) { return at_transaction(ATE_ROW, on != 0 ? "ATE1\r\n" : "ATE0\r\n"); }

op_outcome set_usbifc(int32_t on) {
    return at_transaction(USBIFC_ROW,
                          on != 0 ? "AT+QCFG=\"USBIFC\",2,2\r\n" : "AT+QCFG=\"USBIFC\",0,0\r\n");
}
