// Keeping the data link up, on the simulated board with the modem emulator as
// the module: each family's dial, address and hang-up, and the power cycle
// after ten failed dials. LinkRecoverySlowTest is the one long test (about
// 95 s); `ctest -E Slow` leaves it out.

#include "e2e/board.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <memory>
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

size_t count(const std::string &text, const std::string &part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++n;
    return n;
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

TEST(LinkRecoverySlowTest, TenFailedDialsPowerCycleTheModuleOnceAfterItWasUnpluggedMidDial) {
    SKIP_WITHOUT_BOARD();
    board_config config = board_for("ec200t", "auto_dial=1\napn_name=cmnet\n");
    // Powering the module off takes it off the bus; it is back 3 s after power on.
    config.power_replug_ms = 3000;
    sim_board board(config);
    modem_control emu;
    ASSERT_TRUE(board.start_daemon({"debug"}));
    ASSERT_TRUE(board.modem(&emu));
    ASSERT_TRUE(emu.set_reply("AT+QIACT=1", modem_reply::error()));

    // Dial 1 is refused. Dial 2 hangs on its APN step and the module is pulled
    // meanwhile: that step times out and dials 3 to 10 find no port.
    std::optional<modem_command> first = emu.wait_for_command("AT+QIACT=1", 15000);
    ASSERT_TRUE(first) << board.stdout_text();
    ASSERT_TRUE(emu.set_reply("AT+QICSGP=", modem_reply::silence(), modem_match::prefix));
    std::optional<modem_command> hung = emu.wait_for_command("AT+QICSGP=", 15000, first->index + 1);
    ASSERT_TRUE(hung) << board.stdout_text();
    ASSERT_TRUE(board.unplug());
    ASSERT_TRUE(emu.clear_replies()); // the module that comes back answers as it should
    // Ten dials about 6 s apart, the power cycle, 20 s to settle, a dial.
    ASSERT_TRUE(sim_board::wait_until([&] { return board.called(DHCP + "usb0"); }, milliseconds(180000)))
        << board.stdout_text();

    std::string out = board.stdout_text();
    std::string failures = "] set_qiact failed!\n] Dial failed,retry to dail!\n] set_qicsgp failed!\n";
    for (int i = 3; i <= 10; ++i)
        failures += "] Dial failed,retry to dail!\n] Sim status: SIM_ABSENT\n] set_qideact failed!\n";
    failures += "] Dial failed,reaches maximum times,begin to reset module!\n";
    std::string logged; // the log lines above, without their time stamps
    for (size_t at = out.find("] "); at != std::string::npos; at = out.find("] ", at + 1)) {
        std::string line = out.substr(at, out.find('\n', at) + 1 - at);
        if (failures.find(line) != std::string::npos)
            logged += line;
    }
    EXPECT_EQ(logged.substr(logged.find("] set_qiact")), failures);
    EXPECT_EQ(count(out, "Dial failed"), 10u);
    // Dials are paced about 5 s apart, failed or not.
    std::vector<long long> failed = board.stdout_times("] Dial failed");
    for (size_t i = 1; i < failed.size(); ++i)
        EXPECT_GE(failed[i] - failed[i - 1], 5000) << i;

    // One power cycle, the interface down first; the module looked for again
    // only after 20 s, then a whole dial and the DHCP client, once.
    std::vector<record> lines = board.lines();
    ASSERT_EQ(texts(lines), (std::vector<std::string>{"rst0", "pwr1", "rst1", "pwr0", "rst0", "pwr1"}));
    std::vector<record> calls = board.calls();
    EXPECT_EQ(texts(calls), (DRIVERS + std::vector<std::string>{"ifconfig usb0 down", DHCP + "usb0"}));
    EXPECT_LE(calls[3].ms, lines[2].ms);
    std::vector<long long> found = board.stdout_times("] Find 4G module: EC200T");
    ASSERT_EQ(found.size(), 2u);
    EXPECT_GE(found[1] - lines[5].ms, 19000);
    const std::vector<std::string> redial = {"AT+CIMI",      "AT+COPS?", "AT+CSQ",     "ATE0",
                                             "AT+QIDEACT=1", QICSGP,     "AT+QIACT=1", "AT+QNETDEVCTL=1,1"};
    EXPECT_EQ(commands_since(emu, hung->index + 1), redial);
    EXPECT_EQ(board.stderr_text(), "");
}

} // namespace
