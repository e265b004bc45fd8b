// The simulated board itself: what the daemon will find on it, and that it
// records, relays and cleans up as the daemon's tests rely on.

#include "e2e/board.h"

#include <gtest/gtest.h>

#include <csignal>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;
const milliseconds WAIT(10000);

// Runs a shell script on a board and returns its standard output once it ended.
std::string run_script(sim_board &board, const std::string &script, int expected_status = 0) {
    EXPECT_TRUE(board.start({"/bin/sh", "-c", script}));
    EXPECT_EQ(board.wait_exit(WAIT), expected_status) << board.stderr_text();
    return board.stdout_text();
}

// What a scan of the bus sees: every device entry with its ids, the AT and
// network interface contents, and the AT port's device node.
const char *const USB_SCAN = R"sh(
cd /sys/bus/usb/devices || exit 1
for d in *; do
  if [ -f $d/idVendor ]; then echo "$d $(cat $d/idVendor):$(cat $d/idProduct)"; else echo "$d -"; fi
done
for i in 0 1 2 3 4; do
  [ -d 1-1/1-1:1.$i ] || continue
  echo "1.$i:" $(ls 1-1/1-1:1.$i | grep -v '^b') $(ls 1-1/1-1:1.$i/net 2>/dev/null)
done
for t in /dev/ttyUSB*; do [ -c $t ] && [ -t 0 ] < $t && echo "tty $t"; done
true
)sh";

TEST(SimBoardTest, EachFamilyEnumeratesAsAModuleDoes) {
    SKIP_WITHOUT_BOARD();
    const std::string hub = "1-0:1.0 -\n";
    const std::string module = "1-1:1.0 -\n1-1:1.1 -\n1-1:1.2 -\n1-1:1.3 -\n1-1:1.4 -\n";
    const std::string rest = "1-2 2c7c:ffff\n1-2:1.0 -\nusb1 1d6b:0002\n";
    const std::string ec200 = "1.0: net usb0\n1.1:\n1.2: ttyUSB0\n1.3: ttyUSB1\n1.4: ttyUSB2\ntty /dev/ttyUSB1\n";
    struct {
        board_config config;
        std::string expected;
    } cases[] = {
        {board_for("ec20"),
         hub + "1-1 2c7c:0125\n" + module + rest +
             "1.0: ttyUSB0\n1.1: ttyUSB1\n1.2: ttyUSB2\n1.3: ttyUSB3\n1.4: net wwan0\ntty /dev/ttyUSB2\n"},
        {board_for("ec200t"), hub + "1-1 2c7c:6026\n" + module + rest + ec200},
        {board_for("ec200s"), hub + "1-1 2c7c:6002\n" + module + rest + ec200},
        {board_for("none"), hub + rest},
    };
    for (auto &c : cases) {
        sim_board board(c.config);
        EXPECT_EQ(run_script(board, USB_SCAN), c.expected) << c.config.family;
    }
}

TEST(SimBoardTest, OptionsChangeIdsNamesAndTheNetworkDirectory) {
    SKIP_WITHOUT_BOARD();
    board_config upper = board_for("ec20");
    upper.usb_upper = true;
    upper.tty = "ttyUSB7";
    upper.ifname = "wwx0a1b2c3d4e5f";
    sim_board a(upper);
    std::string out = run_script(a, USB_SCAN);
    EXPECT_NE(out.find("1-1 2C7C:0125\n"), std::string::npos) << out;
    EXPECT_NE(out.find("1.2: ttyUSB7\n"), std::string::npos) << out;
    EXPECT_NE(out.find("1.3: ttyUSB2\n"), std::string::npos) << out; // no clash with the AT port's name
    EXPECT_NE(out.find("1.4: net wwx0a1b2c3d4e5f\n"), std::string::npos) << out;
    EXPECT_NE(out.find("tty /dev/ttyUSB7\n"), std::string::npos) << out;

    board_config no_net = board_for("ec200t");
    no_net.net_dir = false;
    sim_board b(no_net);
    out = run_script(b, USB_SCAN);
    EXPECT_NE(out.find("1.0:\n"), std::string::npos) << out;
    EXPECT_NE(out.find("1.3: ttyUSB1\n"), std::string::npos) << out;
}

