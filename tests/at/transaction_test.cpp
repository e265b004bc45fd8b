#include "at/at.h"
#include "core/text.h"
#include "support/test_support.h"

#include <thread>

namespace {

// One row per variant of the frame, as the module families use them.
const at_member QUERY = at_query(102, 350, "+CSQ:");
const at_member STEP = at_ok_or_error(353, 500);
const at_member COLLECT = at_collect_until_ok(51, 350);

void keep_line(const char *line, at_outcome *out, void *ctx) {
    *static_cast<std::string *>(ctx) = line;
    out->has_text = true;
    text_set(out->text, line);
}

struct TransactionTest : testing::Test, emulated_bench {};

// The result line, the echo and the closing OK are in the operations' own
// tests, as are plain ERROR, the module errors of the members that know them
// and the time-out that drains leftovers; a step that knows none waits for its time-out.
TEST_F(TransactionTest, AStepThatKnowsNoModuleErrorWaitsForItsTimeOut) {
    port.module().set_reply("AT+QIACT=1", modem_reply::cms_error(500));
    EXPECT_EQ(at_transaction(STEP, "AT+QIACT=1\r\n", 0), -1);
    EXPECT_EQ(urc_next(100), "+CMS ERROR: 500");
    EXPECT_EQ(urc_next(100), "<none>");
    EXPECT_EQ(client.frames(), ""); // report 0: nothing sent
}

TEST_F(TransactionTest, CollectedTextKeepsAtMost99CharactersAndAnyTransactionEndsRawMode) {
    std::string p;
    state().at_passthrough = 1;
    port.module().set_reply("ATI", modem_reply::with_lines({std::string(60, 'a'), std::string(60, 'b'), "OK"}));
    ASSERT_EQ(at_transaction(COLLECT, "ATI\r\n", 0, keep_line, &p), 0);
    EXPECT_EQ(p, std::string(60, 'a') + "," + std::string(38, 'b'));
    EXPECT_EQ(state().at_passthrough, 0);
}

TEST_F(TransactionTest, SendFailureReportsAndDrainsNothing) {
    at_begin();
    line_deliver("stale"); // a cancelled exchange's leftover
    port.close_port();
    EXPECT_EQ(at_transaction(QUERY, "AT+CSQ\r\n", 1), -1);
    EXPECT_EQ(client.frames(), "102 1 at send error!|");
    EXPECT_EQ(state().at_state, AT_IDLE);
    EXPECT_EQ(urc_next(100), "<none>");
}

// The right to use the port: one worker or supervisor work at a time.
std::atomic<int> g_inside{0};
std::atomic<int> g_overlaps{0};

void use_port() {
    if (g_inside.fetch_add(1) != 0)
        g_overlaps.fetch_add(1);
    std::this_thread::yield();
    g_inside.fetch_sub(1);
}

void *quick_worker(void *) {
    use_port();
    worker_finished();
    return nullptr;
}

TEST(PortAccessTest, SupervisorWorkAndWorkersRacingNeverOverlap) {
    fresh_state fresh;
    g_overlaps = 0;
    std::atomic<bool> stop{false};
    std::atomic<int> works{0};
    std::thread supervisor([&] {
        while (!stop.load()) {
            if (port_work_begin()) {
                use_port();
                port_work_end();
                works.fetch_add(1);
            }
            std::this_thread::yield();
        }
    });
    int started = 0;
    int64_t give_up = monotonic_ms() + 20000;
    while ((started < 100 || works.load() < 100) && monotonic_ms() < give_up) {
        if (worker_start(quick_worker, nullptr) == worker_start_result::started)
            ++started;
    }
    stop = true;
    supervisor.join();
    // The last worker is gone once it gave the gate back.
    ASSERT_TRUE(wait_until([] { return state().at_mutex.try_lock(); }, 5000));
    state().at_mutex.unlock();
    EXPECT_GE(started, 100);
    EXPECT_GE(works.load(), 100);
    EXPECT_EQ(g_overlaps.load(), 0);
}

} // namespace
