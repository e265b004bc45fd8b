// Bounded copies into the daemon's fixed text fields.
#pragma once

#include <cstddef>

// Clears the whole field, then copies at most `max_chars` characters of src
// (and never more than size - 1). Returns the number of characters copied.
size_t text_copy(char *dst, size_t size, const char *src, size_t max_chars);

template <size_t N> size_t text_set(char (&dst)[N], const char *src) {
    return text_copy(dst, N, src, N - 1);
}

// True when `prefix` stands at the start of `line`.
bool has_prefix(const char *line, const char *prefix);
