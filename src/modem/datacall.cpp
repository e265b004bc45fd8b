#include "modem/member.h"
#include "modem/modem.h"

#include "core/config.h"
#include "core/log.h"
#include "core/shell.h"
#include "core/stats.h"

#include <cstdio>
#include <cstdlib>

namespace {

// The data-call steps know only "ERROR": a module error waits for the time-out.
constexpr at_member QIDEACT_ROW = at_ok_or_error(CODE_SET_QIDEACT, 40000);
constexpr at_member QICSGP_ROW = at_ok_or_error(CODE_SET_QICSGP, 5000);
// Activation waits for the network: up to two and a half minutes.
constexpr at_member QIACT_ROW = at_ok_or_error(CODE_SET_QIACT, 150000);
constexpr at_member QNETDEVCTL_ROW = at_ok_or_error(CODE_SET_QNETDEVCTL, 5000);
constexpr at_member QCRMCALL_ROW = at_ok_or_error(CODE_SET_QCRMCALL, 5000);
constexpr at_member QNETDEVSTATUS_SET_ROW = at_setter(CODE_SET_QNETDEVSTATUS, 350);
constexpr at_member QNETDEVSTATUS_ROW =
    at_query(CODE_GET_QNETDEVSTATUS, 2000, "+QNETDEVSTATUS:").with_errors(AT_ERROR_PLAIN);

void read_qnetdevstatus(const char *line, op_outcome *out, void *up) {
    const char *text;
    bool device_up = qnetdevstatus_parse(line, &text) == 1;
    if (up != nullptr)
        *static_cast<bool *>(up) = device_up;
    out->set_text(text);
}

// One step of a dial procedure; its name is the failure text for the client.
struct dial_step {
    const char *name;
    op_outcome (*run)();
};

op_outcome deactivate_context() { return set_qideact(1); }

op_outcome configure_context() {
    apn_settings apn = apn_snapshot();
    return set_qicsgp(1, 1, apn.name, apn.user, apn.passwd, apn.auth);
}

op_outcome activate_context() { return set_qiact(1); }
op_outcome start_network_device() { return set_qnetdevctl(1, 1); }
op_outcome start_data_call() { return set_qcrmcall(1, 1); }

constexpr dial_step EC200_DIAL[] = {
    {"set_qideact", deactivate_context},
    {"set_qicsgp", configure_context},
    {"set_qiact", activate_context},
    {"set_qnetdevctl", start_network_device},
};

constexpr dial_step EC20_DIAL[] = {
    {"set_qideact", deactivate_context},
    {"set_qicsgp", configure_context},
    {"set_qiact", activate_context},
    {"set_qcrmcall", start_data_call},
};

// Runs the steps in order and stops at the first that fails; the steps'
// own outcomes stay inside the dial. Returns the failed step's name, or null when every step succeeded.
template <size_t N> const char *run_dial(const dial_step (&steps)[N]) {
    for (const dial_step &step : steps) {
        if (!step.run().ok()) {
            log_printf("%s failed!\n", step.name);
            return step.name;
        }
    }
    return nullptr;
}

// The end of a dial: the port is no longer marked as dialling before the
// reply goes out, so a client answered may ask again at once.
op_outcome dial_end(const char *failed_step) {
    stat_add(failed_step ? stat_counter::dial_failures : stat_counter::dials);
    state().dial_in_progress.store(0, std::memory_order_release);
    return outcome(CODE_DIAL, failed_step ? STATUS_FAIL : STATUS_OK, failed_step);
}

} // namespace

op_outcome set_qideact(int32_t cid) {
    char cmd[32];
    snprintf(cmd, sizeof cmd, "AT+QIDEACT=%d\r\n", cid);
    return at_transaction(QIDEACT_ROW, cmd);
}

op_outcome set_qicsgp(int32_t cid, int32_t type, const char *apn, const char *user,
                      const char *password, int32_t auth) {
    // Three configured texts of up to 50 characters give 176 characters.
    char cmd[256];
    if (!format_command(cmd, sizeof cmd, "AT+QICSGP=%d,%d,\"%s\",\"%s\",\"%s\",%d\r\n", cid, type,
                        apn, user, password, auth))
        return outcome(CODE_SET_QICSGP, STATUS_BAD_PARAM);
    return at_transaction(QICSGP_ROW, cmd);
}

op_outcome set_qiact(int32_t cid) {
    char cmd[32];
    snprintf(cmd, sizeof cmd, "AT+QIACT=%d\r\n", cid);
    return at_transaction(QIACT_ROW, cmd);
}

op_outcome set_qnetdevctl(int32_t op, int32_t cid) {
    char cmd[48];
    snprintf(cmd, sizeof cmd, "AT+QNETDEVCTL=%d,%d\r\n", op, cid);
    return at_transaction(QNETDEVCTL_ROW, cmd);
}

op_outcome set_qcrmcall(int32_t action, int32_t profile) {
    char cmd[48];
    snprintf(cmd, sizeof cmd, "AT$QCRMCALL=%d,1,1,2,%d\r\n", action, profile);
    return at_transaction(QCRMCALL_ROW, cmd);
}

op_outcome set_qnetdevstatus(int32_t on) {
    return at_transaction(QNETDEVSTATUS_SET_ROW,
                          on != 0 ? "AT+QNETDEVSTATUS=1\r\n" : "AT+QNETDEVSTATUS=0\r\n");
}

op_outcome get_qnetdevstatus(bool *up) {
    if (up != nullptr)
        *up = false;
    return at_transaction(QNETDEVSTATUS_ROW, "AT+QNETDEVSTATUS?\r\n", read_qnetdevstatus, up);
}

op_outcome dial_ec200() {
    daemon_state &s = state();
    log_printf("Begin to dial up...\n");
    s.dial_in_progress.store(1, std::memory_order_release);
    // Echo off; a module that keeps echoing still dials, the echo is dropped.
    set_ate(0);
    return dial_end(run_dial(EC200_DIAL));
}

op_outcome dial_ec20() {
    daemon_state &s = state();
    if (s.app_name[0] != '\0') {
        // The external program owns the connection; whether it came up is for
        // the link check to find out.
        app_start();
        stat_add(stat_counter::dials);
        return outcome(CODE_DIAL, STATUS_OK);
    }
    s.dial_in_progress.store(1, std::memory_order_release);
    set_ate(0);
    // Stop a call that may still be up from before; if there is none, that is fine too.
    set_qcrmcall(0, 1);
    return dial_end(run_dial(EC20_DIAL));
}
