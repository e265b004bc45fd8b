// Keeping the data link up, on the simulated board with the modem emulator as
// the module: each family's dial, address and hang-up, the power cycle after
// ten failed link checks, and the link check's echo probes through the
// module's interface to the board's far end. LinkRecoverySlowTest is the one
// long test (about 150 s); `ctest -E Slow` leaves it out.

#include "e2e/board.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <sstream>
#include <sys/stat.h>

namespace {

const std::vector<std::string> DRIVERS = {"modprobe rndis_host", "modprobe cdc_ether", "modprobe option"};
const std::string DHCP = "busybox udhcpc -f -n -t 5 -q -s /usr/share/udhcpc/zolvin_4g.script -i ";
// The fake ifconfig records its calls, so it shows when the down script ran.
const std::string DOWN_SCRIPT = "ifconfig down_script_ran";
const std::string QICSGP = "AT+QICSGP=1,1,\"cmnet\",\"\",\"\",1";

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string> &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// With a one-second period the check runs often enough to be watched.
const std::string CHECK_CONF = "auto_dial=1\napn_name=cmnet\nauto_check=1\ncheck_timeS=1\n";
const std::string QNETDEVCTL = "AT+QNETDEVCTL=1,1";

long long now_ms() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000LL + t.tv_nsec / 1000000;
}

// The commands the module received that begin with `prefix`.
std::vector<modem_command> received(modem_control &emu, const std::string &prefix) {
    std::vector<modem_command> out;
    for (const modem_command &c : emu.commands().value_or(std::vector<modem_command>{})) {
        if (c.text.rfind(prefix, 0) == 0)
            out.push_back(c);
    }
    return out;
}

bool probe_after(const sim_board &board, long long ms) {
    for (const echo_record &e : board.pings()) {
        if (e.ms > ms)
            return true;
    }
    return false;
}

struct family_case {
    std::string family, app_name;
    std::vector<std::string> dial;    // the AT commands of a dial
    std::string ifname;
    std::vector<std::string> hang_up; // the AT commands of the disconnect
};

TEST(LinkDialTest, EachFamilyDialsOnceGetsItsAddressAndHangsUpItsOwnWay) {
    SKIP_WITHOUT_BOARD();
    temp_dir scratch;
    // A stand-in for the external connection program: it notes its arguments.
    const std::string dialer = scratch.write("dialer", "#!/bin/sh\necho \"$*\" >>" + scratch.path() + "/calls\n");
    chmod(dialer.c_str(), 0755);
    const family_case cases[] = {
        {"ec200s", "", {"ATE0", "AT+QIDEACT=1", QICSGP, "AT+QIACT=1", "AT+QNETDEVCTL=1,1"}, "usb0", {"AT+QNETDEVCTL=0,1"}},
        {"ec20", "",
         {"ATE0", "AT$QCRMCALL=0,1,1,2,1", "AT+QIDEACT=1", QICSGP, "AT+QIACT=1", "AT$QCRMCALL=1,1,1,2,1"}, "wwan0",
         {"AT$QCRMCALL=0,1,1,2,1"}},
        // The external program dials and gets the address; it is stopped to hang up.
        {"ec20", dialer, {}, "wwan0", {}},
    };
    struct running {
        std::unique_ptr<sim_board> board;
        modem_control emu;
    } boards[3];
    for (int i = 0; i < 3; ++i) {
        boards[i].board = std::make_unique<sim_board>(board_for(
            cases[i].family, "auto_dial=1\napn_name=cmnet\ndown_script=" + DOWN_SCRIPT + "\napp_name=" + cases[i].app_name + "\n"));
        ASSERT_TRUE(boards[i].board->start_daemon({"debug"}));
        ASSERT_TRUE(boards[i].board->modem(&boards[i].emu));
    }
    auto connected = [&](int i) {
        return cases[i].app_name.empty() ? boards[i].board->called(DHCP + cases[i].ifname)
                                         : read_file(scratch.path() + "/calls") != "";
    };
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(sim_board::wait_until([&] { return connected(i); })) << i << boards[i].board->stdout_text();
    // Connected, the daemon does not dial again: a redial would have sent its
    // SIM queries within one dial period.
    size_t settled[3];
    for (int i = 0; i < 3; ++i)
        settled[i] = next_index(boards[i].emu);
    EXPECT_FALSE(sim_board::wait_until(
        [&] {
            for (int i = 0; i < 3; ++i) {
                if (next_index(boards[i].emu) != settled[i])
                    return true;
            }
            return false;
        },
        milliseconds(6500)));

    for (int i = 0; i < 3; ++i) {
        const family_case &c = cases[i];
        sim_board &board = *boards[i].board;
        SCOPED_TRACE(c.family + " " + c.app_name);
        client_conn client(board.connect_client());
        EXPECT_EQ(client.ask(501, {"0"}), "501/0/");
        ASSERT_TRUE(sim_board::wait_until([&] { return board.called(DOWN_SCRIPT); })) << board.stdout_text();

        // With debug, the identity at start-up and the SIM before the dial.
        std::vector<std::string> sent = {"ATI", "AT+GSN", "AT+CIMI", "AT+COPS?", "AT+CSQ"};
        EXPECT_EQ(commands_since(boards[i].emu), sent + c.dial + c.hang_up);
        std::vector<std::string> calls = DRIVERS;
        if (c.app_name.empty())
            calls = calls + std::vector<std::string>{DHCP + c.ifname, "ifconfig " + c.ifname + " down"};
        else
            calls = calls + std::vector<std::string>{"ifconfig wwan0 down", "killall " + c.app_name};
        EXPECT_EQ(texts(board.calls()), calls + std::vector<std::string>{DOWN_SCRIPT});
        // The down script runs once the module has answered the hang-up.
        std::vector<modem_command> all = boards[i].emu.commands().value_or(std::vector<modem_command>{});
        if (!c.hang_up.empty() && !all.empty()) {
            EXPECT_LE(all.back().ms, board.calls().back().ms);
        }
        EXPECT_EQ(board.stderr_text(), "");
    }
    EXPECT_EQ(read_file(scratch.path() + "/calls"), "-s cmnet\n");
}

