// The daemon's start-up on the simulated board: drivers, banner, control
// lines, configuration, and stopping a running external connection program.

#include "e2e/board.h"

#include <gtest/gtest.h>

#include <regex>
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
    std::smatch m;
    const std::regex fate("spawn (ended|alive) \\d+(.*)");
    for (const board_event &e : board.events()) {
        if (std::regex_match(e.text, m, fate))
            return m[1].str() + m[2].str();
    }
    return "";
}

// Runs the daemon on `board` until it ends by itself.
void run_daemon(sim_board &board, const std::vector<std::string> &args = {}) {
    ASSERT_TRUE(board.start_daemon(args));
    ASSERT_EQ(board.wait_exit(WAIT), 0) << board.stdout_text() << board.stderr_text();
    EXPECT_EQ(board.exit_file(), "0\n");
    EXPECT_EQ(board.stderr_text(), "");
}

const std::vector<std::string> DRIVERS = {"modprobe rndis_host", "modprobe cdc_ether", "modprobe option"};

TEST(DaemonStartUpTest, LoadsDriversPrintsBannerThenReleasesResetAndPowersOn) {
    SKIP_WITHOUT_BOARD();
    sim_board board;
    run_daemon(board);
    EXPECT_EQ(board.stdout_text(), BANNER_LINE + NO_CONFIG_LINE);
    EXPECT_EQ(call_texts(board), DRIVERS);

    // The banner comes after the last driver is loaded, the lines after the banner.
    std::vector<command_call> calls = board.calls();
    ASSERT_EQ(calls.size(), 3u);
    long long banner = board.stdout_time(BANNER_LINE);
    ASSERT_GE(banner, 0);
    EXPECT_GE(banner, calls.back().ms);

    std::vector<line_write> lines = board.lines();
    ASSERT_EQ(lines.size(), 2u);
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
        run_daemon(board);
        // Nothing after the banner: neither the configuration nor a line is touched.
        EXPECT_EQ(board.stdout_text(), BANNER_LINE) << "power line present: " << power;
        EXPECT_TRUE(board.lines().empty()) << "power line present: " << power;
        EXPECT_EQ(call_texts(board), DRIVERS) << "power line present: " << power;
    }
}

TEST(DaemonStartUpTest, ConfigurationIsLoggedWithTimeStampsOnlyWhenDebugging) {
    SKIP_WITHOUT_BOARD();
    const std::string body = "apn_name=cmnet\n# apn_user=nobody\napn_auth=7\nauto_dial=yes\nbad line\n";
    const std::string stamp = R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\] )";
    struct {
        std::string conf;
        std::vector<std::string> args;
        std::vector<std::string> expected; // regular expressions, one per line
    } cases[] = {
        {"debug=1\n" + body,
         {},
         {"ZOLVIN 4G SERVER V1\\.23", stamp + "Set debug log out!", stamp + "apn_name=cmnet",
          stamp + "wrong apn_auth value,set default value 1", stamp + "auto_dial=yes",
          "Line 6: invalid line 'bad line'"}},
        {body, {"debug"},
         {"ZOLVIN 4G SERVER V1\\.23", stamp + "apn_name=cmnet", stamp + "wrong apn_auth value,set default value 1",
          stamp + "auto_dial=yes", "Line 5: invalid line 'bad line'"}},
        {body, {}, {"ZOLVIN 4G SERVER V1\\.23", "Line 5: invalid line 'bad line'"}},
        // "debug" only counts as the first word.
        {body, {"atprint", "debug"}, {"ZOLVIN 4G SERVER V1\\.23", "Line 5: invalid line 'bad line'"}},
    };
    for (auto &c : cases) {
        board_config config;
        config.conf = c.conf;
        sim_board board(config);
        run_daemon(board, c.args);
        std::vector<std::string> lines = stdout_lines(board);
        ASSERT_EQ(lines.size(), c.expected.size()) << board.stdout_text();
        for (size_t i = 0; i < lines.size(); ++i)
            EXPECT_TRUE(std::regex_match(lines[i], std::regex(c.expected[i]))) << lines[i];
        EXPECT_EQ(board.lines().size(), 2u);
    }
}

TEST(DaemonStartUpTest, StopsARunningExternalProgramFoundByItsProgramPath) {
    SKIP_WITHOUT_BOARD();
    struct {
        std::string conf;
        std::vector<std::string> process;
        const char *killall; // the call expected, if any
        const char *fate;    // of the idle process
    } cases[] = {
        {"app_name=dialer\napn_name=cmnet\n", {"/usr/bin/dialer", "-s", "apn"}, "killall dialer", "ended signal 15"},
        // The name is only in a later word of the command line.
        {"app_name=dialer\n", {"sh", "-c", "dialer"}, nullptr, "alive"},
        // A part of the program path is enough to be found; killall then wants the exact name.
        {"app_name=dial\n", {"/usr/bin/dialer", "-s", "apn"}, "killall dial", "alive"},
        {"apn_name=cmnet\n", {"/usr/bin/dialer", "-s", "apn"}, nullptr, "alive"},
    };
    for (auto &c : cases) {
        board_config config;
        config.conf = c.conf;
        config.spawn = {c.process};
        sim_board board(config);
        run_daemon(board);
        std::vector<std::string> expected_calls = DRIVERS;
        if (c.killall != nullptr)
            expected_calls.push_back(c.killall);
        EXPECT_EQ(call_texts(board), expected_calls) << c.conf;
        EXPECT_EQ(spawn_fate(board), c.fate) << c.conf;
    }
}

} // namespace
