#include "modem/member.h"
#include "modem/modem.h"

#include "core/config.h"
#include "core/log.h"
#include "core/shell.h"
#include "core/stats.h"

#include <cstdio>
#include <cstdlib>
#include <iterator>

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

// What a data-call step runs; its name is the failure text for the client.
struct step_action {
    const char *name;
    op_outcome (*run)();
};

op_outcome configure_context() {
    apn_settings apn = apn_snapshot();
    return set_qicsgp(1, 1, apn.name, apn.user, apn.passwd, apn.auth);
}

// In the order of data_step; the steps' own outcomes stay inside the dial.
constexpr step_action STEP_ACTIONS[] = {
    {"set_ate", [] { return set_ate(0); }},
    {"set_qideact", [] { return set_qideact(1); }},
    {"set_qicsgp", configure_context},
    {"set_qiact", [] { return set_qiact(1); }},
    {"set_qnetdevctl", [] { return set_qnetdevctl(1, 1); }},
    {"set_qnetdevctl", [] { return set_qnetdevctl(0, 1); }},
    {"set_qcrmcall", [] { return set_qcrmcall(1, 1); }},
    {"set_qcrmcall", [] { return set_qcrmcall(0, 1); }},
};
static_assert(std::size(STEP_ACTIONS) == DATA_STEP_COUNT, "one action per data step");

const step_action &action_of(data_step step) {
    return STEP_ACTIONS[static_cast<size_t>(step)];
}

// Runs the family's steps in order and stops at the first that fails and
// must not. Returns the failed step's name, or null when the dial got through.
const char *run_dial(const module_family &family) {
    for (size_t i = 0; i < family.dial_steps; ++i) {
        const dial_step &step = family.dial[i];
        const step_action &action = action_of(step.step);
        if (!action.run().ok() && step.must_succeed) {
            log_printf("%s failed!\n", action.name);
            return action.name;
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

int data_step_run(data_step step) { return action_of(step).run().ok() ? 0 : -1; }

op_outcome dial(const module_family &family) {
    daemon_state &s = state();
    if (external_program_owns_link(family, s.app_name)) {
        // The external program owns the connection; whether it came up is for
        // the link check to find out.
        app_start();
        stat_add(stat_counter::dials);
        return outcome(CODE_DIAL, STATUS_OK);
    }
    if (family.dial_logged)
        log_printf("Begin to dial up...\n");
    s.dial_in_progress.store(1, std::memory_order_release);
    return dial_end(run_dial(family));
}
