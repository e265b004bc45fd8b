// The 913 text: its fields in their order, the link's own time, the cut to a
// small buffer, and counters that threads add to at once.
#include "core/stats.h"

#include <gtest/gtest.h>

#include <cstring>

#include <string>
#include <thread>
#include <vector>

namespace {

std::string text_at(int64_t now_ms, size_t size = STATS_TEXT_SIZE) {
    char out[STATS_TEXT_SIZE] = "unwritten";
    size_t n = stats_format(out, size, now_ms);
    EXPECT_EQ(n, strlen(out));
    return out;
}

TEST(StatsTest, FieldsInOrderAndTheLinksTimeOnlyWhileItIsUp) {
    stats_reset();
    stats_start(5000);
    EXPECT_EQ(text_at(5999), "up=0 link=0 link_s=0 dials=0 dial_failures=0 resets=0 lost=0 "
                             "probes=0 probe_failures=0 sms_in=0 sms_out=0 dropped=0");
    // Each counter once more than the one before it, so a swapped pair shows.
    for (size_t c = 0; c < static_cast<size_t>(stat_counter::count); ++c) {
        for (size_t i = 0; i <= c; ++i)
            stat_add(static_cast<stat_counter>(c));
    }
    stats_link_up(10000);
    stats_link_up(60000); // the same link reported again keeps its start
    EXPECT_EQ(text_at(5000 + 7322999), "up=7322 link=1 link_s=7317 dials=1 dial_failures=2 "
                                       "resets=3 lost=4 probes=5 probe_failures=6 sms_in=7 "
                                       "sms_out=8 dropped=9");
    stats_link_down();
    EXPECT_EQ(text_at(100000).substr(0, 27), "up=95 link=0 link_s=0 dials");
    stats_link_up(200000); // a new link counts from its own start
    EXPECT_EQ(text_at(203500).substr(0, 29), "up=198 link=1 link_s=3 dials=");
    // A clock read just before the link came up gives 0, not a negative time.
    EXPECT_EQ(text_at(199000).substr(0, 27), "up=194 link=1 link_s=0 dial");

    // Cut to the caller's buffer, always terminated.
    EXPECT_EQ(text_at(203500, 10), "up=198 li");
    EXPECT_EQ(text_at(203500, 1), "");
    char untouched = 'x';
    EXPECT_EQ(stats_format(&untouched, 0, 203500), 0u);
    EXPECT_EQ(untouched, 'x');
}

TEST(StatsTest, CountersTakeEveryAddFromManyThreads) {
    stats_reset();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 20000; ++i) {
                stat_add(stat_counter::probes);
                stat_add(stat_counter::dropped);
            }
        });
    }
    for (std::thread &t : threads)
        t.join();
    std::string text = text_at(0);
    EXPECT_NE(text.find(" probes=80000 "), std::string::npos) << text;
    EXPECT_NE(text.find(" dropped=80000"), std::string::npos) << text;
    stats_reset();
}

} // namespace
