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
// A dead port is reported even when the link check asks silently.
constexpr at_member QNETDEVSTATUS_ROW =
    at_query(CODE_GET_QNETDEVSTATUS, 2000, "+QNETDEVSTATUS:")
        .with_errors(AT_ERROR_PLAIN)
        .send_error_always();

void report_qnetdevstatus(const char *line, at_outcome *out, void *) {
    const char *text;
    out->result = qnetdevstatus_parse(line, &text);
    outcome_text(out, text);
}

// What a data-call step runs; its name is the failure text for the client.
struct step_action {
    const char *name;
    int (*run)();
};

int configure_context() {
    apn_settings apn = apn_snapshot();
    return set_qicsgp(1, 1, apn.name, apn.user, apn.passwd, apn.auth, 0);
}

// In the order of data_step; the steps run silent.
constexpr step_action STEP_ACTIONS[] = {
    {"set_ate", [] { return set_ate(0, 0); }},
    {"set_qideact", [] { return set_qideact(1, 0); }},
    {"set_qicsgp", configure_context},
    {"set_qiact", [] { return set_qiact(1, 0); }},
    {"set_qnetdevctl", [] { return set_qnetdevctl(1, 1, 0); }},
    {"set_qnetdevctl", [] { return set_qnetdevctl(0, 1, 0); }},
    {"set_qcrmcall", [] { return set_qcrmcall(1, 1, 0); }},
    {"set_qcrmcall", [] { return set_qcrmcall(0, 1, 0); }},
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
        if (action.run() < 0 && step.must_succeed) {
            log_printf("%s failed!\n", action.name);
            return action.name;
        }
    }
    return nullptr;
}

// The end of a dial: the port is no longer marked as dialling before the
// reply goes out, so a client answered may ask again at once.
int dial_end(const char *failed_step, uint8_t report) {
    stat_add(failed_step ? stat_counter::dial_failures : stat_counter::dials);
    state().dial_in_progress.store(0, std::memory_order_release);
    if (report)
        client_report(CODE_DIAL, failed_step ? STATUS_FAIL : STATUS_OK, failed_step);
    return failed_step ? -1 : 0;
}

} // namespace

int set_qideact(int32_t cid, uint8_t report) {
    char cmd[32];
    snprintf(cmd, sizeof cmd, "AT+QIDEACT=%d\r\n", cid);
    return at_transaction(QIDEACT_ROW, cmd, report);
}

int set_qicsgp(int32_t cid, int32_t type, const char *apn, const char *user, const char *password,
               int32_t auth, uint8_t report) {
    // Three configured texts of up to 50 characters give 176 characters.
    char cmd[256];
    if (!format_command(cmd, sizeof cmd, CODE_SET_QICSGP, report,
                        "AT+QICSGP=%d,%d,\"%s\",\"%s\",\"%s\",%d\r\n", cid, type, apn, user,
                        password, auth))
        return -1;
    return at_transaction(QICSGP_ROW, cmd, report);
}

int set_qiact(int32_t cid, uint8_t report) {
    char cmd[32];
    snprintf(cmd, sizeof cmd, "AT+QIACT=%d\r\n", cid);
    return at_transaction(QIACT_ROW, cmd, report);
}

int set_qnetdevctl(int32_t op, int32_t cid, uint8_t report) {
    char cmd[48];
    snprintf(cmd, sizeof cmd, "AT+QNETDEVCTL=%d,%d\r\n", op, cid);
    return at_transaction(QNETDEVCTL_ROW, cmd, report);
}

int set_qcrmcall(int32_t action, int32_t profile, uint8_t report) {
    char cmd[48];
    snprintf(cmd, sizeof cmd, "AT$QCRMCALL=%d,1,1,2,%d\r\n", action, profile);
    return at_transaction(QCRMCALL_ROW, cmd, report);
}

int set_qnetdevstatus(int32_t on, uint8_t report) {
    return at_transaction(QNETDEVSTATUS_SET_ROW,
                          on != 0 ? "AT+QNETDEVSTATUS=1\r\n" : "AT+QNETDEVSTATUS=0\r\n", report);
}

int get_qnetdevstatus(uint8_t report) {
    return at_transaction(QNETDEVSTATUS_ROW, "AT+QNETDEVSTATUS?\r\n", report,
                          report_qnetdevstatus);
}

int data_step_run(data_step step) { return action_of(step).run(); }

int dial(const module_family &family, uint8_t report) {
    daemon_state &s = state();
    if (external_program_owns_link(family, s.app_name)) {
        // The external program owns the connection; whether it came up is for
        // the link check to find out.
        app_start();
        stat_add(stat_counter::dials);
        if (report)
            client_report(CODE_DIAL, STATUS_OK, nullptr);
        return 0;
    }
    if (family.dial_logged)
        log_printf("Begin to dial up...\n");
    s.dial_in_progress.store(1, std::memory_order_release);
    return dial_end(run_dial(family), report);
}
