#include "core/log.h"
#include "core/wait.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <sys/time.h>

namespace {

__attribute__((format(printf, 2, 3))) std::string format_at(time_t when, const char *fmt, ...) {
    char buf[256] = {};
    FILE *mem = fmemopen(buf, sizeof buf - 1, "w"); // the last byte stays the terminator
    va_list ap;
    va_start(ap, fmt);
    log_vprintf_at(mem, when, fmt, ap);
    va_end(ap);
    fclose(mem);
    return buf;
}

TEST(LogTest, StampsLocalTimeAndAddsNoNewline) {
    setenv("TZ", "UTC-2", 1); // two hours east
    tzset();
    std::string got = format_at(1709622489, "COPS: %s", "CMCC"); // 2024-03-05 07:08:09 UTC
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(got, "[2024-03-05 09:08:09] COPS: CMCC");
}

void on_alarm(int) {}

// Interrupted several times, the sleep still lasts the whole 300 ms.
TEST(SleepTest, SurvivesSignalsAndWaitsTheWholeTime) {
    signal(SIGALRM, on_alarm);
    itimerval every{{0, 50000}, {0, 50000}};
    setitimer(ITIMER_REAL, &every, nullptr);
    int64_t start = monotonic_ms();
    sleep_for(0, 300000);
    int64_t took = monotonic_ms() - start;
    itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    signal(SIGALRM, SIG_DFL);
    EXPECT_GE(took, 299);
}

} // namespace
