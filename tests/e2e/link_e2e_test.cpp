// Keeping the data link up, on the simulated board with the modem emulator as
// the module: discovery, the identity log, each family's dial and the DHCP
// client, retries after a failed dial, and the power cycle after ten of them.
//
// Several boards of one test run side by side: each waits mostly on the
// daemon's own sleeps, so this keeps the suite short. LinkRecoverySlowTest is
// the one long test (about 95 s); `ctest -E Slow` leaves it out.

#include "e2e/board.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sys/stat.h>

namespace {

using std::chrono::milliseconds;
const milliseconds WAIT(15000);

const std::vector<std::string> DRIVERS = {"modprobe rndis_host", "modprobe cdc_ether", "modprobe option"};
const std::string DHCP = "busybox udhcpc -f -n -t 5 -q -s /usr/share/udhcpc/zolvin_4g.script -i ";
const std::string APN_CONF = "auto_dial=1\napn_name=cmnet\n";
const std::string EC200_DIAL_CMNET[] = {"ATE0", "AT+QIDEACT=1", "AT+QICSGP=1,1,\"cmnet\",\"\",\"\",1", "AT+QIACT=1"};
// The queries that a debugging daemon logs before every dial.
const std::vector<std::string> SIM_QUERIES = {"AT+CIMI", "AT+COPS?", "AT+CSQ"};

// A dial comes once in 51 passes of the supervisor, 100 ms each, and a
// debugging daemon sleeps 1 s more after its SIM queries.
const long long REDIAL_MS = 5100 + 1000;
// Room for a loaded machine on top of any expected gap.
const long long SLACK_MS = 1500;
// More for the gap between two dials: each of its 51 sleeps may overrun.
const long long REDIAL_SLACK_MS = 3000;
// The records come from several processes (emulator, board, fake commands),
// each stamping an event when it gets round to it: a gap may look this much
// shorter than the daemon made it.
const long long JITTER_MS = 100;

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

size_t count(const std::string &text, const std::string &part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++n;
    return n;
}

// A debug log line as it appears on standard output, after its time stamp.
std::string logged(const std::string &message) { return "] " + message + "\n"; }

// Fails unless every part occurs in `text`, in this order.
void expect_in_order(const std::string &text, const std::vector<std::string> &parts) {
    size_t at = 0;
    for (const std::string &part : parts) {
        size_t found = text.find(part, at);
        if (found == std::string::npos) {
            ADD_FAILURE() << "missing or out of order: '" << part << "' in:\n" << text;
            return;
        }
        at = found + part.size();
    }
}

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string> &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

template <size_t N> std::vector<std::string> seq(const std::string (&a)[N]) { return {a, a + N}; }

// When each occurrence of `text` had reached the board's standard output.
std::vector<long long> stdout_times(const sim_board &board, const std::string &text) {
    std::string out = board.stdout_text();
    std::vector<std::pair<long long, long long>> marks; // ms, bytes so far
    std::ifstream in(board.path("stdout.times"));
    long long ms = 0, bytes = 0;
    while (in >> ms >> bytes)
        marks.emplace_back(ms, bytes);
    std::vector<long long> times;
    for (size_t at = out.find(text); at != std::string::npos; at = out.find(text, at + text.size())) {
        long long end = static_cast<long long>(at + text.size());
        for (const auto &m : marks) {
            if (m.second >= end) {
                times.push_back(m.first);
                break;
            }
        }
    }
    return times;
}

// The daemon on a board of its own, with the module emulator's control at hand.
struct daemon_board {
    std::string name;
    sim_board board;
    modem_control modem;

    daemon_board(std::string board_name, board_config config)
        : name(std::move(board_name)), board(std::move(config)) {}

    testing::AssertionResult start() {
        if (!board.start_daemon({"debug"}))
            return testing::AssertionFailure() << name << ": board did not start";
        if (!board.modem(&modem))
            return testing::AssertionFailure() << name << ": no modem emulator: " << modem.last_error();
        return testing::AssertionSuccess();
    }

