// Keeping the data link up, on the simulated board with the modem emulator as
// the module: each family's dial, address and hang-up, the power cycle after
// ten failed link checks, and the link check's echo probes through the
// module's interface to the board's far end. LinkRecoverySlowTest is the one
// long test (about 150 s); `ctest -E Slow` leaves it out.

#include "e2e/board.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace {

// With a one-second period the check runs often enough to be watched.
const std::string CHECK_CONF = "auto_dial=1\napn_name=cmnet\nauto_check=1\ncheck_timeS=1\n";
const std::string QNETDEVCTL = "AT+QNETDEVCTL=1,1";

struct family_case {
    std::string family, app_name;
    std::vector<std::string> dial;     // the AT commands of a dial
    std::string ifname;
    std::vector<std::string> reassert; // the check's AT commands after a silent probe
    std::vector<std::string> hang_up;  // the AT commands of the disconnect
};

// With the far end silent, each family's check thread re-asserts the call its
// own way, and nothing dials again while connected: every command the module
// got is listed.
TEST(LinkDialTest, EachFamilyDialsOnceReassertsItsCallWhenTheFarEndIsSilentAndHangsUpItsOwnWay) {
    SKIP_WITHOUT_BOARD();
    temp_dir scratch;
    // A user name that a shell would split and run: each setting is one
    // argument, at the dial and at the check's restart alike.
    const std::string ran = scratch.path() + "/ran", apn_user = "apn_user=my user;touch " + ran + "\n";
    const std::string dialed = "[-s][cmnet][my user;touch " + ran + "]\n", two_dials = dialed + dialed;
    // A stand-in for the external connection program: it notes its arguments,
    // each in brackets, and ends.
    const std::string dialer =
        scratch.write("dialer", "#!/bin/sh\n{ printf '[%s]' \"$@\"; echo; } >>" + scratch.path() + "/calls\n");
    chmod(dialer.c_str(), 0755);
    const family_case cases[] = {
        {"ec200s", "", EC200_DIAL, "usb0", {QNETDEVCTL}, {"AT+QNETDEVCTL=0,1"}},
        {"ec20", "", EC20_DIAL, "wwan0", {"AT+QNETDEVSTATUS?", "AT$QCRMCALL=0,1,1,2,1", "AT$QCRMCALL=1,1,1,2,1"},
         {"AT$QCRMCALL=0,1,1,2,1"}},
        // The external program dials and gets the address; the check starts it
        // again when it is gone, and it is stopped to hang up.
        {"ec20", dialer, {}, "wwan0", {}, {}},
    };
    struct running {
        std::unique_ptr<sim_board> board;
        modem_control emu;
    } boards[3];
    for (int i = 0; i < 3; ++i) {
        boards[i].board = std::make_unique<sim_board>(
            board_config(cases[i].family, CHECK_CONF + "ping_address1=" + FAR_ADDRESS + "\ndown_script=" + DOWN_SCRIPT +
                                           "\napp_name=" + cases[i].app_name + "\n" +
                                           (cases[i].app_name.empty() ? "" : apn_user)));
        ASSERT_TRUE(boards[i].board->start_daemon({"debug"}));
        ASSERT_EQ(boards[i].board->control("echo off"), "ok echo off");
        ASSERT_TRUE(boards[i].board->modem(&boards[i].emu));
    }
    // The EC20's network device went down with the link.
    ASSERT_TRUE(boards[1].emu.set_reply("AT+QNETDEVSTATUS?", modem_reply::with_lines({"+QNETDEVSTATUS: 0,0", "OK"})));

    // Each board is taken down once its call was re-asserted, before the next check.
    auto reasserted = [&](int i) {
        if (!cases[i].app_name.empty())
            return read_file(scratch.path() + "/calls") == two_dials;
        return commands_since(boards[i].emu).size() >= 5 + cases[i].dial.size() + cases[i].reassert.size();
    };
    for (int i = 0; i < 3; ++i) {
        const family_case &c = cases[i];
        sim_board &board = *boards[i].board;
        SCOPED_TRACE(c.family + " " + c.app_name);
        ASSERT_TRUE(sim_board::wait_until([&] { return reasserted(i); }, WAIT * 2)) << board.stdout_text();
        client_conn client(board.connect_client());
        EXPECT_EQ(client.ask(501, {"0"}), "501/0/");
        ASSERT_TRUE(sim_board::wait_until([&] { return board.called(DOWN_SCRIPT); })) << board.stdout_text();

        // With debug, the identity at start-up and the SIM before the dial.
        std::vector<std::string> sent = {"ATI", "AT+GSN", "AT+CIMI", "AT+COPS?", "AT+CSQ"};
        EXPECT_EQ(commands_since(boards[i].emu), sent + c.dial + c.reassert + c.hang_up);
        std::vector<std::string> link = c.app_name.empty()
                                            ? std::vector<std::string>{DHCP + c.ifname, "ifconfig " + c.ifname + " down"}
                                            : std::vector<std::string>{"ifconfig wwan0 down", "killall " + c.app_name};
        EXPECT_EQ(texts(board.calls()), DRIVERS + link + std::vector<std::string>{DOWN_SCRIPT});
        // The down script runs once the module has answered the hang-up.
        std::vector<modem_command> all = boards[i].emu.commands().value_or(std::vector<modem_command>{});
        if (!c.hang_up.empty() && !all.empty()) {
            EXPECT_LE(all.back().ms, board.calls().back().ms);
        }
        EXPECT_EQ(board.stderr_text(), "");
    }
    EXPECT_EQ(read_file(scratch.path() + "/calls"), two_dials);
    EXPECT_NE(access(ran.c_str(), F_OK), 0);
}

