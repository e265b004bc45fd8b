#include "at/at.h"
#include "core/text.h"
#include "support/test_support.h"

#include <cstring>
#include <thread>

namespace {

// One row per variant of the frame, as the module families use them.
const at_member QUERY = at_query(102, 350, "+CSQ:");
const at_member STEP = at_ok_or_error(353, 500);
const at_member COLLECT = at_collect_until_ok(51, 350);

void keep_line(const char *line, op_outcome *out, void *ctx) {
    *static_cast<std::string *>(ctx) = line;
    out->set_text(line);
}

struct TransactionTest : testing::Test, emulated_bench {};

// The result line, the echo and the closing OK are in the operations' own
// tests, as are plain ERROR, the module errors of the members that know them
// and the time-out that drains leftovers; a step that knows none waits for its time-out.
TEST_F(TransactionTest, AStepThatKnowsNoModuleErrorWaitsForItsTimeOut) {
    port.module().set_reply("AT+QIACT=1", modem_reply::cms_error(500));
    EXPECT_EQ(shown(at_transaction(STEP, "AT+QIACT=1\r\n")), "353 1 time out!|");
    EXPECT_EQ(urc_next(100), "+CMS ERROR: 500");
    EXPECT_EQ(urc_next(100), "<none>");
    EXPECT_EQ(client.frames(), ""); // the caller replies, not the transaction
}

TEST_F(TransactionTest, CollectedTextKeepsAtMost99CharactersAndAnyTransactionEndsRawMode) {
    std::string p;
    state().at_passthrough = 1;
    port.module().set_reply("ATI", modem_reply::with_lines({std::string(60, 'a'), std::string(60, 'b'), "OK"}));
    ASSERT_TRUE(at_transaction(COLLECT, "ATI\r\n", keep_line, &p).ok());
    EXPECT_EQ(p, std::string(60, 'a') + "," + std::string(38, 'b'));
    EXPECT_EQ(state().at_passthrough, 0);
}

TEST_F(TransactionTest, SendFailureIsItsOutcomeAndDrainsNothing) {
    at_begin();
    line_deliver("stale"); // a cancelled exchange's leftover
    port.close_port();
    op_outcome o = at_transaction(QUERY, "AT+CSQ\r\n");
    EXPECT_EQ(shown(o), "102 1 at send error!|");
    EXPECT_TRUE(o.unsent);
    EXPECT_EQ(state().at_state, AT_IDLE);
    EXPECT_EQ(urc_next(100), "<none>");
}

bool ends_in_zero(const char *line) { return line[0] != '\0' && line[strlen(line) - 1] == '0'; }

// Rows that overlap the shared lines, so that the order of the tests shows.
const at_row ROWS[] = {
    {"OK", nullptr, at_verdict::success, 1},
    {"+CME ERROR: 30", nullptr, at_verdict::info, 2}, // one module error read as an answer
    {"+R:", ends_in_zero, at_verdict::success, 3},   // prefix and test both decide
    {"+R:", nullptr, at_verdict::failure, 4},
    {"AT+R", nullptr, at_verdict::info, 5, true}, // an answer that looks like an echo
    {nullptr, at_digit_first, at_verdict::info, 6},
};
const at_rules ALL = {ROWS, 6, AT_ERRORS_ALL};

std::string judged(const at_rules &r, const char *line) {
    at_judgement j = at_judge(r, line);
    const char *names[] = {"success", "failure", "info", "passed_over", "unsolicited", "timed_out"};
    return std::string(names[static_cast<int>(j.verdict)]) + (j.pass_on ? "+" : "") +
           (j.row != nullptr ? " " + std::to_string(j.row->tag) : "");
}

TEST(AtJudgeTest, RowsFirstThenModuleErrorsErrorTheEchoAndTheRest) {
    const at_rules plain = {ROWS, 1, AT_ERROR_PLAIN};
    const at_rules none = {ROWS, 1, AT_ERRORS_NONE};
    // After a body the echo is the body's first characters, and "AT" is no echo.
    const at_rules body = {ROWS, 1, AT_ERRORS_ALL, "0011000D91683119", 10, at_verdict::info};
    const struct {
        const at_rules &rules;
        const char *line, *meaning;
    } cases[] = {
        {ALL, "OK", "success 1"},
        {ALL, "OKAY", "success 1"}, // prefixes are compared over their own length
        {ALL, "+CME ERROR: 30", "info 2"},
        {ALL, "+CME ERROR: 31", "failure+"},
        {ALL, "+CMS ERROR: 500", "failure+"},
        {ALL, "ERROR", "failure"},
        {ALL, "+R: 10", "success 3"},
        {ALL, "+R: 11", "failure 4"},
        {ALL, "AT+R?", "info+ 5"},
        {ALL, "AT+CSQ", "passed_over"},
        {ALL, "7 days", "info 6"},
        {ALL, "RING", "unsolicited"},
        {ALL, ">", "unsolicited"},
        {plain, "+CMS ERROR: 500", "unsolicited"},
        {plain, "ERROR: 3", "failure"},
        {none, "ERROR", "unsolicited"},
        {none, "+CME ERROR: 31", "unsolicited"},
        {body, "0011000D91683119325476F8", "passed_over"},
        {body, "0011000D9", "info"}, // shorter than the echo's length
        {body, "0011000D92", "info"},
        {body, "AT+CMGS=20", "info"},
        {body, "+CMS ERROR: 500", "failure+"},
        {body, "OK", "success 1"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(judged(c.rules, c.line), c.meaning) << c.line;
}

// The engine on the port, with the test playing the module.
using AtWaitTest = port_test;

TEST_F(AtWaitTest, OnlyLinesToActOnComeBackAndTheOthersReachUrcRingInOrder) {
    const at_row prompt_rows[] = {{">", nullptr, at_verdict::success}};
    const at_rules prompt = {prompt_rows, 1, AT_ERRORS_ALL};
    at_heard h;
    // The prompt comes without a line end; the line behind it is a leftover.
    ASSERT_TRUE(at_start("AT+CMGS=5\r", 10));
    port.module_says("AT+CMGS=5\r\r\nRING\r\n+CREG: 1\r\n> \r\nlate\r\n");
    ASSERT_EQ(at_wait(prompt, monotonic_ms() + 2000, &h), at_verdict::success);
    EXPECT_STREQ(h.line, ">");
    at_end(h);
    EXPECT_EQ(urc(), "RING|+CREG: 1|late|");

    // A module error goes on to urc_ring once the exchange ends, ahead of what followed it.
    ASSERT_TRUE(at_start("AT+CMGS=5\r", 10));
    port.module_says("+CMS ERROR: 304\r\nafter\r\n");
    ASSERT_EQ(at_wait(prompt, monotonic_ms() + 2000, &h), at_verdict::failure);
    EXPECT_TRUE(h.pass_on);
    at_end(h);
    EXPECT_EQ(urc(), "+CMS ERROR: 304|after|");

    // Nothing that ends the wait: the time-out, with no row.
    ASSERT_TRUE(at_start("AT\r", 3));
    port.module_says("ERROR\r\n");
    const at_rules deaf = {prompt_rows, 1, AT_ERRORS_NONE};
    int64_t start = monotonic_ms();
    EXPECT_EQ(at_wait(deaf, start + 100, &h), at_verdict::timed_out);
    EXPECT_GE(monotonic_ms() - start, 100);
    EXPECT_EQ(h.row, nullptr);
    at_finish();
    EXPECT_EQ(urc(), "ERROR|");
    EXPECT_EQ(state().at_state, AT_IDLE);
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