    std::vector<modem_command> commands() {
        std::optional<std::vector<modem_command>> c = modem.commands();
        if (!c)
            ADD_FAILURE() << name << ": command record unreadable: " << modem.last_error();
        return c.value_or(std::vector<modem_command>{});
    }

    std::vector<std::string> command_texts() {
        std::vector<std::string> out;
        for (const modem_command &c : commands())
            out.push_back(c.text);
        return out;
    }

    std::vector<command_call> calls_of(const std::string &prefix) const {
        std::vector<command_call> out;
        for (const command_call &c : board.calls()) {
            if (c.text.rfind(prefix, 0) == 0)
                out.push_back(c);
        }
        return out;
    }

    std::vector<std::string> call_texts() const {
        std::vector<std::string> out;
        for (const command_call &c : board.calls())
            out.push_back(c.text);
        return out;
    }

    // Time of the nth (from 0) received command that begins with `prefix`, or -1.
    long long command_ms(const std::string &prefix, size_t nth = 0) {
        for (const modem_command &c : commands()) {
            if (c.text.rfind(prefix, 0) == 0 && nth-- == 0)
                return c.ms;
        }
        return -1;
    }
};

using board_list = std::vector<std::unique_ptr<daemon_board>>;

void add_board(board_list &boards, const std::string &name, board_config config) {
    boards.push_back(std::make_unique<daemon_board>(name, std::move(config)));
}

board_config config_for(const std::string &family, const std::string &conf) {
    board_config c = board_for(family);
    c.conf = conf;
    return c;
}

// ---- a daemon that finds its module dials it once and runs the DHCP client

// A stand-in for the external connection program: it notes its arguments.
std::string write_dialer(const temp_dir &dir) {
    std::string path = dir.write("dialer", "#!/bin/sh\necho \"$*\" >> " + dir.path() + "/dialer.calls\n");
    chmod(path.c_str(), 0755);
    return path;
}

TEST(LinkDialTest, EachFamilyIsFoundIdentifiedDialledOnceAndGetsItsAddress) {
    SKIP_WITHOUT_BOARD();
    temp_dir scratch;
    const std::string dialer = write_dialer(scratch);
    const std::string dialer_calls = scratch.path() + "/dialer.calls";

    struct family_case {
        std::string name;
        board_config config;
        std::vector<std::string> found; // log lines of discovery and identity
        std::vector<std::string> dial;  // after the SIM queries
        std::string ifname;             // DHCP on it; empty: the external program instead
    };
    const std::string ec20_id = "Module: MAKER,EC20F,Revision: EMU-EC20F-R01";
    board_config long_if = config_for("ec20", APN_CONF);
    long_if.ifname = "wwx0a1b2c3d4e5f"; // the kernel's longest name
    family_case cases[] = {
        {"ec200t",
         config_for("ec200t", APN_CONF),
         {"Find 4G module: EC200T", "Find AT port: ttyUSB1", "Find 4G ethernet: usb0",
          "Module: MAKER,EC200T,Revision: EMU-EC200T-R01"},
         seq(EC200_DIAL_CMNET) + std::vector<std::string>{"AT+QNETDEVCTL=1,1"},
         "usb0"},
        {"ec200s",
         config_for("ec200s", "auto_dial=1\napn_name=internet\napn_user=user1\napn_passwd=secret\napn_auth=2\n"),
         {"Find 4G module: EC200S", "Find AT port: ttyUSB1", "Find 4G ethernet: usb0",
          "Module: MAKER,EC200S,Revision: EMU-EC200S-R01"},
         {"ATE0", "AT+QIDEACT=1", "AT+QICSGP=1,1,\"internet\",\"user1\",\"secret\",2", "AT+QIACT=1",
          "AT+QNETDEVCTL=1,1"},
         "usb0"},
        {"ec20",
         long_if,
         {"Find 4G module: EC20", "Find AT port: ttyUSB2", "Find 4G ethernet: wwx0a1b2c3d4e5f", ec20_id},
         {"ATE0", "AT$QCRMCALL=0,1,1,2,1", "AT+QIDEACT=1", "AT+QICSGP=1,1,\"cmnet\",\"\",\"\",1", "AT+QIACT=1",
          "AT$QCRMCALL=1,1,1,2,1"},
         "wwx0a1b2c3d4e5f"},
        {"ec20 with app_name",
         config_for("ec20", APN_CONF + "app_name=" + dialer + "\n"),
         {"Find 4G module: EC20", "Find AT port: ttyUSB2", "Find 4G ethernet: wwan0", ec20_id},
         {},
         ""},
    };
    board_list boards;
    for (const family_case &c : cases)
        add_board(boards, c.name, c.config);
    for (auto &b : boards)
        ASSERT_TRUE(b->start());

    auto dialler_lines = [&] { return count(read_file(dialer_calls), "\n"); };
    for (size_t i = 0; i < boards.size(); ++i) {
        daemon_board &b = *boards[i];
        bool external = cases[i].ifname.empty();
        ASSERT_TRUE(sim_board::wait_until(
            [&] { return external ? dialler_lines() > 0 : !b.calls_of(DHCP).empty(); }, WAIT))
            << b.name << ":\n" << b.board.stdout_text() << b.board.stderr_text();
    }
    // Connected: the next pass must not dial again. A redial would show within
    // REDIAL_MS as the SIM queries.
    std::vector<size_t> settled;
    for (auto &b : boards)
        settled.push_back(b->commands().size());
    auto anything_new = [&] {
        for (size_t i = 0; i < boards.size(); ++i) {
            if (boards[i]->commands().size() != settled[i] || boards[i]->calls_of(DHCP).size() > 1)
                return true;
        }
        return dialler_lines() > 1;
    };
    EXPECT_FALSE(sim_board::wait_until(anything_new, milliseconds(REDIAL_MS + 500)));

    for (size_t i = 0; i < boards.size(); ++i) {
        daemon_board &b = *boards[i];
        const family_case &c = cases[i];
        SCOPED_TRACE(c.name);
        std::string out = b.board.stdout_text();
        std::vector<std::string> log;
        for (const std::string &line : c.found)
            log.push_back(logged(line));
        log = log + std::vector<std::string>{logged("Module imei: 861234567890123"),
                                             logged("Sim imsi: 001010123456789"), logged("COPS: NETWORK"),
                                             logged("Signal: 20")};
        expect_in_order(out, log);
        // Found at the first look.
        EXPECT_EQ(count(out, "Find 4G module"), 1u);
        // Only the EC200 procedure announces itself.
        EXPECT_EQ(count(out, logged("Begin to dial up...")), c.config.family == "ec20" ? 0u : 1u);
        EXPECT_FALSE(has(out, "failed")) << out;

        EXPECT_EQ(b.command_texts(), (std::vector<std::string>{"ATI", "AT+GSN"} + SIM_QUERIES + c.dial));
        std::vector<std::string> expected_calls = DRIVERS;
        if (!c.ifname.empty()) {
            expected_calls.push_back(DHCP + c.ifname);
            std::vector<command_call> dhcp = b.calls_of(DHCP);
            ASSERT_EQ(dhcp.size(), 1u);
            EXPECT_GE(dhcp[0].ms, b.commands().back().ms);
        } else {
            // The external program was started once, with the APN, and gets
            // the address itself.
            EXPECT_EQ(read_file(dialer_calls), "-s cmnet\n");
        }
        // The interface is left up for the dial: no "ifconfig ... down".
        EXPECT_EQ(b.call_texts(), expected_calls);
        EXPECT_TRUE(b.board.running());
        EXPECT_EQ(b.board.stderr_text(), "");
    }
}

// ---- discovery

TEST(LinkDiscoveryTest, ModuleWithoutNetworkInterfaceIsNeverOpenedButUpperCaseIdsAreFound) {
    SKIP_WITHOUT_BOARD();
    board_list boards;
    board_config no_net = config_for("ec200t", APN_CONF);
    no_net.net_dir = false;
    add_board(boards, "no net directory", no_net);
    board_config upper = config_for("ec200t", APN_CONF);
    upper.usb_upper = true;
    add_board(boards, "upper-case ids", upper);
    for (auto &b : boards)
        ASSERT_TRUE(b->start());
    daemon_board &missing = *boards[0];
    daemon_board &found = *boards[1];

    const std::string seen = logged("Find 4G module: EC200T");
    ASSERT_TRUE(sim_board::wait_until([&] { return stdout_times(missing.board, seen).size() >= 5; }, WAIT))
        << missing.board.stdout_text();
    {
        SCOPED_TRACE(missing.name);
        // Looked for again about once a second, without end.
        std::vector<long long> times = stdout_times(missing.board, seen);
        for (size_t i = 1; i < times.size(); ++i) {
            EXPECT_GE(times[i] - times[i - 1], 1000 - JITTER_MS);
            EXPECT_LE(times[i] - times[i - 1], 1000 + SLACK_MS);
        }
        std::string out = missing.board.stdout_text();
        EXPECT_FALSE(has(out, "Find 4G ethernet")) << out;
        EXPECT_FALSE(has(out, "Module:")) << out;
        // Its AT port is in place but never opened: a port opened at the first
        // look would have had ATI 2 s later.
        EXPECT_EQ(missing.command_texts(), std::vector<std::string>{});
        EXPECT_EQ(missing.call_texts(), DRIVERS);
        EXPECT_TRUE(missing.board.running());
    }
    {
        SCOPED_TRACE(found.name);
        ASSERT_TRUE(found.modem.wait_for_command("AT+QIDEACT=1", 10000).has_value()) << found.board.stdout_text();
        std::string out = found.board.stdout_text();
        expect_in_order(out, {logged("Find 4G module: EC200T"), logged("Find AT port: ttyUSB1"),
                              logged("Find 4G ethernet: usb0")});
        EXPECT_EQ(count(out, "Find 4G module"), 1u);
    }
}

// ---- dialling off

TEST(LinkDialTest, WithAutoDialOffTheInterfaceIsTakenDownOnceAndNothingDials) {
    SKIP_WITHOUT_BOARD();
    board_config config = config_for("ec20", "apn_name=cmnet\n");
    config.ifname = "wwx0a1b2c3d4e5f";
    daemon_board b("auto_dial off", config);
    ASSERT_TRUE(b.start());
    ASSERT_TRUE(b.board.wait_for_stdout(logged("Module imei: 861234567890123"), WAIT)) << b.board.stdout_text();
    // A dialling daemon would send its SIM queries in its first pass, right away.
    EXPECT_FALSE(sim_board::wait_until([&] { return b.commands().size() > 2; }, milliseconds(2500)));

    EXPECT_EQ(b.command_texts(), (std::vector<std::string>{"ATI", "AT+GSN"}));
    const std::string ifdown = "ifconfig wwx0a1b2c3d4e5f down";
    EXPECT_EQ(b.call_texts(), DRIVERS + std::vector<std::string>{ifdown});
    // Taken down after the 2 s the module gets to settle, before the identity queries.
    std::vector<command_call> down = b.calls_of(ifdown);
    long long found = b.board.stdout_time(logged("Find 4G ethernet: wwx0a1b2c3d4e5f"));
    ASSERT_EQ(down.size(), 1u);
    ASSERT_GE(found, 0);
    EXPECT_GE(down[0].ms - found, 2000 - JITTER_MS);
    EXPECT_LE(down[0].ms, b.command_ms("ATI"));
    EXPECT_FALSE(has(b.board.stdout_text(), "dial")) << b.board.stdout_text();
}

// ---- a failing step

TEST(LinkDialTest, FailingStepEndsTheDialAndTheNextComesAboutFiveSecondsLater) {
    SKIP_WITHOUT_BOARD();
    board_list boards;
    add_board(boards, "ec200s, activation refused", config_for("ec200s", APN_CONF));
    add_board(boards, "ec20, data call refused", config_for("ec20", APN_CONF));
    for (auto &b : boards)
        ASSERT_TRUE(b->start());
    daemon_board &ec200 = *boards[0];
    daemon_board &ec20 = *boards[1];
    // Set well before the first dial: start-up gives the module 2 s first.
    ASSERT_TRUE(ec200.modem.set_reply("AT+QIACT=1", modem_reply::error()));
    // Both the stop of an old call, whose result does not count, and the start.
    ASSERT_TRUE(ec20.modem.set_reply("AT$QCRMCALL=", modem_reply::error(), modem_match::prefix));

    const std::string retry = logged("Dial failed,retry to dail!");
    for (auto &b : boards) {
        ASSERT_TRUE(sim_board::wait_until([&] { return count(b->board.stdout_text(), retry) >= 2; },
                                          milliseconds(WAIT.count() + REDIAL_MS + REDIAL_SLACK_MS)))
            << b->name << ":\n" << b->board.stdout_text();
    }

    struct {
        daemon_board &b;
        std::vector<std::string> dial;
        std::vector<std::string> log;
    } cases[] = {
        {ec200, seq(EC200_DIAL_CMNET), {logged("Begin to dial up..."), logged("set_qiact failed!"), retry}},
        {ec20,
         {"ATE0", "AT$QCRMCALL=0,1,1,2,1", "AT+QIDEACT=1", "AT+QICSGP=1,1,\"cmnet\",\"\",\"\",1", "AT+QIACT=1",
          "AT$QCRMCALL=1,1,1,2,1"},
         {logged("set_qcrmcall failed!"), retry}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.b.name);
        // Two dials that each stop at the refused step; the next one may have begun.
        std::vector<std::string> texts = c.b.command_texts();
        std::vector<std::string> one = SIM_QUERIES + c.dial;
        std::vector<std::string> expected = std::vector<std::string>{"ATI", "AT+GSN"} + one + one;
        ASSERT_GE(texts.size(), expected.size());
        EXPECT_EQ(std::vector<std::string>(texts.begin(), texts.begin() + static_cast<long>(expected.size())),
                  expected);
        std::string out = c.b.board.stdout_text();
        expect_in_order(out, c.log + c.log);
        EXPECT_FALSE(has(out, "set_qnetdevctl")) << out;
        EXPECT_TRUE(c.b.calls_of(DHCP).empty());

        long long gap = c.b.command_ms("AT+QIDEACT=1", 1) - c.b.command_ms("AT+QIDEACT=1", 0);
        EXPECT_GE(gap, REDIAL_MS - JITTER_MS);
        EXPECT_LE(gap, REDIAL_MS + REDIAL_SLACK_MS);
    }
}

// ---- a module that answers nonsense or nothing

TEST(LinkDialTest, SilentAndGarbledAnswersOnlyFailTheirOwnStepsByTimeOut) {
    SKIP_WITHOUT_BOARD();
    daemon_board b("ec200t", config_for("ec200t", APN_CONF));
    ASSERT_TRUE(b.start());
    ASSERT_TRUE(b.modem.set_reply("ATI", modem_reply::silence()));
    ASSERT_TRUE(b.modem.set_reply("AT+GSN", modem_reply::raw_bytes(MODEM_GARBAGE)));
    ASSERT_TRUE(b.modem.set_reply("AT+CIMI", modem_reply::silence()));
    ASSERT_TRUE(sim_board::wait_until([&] { return !b.calls_of(DHCP).empty(); }, milliseconds(WAIT.count() + 3000)))
        << b.board.stdout_text();

    // Without an IMSI the SIM counts as absent and its other queries are left out.
    EXPECT_EQ(b.command_texts(), (std::vector<std::string>{"ATI", "AT+GSN", "AT+CIMI"} + seq(EC200_DIAL_CMNET) +
                                  std::vector<std::string>{"AT+QNETDEVCTL=1,1"}));
    long long ati = b.command_ms("ATI"), gsn = b.command_ms("AT+GSN"), cimi = b.command_ms("AT+CIMI"),
              ate = b.command_ms("ATE0");
    // Each query waits its 350 ms; the dial follows the SIM check's 1 s pause.
    EXPECT_GE(gsn - ati, 350 - JITTER_MS);
    EXPECT_LE(gsn - ati, 350 + SLACK_MS);
    EXPECT_GE(cimi - gsn, 350 - JITTER_MS);
    EXPECT_LE(cimi - gsn, 350 + SLACK_MS);
    EXPECT_GE(ate - cimi, 1350 - JITTER_MS);
    EXPECT_LE(ate - cimi, 1350 + SLACK_MS);

    std::string out = b.board.stdout_text();
    EXPECT_FALSE(has(out, "Module:")) << out;
    EXPECT_FALSE(has(out, "Module imei:")) << out;
    EXPECT_FALSE(has(out, "Sim imsi:")) << out;
    expect_in_order(out, {logged("Sim status: SIM_ABSENT"), logged("Begin to dial up...")});
    EXPECT_FALSE(has(out, "failed")) << out;
    EXPECT_EQ(b.call_texts(), DRIVERS + std::vector<std::string>{DHCP + "usb0"});
    EXPECT_TRUE(b.board.running());
}

// ---- ten failed dials: one power cycle, a new bring-up and a dial that works

TEST(LinkRecoverySlowTest, TenFailedDialsPowerCycleTheModuleOnceAfterItWasUnpluggedMidDial) {
    SKIP_WITHOUT_BOARD();
    board_config config = config_for("ec200t", APN_CONF);
    // Powering the module off takes it off the bus; it is back 3 s after power on.
    config.power_replug_ms = 3000;
    daemon_board b("ec200t", config);
    ASSERT_TRUE(b.start());
    ASSERT_TRUE(b.modem.set_reply("AT+QIACT=1", modem_reply::error()));

    // Dial 1 is refused. Dial 2 hangs on its APN step, and the module is
    // pulled meanwhile: that step times out and dials 3 to 10 cannot even send.
    std::optional<modem_command> first = b.modem.wait_for_command("AT+QIACT=1", static_cast<int>(WAIT.count()));
    ASSERT_TRUE(first.has_value()) << b.board.stdout_text();
    ASSERT_TRUE(b.modem.set_reply("AT+QICSGP=", modem_reply::silence(), modem_match::prefix));
    std::optional<modem_command> hung =
        b.modem.wait_for_command("AT+QICSGP=", static_cast<int>(REDIAL_MS + REDIAL_SLACK_MS), first->index + 1);
    ASSERT_TRUE(hung.has_value()) << b.board.stdout_text();
    ASSERT_TRUE(b.board.unplug());
    // The module that comes back answers as it should.
    ASSERT_TRUE(b.modem.clear_replies());

    const std::string give_up = logged("Dial failed,reaches maximum times,begin to reset module!");
    long long gave_up = -1;
    // 5 s of time-out and 8 more dials.
    ASSERT_TRUE(sim_board::wait_until([&] { return (gave_up = b.board.stdout_time(give_up)) >= 0; },
                                      milliseconds(5000 + 8 * (REDIAL_MS + REDIAL_SLACK_MS))))
        << b.board.stdout_text();
    // Power cycle 6 s, settling 20 s, bring-up, 2 s, SIM queries and 1 s: then DHCP.
    ASSERT_TRUE(sim_board::wait_until([&] { return !b.calls_of(DHCP).empty(); }, milliseconds(45000)))
        << b.board.stdout_text();

    std::string out = b.board.stdout_text();
    // Dial 1 refused, dial 2 timed out, dials 3 to 10 found no module: nine
    // retries, then the give-up, once.
    std::vector<std::string> failures = {logged("set_qiact failed!"), logged("set_qicsgp failed!")};
    for (int i = 0; i < 8; ++i)
        failures.push_back(logged("set_qideact failed!"));
    std::vector<std::string> expected_log;
    for (size_t i = 0; i < failures.size(); ++i)
        expected_log = expected_log + std::vector<std::string>{failures[i], i < 9 ? logged("Dial failed,retry to dail!") : give_up};
    expect_in_order(out, expected_log);
    EXPECT_EQ(count(out, "Dial failed,retry to dail!"), 9u);
    EXPECT_EQ(count(out, give_up), 1u);
    EXPECT_EQ(count(out, logged("Sim status: SIM_ABSENT")), 8u);
    long long timed_out = stdout_times(b.board, logged("set_qicsgp failed!")).at(0);
    EXPECT_GE(timed_out - hung->ms, 5000 - JITTER_MS);
    EXPECT_LE(timed_out - hung->ms, 5000 + SLACK_MS);

    // Exactly one power cycle, with its waits: reset "1"; 1 s; power "0"; 5 s;
    // reset "0"; power "1".
    std::vector<line_write> lines = b.board.lines();
    std::vector<std::string> written;
    for (const line_write &l : lines)
        written.push_back(l.line + l.value);
    ASSERT_EQ(written, (std::vector<std::string>{"rst0", "pwr1", "rst1", "pwr0", "rst0", "pwr1"}));
    EXPECT_GE(lines[2].ms, gave_up - JITTER_MS);
    EXPECT_LE(lines[2].ms - gave_up, SLACK_MS);
    EXPECT_GE(lines[3].ms - lines[2].ms, 1000 - JITTER_MS);
    EXPECT_LE(lines[3].ms - lines[2].ms, 1000 + SLACK_MS);
    EXPECT_GE(lines[4].ms - lines[3].ms, 5000 - JITTER_MS);
    EXPECT_LE(lines[4].ms - lines[3].ms, 5000 + SLACK_MS);
    EXPECT_LE(lines[5].ms - lines[4].ms, 100);
    // The interface went down before the module was cut off.
    std::vector<command_call> down = b.calls_of("ifconfig usb0 down");
    ASSERT_EQ(down.size(), 1u);
    EXPECT_GE(down[0].ms, gave_up - JITTER_MS);
    EXPECT_LE(down[0].ms, lines[2].ms);

    // Back on the bus 3 s after power on; looked for again after 20 s.
    long long replugged = -1;
    for (const board_event &e : b.board.events()) {
        if (e.text.rfind("plugged ec200t", 0) == 0)
            replugged = e.ms;
    }
    EXPECT_GE(replugged - lines[5].ms, 3000 - JITTER_MS);
    EXPECT_LE(replugged - lines[5].ms, 3000 + SLACK_MS);
    std::vector<long long> found = stdout_times(b.board, logged("Find 4G module: EC200T"));
    ASSERT_EQ(found.size(), 2u);
    EXPECT_GE(found[1] - lines[5].ms, 20000 - JITTER_MS);
    EXPECT_LE(found[1] - lines[5].ms, 20000 + SLACK_MS);
    EXPECT_FALSE(has(out, "4G module work incorrect")) << out;

    // The re-opened port: SIM queries, a whole dial, then the DHCP client, once.
    std::vector<modem_command> commands = b.commands();
    std::vector<std::string> after;
    for (const modem_command &c : commands) {
        if (c.ms > found[1])
            after.push_back(c.text);
    }
    EXPECT_EQ(after, SIM_QUERIES + seq(EC200_DIAL_CMNET) + std::vector<std::string>{"AT+QNETDEVCTL=1,1"});
    std::vector<command_call> dhcp = b.calls_of(DHCP);
    ASSERT_EQ(dhcp.size(), 1u);
    EXPECT_EQ(dhcp[0].text, DHCP + "usb0");
    EXPECT_GE(dhcp[0].ms, commands.back().ms);
    EXPECT_TRUE(b.board.running());
    EXPECT_EQ(b.board.stderr_text(), "");
}

} // namespace
