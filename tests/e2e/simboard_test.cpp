// The simulated board itself, where a fault would let a daemon test pass
// wrongly: records that miss or reorder a write or a command, a wrong exit
// status, and anything left on the host. (Plugging the module and the link's
// far end are exercised by the daemon's own end-to-end tests.)

#include "e2e/board.h"

#include <csignal>
#include <filesystem>
#include <net/if.h>

namespace {

// Host processes whose command line (NUL-separated words) begins with `start`.
int host_processes_with(const std::string &start) {
    int found = 0;
    for (const std::filesystem::directory_entry &e : std::filesystem::directory_iterator("/proc"))
        found += read_file(e.path() / "cmdline").rfind(start, 0) == 0;
    return found;
}

// The command writes the lines back to back on descriptors held open, as
// the daemon does, runs two commands, and ends by itself (0) or is stopped.
TEST(SimBoardTest, RecordsInOrderGivesTheExitStatusAndLeavesNothingOnTheHost) {
    SKIP_WITHOUT_BOARD();
    for (int sig : {0, SIGTERM, SIGKILL}) {
        SCOPED_TRACE(sig);
        const std::string marker = "/opt/zolvin-left-behind-" + std::to_string(getpid()) + "-" + std::to_string(sig);
        board_config config;
        config.spawn = {{marker}};
        sim_board board(config);
        ASSERT_TRUE(board.start({"/bin/sh", "-c", R"(
exec 3>/dev/pcie_rst 4>/dev/pcie_pwr
printf 1 >&3; printf 0 >&4; printf 0 >&3; printf 1 >&4
modprobe option; killall dialer; [ "$0" = 0 ] && exit 3; echo up; exec sleep 3599
)", std::to_string(sig)}));
        if (sig != 0) {
            ASSERT_TRUE(sim_board::wait_until([&] { return board.stdout_text() == "up\n"; }));
            // The board's mounts never show on the host.
            EXPECT_EQ(read_file("/proc/self/mountinfo").find(" /sys/bus "), std::string::npos);
            EXPECT_EQ(host_processes_with(marker), 1);
            // Neither end of the module's link is on the host.
            EXPECT_EQ(if_nametoindex("usb0"), 0u);
            EXPECT_EQ(if_nametoindex("far0"), 0u);
            kill(board.pid(), sig);
        }
        EXPECT_EQ(board.wait_exit(WAIT), sig != 0 ? 128 + sig : 3);
        EXPECT_TRUE(sig != 0 || board.exit_file() == "3\n") << board.exit_file();
        // SIGKILL leaves the board no time: the namespace goes with its process 1.
        EXPECT_TRUE(sim_board::wait_until([&] { return host_processes_with(marker) == 0; })) << sig;
        EXPECT_EQ(texts(board.lines()), POWER_CYCLE);
        EXPECT_EQ(texts(board.calls()), (std::vector<std::string>{"modprobe option", "killall dialer"}));
    }
}

} // namespace
