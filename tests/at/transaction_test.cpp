#include "at/at.h"
#include "core/text.h"
#include "support/at_port.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>

namespace {

// One row per variant of the frame, as the module families use them.
const at_member SETTER = {110, 300, at_end::ok, nullptr, true, true};
const at_member QUERY = {102, 350, at_end::prefix, "+CSQ:", true, true};
const at_member STEP = {353, 500, at_end::ok, nullptr, false, true};
const at_member DIGITS = {52, 350, at_end::digit_line, nullptr, false, false};
const at_member COLLECT = {51, 350, at_end::collect_ok, nullptr, false, false};

struct parsed {
    std::string line;
};

void keep_line(const char *line, at_outcome *out, void *ctx) {
    static_cast<parsed *>(ctx)->line = line;
    out->has_text = true;
    text_set(out->text, line);
}

class TransactionTest : public testing::Test {
protected:
    void SetUp() override {
        daemon_state_reset();
        port.emplace();
        client.emplace();
    }
    void TearDown() override {
        client.reset();
        port.reset();
        daemon_state_reset();
    }

    reply_frame report() {
        reply_frame r{};
        EXPECT_TRUE(client->next(&r, 1000));
        return r;
    }
    std::vector<std::string> urc_lines() {
        std::vector<std::string> got;
        for (std::string l = urc_next(100); l != "<none>"; l = urc_next(100))
            got.push_back(l);
        return got;
    }

