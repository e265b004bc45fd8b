#include "at/at.h"
#include "core/log.h"
#include "support/at_port.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <string>
#include <vector>

namespace {

struct collected {
    std::vector<std::string> lines;
    std::vector<bool> complete;
};

void collect_sink(const char *line, bool complete, void *ctx) {
    auto *c = static_cast<collected *>(ctx);
    c->lines.emplace_back(line);
    c->complete.push_back(complete);
}

std::vector<std::string> split(const std::string &input, size_t piece = 0) {
    line_splitter sp;
    splitter_reset(&sp);
    collected c;
    if (piece == 0) {
        splitter_feed(&sp, input.data(), input.size(), collect_sink, &c);
    } else {
        for (size_t i = 0; i < input.size(); i += piece)
            splitter_feed(&sp, input.data() + i, std::min(piece, input.size() - i), collect_sink, &c);
    }
    return c.lines;
}

using lines = std::vector<std::string>;

TEST(LineSplitterTest, FramesLinesLikeTheModuleSendsThem) {
    EXPECT_EQ(split("\r\nOK\r\n"), lines{"OK"});
    EXPECT_EQ(split("\r\n\r\n"), lines{});
    EXPECT_EQ(split("AT+CSQ\r\r\n+CSQ: 20,99\r\n\r\nOK\r\n"), (lines{"AT+CSQ", "+CSQ: 20,99", "OK"}));
    EXPECT_EQ(split("   +CMTI: \"SM\",1\n"), lines{"+CMTI: \"SM\",1"});
    EXPECT_EQ(split("\r\n> "), lines{">"});
    EXPECT_EQ(split("a>b\r"), lines{"a>b"});
    EXPECT_EQ(split("\r\n>\r\n"), lines{">"});
    // The same input in 1-, 3- and 8-byte pieces gives the same lines.
    std::string stream = "\r\nRING\r\n\r\n+CLIP: \"123\",129\r\n  x y \r\n> \rEND\n";
    lines whole = split(stream);
    EXPECT_EQ(whole, (lines{"RING", "+CLIP: \"123\",129", "x y ", ">", "END"}));
    for (size_t piece : {1u, 3u, 8u})
        EXPECT_EQ(split(stream, piece), whole) << piece;
}

TEST(LineSplitterTest, KeepsTheFirst498CharactersOfALongLine) {
    std::string body;
    for (int i = 0; i < 600; ++i)
        body.push_back(static_cast<char>('a' + i % 26));
    lines got = split(body + "\rnext\r");
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], body.substr(0, 498));
    EXPECT_EQ(got[1], "next");
}

TEST(LineSplitterTest, IdleFlushAfterOneSecondOfSilence) {
    line_splitter sp;
    splitter_reset(&sp);
    collected c;
    splitter_feed(&sp, "partial", 7, collect_sink, &c);
    splitter_idle(&sp, 1000, collect_sink, &c);
    EXPECT_TRUE(c.lines.empty()); // just arrived
    sp.last_rx.tv_sec -= 2;       // pretend two quiet seconds
    splitter_idle(&sp, 1000, collect_sink, &c);
    ASSERT_EQ(c.lines, lines{"partial"});
    EXPECT_FALSE(c.complete[0]); // flushed lines are not echoed
    splitter_idle(&sp, 1000, collect_sink, &c);
    EXPECT_EQ(c.lines.size(), 1u); // nothing left to flush
}

TEST(LineSplitterTest, RandomBytesStayWithinTheLine) {
    std::mt19937 rng(7);
    line_splitter sp;
    splitter_reset(&sp);
    collected c;
    char buf[256];
    long deadline = monotonic_ms() + 1000;
    while (monotonic_ms() < deadline) {
        size_t n = rng() % sizeof buf;
        for (size_t i = 0; i < n; ++i)
            buf[i] = static_cast<char>(rng() % 8 == 0 ? '\r' : rng());
        splitter_feed(&sp, buf, n, collect_sink, &c);
        ASSERT_LE(sp.len, LINE_KEEP);
        for (const std::string &l : c.lines)
            ASSERT_LE(l.size(), LINE_KEEP);
        c.lines.clear();
    }
}

TEST(RingTest, TwentySlotsWithoutFullnessTest) {
    daemon_state_reset();
    ring_view urc = urc_ring_view();
    char out[RING_LINE_SIZE];
    EXPECT_FALSE(ring_pop(urc, out, sizeof out));
    for (int i = 0; i < 20; ++i)
        urc_push(("line " + std::to_string(i)).c_str());
    // Twenty pushes bring the ready index back to the reader: the ring looks empty.
    EXPECT_EQ(state().urc_ready_index, 0);
    EXPECT_FALSE(ring_pop(urc, out, sizeof out));
    urc_push("line 20"); // overwrites slot 0
    ASSERT_TRUE(ring_pop(urc, out, sizeof out));
    EXPECT_STREQ(out, "line 20");
    EXPECT_FALSE(ring_pop(urc, out, sizeof out));

    std::string huge(700, 'h');
    urc_push(huge.c_str());
    ASSERT_TRUE(ring_pop(urc, out, sizeof out));
    EXPECT_EQ(std::string(out), huge.substr(0, 499));
    daemon_state_reset();
}