TEST(SimBoardTest, ConfigurationFileAndControlLinesAreThereOnlyWhenAsked) {
    SKIP_WITHOUT_BOARD();
    const std::string script =
        "cat /etc/zolvin_4g.conf 2>/dev/null || echo no-conf; "
        "for l in pwr rst; do [ -p /dev/pcie_$l ] && echo $l; done; "
        "for c in modprobe killall ifconfig busybox; do command -v $c; done | tr '\\n' ' '";
    const std::string fakes = "/run/simboard/bin/modprobe /run/simboard/bin/killall "
                              "/run/simboard/bin/ifconfig /run/simboard/bin/busybox ";
    board_config with = board_for("ec200t");
    with.conf = "apn_name=cmnet\nauto_dial=1\n";
    sim_board a(with);
    EXPECT_EQ(run_script(a, script), "apn_name=cmnet\nauto_dial=1\npwr\nrst\n" + fakes);

    board_config without = board_for("ec200t");
    without.power_line = false;
    sim_board b(without);
    EXPECT_EQ(run_script(b, script), "no-conf\nrst\n" + fakes);
    without.power_line = true;
    without.reset_line = false;
    sim_board c(without);
    EXPECT_EQ(run_script(c, script), "no-conf\npwr\n" + fakes);
}

TEST(SimBoardTest, ControlLineWritesAreRecordedInTheWritersOrder) {
    SKIP_WITHOUT_BOARD();
    sim_board board;
    // Back to back, on descriptors held open as the daemon does, then opening
    // the line for every byte.
    std::string script = "exec 3>/dev/pcie_rst 4>/dev/pcie_pwr; ";
    for (int i = 0; i < 20; ++i)
        script += "printf 1 >&3; printf 0 >&4; printf 0 >&3; printf 1 >&4; ";
    for (int i = 0; i < 20; ++i)
        script += "printf 1 >/dev/pcie_rst; printf 0 >/dev/pcie_pwr; printf 1 >/dev/pcie_pwr; printf 0 >/dev/pcie_rst; ";
    run_script(board, script);
    std::string got;
    for (const line_write &w : board.lines())
        got += w.line + w.value + " ";
    std::string expected;
    for (int i = 0; i < 20; ++i)
        expected += "rst1 pwr0 rst0 pwr1 ";
    for (int i = 0; i < 20; ++i)
        expected += "rst1 pwr0 pwr1 rst0 ";
    EXPECT_EQ(got, expected);
}

TEST(SimBoardTest, AtPortRelaysRawBytesBothWaysAndKeepsWhatCameEarly) {
    SKIP_WITHOUT_BOARD();
    board_config relay;
    relay.relay_modem = true;
    sim_board board(relay);
    ASSERT_TRUE(board.start({"/bin/sh", "-c",
                             "printf 'AT+CSQ\\r\\n' >/dev/ttyUSB1; echo sent; head -c 13 </dev/ttyUSB1"}));
    // The command writes before anyone plays the module; nothing may be lost.
    ASSERT_TRUE(board.wait_for_stdout("sent\n", WAIT));
    modem_port modem = board.connect_modem();
    ASSERT_TRUE(modem.connected());
    ASSERT_TRUE(modem.wait_for("AT+CSQ\r\n", WAIT)) << modem.received();
    ASSERT_TRUE(modem.send("+CSQ: 20,99\r\n"));
    EXPECT_EQ(board.wait_exit(WAIT), 0);
    EXPECT_EQ(modem.received(), "AT+CSQ\r\n"); // no \r\n translation on the way out
    EXPECT_EQ(board.stdout_text(), "sent\n+CSQ: 20,99\r\n"); // nor on the way in
}