    std::optional<emulated_port> port;
    std::optional<client_end> client;
};

TEST_F(TransactionTest, QueryEndsOnItsResultLineAndLeavesOkForTheRing) {
    parsed p;
    state().at_passthrough = 1; // any transaction ends raw mode
    ASSERT_EQ(at_transaction(QUERY, "AT+CSQ\r\n", 1, keep_line, &p), 0);
    EXPECT_EQ(p.line, "+CSQ: 20,99");
    EXPECT_EQ(state().at_state, AT_IDLE);
    EXPECT_EQ(state().at_passthrough, 0);
    reply_frame r = report();
    EXPECT_EQ(r.code, 102);
    EXPECT_EQ(r.status, STATUS_OK);
    EXPECT_STREQ(r.text, "+CSQ: 20,99");
    // The echo was dropped; the closing OK went on to the unsolicited ring.
    EXPECT_EQ(urc_lines(), std::vector<std::string>{"OK"});
}

TEST_F(TransactionTest, ErrorLinesEndTheWaitAsTheMemberSays) {
    port->module().set_reply("AT+CREG=2", modem_reply::cme_error(3));
    EXPECT_EQ(at_transaction(SETTER, "AT+CREG=2\r\n", 1), -1);
    reply_frame r = report();
    EXPECT_EQ(r.code, 110);
    EXPECT_EQ(r.status, STATUS_FAIL);
    EXPECT_STREQ(r.text, "");
    // The common thread must see the module error too.
    EXPECT_EQ(urc_lines(), std::vector<std::string>{"+CME ERROR: 3"});

    port->module().set_reply("AT+QIACT=1", modem_reply::error());
    EXPECT_EQ(at_transaction(STEP, "AT+QIACT=1\r\n", 1), -1);
    EXPECT_EQ(report().status, STATUS_FAIL);
    EXPECT_TRUE(urc_lines().empty()); // a plain ERROR is not passed on

    // A step that does not know module errors waits for its time-out; the line goes on.
    port->module().set_reply("AT+QIACT=1", modem_reply::cms_error(500));
    EXPECT_EQ(at_transaction(STEP, "AT+QIACT=1\r\n", 0), -1);
    EXPECT_EQ(urc_lines(), std::vector<std::string>{"+CMS ERROR: 500"});
    EXPECT_TRUE(client->silent(50)); // report 0: nothing sent
}

TEST_F(TransactionTest, DigitLineIgnoresErrorsUntilItsTimeOut) {
    port->module().set_reply("AT+GSN", modem_reply::error());
    long start = monotonic_ms();
    EXPECT_EQ(at_transaction(DIGITS, "AT+GSN\r\n", 1), -1);
    long took = monotonic_ms() - start;
    EXPECT_GE(took, 340);
    EXPECT_LT(took, 1500);
    reply_frame r = report();
    EXPECT_EQ(r.status, STATUS_FAIL);
    EXPECT_STREQ(r.text, "time out!");
    EXPECT_EQ(urc_lines(), std::vector<std::string>{"ERROR"});

    port->module().clear_replies();
    parsed p;
    ASSERT_EQ(at_transaction(DIGITS, "AT+GSN\r\n", 0, keep_line, &p), 0);
    EXPECT_EQ(p.line, "861234567890123");
}

TEST_F(TransactionTest, CollectJoinsTheAnswerLinesWithoutTheEcho) {
    parsed p;
    ASSERT_EQ(at_transaction(COLLECT, "ATI\r\n", 1, keep_line, &p), 0);
    EXPECT_EQ(p.line, "MAKER,EC200T,Revision: EMU-EC200T-R01");
    EXPECT_STREQ(report().text, "MAKER,EC200T,Revision: EMU-EC200T-R01");

    // Never more than 99 characters, however much the module says.
    port->module().set_reply("ATI", modem_reply::with_lines({std::string(60, 'a'), std::string(60, 'b'), "OK"}));
    ASSERT_EQ(at_transaction(COLLECT, "ATI\r\n", 0, keep_line, &p), 0);
    EXPECT_EQ(p.line, std::string(60, 'a') + "," + std::string(38, 'b'));
}

TEST_F(TransactionTest, UnsolicitedLinesDuringTheWaitReachTheRingInOrder) {
    // The module rings while the answer is on its way, then goes on talking after it.
    port->module().set_reply(
        "AT+CSQ", modem_reply::with_lines({"RING", "+CSQ: 11,99", "+CLIP: \"123\",129", "OK"})
                      .between_lines(5));
    ASSERT_EQ(at_transaction(QUERY, "AT+CSQ\r\n", 0), 0);
    std::vector<std::string> got = urc_lines();
    ASSERT_GE(got.size(), 1u);
    EXPECT_EQ(got[0], "RING");
    // What came after the result line follows in order, drained or pushed later.
    std::vector<std::string> rest(got.begin() + 1, got.end());
    EXPECT_EQ(rest, (std::vector<std::string>{"+CLIP: \"123\",129", "OK"}));
}

TEST_F(TransactionTest, TimeOutDrainsLeftoversAndSilenceEndsIt) {
    port->module().set_reply("AT+CSQ", modem_reply::with_lines({"+QIND: one", "+QIND: two"}));
    EXPECT_EQ(at_transaction(QUERY, "AT+CSQ\r\n", 1), -1);
    EXPECT_STREQ(report().text, "time out!");
    EXPECT_EQ(urc_lines(), (std::vector<std::string>{"+QIND: one", "+QIND: two"}));
    EXPECT_EQ(state().at_state, AT_IDLE);

    port->module().set_silent(true);
    EXPECT_EQ(at_transaction(SETTER, "AT+CREG=0\r\n", 0), -1);
    EXPECT_TRUE(urc_lines().empty()); // silent: not even the echo
}

TEST_F(TransactionTest, SendFailureReportsAndDrainsNothing) {
    ring_push(resp_ring_view(), "stale");
    port->close_port();
    EXPECT_EQ(at_transaction(QUERY, "AT+CSQ\r\n", 1), -1);
    reply_frame r = report();
    EXPECT_EQ(r.status, STATUS_FAIL);
    EXPECT_STREQ(r.text, "at send error!");
    EXPECT_EQ(state().at_state, AT_IDLE);
    EXPECT_TRUE(urc_lines().empty());

    // A member may insist on telling the client about it.
    at_member loud = QUERY;
    loud.send_error_always_reported = true;
    EXPECT_EQ(at_transaction(loud, "AT+CSQ\r\n", 0), -1);
    EXPECT_STREQ(report().text, "at send error!");
}

} // namespace
