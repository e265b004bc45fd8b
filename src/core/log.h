// Time-stamped debug output and the daemon's time keeping: every wait in the
// daemon is a `sleep_for` poll against an `elapsed_reached` deadline.
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

// 1 when at least `limit_ms` have passed since the start time (a gettimeofday
// reading), else 0. The difference is taken in signed 32-bit arithmetic and
// compared unsigned, so a clock set back fires the time-out at once.
int elapsed_reached(long start_sec, long start_usec, uint32_t limit_ms);

// elapsed_reached with "now" given.
int elapsed_between(long start_sec, long start_usec, long now_sec, long now_usec,
                    uint32_t limit_ms);