TEST(SimBoardTest, UnplugRemovesTheModuleAndHangsUpItsPort) {
    SKIP_WITHOUT_BOARD();
    board_config relay = board_for("ec20");
    relay.relay_modem = true;
    sim_board board(relay);
    // Holds the port open across the unplug, then waits for the module to return.
    ASSERT_TRUE(board.start({"/bin/sh", "-c", R"(
exec 3<>/dev/ttyUSB2
echo open
while [ -e /dev/ttyUSB2 ]; do sleep 0.01; done
echo gone $(ls /sys/bus/usb/devices | tr '\n' ' ')
cat <&3 >/dev/null; echo hangup $?
while [ ! -e /sys/bus/usb/devices/1-1 ]; do sleep 0.01; done
echo back $(ls /sys/bus/usb/devices/1-1/1-1:1.2 | grep tty) $(cat /sys/bus/usb/devices/1-1/idProduct)
printf 'ATI\r' >/dev/ttyUSB2
)"}));
    ASSERT_TRUE(board.wait_for_stdout("open\n", WAIT));
    modem_port first = board.connect_modem();
    ASSERT_TRUE(first.connected());
    EXPECT_TRUE(board.unplug());
    EXPECT_TRUE(first.wait_closed(WAIT)); // whoever played the module is told
    ASSERT_TRUE(board.wait_for_stdout("hangup", WAIT)) << board.stdout_text();
    EXPECT_NE(board.stdout_text().find("gone 1-0:1.0 1-2 1-2:1.0 usb1\n"), std::string::npos)
        << board.stdout_text();
    EXPECT_EQ(board.control("unplug").rfind("ok unplugged", 0), 0u); // twice is harmless

    EXPECT_TRUE(board.plug());
    EXPECT_EQ(board.control("plug").rfind("error", 0), 0u);
    modem_port second = board.connect_modem();
    ASSERT_TRUE(second.wait_for("ATI\r", WAIT)) << board.stdout_text();
    EXPECT_EQ(board.wait_exit(WAIT), 0);
    EXPECT_NE(board.stdout_text().find("back ttyUSB2 0125\n"), std::string::npos) << board.stdout_text();
    std::vector<std::string> plugs;
    for (const board_event &e : board.events()) {
        if (e.text.rfind("plugged", 0) == 0 || e.text == "unplugged")
            plugs.push_back(e.text.substr(0, e.text.find(' ')));
    }
    EXPECT_EQ(plugs, (std::vector<std::string>{"plugged", "unplugged", "plugged"}));
}

TEST(SimBoardTest, PowerLineCanUnplugAndReplugTheModule) {
    SKIP_WITHOUT_BOARD();
    board_config config;
    config.power_replug_ms = 300;
    sim_board board(config);
    run_script(board, R"(
printf 0 >/dev/pcie_pwr
while [ -e /dev/ttyUSB1 ]; do sleep 0.01; done
printf 1 >/dev/pcie_pwr
while [ ! -e /dev/ttyUSB1 ]; do sleep 0.01; done
echo back
)");
    EXPECT_EQ(board.stdout_text(), "back\n");
    long long unplugged = -1, replugged = -1;
    for (const board_event &e : board.events()) {
        if (e.text == "unplugged")
            unplugged = e.ms;
        else if (e.text.rfind("plugged", 0) == 0 && unplugged >= 0)
            replugged = e.ms;
    }
    std::vector<line_write> lines = board.lines();
    ASSERT_EQ(lines.size(), 2u);
    ASSERT_GE(unplugged, 0);
    EXPECT_GE(replugged - lines[1].ms, 300); // not before the delay after power "1"
}

TEST(SimBoardTest, FakeCommandsRecordAndKillallStopsOnlyExactProgramNames) {
    SKIP_WITHOUT_BOARD();
    board_config config;
    config.spawn = {{"/usr/bin/dialer", "-s", "apn"}, {"/usr/bin/dialerd"}, {"sh", "-c", "dialer"}};
    sim_board board(config);
    std::string out = run_script(board, "modprobe option; killall dialer; echo $?; "
                                        "busybox udhcpc -f -n -q -i usb0; ifconfig usb0 down; "
                                        "for p in /proc/[0-9]*; do tr '\\0' ' ' <$p/cmdline; echo; done | "
                                        "grep -e '^/usr/bin/dialer' -e '^sh -c dialer '");
    EXPECT_EQ(out, "0\n/usr/bin/dialerd \nsh -c dialer \n");
    std::vector<std::string> calls;
    for (const command_call &c : board.calls())
        calls.push_back(c.text);
    EXPECT_EQ(calls, (std::vector<std::string>{"modprobe option", "killall dialer",
                                               "busybox udhcpc -f -n -q -i usb0", "ifconfig usb0 down"}));
    int ended = 0, alive = 0;
    for (const board_event &e : board.events()) {
        ended += e.text.rfind("spawn ended", 0) == 0 && e.text.find(" signal 15") != std::string::npos;
        alive += e.text.rfind("spawn alive", 0) == 0;
    }
    EXPECT_EQ(ended, 1);
    EXPECT_EQ(alive, 2);
}

TEST(SimBoardTest, ExitStatusIsTheCommandsAndIsRecorded) {
    SKIP_WITHOUT_BOARD();
    sim_board exits(board_for("none"));
    run_script(exits, "echo out; echo err >&2; exit 3", 3);
    EXPECT_EQ(exits.exit_file(), "3\n");
    EXPECT_EQ(exits.stdout_text(), "out\n");
    EXPECT_EQ(exits.stderr_text(), "err\n");

    sim_board killed(board_for("none"));
    run_script(killed, "kill -9 $$", 128 + SIGKILL);
    EXPECT_EQ(killed.exit_file(), "137\n");

    sim_board missing(board_for("none"));
    ASSERT_TRUE(missing.start({"/nonexistent/program"}));
    EXPECT_EQ(missing.wait_exit(WAIT), 127);
    EXPECT_NE(missing.stderr_text().find("/nonexistent/program"), std::string::npos);
}

// Host processes whose command line (NUL-separated words) begins with `start`.
int host_processes_with(const std::string &start) {
    int found = 0;
    DIR *proc = opendir("/proc");
    while (dirent *e = proc ? readdir(proc) : nullptr) {
        std::ifstream in(std::string("/proc/") + e->d_name + "/cmdline", std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        found += s.str().rfind(start, 0) == 0;
    }
    if (proc)
        closedir(proc);
    return found;
}

// The host's mounts on the points the board mounts on (other work on the
// machine may mount elsewhere meanwhile).
std::vector<std::string> host_board_mounts() {
    std::vector<std::string> out;
    std::ifstream in("/proc/self/mountinfo");
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string id, parent, dev, root, point;
        fields >> id >> parent >> dev >> root >> point;
        for (const char *board_point : {"/sys/bus", "/sys/devices/platform", "/dev", "/dev/pts", "/etc", "/run", "/proc"}) {
            if (point == board_point)
                out.push_back(line);
        }
    }
    return out;
}

TEST(SimBoardTest, StoppingTheBoardLeavesNothingOnTheHost) {
    SKIP_WITHOUT_BOARD();
    const std::vector<std::string> before = host_board_mounts();
    for (int sig : {SIGTERM, SIGKILL}) {
        const std::string marker = "/opt/zolvin-left-behind-" + std::to_string(getpid()) + "-" + std::to_string(sig);
        board_config config;
        config.spawn = {{marker}};
        sim_board board(config);
        // Unique, as other boards may run on the machine meanwhile.
        const std::string sleeper = "3599." + std::to_string(getpid()) + std::to_string(sig);
        ASSERT_TRUE(board.start({"/bin/sh", "-c", "echo up; exec sleep " + sleeper}));
        ASSERT_TRUE(board.wait_for_stdout("up\n", WAIT));
        EXPECT_EQ(host_processes_with(marker), 1);
        EXPECT_EQ(host_board_mounts(), before); // the board's mounts never show on the host
        kill(board.pid(), sig);
        EXPECT_EQ(board.wait_exit(WAIT), 128 + sig);
        // SIGKILL leaves the board no time: the namespace goes with its process 1.
        for (int i = 0; i < 1000 && host_processes_with(marker) > 0; ++i)
            usleep(5000);
        EXPECT_EQ(host_processes_with(marker), 0) << sig;
        EXPECT_EQ(host_processes_with(std::string("sleep\0", 6) + sleeper), 0);
        if (sig == SIGTERM) {
            EXPECT_EQ(board.exit_file(), "143\n");
        }
    }
    EXPECT_EQ(host_board_mounts(), before);
}

} // namespace