TEST(LinkCheckTest, ProbesCarryTheEchoRequestToEachAddressInTurnAndPauseForACallAndAfterAHangUp) {
    SKIP_WITHOUT_BOARD();
    sim_board board(board_config("ec200t", CHECK_CONF + "ping_address1=" + SILENT_ADDRESS + "\nping_address2=" +
                                            FAR_ADDRESS + "\n"));
    modem_control emu;
    ASSERT_TRUE(board.start_daemon());
    ASSERT_TRUE(board.modem(&emu));
    // The silent host, 3 s of silence, the far end answers; a second later the next check.
    ASSERT_TRUE(sim_board::wait_until([&] { return board.pings().size() >= 3; }, WAIT * 2)) << board.stdout_text();
    std::vector<echo_record> probes = board.pings();
    // The identifier is the daemon's pid as it sees itself, inside the board.
    uint16_t ident = static_cast<uint16_t>(std::atoi(board.event("command started ").substr(16).c_str()));
    const std::string to[] = {SILENT_ADDRESS, FAR_ADDRESS, SILENT_ADDRESS};
    for (uint16_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        const std::vector<uint8_t> &m = probes[i].icmp;
        EXPECT_EQ(probes[i].source + " " + probes[i].destination, MODULE_ADDRESS + " " + to[i]);
        // An echo request with 56 data bytes; the rest of its layout and its
        // checksum are the builder's (IcmpMessageTest).
        ASSERT_EQ(m.size(), 64u);
        EXPECT_EQ(m[0], 8);
        const uint16_t ident_sequence[2] = {ident, static_cast<uint16_t>(i + 1)}; // in host order
        EXPECT_EQ(memcmp(&m[4], ident_sequence, 4), 0);
    }
    EXPECT_GE(probes[1].ms - probes[0].ms, 2900);
    EXPECT_LT(probes[2].ms - probes[1].ms, 2500); // check_timeS after a success, not 10 s
    // The link answered: the module was left alone (the one QNETDEVCTL is the dial's).
    std::vector<std::string> sent = commands_since(emu);
    EXPECT_EQ(count(sent, QNETDEVCTL), 1u);

    // One answered probe per check from here, so none is in flight when the call comes.
    auto probe_after = [&](long long ms) { return board.pings().back().ms > ms; }; // in time order
    client_conn client(board.connect_client());
    EXPECT_EQ(client.ask(523, {"1", "1"}), "523/0/1:");
    ASSERT_TRUE(sim_board::wait_until([&] {
        std::vector<echo_record> p = board.pings();
        return p.size() >= 5 && p.back().destination == FAR_ADDRESS && p[p.size() - 2].destination == FAR_ADDRESS;
    }));
    ASSERT_TRUE(emu.inject_lines({"RING", "+CLIP: \"13912345678\",129"}));
    ASSERT_EQ(show(client.reply(1001)), "1001/1/13912345678");
    long long rang = monotonic_ms();
    EXPECT_FALSE(sim_board::wait_until([&] { return probe_after(rang + 100); }, milliseconds(3500)));
    ASSERT_TRUE(emu.inject_line("NO CARRIER"));
    ASSERT_EQ(show(client.reply(1001)), "1001/2/1");
    long long ended = monotonic_ms();
    ASSERT_TRUE(sim_board::wait_until([&] { return probe_after(ended); }, milliseconds(3000)));
    EXPECT_GE(board.pings().back().ms - ended, 950);

    // Taking the link down stops the check.
    EXPECT_EQ(client.ask(501, {"0"}), "501/0/");
    ASSERT_TRUE(sim_board::wait_until([&] { return board.called("ifconfig usb0 down"); }));
    long long down = monotonic_ms();
    EXPECT_FALSE(sim_board::wait_until([&] { return probe_after(down + 100); }, milliseconds(2500)));
    EXPECT_EQ(board.stderr_text(), "");
}

