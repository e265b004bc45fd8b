// A module that leaves the USB bus by itself, on the simulated board: the
// daemon refuses requests as "not ready" at once and tells the client (1101),
// takes the module back without a power cycle when it returns within a minute
// and dials again, and power-cycles it when it does not. Its own power cycles
// are no departures. PresenceSlowTest is the long one (about 90 s).

#include "e2e/board.h"

#include <algorithm>
#include <tuple>

namespace {

const uint16_t PRESENCE = 1101;
const std::string AUTO_DIAL = "auto_dial=1\napn_name=cmnet\ndown_script=" + DOWN_SCRIPT + "\n";

std::string take(client_conn &c, uint16_t code, milliseconds timeout) { return show(c.reply(code, timeout)); }
std::string joined(const std::vector<std::string> &all) { return testing::PrintToString(all); }
const std::vector<std::string> NONE; // no control line written: no power cycle

// Whether `wanted` occurs in `all` in this order, other entries between them.
bool in_order(const std::vector<std::string> &all, const std::vector<std::string> &wanted) {
    auto at = all.begin();
    for (const std::string &w : wanted) {
        if ((at = std::find(at, all.end(), w)) == all.end())
            return false;
        ++at;
    }
    return true;
}

// Asks 51 until it is refused as not ready; the other answers met on the way
// go to `before`, a repeated one once. The milliseconds from `since` to that
// refusal, or -1.
long long until_not_ready(client_conn &c, long long since, std::vector<std::string> *before) {
    std::string r;
    auto refused = [&] {
        if ((r = c.ask(51)) != "51/13/" && (before->empty() || before->back() != r))
            before->push_back(r);
        return r == "51/13/";
    };
    return eventually(refused, milliseconds(3000)) ? monotonic_ms() - since : -1;
}

// Away 3 s and back with auto_dial=1: refused at once and all along, told
// both ways, opened again without a power cycle, and dialled again.
void away_and_back(const std::string &family, const std::string &ifname, const std::vector<std::string> &dial) {
    ready_board b(board_config(family, AUTO_DIAL));
    ASSERT_TRUE(b.start());
    client_conn &c = *b.client;
    ASSERT_TRUE(c.state_becomes("Connected"));
    ASSERT_EQ(c.ask_settled(51).substr(0, 5), "51/0/");
    ASSERT_TRUE(in_order(commands_since(b.emu), dial)) << joined(commands_since(b.emu)); // the first dial
    size_t lines = b.board.lines().size();
    ASSERT_TRUE(b.board.unplug());
    long long gone = monotonic_ms();

    std::vector<std::string> before;
    long long took = until_not_ready(c, gone, &before);
    EXPECT_TRUE(took >= 0 && took <= 1000) << took << " ms; answers before: " << joined(before);
    EXPECT_EQ(count(before, "51/1/at send error!"), 0u);
    EXPECT_EQ(take(c, PRESENCE, milliseconds(2000)), "1101/1/");
    EXPECT_EQ(c.ask(912), "912/13/");
    std::vector<std::string> away;
    eventually([&] {
        std::string r = c.ask(51);
        if (r != "51/13/")
            away.push_back(r);
        return monotonic_ms() >= gone + 3000;
    });
    EXPECT_TRUE(away.empty()) << joined(away);
    // The link was taken down: its interface, then the down script.
    EXPECT_TRUE(sim_board::wait_until(
        [&] { return b.board.called("ifconfig " + ifname + " down") && b.board.called(DOWN_SCRIPT); },
        milliseconds(5000)))
        << joined(texts(b.board.calls()));

    size_t from = next_index(b.emu);
    ASSERT_TRUE(b.board.plug());
    long long back = monotonic_ms();
    EXPECT_EQ(take(c, PRESENCE, milliseconds(10000)), "1101/0/");
    EXPECT_GE(monotonic_ms() - back, 1500); // the 2 s after the port is open
    EXPECT_TRUE(c.state_becomes("Connected"));
    EXPECT_EQ(c.ask_settled(51).substr(0, 5), "51/0/");
    std::vector<std::string> sent = commands_since(b.emu, from);
    EXPECT_TRUE(in_order(sent, dial)) << joined(sent);
    auto dhcp = [&] { return count(texts(b.board.calls()), DHCP + ifname); };
    EXPECT_TRUE(sim_board::wait_until([&] { return dhcp() >= 2; }, milliseconds(5000)));
    EXPECT_EQ(dhcp(), 2u) << joined(texts(b.board.calls()));
    // No power cycle: no control line was written since the departure.
    EXPECT_EQ(texts(b.board.lines(), lines), NONE);
    EXPECT_EQ(take(c, PRESENCE, milliseconds(500)), "<none>");
}

TEST(PresenceTest, AModuleBackWithinAMinuteIsOpenedAgainWithoutAPowerCycleAndDialledAgain) {
    SKIP_WITHOUT_BOARD();
    for (const auto &[family, ifname, dial] : {std::make_tuple("ec200t", "usb0", EC200_DIAL),
                                               std::make_tuple("ec20", "wwan0", EC20_DIAL)}) {
        SCOPED_TRACE(family);
        away_and_back(family, ifname, dial);
    }
}

// With auto_dial=0: the request in flight ends on its own time-out, the next
// ones are refused as not ready, and the module back is not dialled.
TEST(PresenceTest, LeavingDuringARequestFailsItOnItsTimeOutAndRefusesTheNextAsNotReady) {
    READY_BOARD(b);
    client_conn &c = *b.client;
    ASSERT_TRUE(b.emu.set_reply("AT+COPS?", modem_reply::standard().until_released().one_shot()));
    ASSERT_TRUE(c.send(103));
    long long asked = monotonic_ms();
    ASSERT_TRUE(b.emu.wait_for_command("AT+COPS?", 15000));
    size_t lines = b.board.lines().size(), from = next_index(b.emu);
    ASSERT_TRUE(b.board.unplug());
    // The client hears of it while the worker still waits (5 s for AT+COPS?).
    EXPECT_EQ(take(c, PRESENCE, milliseconds(2000)), "1101/1/");
    std::string failed = take(c, 103, milliseconds(8000));
    EXPECT_LE(monotonic_ms() - asked, 7000);
    EXPECT_EQ(failed.substr(0, 6), "103/1/");
    EXPECT_NE(failed, "103/1/at send error!");
    EXPECT_EQ(c.ask_settled(51), "51/13/");
    EXPECT_EQ(c.ask_settled(102), "102/13/");

    ASSERT_TRUE(b.board.plug());
    EXPECT_EQ(take(c, PRESENCE, milliseconds(10000)), "1101/0/");
    EXPECT_EQ(c.ask_settled(102), "102/0/20");
    EXPECT_EQ(c.ask_settled(912), "912/0/Disconnected");
    for (const std::string &sent : commands_since(b.emu, from))
        for (const char *dial : {"AT+QIDEACT", "AT+QICSGP", "AT+QIACT", "AT+QNETDEVCTL"})
            EXPECT_NE(sent.rfind(dial, 0), 0u) << sent;
    EXPECT_FALSE(b.board.called(DHCP + "usb0"));
    EXPECT_EQ(texts(b.board.lines(), lines), NONE);
}

// The supervisor waits in a dial step: the client still hears at once, and
// the dial starts over once the module is back.
TEST(PresenceTest, LeavingDuringADialIsReportedAtOnceAndTheLinkComesUpAfterTheReturn) {
    READY_BOARD(b, board_config("ec200t", "apn_name=cmnet\n"));
    client_conn &c = *b.client;
    ASSERT_TRUE(b.emu.set_reply("AT+QNETDEVCTL=1,1", modem_reply::standard().until_released().one_shot()));
    ASSERT_EQ(c.ask(501, {"1"}), "501/0/");
    ASSERT_TRUE(b.emu.wait_for_command("AT+QNETDEVCTL=1,1", 15000));
    size_t lines = b.board.lines().size();
    ASSERT_TRUE(b.board.unplug());
    EXPECT_EQ(take(c, PRESENCE, milliseconds(2000)), "1101/1/");
    EXPECT_TRUE(eventually([&] { return c.ask(912) == "912/13/"; }, milliseconds(1000)));

    size_t from = next_index(b.emu);
    ASSERT_TRUE(b.board.plug());
    // The held step's own time-out (5 s), the look for the module, its 2 s.
    EXPECT_EQ(take(c, PRESENCE, milliseconds(20000)), "1101/0/");
    EXPECT_TRUE(c.state_becomes("Connected"));
    std::vector<std::string> sent = commands_since(b.emu, from);
    EXPECT_TRUE(in_order(sent, EC200_DIAL)) << joined(sent);
    EXPECT_TRUE(b.board.called(DHCP + "usb0"));
    EXPECT_EQ(texts(b.board.lines(), lines), NONE);
}

// A restart cancels the running worker (which never answers), refuses
// requests meanwhile and power-cycles the module, which takes it off the bus
// too (the board plugs it back): no 1101 for that, and the port is free again
// for a worker and the supervisor's dial. A departure after it is noticed.
// A subscriber gets the restart's end and the departure as the client does.
TEST(PresenceTest, TheDaemonsOwnPowerCycleIsNoDepartureButOneAfterItIs) {
    SKIP_WITHOUT_BOARD();
    board_config config;
    config.power_replug_ms = 1000;
    ready_board b(config);
    ASSERT_TRUE(b.start());
    client_conn &c = *b.client;
    client_conn listener(b.board.connect_subscriber());
    ASSERT_EQ(listener.ask(911), VERSION);
    ASSERT_TRUE(b.emu.set_reply("AT+QLBS", modem_reply::standard().until_released().one_shot()));
    ASSERT_TRUE(c.send(452));
    ASSERT_TRUE(b.emu.wait_for_command("AT+QLBS", 15000));
    size_t lines = b.board.lines().size();
    long long asked = monotonic_ms();
    ASSERT_TRUE(c.send(901));
    // Sent again if it shared a read with the restart.
    EXPECT_TRUE(eventually([&] { return c.send(102) && take(c, 102, milliseconds(500)) == "102/13/"; }));
    EXPECT_EQ(take(c, 901, milliseconds(90000)), "901/0/");
    EXPECT_GE(monotonic_ms() - asked, 25000); // a power cycle of 6 s, 20 s to settle
    EXPECT_EQ(texts(b.board.lines(), lines), POWER_CYCLE);
    EXPECT_EQ(take(c, PRESENCE, milliseconds(1000)), "<none>");
    EXPECT_EQ(take(c, 452, milliseconds(0)), "<none>");
    ASSERT_EQ(c.ask_settled(102), "102/0/20");
    EXPECT_EQ(c.ask(501, {"1"}), "501/0/");
    EXPECT_TRUE(c.state_becomes("Connected"));

    ASSERT_TRUE(b.board.unplug());
    EXPECT_EQ(take(c, PRESENCE, milliseconds(2000)), "1101/1/");
    ASSERT_TRUE(b.board.plug());
    EXPECT_EQ(take(c, PRESENCE, milliseconds(10000)), "1101/0/");
    EXPECT_EQ(c.ask_settled(102), "102/0/20");
    // A subscriber hears the restart's completion and both ways of the
    // departure, and none of the client's replies.
    EXPECT_EQ(frames_until(listener, "1101/0/"), (std::vector<std::string>{"901/0/", "1101/1/", "1101/0/"}));
}

// Not back within 60 s: one power cycle (which plugs it back on this board),
// the 20 s settle and the bring-up, and only then the return is reported.
TEST(PresenceSlowTest, AModuleNotBackWithinAMinuteIsPowerCycledOnceAndReportedBackAfterTheBringUp) {
    SKIP_WITHOUT_BOARD();
    board_config config("ec200t", AUTO_DIAL);
    config.power_replug_ms = 1000;
    ready_board b(config);
    ASSERT_TRUE(b.start());
    client_conn &c = *b.client;
    ASSERT_TRUE(c.state_becomes("Connected"));
    size_t lines = b.board.lines().size();
    ASSERT_TRUE(b.board.unplug());
    long long gone = monotonic_ms();
    EXPECT_EQ(take(c, PRESENCE, milliseconds(2000)), "1101/1/");

    ASSERT_TRUE(sim_board::wait_until([&] { return b.board.lines().size() >= lines + POWER_CYCLE.size(); },
                                      milliseconds(90000)))
        << "no power cycle 90 s after the departure: " << joined(texts(b.board.lines()));
    std::vector<record> all = b.board.lines();
    std::vector<record> cycle(all.begin() + static_cast<long>(lines), all.end());
    EXPECT_EQ(texts(cycle), POWER_CYCLE);
    EXPECT_GE(cycle[0].ms - gone, 58000);
    EXPECT_LE(cycle[0].ms - gone, 70000);
    EXPECT_EQ(take(c, PRESENCE, milliseconds(60000)), "1101/0/");
    EXPECT_GE(monotonic_ms() - cycle.back().ms, 19000);
    EXPECT_TRUE(c.state_becomes("Connected"));
    EXPECT_EQ(texts(b.board.lines(), lines), POWER_CYCLE);
    EXPECT_EQ(take(c, PRESENCE, milliseconds(500)), "<none>");
}

} // namespace