TEST(LinkCheckTest, ProbesCarryTheEchoRequestToEachAddressInTurnAndPauseForACallAndAfterAHangUp) {
    SKIP_WITHOUT_BOARD();
    sim_board board(board_for("ec200t", CHECK_CONF + "ping_address1=" + SILENT_ADDRESS + "\nping_address2=" +
                                            FAR_ADDRESS + "\n"));
    modem_control emu;
    ASSERT_TRUE(board.start_daemon());
    ASSERT_TRUE(board.modem(&emu));
    // The silent host, 3 s of silence, the far end answers; a second later the next check.
    ASSERT_TRUE(sim_board::wait_until([&] { return board.pings().size() >= 3; }, WAIT * 2)) << board.stdout_text();
    std::vector<echo_record> probes = board.pings();
    std::istringstream started(board.event("command started "));
    std::string word;
    int pid = 0; // as the daemon sees itself, inside the board
    started >> word >> word >> pid;
    unsigned char ident[2];
    uint16_t low = static_cast<uint16_t>(pid);
    memcpy(ident, &low, sizeof ident);
    const std::string to[] = {SILENT_ADDRESS, FAR_ADDRESS, SILENT_ADDRESS};
    for (size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        const std::vector<uint8_t> &m = probes[i].icmp;
        EXPECT_EQ(probes[i].source + " " + probes[i].destination, MODULE_ADDRESS + " " + to[i]);
        ASSERT_EQ(m.size(), 64u);
        EXPECT_EQ(m[0], 8);
        EXPECT_EQ(m[1], 0);
        EXPECT_EQ(m[4], ident[0]);
        EXPECT_EQ(m[5], ident[1]);
        EXPECT_EQ(probes[i].sequence(), i + 1);
        EXPECT_EQ(std::count(m.begin() + 8, m.end(), 0), 56);
        uint32_t sum = 0; // a valid checksum makes the whole message sum to 0xffff
        for (size_t b = 0; b < m.size(); b += 2)
            sum += static_cast<uint32_t>(m[b] << 8 | m[b + 1]);
        sum = (sum & 0xffff) + (sum >> 16);
        EXPECT_EQ((sum & 0xffff) + (sum >> 16), 0xffffu);
    }
    EXPECT_GE(probes[1].ms - probes[0].ms, 2900);
    EXPECT_LT(probes[1].ms - probes[0].ms, 3900);
    EXPECT_GE(probes[2].ms - probes[1].ms, 950);
    EXPECT_LT(probes[2].ms - probes[1].ms, 2500);
    // The link answered: the module was left alone (the one QNETDEVCTL is the dial's).
    EXPECT_EQ(received(emu, QNETDEVCTL).size(), 1u);

    // One answered probe per check from here, so none is in flight when the call comes.
    client_conn client(board.connect_client());
    EXPECT_EQ(client.ask(523, {"1", "1"}), "523/0/1:");
    ASSERT_TRUE(sim_board::wait_until([&] {
        std::vector<echo_record> p = board.pings();
        return p.size() >= 5 && p.back().destination == FAR_ADDRESS && p[p.size() - 2].destination == FAR_ADDRESS;
    }));
    ASSERT_TRUE(emu.inject_lines({"RING", "+CLIP: \"13912345678\",129"}));
    ASSERT_EQ(show(client.reply(1001)), "1001/1/13912345678");
    long long rang = now_ms();
    EXPECT_FALSE(sim_board::wait_until([&] { return probe_after(board, rang + 100); }, milliseconds(3500)));
    ASSERT_TRUE(emu.inject_line("NO CARRIER"));
    ASSERT_EQ(show(client.reply(1001)), "1001/2/1");
    long long ended = now_ms();
    ASSERT_TRUE(sim_board::wait_until([&] { return probe_after(board, ended); }, milliseconds(3000)));
    EXPECT_EQ(board.pings().back().destination, FAR_ADDRESS);
    EXPECT_GE(board.pings().back().ms - ended, 950);

    // Taking the link down stops the check.
    EXPECT_EQ(client.ask(501, {"0"}), "501/0/");
    ASSERT_TRUE(sim_board::wait_until([&] { return board.called("ifconfig usb0 down"); }));
    long long down = now_ms();
    EXPECT_FALSE(sim_board::wait_until([&] { return probe_after(board, down + 100); }, milliseconds(2500)));
    EXPECT_EQ(board.stderr_text(), "");
}

