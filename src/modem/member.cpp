#include "modem/member.h"

#include <cstdio>

bool format_command(char *cmd, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(cmd, size, fmt, ap);
    va_end(ap);
    return n >= 0 && static_cast<size_t>(n) < size;
}
