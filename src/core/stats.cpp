#include "core/stats.h"

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t COUNTERS = static_cast<size_t>(stat_counter::count);
constexpr int64_t LINK_DOWN = -1;

const char *const NAMES[] = {"dials", "dial_failures", "resets", "lost", "probes",
                             "probe_failures", "sms_in", "sms_out", "dropped"};
static_assert(sizeof NAMES / sizeof NAMES[0] == COUNTERS, "a name for every counter");

std::atomic<uint64_t> g_counters[COUNTERS];
std::atomic<int64_t> g_start_ms{0};
// When the current link came up; one word, so a reader never sees the flag
// of one link with the time of another.
std::atomic<int64_t> g_link_since_ms{LINK_DOWN};

long long seconds_since(int64_t since_ms, int64_t now_ms) {
    // A clock read before the mark was set (another thread's) gives 0, not a negative age.
    return now_ms > since_ms ? static_cast<long long>((now_ms - since_ms) / 1000) : 0;
}

} // namespace

void stat_add(stat_counter c) {
    if (c < stat_counter::count)
        g_counters[static_cast<size_t>(c)].fetch_add(1, std::memory_order_relaxed);
}

void stats_start(int64_t now_ms) { g_start_ms.store(now_ms, std::memory_order_relaxed); }

void stats_link_up(int64_t now_ms) {
    // Only the first report of a link starts its time.
    int64_t down = LINK_DOWN;
    g_link_since_ms.compare_exchange_strong(down, now_ms < 0 ? 0 : now_ms,
                                            std::memory_order_relaxed);
}

void stats_link_down() { g_link_since_ms.store(LINK_DOWN, std::memory_order_relaxed); }

size_t stats_format(char *out, size_t size, int64_t now_ms) {
    if (size == 0)
        return 0;
    char text[STATS_TEXT_SIZE];
    int64_t since = g_link_since_ms.load(std::memory_order_relaxed);
    bool up = since != LINK_DOWN;
    int len = snprintf(text, sizeof text, "up=%lld link=%d link_s=%lld",
                       seconds_since(g_start_ms.load(std::memory_order_relaxed), now_ms), up ? 1 : 0,
                       up ? seconds_since(since, now_ms) : 0LL);
    for (size_t i = 0; i < COUNTERS && len > 0 && static_cast<size_t>(len) < sizeof text; ++i) {
        size_t at = static_cast<size_t>(len);
        int n = snprintf(text + at, sizeof text - at, " %s=%" PRIu64, NAMES[i],
                         g_counters[i].load(std::memory_order_relaxed));
        len = n < 0 ? -1 : len + n;
    }
    // Twelve fields of at most 20 digits fit the buffer; the guard only keeps the arithmetic honest.
    size_t written = len < 0 ? 0 : static_cast<size_t>(len);
    if (written >= sizeof text)
        written = sizeof text - 1;
    if (written >= size)
        written = size - 1;
    memcpy(out, text, written);
    out[written] = '\0';
    return written;
}

void stats_reset() {
    for (std::atomic<uint64_t> &c : g_counters)
        c.store(0, std::memory_order_relaxed);
    g_start_ms.store(0, std::memory_order_relaxed);
    stats_link_down();
}