// The probed host has a name, and the board's name server (the test's socket
// on the board's loopback) never answers. A disconnect while the check waits
// on it stops the check once the look-up's 2 s are out, and after a new dial
// the next check's look-up goes out and its stop returns as well: a check
// cancelled inside the look-up used to leave the resolver locked, so the next
// check hung in it and the disconnect after that never came.
TEST(LinkCheckTest, AStopDuringANameLookUpWaitsForItAndTheNextLookUpAndStopGoThrough) {
    SKIP_WITHOUT_BOARD();
    // Absolute, so that no search domain adds a second query.
    board_config config("ec200t", CHECK_CONF + "ping_address1=far.link.test.\n");
    config.etc = {{"resolv.conf", "nameserver 127.0.0.1\noptions timeout:2 attempts:1\n"},
                  {"nsswitch.conf", "hosts: files dns\n"}};
    sim_board board(config);
    modem_control emu;
    ASSERT_TRUE(board.start_daemon());
    ASSERT_TRUE(board.modem(&emu)); // the board has its network namespace by now
    int dns = -1;
    board.in_network([&] {
        dns = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_port = htons(53);
        server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(dns, reinterpret_cast<sockaddr *>(&server), sizeof server) != 0) {
            close(dns);
            dns = -1;
        }
    });
    ASSERT_GE(dns, 0);
    auto query = [&] {
        pollfd p{dns, POLLIN, 0};
        char drop[512];
        return poll(&p, 1, static_cast<int>(WAIT.count() * 2)) == 1 && recv(dns, drop, sizeof drop, 0) > 0;
    };
    auto downs = [&] {
        std::vector<std::string> all = texts(board.calls());
        return std::count(all.begin(), all.end(), "ifconfig usb0 down");
    };
    client_conn client(board.connect_client());
    for (int stop = 1; stop <= 2; ++stop) {
        SCOPED_TRACE(stop);
        ASSERT_TRUE(query()) << board.stdout_text();
        long long asked = monotonic_ms();
        ASSERT_EQ(client.ask(501, {"0"}), "501/0/");
        ASSERT_TRUE(sim_board::wait_until([&] { return downs() == stop; })) << board.stdout_text();
        long long stopped = board.calls().back().ms - asked;
        EXPECT_GE(stopped, 1500);
        EXPECT_LT(stopped, 3500);
        if (stop == 1) {
            ASSERT_EQ(client.ask(501, {"1"}), "501/0/");
        }
    }
    close(dns);
    EXPECT_EQ(board.stderr_text(), "");
}

// The one power cycle of a reset: the interface down first, the module looked
// for again only after 20 s, then a whole dial and the DHCP client, once.
TEST(LinkRecoverySlowTest, TenFailedProbesPowerCycleTheModuleOnceAndTheLinkComesUpAgain) {
    SKIP_WITHOUT_BOARD();
    sim_board board(board_config("ec200t", CHECK_CONF + "ping_address1=" + FAR_ADDRESS + "\n"));
    modem_control emu;
    ASSERT_TRUE(board.start_daemon({"debug"}));
    ASSERT_EQ(board.control("echo off"), "ok echo off");
    ASSERT_TRUE(board.modem(&emu));
    // Ten checks about 13 s apart, the power cycle, 20 s to settle, a dial.
    ASSERT_TRUE(sim_board::wait_until([&] { return count(texts(board.calls()), DHCP + "usb0") == 2; },
                                      milliseconds(200000)))
        << board.stdout_text();

    std::vector<record> lines = board.lines();
    ASSERT_EQ(texts(lines), (std::vector<std::string>{"rst0", "pwr1"} + POWER_CYCLE));
    std::vector<record> calls = board.calls();
    EXPECT_EQ(texts(calls), (DRIVERS + std::vector<std::string>{DHCP + "usb0", "ifconfig usb0 down", DHCP + "usb0"}));
    EXPECT_LE(calls[4].ms, lines[2].ms);
    std::vector<long long> probes; // those of the first link
    for (const echo_record &e : board.pings()) {
        if (e.ms < lines[2].ms)
            probes.push_back(e.ms);
    }
    ASSERT_EQ(probes.size(), 10u);
    for (size_t i = 1; i < probes.size(); ++i)
        EXPECT_GE(probes[i] - probes[i - 1], 12900) << i;
    // Nine re-assertions after the dial's own; the tenth failure resets instead.
    std::vector<modem_command> all = emu.commands().value_or(std::vector<modem_command>{});
    EXPECT_EQ(std::count_if(all.begin(), all.end(),
                            [&](const modem_command &c) { return c.text == QNETDEVCTL && c.ms < lines[2].ms; }),
              10);
    std::vector<long long> found = board.stdout_times("] Find 4G module: EC200T");
    ASSERT_EQ(found.size(), 2u);
    EXPECT_GE(found[1] - lines[5].ms, 19000);
    EXPECT_EQ(board.stderr_text(), "");
}

} // namespace
