// The daemon's start-up on the simulated board: drivers, banner, control
// lines, configuration, and stopping a running external connection program.

#include "e2e/board.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <sstream>

namespace {

using std::chrono::milliseconds;
const milliseconds WAIT(15000);
const std::string BANNER_LINE = "ZOLVIN 4G SERVER V1.23\n";
const std::string NO_CONFIG_LINE = "Could not open configuration file '/etc/zolvin_4g.conf' for reading.\n";

std::vector<std::string> call_texts(const sim_board &board) {
    std::vector<std::string> out;
    for (const command_call &c : board.calls())
        out.push_back(c.text);
    return out;
}

std::vector<std::string> stdout_lines(const sim_board &board) {
    std::vector<std::string> out;
    std::istringstream in(board.stdout_text());
    std::string line;
    while (std::getline(in, line))
        out.push_back(line);
    return out;
}

// How the one idle process of the board ended: "ended signal 15", "alive", ...
std::string spawn_fate(const sim_board &board) {
    for (const board_event &e : board.events()) {
        std::istringstream words(e.text);
        std::string spawn, fate, pid, rest;
        words >> spawn >> fate >> pid;
        std::getline(words, rest);
        if (spawn == "spawn" && (fate == "ended" || fate == "alive"))
            return fate + rest;
    }
    return "";
}

// "[YYYY-MM-DD hh:mm:ss] " followed by `message`.
bool stamped(const std::string &line, const std::string &message) {
    const std::string shape = "[dddd-dd-dd dd:dd:dd] ";
    if (line.size() != shape.size() + message.size() || line.compare(shape.size(), std::string::npos, message) != 0)
        return false;
    for (size_t i = 0; i < shape.size(); ++i) {
        bool digit = line[i] >= '0' && line[i] <= '9';
        if (shape[i] == 'd' ? !digit : line[i] != shape[i])
            return false;
    }
    return true;
}

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// Runs the daemon on `board` until `reached` holds for the records, then lets
// it end: start-up ends by itself today with status 0, a resident daemon is
// stopped.
void run_daemon_until(sim_board &board, const std::vector<std::string> &args,
                      const std::function<bool()> &reached) {
    ASSERT_TRUE(board.start_daemon(args));
    ASSERT_TRUE(sim_board::wait_until([&] { return reached() || !board.running(); }, WAIT))
        << board.stdout_text();
    ASSERT_TRUE(reached()) << "ended early: " << board.stdout_text() << board.stderr_text();
    if (std::optional<int> status = board.wait_exit(milliseconds(500))) {
        EXPECT_EQ(*status, 0);
        EXPECT_EQ(board.exit_file(), "0\n");
    } else {
        board.stop();
    }
    EXPECT_EQ(board.stderr_text(), "");
}

// Start-up is past stopping the external program once it ends or looks for the module.
bool past_external_program(sim_board &board) {
    return !board.running() || has(board.stdout_text(), "Find 4G module");
}

const std::vector<std::string> DRIVERS = {"modprobe rndis_host", "modprobe cdc_ether", "modprobe option"};

TEST(DaemonStartUpTest, LoadsDriversPrintsBannerThenReleasesResetAndPowersOn) {
    SKIP_WITHOUT_BOARD();
    sim_board board;
    run_daemon_until(board, {}, [&] { return board.lines().size() >= 2 && has(board.stdout_text(), NO_CONFIG_LINE); });
    EXPECT_EQ(board.stdout_text().substr(0, BANNER_LINE.size() + NO_CONFIG_LINE.size()), BANNER_LINE + NO_CONFIG_LINE);
    std::vector<std::string> texts = call_texts(board);
    ASSERT_GE(texts.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(texts.begin(), texts.begin() + 3), DRIVERS);
    std::vector<command_call> calls = board.calls();
    calls.resize(3);

    // The banner comes after the last driver is loaded, the lines after the banner.
    long long banner = board.stdout_time(BANNER_LINE);
    ASSERT_GE(banner, 0);
    EXPECT_GE(banner, calls.back().ms);

    std::vector<line_write> lines = board.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0].line + lines[0].value, "rst0");
    EXPECT_EQ(lines[1].line + lines[1].value, "pwr1");
    EXPECT_GE(lines[0].ms, banner);
    // Power follows reset at once, with no wait between them.
    EXPECT_LE(lines[1].ms - lines[0].ms, 100);
}

TEST(DaemonStartUpTest, WithoutEitherControlLineEndsSilentlyAfterTheBanner) {
    SKIP_WITHOUT_BOARD();
    for (bool power : {false, true}) {
        board_config config;
        config.power_line = power;
        config.reset_line = !power;
        config.conf = "app_name=dialer\n";
        config.spawn = {{"/usr/bin/dialer"}};
        sim_board board(config);
        ASSERT_TRUE(board.start_daemon());
        EXPECT_EQ(board.wait_exit(WAIT), 0);
        EXPECT_EQ(board.exit_file(), "0\n");
        EXPECT_EQ(board.stderr_text(), "");
        // Nothing after the banner: neither the configuration nor a line is touched.
        EXPECT_EQ(board.stdout_text(), BANNER_LINE) << "power line present: " << power;
        EXPECT_TRUE(board.lines().empty()) << "power line present: " << power;
        EXPECT_EQ(call_texts(board), DRIVERS) << "power line present: " << power;
    }
}

