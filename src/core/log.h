// Time-stamped debug output, and the sleep for the fixed waits the daemon
// prescribes (after a power cycle, after bring-up). Waits for events are in
// core/wait.h.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>

// Formats into a newly allocated string (free() it). Returns the length, or 1
// after printing the failure line when formatting failed (*out is then null).
int format_alloc(char **out, const char *fmt, va_list ap) __attribute__((format(printf, 2, 0)));

// "[YYYY-MM-DD hh:mm:ss] message" on standard output, only while `debug` is 1.
void log_printf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// log_printf with the clock and the stream as parameters.
void log_vprintf_at(FILE *out, time_t now, const char *fmt, va_list ap)
    __attribute__((format(printf, 3, 0)));

// Waits the whole time, resuming after signals. Always returns 0.
int sleep_for(uint32_t seconds, uint32_t microseconds);
