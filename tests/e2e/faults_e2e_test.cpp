// Faults around the real daemon on the simulated board: a module that talks
// garbage, clients that come and go by the hundred, and a client that stops
// reading while the module floods it with events. (A module that leaves the
// bus, a restart meanwhile included, is the presence and supervisor tests'.)

#include "core/sanitizer.h"
#include "e2e/board.h"

#include <cstdlib>

namespace {

const std::string CALLER = "13912345678";
const std::string CLIP = "+CLIP: \"" + CALLER + "\",129";

TEST(FaultModuleTest, AfterGarbageOnThePortRequestsAndEventsComeThroughIntact) {
    READY_BOARD(b);
    client_conn &c = *b.client;
    std::string junk(64, '\0');
    for (int v = 128; v < 256; ++v)
        junk += static_cast<char>(v);
    junk += std::string("\r\nOK\0\x81\r\n", 8);
    // A line of 5,000 bytes without an end, then a storm of line ends.
    for (int i = 0; i < 5000; ++i)
        junk += static_cast<char>(i % 7 == 0 ? 0x80 + i % 128 : 'A' + i % 26);
    for (int i = 0; i < 4000; ++i)
        junk += i % 3 == 0 ? "\n" : "\r";
    ASSERT_TRUE(b.emu.inject_raw(junk));
    EXPECT_EQ(c.ask(102), "102/0/20");
    // Again a line without an end, now cut by the event's own line end.
    ASSERT_TRUE(b.emu.inject_raw(std::string(5000, '\xee')));
    ASSERT_TRUE(b.emu.inject_lines({"RING", CLIP}));
    EXPECT_EQ(show(c.reply(1001)), "1001/1/" + CALLER);
    // The worker of 102 may still be freeing the port (a slow daemon, under an emulator).
    EXPECT_EQ(c.ask_settled(103), "103/0/NETWORK");
    // Nothing of the garbage reached the client as an event of its own.
    for (const reply_frame &f : c.others)
        ADD_FAILURE() << "unexpected frame " << show(f);
}

TEST(FaultClientTest, ThreeHundredClientsThatLeaveWithoutReadingLeaveNothingBehind) {
    SKIP_WITHOUT_BOARD();
    ready_board b;
    // An address-sanitized daemon holds freed blocks back in its quarantine
    // (every thread's start and end frees some), which would count as growth
    // here; any other ignores the setting.
    std::string asan = getenv("ASAN_OPTIONS") != nullptr ? getenv("ASAN_OPTIONS") : "";
    setenv("ASAN_OPTIONS", (asan + ":quarantine_size_mb=0:thread_local_quarantine_size_kb=0").c_str(), 1);
    bool started = b.start();
    setenv("ASAN_OPTIONS", asan.c_str(), 1);
    ASSERT_TRUE(started);
    pid_t daemon = b.board.daemon_pid();
    ASSERT_GT(daemon, 0);
    // One that sends its request and goes.
    auto passer_by = [&](uint16_t code) {
        client_conn c(b.board.connect_client());
        return c.send(code);
    };
    // Measured with a client connected and answered: the daemon then holds
    // that client beside its listening socket.
    auto measure = [&](size_t *fds, long *rss) {
        std::unique_ptr<client_conn> c = served_client(b.board);
        EXPECT_EQ(c->ask_settled(102), "102/0/20");
        *fds = open_descriptors(daemon);
        *rss = resident_kb(daemon);
    };
    b.client.reset();
    for (uint16_t code : {uint16_t(102), uint16_t(911), uint16_t(102), uint16_t(912), uint16_t(102)})
        ASSERT_TRUE(eventually([&] { return passer_by(code); }));
    size_t fds_before = 0, fds_after = 0;
    long rss_before = 0, rss_after = 0;
    measure(&fds_before, &rss_before);

    size_t from = next_index(b.emu);
    for (int i = 0; i < 300; ++i)
        ASSERT_TRUE(eventually([&] { return passer_by(static_cast<uint16_t>(i % 2 == 0 ? 102 : 912)); })) << i;
    measure(&fds_after, &rss_after);
    std::vector<std::string> sent = commands_since(b.emu, from);
    // Workers ran for clients that had already gone (the others found one busy).
    EXPECT_GT(count(sent, "AT+CSQ"), 0u);
    EXPECT_GT(fds_before, 3u);
    EXPECT_LE(fds_after, fds_before);
    ASSERT_GT(rss_before, 0);
#ifndef ZOLVIN_TSAN // the thread sanitizer keeps its own records of every thread that ever ran
    EXPECT_LE(rss_after - rss_before, 256);
#endif
}

TEST(FaultClientTest, AClientThatStopsReadingUnderAThousandEventsHoldsUpNeitherTheSupervisorNorTheNext) {
    READY_BOARD(b, board_config("ec200t", "apn_name=cmnet\n"));
    client_conn &stalled = *b.client; // reads nothing from here on
    ASSERT_TRUE(b.emu.inject_lines(std::vector<std::string>(1000, CLIP)));
    // The supervisor dials on the stalled client's word, through the same port.
    ASSERT_TRUE(stalled.send(501, {"1"}));
    EXPECT_TRUE(sim_board::wait_until([&] { return b.board.called(DHCP + "usb0"); })) << b.board.stdout_text();

    // What did reach the stalled client are whole frames; the rest was dropped.
    size_t events = 0;
    while (std::optional<reply_frame> f = stalled.next(milliseconds(0))) {
        if (show(f) != "1001/1/" + CALLER && show(f) != "501/0/")
            ADD_FAILURE() << "mixed frame " << show(f);
        events += f->code == 1001;
    }
    EXPECT_LT(events, 1000u) << "the client's socket never filled";
    stalled.close();
    std::unique_ptr<client_conn> next = served_client(b.board);
    EXPECT_TRUE(next->state_becomes("Connected"));
    EXPECT_EQ(next->ask_settled(102), "102/0/20");
}

} // namespace
