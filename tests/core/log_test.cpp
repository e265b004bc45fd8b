#include "core/log.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <sys/time.h>

namespace {

__attribute__((format(printf, 2, 3))) std::string format_at(time_t when, const char *fmt, ...) {
    char *buf = nullptr;
    size_t len = 0;
    FILE *mem = open_memstream(&buf, &len);
    va_list ap;
    va_start(ap, fmt);
    log_vprintf_at(mem, when, fmt, ap);
    va_end(ap);
    fclose(mem);
    std::string out(buf, len);
    free(buf);
    return out;
}

TEST(LogTest, StampsLocalTimeAndAddsNoNewline) {
    setenv("TZ", "UTC-2", 1); // two hours east
    tzset();
    std::string got = format_at(1709622489, "COPS: %s", "CMCC"); // 2024-03-05 07:08:09 UTC
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(got, "[2024-03-05 09:08:09] COPS: CMCC");
}

TEST(ElapsedTest, SignedMillisecondsComparedUnsigned) {
    EXPECT_EQ(elapsed_between(10, 0, 11, 999999, 2000), 0);  // 1999 ms
    EXPECT_EQ(elapsed_between(10, 500, 12, 0, 2000), 1);     // -500/1000 truncates to 0
    EXPECT_EQ(elapsed_between(10, 0, 10, 0, 0), 1);          // a zero limit fires at once
    EXPECT_EQ(elapsed_between(10, 0, 9, 0, 100000), 1);      // clock set back: huge elapsed
    EXPECT_EQ(elapsed_between(10, 0, 10, 999, 1), 0);        // 0.999 ms is 0 ms
    EXPECT_EQ(elapsed_between(10, 0, 10, 1000, 1), 1);
    EXPECT_EQ(elapsed_between(100, 999999, 101, 0, 1), 1);   // 1000 + (-999999 / 1000) = 1
    EXPECT_EQ(elapsed_between(100, 999999, 101, 0, 2), 0);
}

void on_alarm(int) {}

// Interrupted several times, the sleep still lasts the whole 300 ms, as the
// real clock's time-out test sees it.
TEST(SleepTest, SurvivesSignalsAndWaitsTheWholeTime) {
    signal(SIGALRM, on_alarm);
    itimerval every{{0, 50000}, {0, 50000}};
    setitimer(ITIMER_REAL, &every, nullptr);
    timeval start;
    gettimeofday(&start, nullptr);
    sleep_for(0, 300000);
    int reached = elapsed_reached(start.tv_sec, start.tv_usec, 299);
    int long_past = elapsed_reached(start.tv_sec, start.tv_usec, 60000);
    itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    signal(SIGALRM, SIG_DFL);
    EXPECT_EQ(reached, 1);
    EXPECT_EQ(long_past, 0);
}

} // namespace
