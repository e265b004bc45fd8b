// The simulated board itself, where a fault would let a daemon test pass
// wrongly: the records in the writer's order, killall by exact program name,
// the module leaving and coming back, its link up from the start, the exit
// status, and nothing left on the host. (The link's far end is exercised by
// the link check's tests.)

#include "e2e/board.h"

#include <gtest/gtest.h>

#include <csignal>
#include <dirent.h>
#include <fstream>
#include <net/if.h>
#include <sstream>
#include <unistd.h>

namespace {

TEST(SimBoardTest, RecordsLinesAndCommandsInOrderAndPlugsTheModule) {
    SKIP_WITHOUT_BOARD();
    board_config config;
    config.spawn = {{"/usr/bin/dialer", "-s", "apn"}, {"/usr/bin/dialerd"}};
    sim_board board(config);
    // The lines are written back to back on descriptors held open, as the daemon does.
    ASSERT_TRUE(board.start({"/bin/sh", "-c", R"(
exec 3>/dev/pcie_rst 4>/dev/pcie_pwr
printf 1 >&3; printf 0 >&4; printf 0 >&3; printf 1 >&4
modprobe option; killall dialer
echo plugged $(ip -o -4 addr show dev usb0 up | awk '{print $4}'); while [ -e /dev/ttyUSB1 ]; do sleep 0.01; done
echo gone $(ls /sys/bus/usb/devices | tr '\n' ' '); while [ ! -e /dev/ttyUSB1 ]; do sleep 0.01; done
echo back $(cat /sys/bus/usb/devices/1-1/idProduct); exit 3
)"}));
    ASSERT_TRUE(sim_board::wait_until([&] { return board.stdout_text() == "plugged 10.64.0.2/24\n"; }));
    EXPECT_EQ(board.control("echo off"), "ok echo off");
    ASSERT_TRUE(board.unplug());
    ASSERT_TRUE(sim_board::wait_until([&] { return board.stdout_text().find("gone") != std::string::npos; }));
    ASSERT_TRUE(board.plug());
    EXPECT_EQ(board.wait_exit(WAIT), 3);
    EXPECT_EQ(board.exit_file(), "3\n");
    EXPECT_EQ(board.stdout_text(), "plugged 10.64.0.2/24\ngone 1-0:1.0 1-2 1-2:1.0 usb1\nback 6026\n");
    EXPECT_EQ(texts(board.lines()), (std::vector<std::string>{"rst1", "pwr0", "rst0", "pwr1"}));
    EXPECT_EQ(texts(board.calls()), (std::vector<std::string>{"modprobe option", "killall dialer"}));
    // killall stopped the program of that exact name only: the dialer, not dialerd.
    std::string dialer = board.event("spawned ").substr(8); // "<pid> /usr/bin/dialer -s apn"
    dialer = dialer.substr(0, dialer.find(' '));
    EXPECT_EQ(board.event("spawn ended "), "spawn ended " + dialer + " signal 15");
    std::string alive = board.event("spawn alive ");
    EXPECT_TRUE(alive.size() > 12 && alive != "spawn alive " + dialer) << alive;
}

// Host processes whose command line (NUL-separated words) begins with `start`.
int host_processes_with(const std::string &start) {
    int found = 0;
    DIR *proc = opendir("/proc");
    while (dirent *e = proc != nullptr ? readdir(proc) : nullptr) {
        std::ifstream in(std::string("/proc/") + e->d_name + "/cmdline", std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        found += s.str().rfind(start, 0) == 0;
    }
    if (proc != nullptr)
        closedir(proc);
    return found;
}

std::string host_mounts() {
    std::ifstream in("/proc/self/mountinfo");
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

TEST(SimBoardTest, StoppingTheBoardLeavesNothingOnTheHost) {
    SKIP_WITHOUT_BOARD();
    for (int sig : {SIGTERM, SIGKILL}) {
        const std::string marker = "/opt/zolvin-left-behind-" + std::to_string(getpid()) + "-" + std::to_string(sig);
        board_config config;
        config.spawn = {{marker}};
        sim_board board(config);
        ASSERT_TRUE(board.start({"/bin/sh", "-c", "echo up; exec sleep 3599"}));
        ASSERT_TRUE(sim_board::wait_until([&] { return board.stdout_text() == "up\n"; }));
        // The board's mounts never show on the host.
        EXPECT_EQ(host_mounts().find(" /sys/bus "), std::string::npos);
        EXPECT_EQ(host_processes_with(marker), 1);
        // Neither end of the module's link is on the host.
        EXPECT_EQ(if_nametoindex("usb0"), 0u);
        EXPECT_EQ(if_nametoindex("far0"), 0u);
        kill(board.pid(), sig);
        EXPECT_EQ(board.wait_exit(WAIT), 128 + sig);
        // SIGKILL leaves the board no time: the namespace goes with its process 1.
        EXPECT_TRUE(sim_board::wait_until([&] { return host_processes_with(marker) == 0; })) << sig;
    }
}

} // namespace
