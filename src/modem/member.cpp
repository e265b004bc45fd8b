#include "modem/member.h"

#include "core/text.h"

#include <cstdio>

void outcome_text(at_outcome *out, const char *text) {
    text_set(out->text, text);
    out->has_text = true;
}

bool format_command(char *cmd, size_t size, int code, uint8_t report, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(cmd, size, fmt, ap);
    va_end(ap);
    if (n >= 0 && static_cast<size_t>(n) < size)
        return true;
    if (report)
        client_report(code, STATUS_BAD_PARAM, nullptr);
    return false;
}
