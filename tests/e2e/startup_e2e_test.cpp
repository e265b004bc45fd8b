// The daemon's start-up on the simulated board: drivers, banner, control
// lines, configuration, and stopping a running external connection program.

#include "e2e/board.h"

#include <regex>

namespace {

const std::string BANNER = "ZOLVIN 4G SERVER V1.23\n";

TEST(DaemonStartUpTest, DriversBannerModuleOnConfigurationThenTheExternalProgramStopped) {
    SKIP_WITHOUT_BOARD();
    board_config config("ec200t", "app_name=dialer\napn_name=cmnet\n");
    config.spawn = {{"/usr/bin/dialer", "-s", "apn"}};
    sim_board board(config);
    ASSERT_TRUE(board.start_daemon({"debug"}));
    ASSERT_TRUE(sim_board::wait_until([&] { return !board.event("spawn ended").empty(); })) << board.stdout_text();
    EXPECT_NE(board.event("spawn ended").find(" signal 15"), std::string::npos) << board.event("spawn ended");

    std::vector<record> calls = board.calls();
    std::vector<std::string> first = texts(calls);
    first.resize(4);
    EXPECT_EQ(first, (std::vector<std::string>{DRIVERS[0], DRIVERS[1], DRIVERS[2], "killall dialer"}));
    // Drivers, banner, reset released and power on, in this order.
    std::string out = board.stdout_text();
    EXPECT_EQ(out.substr(0, BANNER.size()), BANNER);
    std::vector<long long> banner = board.stdout_times(BANNER);
    std::vector<record> lines = board.lines();
    ASSERT_EQ(banner.size(), 1u);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_GE(banner[0], calls[2].ms);
    EXPECT_EQ(lines[0].text + " " + lines[1].text, "rst0 pwr1");
    EXPECT_GE(lines[0].ms, banner[0]);
    // "debug" turns on the time-stamped log.
    EXPECT_TRUE(std::regex_search(out, std::regex(R"(\n\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\] apn_name=cmnet\n)"))) << out;
    EXPECT_EQ(board.stderr_text(), "");
}

TEST(DaemonStartUpTest, WithoutEitherControlLineEndsSilentlyAfterTheBanner) {
    SKIP_WITHOUT_BOARD();
    for (bool power : {false, true}) {
        board_config config("ec200t", "app_name=dialer\n");
        config.power_line = power;
        config.reset_line = !power;
        config.spawn = {{"/usr/bin/dialer"}};
        sim_board board(config);
        ASSERT_TRUE(board.start_daemon());
        EXPECT_EQ(board.wait_exit(WAIT), 0);
        EXPECT_EQ(board.exit_file(), "0\n");
        // Neither the configuration nor a line is touched.
        EXPECT_EQ(board.stdout_text() + board.stderr_text(), BANNER) << "power line present: " << power;
        EXPECT_TRUE(board.lines().empty()) << "power line present: " << power;
        EXPECT_EQ(texts(board.calls()), DRIVERS) << "power line present: " << power;
    }
}

} // namespace
