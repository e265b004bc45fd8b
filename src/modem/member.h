// Row shapes and outcome helpers shared by the operation files of this folder.
#pragma once

#include "at/at.h"

#include <cstdarg>

// "OK" ends; "+CME ERROR:"/"+CMS ERROR:" and "ERROR" fail.
constexpr at_member setting_row(int code, uint32_t timeout_ms) {
    return {code, timeout_ms, at_end::ok, nullptr, true, true};
}

// "OK" ends; only "ERROR" fails: a module error waits for the time-out.
constexpr at_member data_step_row(int code, uint32_t timeout_ms) {
    return {code, timeout_ms, at_end::ok, nullptr, false, true};
}

// The result line ends; "OK" is passed over; all error lines fail.
constexpr at_member query_row(int code, uint32_t timeout_ms, const char *prefix) {
    return {code, timeout_ms, at_end::prefix, prefix, true, true};
}

// Sets the reported text (cut to what a reply frame carries).
void outcome_text(at_outcome *out, const char *text);

// Formats a command into `cmd`. When it does not fit, reports status 10 under
// `code` (when `report` is set) and returns false: a cut command must not
// reach the module.
bool format_command(char *cmd, size_t size, int code, uint8_t report, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));
