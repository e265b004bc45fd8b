// Helpers shared by the operation files of this folder; the row shapes are
// the transaction's own (at/at.h).
#pragma once

#include "at/at.h"

#include <cstdarg>

// Formats a command into `cmd`; false when it does not fit: a cut command must
// not reach the module, the operation answers status 10 instead.
bool format_command(char *cmd, size_t size, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
