#include "core/text.h"

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
