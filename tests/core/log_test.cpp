#include "core/daemon_state.h"
#include "core/log.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <pthread.h>
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
    setenv("TZ", "UTC", 1);
    tzset();
    tm t{};
    t.tm_year = 2024 - 1900;
    t.tm_mon = 2;
    t.tm_mday = 5;
    t.tm_hour = 7;
    t.tm_min = 8;
    t.tm_sec = 9;
    time_t when = timegm(&t);
    EXPECT_EQ(format_at(when, "Disconnect 4G network.\n"),
              "[2024-03-05 07:08:09] Disconnect 4G network.\n");
    EXPECT_EQ(format_at(when, "COPS: %s", "CMCC"), "[2024-03-05 07:08:09] COPS: CMCC");

    setenv("TZ", "UTC-2", 1); // two hours east
    tzset();
    EXPECT_EQ(format_at(when, "x"), "[2024-03-05 09:08:09] x");
    setenv("TZ", "UTC", 1);
    tzset();
}

TEST(LogTest, PrintsOnlyWhenDebugIsExactlyOne) {
    daemon_state_reset();
    testing::internal::CaptureStdout();
    log_printf("hidden %d\n", 1);
    state().debug = 2;
    log_printf("hidden %d\n", 2);
    state().debug = 1;
    log_printf("shown %d\n", 3);
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    daemon_state_reset();
    EXPECT_EQ(out.find("hidden"), std::string::npos);
    ASSERT_EQ(out.size(), std::string("[2024-03-05 07:08:09] shown 3\n").size());
    EXPECT_EQ(out.substr(21), " shown 3\n");
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

TEST(ElapsedTest, RealClockReachesTheLimit) {
    timeval start;
    gettimeofday(&start, nullptr);
    EXPECT_EQ(elapsed_reached(start.tv_sec, start.tv_usec, 60000), 0);
    sleep_for(0, 30000);
    EXPECT_EQ(elapsed_reached(start.tv_sec, start.tv_usec, 20), 1);
}

void on_alarm(int) {}

TEST(SleepTest, SurvivesSignalsAndWaitsTheWholeTime) {
    struct sigaction sa {};
    sa.sa_handler = on_alarm;
    sigaction(SIGALRM, &sa, nullptr);
    // Interrupt the sleep several times; it must still last the whole 300 ms.
    itimerval every{{0, 50000}, {0, 50000}};
    setitimer(ITIMER_REAL, &every, nullptr);
    timespec a, b;
    clock_gettime(CLOCK_MONOTONIC, &a);
    sleep_for(0, 300000);
    clock_gettime(CLOCK_MONOTONIC, &b);
    itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    signal(SIGALRM, SIG_DFL);
    long ms = (b.tv_sec - a.tv_sec) * 1000 + (b.tv_nsec - a.tv_nsec) / 1000000;
    EXPECT_GE(ms, 299);
    EXPECT_LT(ms, 2000);
}

} // namespace