TEST(LinkCheckTest, ADeadFarEndGetsTheFamilysReassertionThenAProbeTenSecondsLaterButNotInPassThrough) {
    SKIP_WITHOUT_BOARD();
    const std::string conf = CHECK_CONF + "ping_address1=" + FAR_ADDRESS + "\n";
    sim_board ec200(board_for("ec200t", conf)), ec20(board_for("ec20", conf + "app_name=\n"));
    modem_control emu200, emu20;
    for (auto b : {std::make_pair(&ec200, &emu200), std::make_pair(&ec20, &emu20)}) {
        ASSERT_TRUE(b.first->start_daemon());
        ASSERT_EQ(b.first->control("echo off"), "ok echo off");
        ASSERT_TRUE(b.first->modem(b.second));
    }
    // The EC20's network device went down with the link.
    ASSERT_TRUE(emu20.set_reply("AT+QNETDEVSTATUS?", modem_reply::with_lines({"+QNETDEVSTATUS: 0,0", "OK"})));
    // A client holds the EC200T's port in pass-through from the dial on.
    ASSERT_TRUE(sim_board::wait_until([&] { return ec200.called(DHCP + "usb0"); }, WAIT * 2));
    client_conn client(ec200.connect_client());
    ASSERT_EQ(client.ask(401, {"1"}), "401/0/");

    // EC20: the device status, then the call down and up again; 10 s on, the next probe.
    ASSERT_TRUE(sim_board::wait_until([&] { return received(emu20, "AT$QCRMCALL=1").size() == 2; }, WAIT * 2))
        << ec20.stdout_text();
    std::vector<std::string> sent = commands_since(emu20);
    auto status = std::find(sent.begin(), sent.end(), "AT+QNETDEVSTATUS?");
    ASSERT_GE(status - sent.begin(), 2);
    EXPECT_EQ(std::vector<std::string>(status - 2, sent.end()),
              (std::vector<std::string>{"AT+QIACT=1", "AT$QCRMCALL=1,1,1,2,1", // the end of the dial
                                        "AT+QNETDEVSTATUS?", "AT$QCRMCALL=0,1,1,2,1", "AT$QCRMCALL=1,1,1,2,1"}));
    long long reasserted = received(emu20, "AT$QCRMCALL=1").back().ms;
    ASSERT_TRUE(sim_board::wait_until([&] { return ec20.pings().size() == 2; }, milliseconds(13000)));
    EXPECT_GE(ec20.pings()[1].ms - reasserted, 9950);
    EXPECT_LT(ec20.pings()[1].ms - reasserted, 11000);

    // EC200T: the probes go on in pass-through, but the module is left to the client.
    ASSERT_TRUE(sim_board::wait_until([&] { return ec200.pings().size() == 2; }, milliseconds(16000)));
    EXPECT_EQ(received(emu200, QNETDEVCTL).size(), 1u); // the dial's
    EXPECT_GE(ec200.pings()[1].ms - ec200.pings()[0].ms, 12900);
    ASSERT_EQ(client.ask(401, {"0"}), "401/0/");
    ASSERT_TRUE(sim_board::wait_until([&] { return received(emu200, QNETDEVCTL).size() == 2; }, milliseconds(5000)));
    reasserted = received(emu200, QNETDEVCTL).back().ms;
    EXPECT_GE(reasserted - ec200.pings()[1].ms, 2900);
    ASSERT_TRUE(sim_board::wait_until([&] { return ec200.pings().size() == 3; }, milliseconds(13000)));
    EXPECT_GE(ec200.pings()[2].ms - reasserted, 9950);
    EXPECT_LT(ec200.pings()[2].ms - reasserted, 11000);
}