TEST(DaemonStartUpTest, ConfigurationIsLoggedWithTimeStampsOnlyWhenDebugging) {
    SKIP_WITHOUT_BOARD();
    const std::string body = "apn_name=cmnet\n# apn_user=nobody\napn_auth=7\nauto_dial=yes\nbad line\n";
    const std::string stamp = "@"; // the line is time-stamped
    struct {
        std::string conf;
        std::vector<std::string> args;
        std::vector<std::string> expected; // one per line
    } cases[] = {
        {"debug=1\n" + body,
         {},
         {"ZOLVIN 4G SERVER V1.23", stamp + "Set debug log out!", stamp + "apn_name=cmnet",
          stamp + "wrong apn_auth value,set default value 1", stamp + "auto_dial=yes",
          "Line 6: invalid line 'bad line'"}},
        {body, {"debug"},
         {"ZOLVIN 4G SERVER V1.23", stamp + "apn_name=cmnet", stamp + "wrong apn_auth value,set default value 1",
          stamp + "auto_dial=yes", "Line 5: invalid line 'bad line'"}},
        {body, {}, {"ZOLVIN 4G SERVER V1.23", "Line 5: invalid line 'bad line'"}},
        // "debug" only counts as the first word.
        {body, {"atprint", "debug"}, {"ZOLVIN 4G SERVER V1.23", "Line 5: invalid line 'bad line'"}},
    };
    for (auto &c : cases) {
        board_config config;
        config.conf = c.conf;
        sim_board board(config);
        run_daemon_until(board, c.args, [&] { return has(board.stdout_text(), "invalid line 'bad line'\n"); });
        std::vector<std::string> lines = stdout_lines(board);
        ASSERT_GE(lines.size(), c.expected.size()) << board.stdout_text();
        lines.resize(c.expected.size());
        for (size_t i = 0; i < lines.size(); ++i) {
            const std::string &want = c.expected[i];
            if (want[0] == '@')
                EXPECT_TRUE(stamped(lines[i], want.substr(1))) << lines[i];
            else
                EXPECT_EQ(lines[i], want);
        }
    }
}

TEST(DaemonStartUpTest, StopsARunningExternalProgramFoundByItsProgramPath) {
    SKIP_WITHOUT_BOARD();
    struct {
        std::string conf;
        std::vector<std::string> process;
        const char *killall; // the call expected, if any
        bool killed;         // the idle process
    } cases[] = {
        {"app_name=dialer\napn_name=cmnet\n", {"/usr/bin/dialer", "-s", "apn"}, "killall dialer", true},
        // The name is only in a later word of the command line.
        {"app_name=dialer\n", {"sh", "-c", "dialer"}, nullptr, false},
        // A part of the program path is enough to be found; killall then wants the exact name.
        {"app_name=dial\n", {"/usr/bin/dialer", "-s", "apn"}, "killall dial", false},
        {"apn_name=cmnet\n", {"/usr/bin/dialer", "-s", "apn"}, nullptr, false},
    };
    for (auto &c : cases) {
        board_config config;
        config.conf = c.conf;
        config.spawn = {c.process};
        sim_board board(config);
        run_daemon_until(board, {"debug"}, [&] { return past_external_program(board); });
        std::vector<std::string> calls = call_texts(board);
        std::vector<std::string> expected_calls = DRIVERS;
        if (c.killall != nullptr)
            expected_calls.push_back(c.killall);
        ASSERT_GE(calls.size(), expected_calls.size()) << c.conf;
        calls.resize(expected_calls.size());
        EXPECT_EQ(calls, expected_calls) << c.conf;
        if (c.killed) {
            EXPECT_TRUE(board.wait_for_event("spawn ended", WAIT)) << c.conf;
            EXPECT_EQ(spawn_fate(board), "ended signal 15") << c.conf;
        } else {
            EXPECT_EQ(spawn_fate(board).rfind("ended", 0), std::string::npos) << c.conf;
        }
        // One killall at most during start-up (a resident daemon is stopped as
        // soon as it looks for the module).
        long long looked = board.stdout_time("Find 4G module");
        int killalls = 0;
        for (const command_call &call : board.calls())
            killalls += call.text.rfind("killall", 0) == 0 && (looked < 0 || call.ms <= looked);
        EXPECT_EQ(killalls, c.killall != nullptr ? 1 : 0) << c.conf;
    }
}

} // namespace
