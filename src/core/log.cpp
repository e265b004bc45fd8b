#include "core/log.h"

#include "core/daemon_state.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/select.h>
#include <sys/time.h>

int format_alloc(char **out, const char *fmt, va_list ap) {
    int n = vasprintf(out, fmt, ap);
    if (n == -1) {
        *out = nullptr;
        printf("Failed to vasprintf: %s. Bailing out\n", strerror(errno));
        return 1;
    }
    return n;
}

void log_vprintf_at(FILE *out, time_t now, const char *fmt, va_list ap) {
    char *msg = nullptr;
    format_alloc(&msg, fmt, ap);
    if (msg == nullptr)
        return;
    // Every thread logs: localtime()'s one shared result would mix their stamps.
    struct tm t;
    if (localtime_r(&now, &t) != nullptr)
        fprintf(out, "[%04d-%02d-%02d %02d:%02d:%02d] %s", t.tm_year + 1900, t.tm_mon + 1,
                t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, msg);
    free(msg);
}

void log_printf(const char *fmt, ...) {
    if (state().debug.load(std::memory_order_acquire) != 1)
        return;
    va_list ap;
    va_start(ap, fmt);
    log_vprintf_at(stdout, time(nullptr), fmt, ap);
    va_end(ap);
}

int sleep_for(uint32_t seconds, uint32_t microseconds) {
    timeval tv;
    tv.tv_sec = static_cast<time_t>(seconds);
    tv.tv_usec = static_cast<suseconds_t>(microseconds);
    // Linux leaves the remaining time in tv when a signal interrupts select.
    while (select(0, nullptr, nullptr, nullptr, &tv) != 0) {
    }
    return 0;
}