TEST(RingTest, DrainMovesUnreadResponsesInOrder) {
    daemon_state_reset();
    ring_view resp = resp_ring_view();
    ring_push(resp, "first");
    ring_push(resp, "+CSQ: 1,2");
    ring_push(resp, "OK");
    char out[RING_LINE_SIZE];
    ASSERT_TRUE(ring_pop(resp, out, sizeof out));
    urc_push("RING");
    resp_drain_to_urc();
    EXPECT_FALSE(ring_pop(resp, out, sizeof out));
    EXPECT_EQ(urc_next(0), "RING");
    EXPECT_EQ(urc_next(0), "+CSQ: 1,2");
    EXPECT_EQ(urc_next(0), "OK");
    EXPECT_EQ(urc_next(0), "<none>");
    daemon_state_reset();
}

class ReceiveThreadTest : public testing::Test {
protected:
    void SetUp() override { daemon_state_reset(); }
    void TearDown() override { daemon_state_reset(); }
};

TEST_F(ReceiveThreadTest, RoutesByStateAndPassThrough) {
    at_port port;
    client_end client;
    port.start_rx();

    port.module_says("\r\nRING\r\n");
    EXPECT_EQ(urc_next(2000), "RING");

    state().at_state = AT_COLLECTING;
    port.module_says("\r\n+CSQ: 9,99\r\n");
    char out[RING_LINE_SIZE];
    EXPECT_TRUE(wait_until([&] { return ring_pop(resp_ring_view(), out, sizeof out); }, 2000));
    EXPECT_STREQ(out, "+CSQ: 9,99");

    // While a transaction closes, the next line waits; then it goes behind the leftovers.
    state().at_state = AT_CLOSING;
    port.module_says("LATE\r\n");
    ring_push(resp_ring_view(), "LEFTOVER");
    sleep_for(0, 50000);
    EXPECT_EQ(urc_next(0), "<none>");
    resp_drain_to_urc();
    state().at_state = AT_IDLE;
    EXPECT_EQ(urc_next(2000), "LEFTOVER");
    EXPECT_EQ(urc_next(2000), "LATE");

    // Pass-through: every line goes to the client as event 402 and to no ring.
    state().at_passthrough = 1;
    port.module_says("\r\nRING\r\n");
    reply_frame f;
    ASSERT_TRUE(client.next(&f, 2000));
    EXPECT_EQ(f.code, EVENT_AT_LINE);
    EXPECT_EQ(f.status, STATUS_OK);
    EXPECT_STREQ(f.text, "RING");
    EXPECT_EQ(urc_next(50), "<none>");
}

TEST_F(ReceiveThreadTest, LineWithoutEndIsDeliveredAfterAboutASecond) {
    at_port port;
    port.start_rx();
    long start = monotonic_ms();
    port.module_says("NO END");
    EXPECT_EQ(urc_next(3000), "NO END");
    long took = monotonic_ms() - start;
    EXPECT_GE(took, 950);
    EXPECT_LT(took, 2500);
}

TEST_F(ReceiveThreadTest, NoLineIsLostWhileTheRingHasRoom) {
    at_port port;
    port.start_rx();
    // The module sends in bursts, cut at arbitrary byte positions; a consumer
    // keeps the ring below 20 unread lines by being at most 16 lines behind.
    constexpr int total = 320;
    std::vector<std::string> got;
    std::atomic<int> taken{0};
    std::thread consumer([&] {
        while (taken.load() < total) {
            std::string l = urc_next(3000);
            if (l == "<none>")
                return;
            got.push_back(l);
            taken.fetch_add(1);
        }
    });
    std::string pending;
    for (int i = 0; i < total; ++i) {
        pending += "+QIND: " + std::to_string(i) + "\r\n";
        if ((i + 1) % 8 != 0)
            continue;
        for (size_t k = 0; k < pending.size(); k += 37)
            port.module_says(pending.substr(k, 37));
        pending.clear();
        int sent = i + 1;
        ASSERT_TRUE(wait_until([&] { return taken.load() >= sent - 8; }, 3000)) << sent;
    }
    consumer.join();
    ASSERT_EQ(got.size(), static_cast<size_t>(total));
    for (int i = 0; i < total; ++i)
        ASSERT_EQ(got[static_cast<size_t>(i)], "+QIND: " + std::to_string(i));
}

TEST_F(ReceiveThreadTest, AtPrintEchoesTraffic) {
    state().atprint = 1;
    at_port port;
    testing::internal::CaptureStdout();
    port.start_rx();
    EXPECT_EQ(at_send("AT+CSQ\r\n", 8), 8);
    EXPECT_EQ(port.module_reads("\n", 2000), "AT+CSQ\r\n");
    port.module_says("\r\n+CSQ: 5,99\r\n> ");
    EXPECT_EQ(urc_next(2000), "+CSQ: 5,99");
    EXPECT_EQ(urc_next(2000), ">");
    port.stop_rx();
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "send at data:AT+CSQ\r\n\nreceive at data:+CSQ: 5,99\n");
}

TEST_F(ReceiveThreadTest, SendOnAClosedPortFails) {
    state().at_fd = -1;
    EXPECT_EQ(at_send("AT\r\n", 4), -1);
}

} // namespace
