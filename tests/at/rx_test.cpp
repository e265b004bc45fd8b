// The module's port: its line settings, cutting its bytes into lines, the
// rings with their waits, and the receive thread on a pty.
#include "at/at.h"
#include "at/serial.h"
#include "support/test_support.h"

#include <fcntl.h>
#include <thread>

namespace {

using lines = std::vector<std::string>;

// Whether a line was complete decides only its echo, seen in ReceiveThreadTest.
void collect_sink(const char *line, bool, void *ctx) {
    static_cast<lines *>(ctx)->emplace_back(line);
}

lines split(const std::string &input, size_t piece) {
    line_splitter sp;
    splitter_reset(&sp);
    lines c;
    for (size_t i = 0; i < input.size(); i += piece)
        splitter_feed(&sp, input.data() + i, std::min(piece, input.size() - i), 0, collect_sink,
                      &c);
    return c;
}

TEST(LineSplitterTest, FramesLinesLikeTheModuleSendsThemInAnyPieces) {
    struct {
        std::string bytes;
        lines want;
    } cases[] = {
        {"\r\nOK\r\n", {"OK"}},
        {"\r\n\r\n", {}},
        {"AT+CSQ\r\r\n+CSQ: 20,99\r\n\r\nOK\r\n", {"AT+CSQ", "+CSQ: 20,99", "OK"}},
        {"   +CMTI: \"SM\",1\n", {"+CMTI: \"SM\",1"}},
        {"\r\n> ", {">"}},
        {"a>b\r\n>\r\n", {"a>b", ">"}},
        {std::string("\0O\0K\0\r\n", 7), {"OK"}},
        {"\r\nRING\r\n  x y \r\n> \rEND\n", {"RING", "x y ", ">", "END"}},
    };
    for (const auto &c : cases)
        for (size_t piece : {c.bytes.size() + 1, size_t{1}, size_t{3}})
            EXPECT_EQ(split(c.bytes, piece), c.want) << testing::PrintToString(c.bytes) << piece;

    std::string body;
    for (int i = 0; i < 600; ++i)
        body.push_back(static_cast<char>('a' + i % 26));
    EXPECT_EQ(split(body + "\rnext\r", 100), (lines{body.substr(0, LINE_KEEP), "next"}));
}

TEST(LineSplitterTest, UnfinishedLineIsHandedOverOneSecondAfterItsLastByte) {
    line_splitter sp;
    splitter_reset(&sp);
    lines c;
    EXPECT_EQ(splitter_flush_due(&sp), NO_DEADLINE);
    splitter_feed(&sp, "part", 4, 5000, collect_sink, &c);
    splitter_feed(&sp, "ial", 3, 5400, collect_sink, &c);
    EXPECT_EQ(splitter_flush_due(&sp), 6400);
    splitter_idle(&sp, 6399, collect_sink, &c);
    EXPECT_TRUE(c.empty());
    splitter_idle(&sp, 6400, collect_sink, &c);
    EXPECT_EQ(c, lines{"partial"});
    EXPECT_EQ(splitter_flush_due(&sp), NO_DEADLINE);
}

TEST(RingTest, ALineArrivingDuringTheClosingDrainGoesBehindTheLeftovers) {
    fresh_state fresh;
    daemon_state &s = state();
    lines want;
    for (int i = 0; i < RING_SLOTS; ++i) {
        want.push_back("old " + std::to_string(i));
        urc_push(want.back().c_str());
    }
    at_begin();
    line_deliver("+CSQ: 1,2");
    line_deliver("OK");
    // The drain finds urc_ring full and must wait for the common thread; the
    // module's next line meanwhile must neither overtake nor be lost.
    std::thread closing([] { at_finish(); });
    ASSERT_TRUE(wait_until([&] { return s.at_state.load() == AT_CLOSING; }, 5000));
    std::thread rx([] { line_deliver("RING"); });
    want.insert(want.end(), {"+CSQ: 1,2", "OK", "RING"});
    lines got;
    while (got.size() < want.size()) {
        std::string l = urc_next(5000);
        ASSERT_NE(l, "<none>");
        got.push_back(l);
    }
    closing.join();
    rx.join();
    EXPECT_EQ(got, want);
    EXPECT_EQ(s.at_state.load(), AT_IDLE);
}

using ReceiveThreadTest = port_test;

// With atprint, sent and complete received lines are echoed; an unfinished
// line is handed over about a second after its last byte, without an echo.
TEST_F(ReceiveThreadTest, EchoesTrafficAndDeliversALineWithoutEndASecondLater) {
    state().atprint = 1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(at_send("AT+CSQ\r\n", 8), 8);
    EXPECT_EQ(port.module_reads("\n", 2000), "AT+CSQ\r\n");
    port.module_says("\r\n+CSQ: 5,99\r\n> ");
    EXPECT_EQ(urc_next(2000), "+CSQ: 5,99");
    EXPECT_EQ(urc_next(2000), ">");
    int64_t start = monotonic_ms();
    port.module_says("NO END");
    EXPECT_EQ(urc_next(5000), "NO END");
    EXPECT_GE(monotonic_ms() - start, 950);
    port.stop_rx();
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "send at data:AT+CSQ\r\n\nreceive at data:+CSQ: 5,99\n");
}

// A port that goes away by itself is the module leaving the bus: the client
// hears it once and at once, and a transaction waiting for an answer stops
// waiting instead of sitting out its time-out.
TEST_F(ReceiveThreadTest, AHungUpPortTellsTheModuleLeftAndEndsTheWaitingTransaction) {
    at_begin();
    int64_t start = monotonic_ms();
    std::thread gone([&] { port.hang_up(); });
    char line[RING_LINE_SIZE];
    EXPECT_FALSE(at_next_line(line, sizeof line, start + 10000));
    EXPECT_LT(monotonic_ms() - start, 5000);
    at_finish();
    gone.join();
    EXPECT_EQ(state().module_lost.load(), 1);
    EXPECT_EQ(client.frames(1, 2000), "1101 1 |");
    port.stop_rx();
    EXPECT_EQ(client.frames(), "");
}

// A write may meet the hung-up port before the receive thread does: the loss
// is told then, and the request is refused as not ready, not failed.
TEST(PortWriteTest, AWriteToAHungUpPortTellsTheModuleLeft) {
    fresh_state fresh;
    at_port port;
    client_end client;
    port.hang_up();
    EXPECT_EQ(at_send("ATI\r\n", 5), -1);
    EXPECT_EQ(state().module_lost.load(), 1);
    EXPECT_EQ(shown(at_send_failure(51)), "51 13 |");
    EXPECT_EQ(client.frames(), "1101 1 |");
}

// The pty's slave stands for the module's ttyUSB node, opened by serial_open
// while its line settings are still the cooked defaults.
TEST(SerialTest, OpensRawAt115200WithNoFlowControl) {
    at_port port;
    int fd = state().at_fd.load();
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    termios t;
    ASSERT_EQ(tcgetattr(fd, &t), 0);
    EXPECT_EQ(cfgetispeed(&t), B115200);
    EXPECT_EQ(cfgetospeed(&t), B115200);
    EXPECT_EQ(t.c_cflag & (CSIZE | PARENB | CSTOPB | CRTSCTS), static_cast<tcflag_t>(CS8));
    EXPECT_EQ(t.c_iflag & (IXON | IXOFF | ICRNL | INLCR), 0u);
    EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ISIG), 0u);
    EXPECT_EQ(t.c_oflag & OPOST, 0u);
}

} // namespace