// The one power cycle of a reset: the interface down first, the module looked
// for again only after 20 s, then a whole dial and the DHCP client, once.
TEST(LinkRecoverySlowTest, TenFailedProbesPowerCycleTheModuleOnceAndTheLinkComesUpAgain) {
    SKIP_WITHOUT_BOARD();
    sim_board board(board_for("ec200t", CHECK_CONF + "ping_address1=" + FAR_ADDRESS + "\n"));
    modem_control emu;
    ASSERT_TRUE(board.start_daemon({"debug"}));
    ASSERT_EQ(board.control("echo off"), "ok echo off");
    ASSERT_TRUE(board.modem(&emu));
    // Ten checks about 13 s apart, the power cycle, 20 s to settle, a dial.
    auto dials = [&] {
        std::vector<std::string> all = texts(board.calls());
        return std::count(all.begin(), all.end(), DHCP + "usb0");
    };
    ASSERT_TRUE(sim_board::wait_until([&] { return dials() == 2; }, milliseconds(200000))) << board.stdout_text();

    std::vector<record> lines = board.lines();
    ASSERT_EQ(texts(lines), (std::vector<std::string>{"rst0", "pwr1", "rst1", "pwr0", "rst0", "pwr1"}));
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
    std::vector<modem_command> reasserted;
    for (const modem_command &c : received(emu, QNETDEVCTL)) {
        if (c.ms < lines[2].ms)
            reasserted.push_back(c);
    }
    ASSERT_EQ(reasserted.size(), 10u);
    std::vector<long long> found = board.stdout_times("] Find 4G module: EC200T");
    ASSERT_EQ(found.size(), 2u);
    EXPECT_GE(found[1] - lines[5].ms, 19000);
    std::vector<std::string> redial = commands_since(emu, reasserted.back().index + 1);
    redial.resize(std::min<size_t>(redial.size(), 8)); // a new check may follow
    EXPECT_EQ(redial, (std::vector<std::string>{"AT+CIMI", "AT+COPS?", "AT+CSQ", "ATE0", "AT+QIDEACT=1", QICSGP,
                                                "AT+QIACT=1", QNETDEVCTL}));
    EXPECT_EQ(board.stderr_text(), "");
}

} // namespace
