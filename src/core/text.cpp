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

bool at_text_ok(const char *text) {
    for (const unsigned char *c = reinterpret_cast<const unsigned char *>(text); *c != '\0'; ++c) {
        if (*c == '"' || *c < 0x20)
            return false;
    }
    return true;
}

bool at_bare_text_ok(const char *text) { return at_text_ok(text) && strchr(text, ';') == nullptr; }
