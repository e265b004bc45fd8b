#include "core/text.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

size_t text_copy(char *dst, size_t size, const char *src, size_t max_chars) {
    if (size == 0)
        return 0;
    memset(dst, 0, size);
    size_t limit = max_chars < size - 1 ? max_chars : size - 1;
    size_t n = strnlen(src, limit);
    memcpy(dst, src, n);
    return n;
}

bool has_prefix(const char *line, const char *prefix) {
    return strncmp(line, prefix, strlen(prefix)) == 0;
}

int text_format(char *dst, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(dst, size, fmt, ap);
    va_end(ap);
    return n;
}
