// The simulated board itself, where a fault would let a daemon test pass
// wrongly: the records in the writer's order, killall by exact program name,
// the module leaving and coming back, the exit status, and nothing left on
// the host, and the module's link with a far end that answers echo on request.

#include "e2e/board.h"

#include <gtest/gtest.h>

#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <net/if.h>
#include <netinet/in.h>
#include <arpa/inet.h>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <sys/socket.h>
#include <thread>
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
echo plugged; while [ -e /dev/ttyUSB1 ]; do sleep 0.01; done
echo gone $(ls /sys/bus/usb/devices | tr '\n' ' '); while [ ! -e /dev/ttyUSB1 ]; do sleep 0.01; done
echo back $(cat /sys/bus/usb/devices/1-1/idProduct); exit 3
)"}));
    ASSERT_TRUE(sim_board::wait_until([&] { return board.stdout_text() == "plugged\n"; }));
    ASSERT_TRUE(board.unplug());
    ASSERT_TRUE(sim_board::wait_until([&] { return board.stdout_text().find("gone") != std::string::npos; }));
    ASSERT_TRUE(board.plug());
    EXPECT_EQ(board.wait_exit(WAIT), 3);
    EXPECT_EQ(board.exit_file(), "3\n");
    EXPECT_EQ(board.stdout_text(), "plugged\ngone 1-0:1.0 1-2 1-2:1.0 usb1\nback 6026\n");
    EXPECT_EQ(texts(board.lines()), (std::vector<std::string>{"rst1", "pwr0", "rst0", "pwr1"}));
    EXPECT_EQ(texts(board.calls()), (std::vector<std::string>{"modprobe option", "killall dialer"}));
    // killall stopped the program of that exact name only.
    std::map<std::string, std::string> argv_of;
    std::string fates;
    for (const std::string &e : texts(board.events())) {
        std::istringstream words(e);
        std::string word, pid, rest;
        words >> word >> pid;
        if (word == "spawn")
            words >> pid; // "spawn ended <pid> ...", "spawn alive <pid>"
        std::getline(words, rest);
        if (word == "spawned")
            argv_of[pid] = rest;
        else if (word == "spawn")
            fates += argv_of[pid] + " " + e.substr(6, 5) + rest + ";";
    }
    EXPECT_EQ(fates, " /usr/bin/dialer -s apn ended signal 15; /usr/bin/dialerd alive;");
}

// One echo request from the board's side of the module's link; true when an
// echo reply came back within `wait_ms`.
bool echo_answered(const sim_board &board, const std::string &address, int wait_ms) {
    int ns = open(("/proc/" + std::to_string(board.pid()) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
    bool answered = false;
    std::thread([&] {
        if (ns < 0 || setns(ns, CLONE_NEWNET) != 0)
            return;
        int s = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
        // Type 8, checksum over the 8 bytes (no data): ~0x0800.
        const unsigned char request[8] = {8, 0, 0xf7, 0xff, 0, 0, 0, 0};
        sockaddr_in to{};
        to.sin_family = AF_INET;
        inet_pton(AF_INET, address.c_str(), &to.sin_addr);
        if (sendto(s, request, sizeof request, 0, reinterpret_cast<sockaddr *>(&to), sizeof to) == 8) {
            pollfd p{s, POLLIN, 0};
            unsigned char got[512];
            while (!answered && poll(&p, 1, wait_ms) == 1 && recv(s, got, sizeof got, 0) >= 28)
                answered = got[20] == 0;
        }
        close(s);
    }).join();
    if (ns >= 0)
        close(ns);
    return answered;
}

TEST(SimBoardTest, TheModuleLinkReachesAFarEndThatRecordsEveryEchoRequest) {
    SKIP_WITHOUT_BOARD();
    sim_board board;
    ASSERT_TRUE(board.start({"/bin/sh", "-c", "echo up; exec sleep 3599"}));
    ASSERT_TRUE(sim_board::wait_until([&] { return board.stdout_text() == "up\n"; })) << board.stdout_text();
    EXPECT_TRUE(echo_answered(board, FAR_ADDRESS, 5000));
    EXPECT_FALSE(echo_answered(board, SILENT_ADDRESS, 300));
    EXPECT_EQ(board.control("echo off"), "ok echo off");
    EXPECT_FALSE(echo_answered(board, FAR_ADDRESS, 300));
    EXPECT_EQ(board.control("echo on"), "ok echo on");
    EXPECT_TRUE(echo_answered(board, FAR_ADDRESS, 5000));
    std::vector<std::string> seen;
    for (const echo_record &e : board.pings())
        seen.push_back(e.source + " " + e.destination + " " + std::to_string(e.icmp.size()) + " " +
                       std::to_string(e.icmp[0]));
    const std::string from = MODULE_ADDRESS + " ";
    EXPECT_EQ(seen, (std::vector<std::string>{from + FAR_ADDRESS + " 8 8", from + SILENT_ADDRESS + " 8 8",
                                              from + FAR_ADDRESS + " 8 8", from + FAR_ADDRESS + " 8 8"}));
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
