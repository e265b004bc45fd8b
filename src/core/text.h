// Bounded copies into the daemon's fixed text fields.
#pragma once

#include <cstddef>

// Clears the whole field, then copies at most `max_chars` characters of src
// (and never more than size - 1). Returns the number of characters copied.
size_t text_copy(char *dst, size_t size, const char *src, size_t max_chars);

template <size_t N> size_t text_set(char (&dst)[N], const char *src) {
    return text_copy(dst, N, src, N - 1);
}

// snprintf for texts that are meant to be cut when they do not fit.
// Returns the length the full text would have had.
int text_format(char *dst, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

// True when `prefix` stands at the start of `line`.
bool has_prefix(const char *line, const char *prefix);

// Whether client text may stand inside an AT command line: no '"', which would
// close the quoted parameter early, and no control byte (CR, LF, Ctrl-Z, ESC
// among them), which would end the line or start a message body.
bool at_text_ok(const char *text);
// The same for a value that stands bare, outside quotes: nor ';' either, which
// would end the command and start another on the same line.
bool at_bare_text_ok(const char *text);
