// Outcome helpers shared by the operation files of this folder; the row
// shapes are the transaction's own (at/at.h).
#pragma once

#include "at/at.h"

#include <cstdarg>

// Sets the reported text (cut to what a reply frame carries).
void outcome_text(at_outcome *out, const char *text);

// Formats a command into `cmd`. When it does not fit, reports status 10 under
// `code` (when `report` is set) and returns false: a cut command must not
// reach the module.
bool format_command(char *cmd, size_t size, int code, uint8_t report, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));
