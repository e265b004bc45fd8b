#include "core/daemon_state.h"
#include "module/module.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

// A sysfs USB device tree as the kernel lays it out.
class DiscoveryTest : public testing::Test {
protected:
    void SetUp() override {
        daemon_state_reset();
        state().module_type = 7; // a value no scan writes, to see whether one did
        paths.usb_devices = sys.path().c_str();
        // A root hub and an unrelated device that the scan must pass over.
        sys.write("usb1/idVendor", "1d6b\n");
        sys.write("usb1/idProduct", "0002\n");
        sys.mkdir("1-0:1.0");
        sys.write("2-1/idVendor", "0bda\n");
        sys.write("2-1/idProduct", "8153\n");
    }
    void TearDown() override { daemon_state_reset(); }

    void device(const std::string &dev, const std::string &vid, const std::string &pid) {
        sys.write(dev + "/idVendor", vid + "\n");
        sys.write(dev + "/idProduct", pid + "\n");
    }
    void tty(const std::string &dev, int ifnum, const std::string &name) {
        sys.mkdir(dev + "/" + dev + ":1." + std::to_string(ifnum) + "/" + name);
    }
    void net(const std::string &dev, int ifnum, const std::string &name) {
        sys.mkdir(dev + "/" + dev + ":1." + std::to_string(ifnum) + "/net/" + name);
    }

    temp_dir sys;
    module_paths paths;
    char at[MODULE_NAME_SIZE] = {};
    char ifname[MODULE_NAME_SIZE] = {};
};

TEST_F(DiscoveryTest, FindsEachFamilyWithItsInterfaces) {
    device("1-1", "2c7c", "0125");
    tty("1-1", 2, "ttyUSB2");
    net("1-1", 4, "wwan0");
    ASSERT_EQ(module_discover(paths, at, ifname), 0);
    EXPECT_EQ(state().module_type, MODULE_EC20);
    EXPECT_STREQ(at, "ttyUSB2");
    EXPECT_STREQ(ifname, "wwan0");
    EXPECT_EQ(module_probe_type(paths), MODULE_EC20);

    temp_dir other;
    paths.usb_devices = other.path().c_str();
    other.write("3-2/idVendor", "2C7C\n"); // upper case ids match too
    other.write("3-2/idProduct", "6002\n");
    other.mkdir("3-2/3-2:1.3/ttyUSB1");
    other.mkdir("3-2/3-2:1.0/net/.hidden");
    other.mkdir("3-2/3-2:1.0/net/usb0");
    ASSERT_EQ(module_discover(paths, at, ifname), 0);
    EXPECT_EQ(state().module_type, MODULE_EC200S);
    EXPECT_STREQ(at, "ttyUSB1");
    EXPECT_STREQ(ifname, "usb0");
}

TEST_F(DiscoveryTest, NetDirectoryMissingSkipsTheDeviceForDiscoveryOnly) {
    device("1-1", "2c7c", "6026");
    tty("1-1", 3, "ttyUSB3");
    strcpy(at, "old");
    EXPECT_EQ(module_discover(paths, at, ifname), -1);
    EXPECT_STREQ(at, "old"); // nothing copied out on failure
    EXPECT_EQ(module_find_at_port(paths, at), 0);
    EXPECT_STREQ(at, "ttyUSB3");
    EXPECT_EQ(state().module_type, MODULE_EC200T);
}

TEST_F(DiscoveryTest, OneNameFoundStopsTheScanWithFailure) {
    // A module whose AT interface has no tty but whose network interface exists.
    temp_dir single;
    paths.usb_devices = single.path().c_str();
    single.write("1-1/idVendor", "2c7c");
    single.write("1-1/idProduct", "6026");
    single.mkdir("1-1/1-1:1.3");
    single.mkdir("1-1/1-1:1.0/net/usb0");
    EXPECT_EQ(module_discover(paths, at, ifname), -1);
    EXPECT_EQ(module_find_at_port(paths, at), -1);
    EXPECT_EQ(module_probe_type(paths), MODULE_EC200T);
}

TEST_F(DiscoveryTest, NoSupportedModuleLeavesTheTypeAlone) {
    EXPECT_EQ(module_discover(paths, at, ifname), -1);
    EXPECT_EQ(module_find_at_port(paths, at), -1);
    EXPECT_EQ(module_probe_type(paths), -1);
    device("1-1", "2c7c", "0126"); // a near miss
    EXPECT_EQ(module_probe_type(paths), -1);
    EXPECT_EQ(state().module_type, 7);
    paths.usb_devices = "/nonexistent/usb/devices";
    EXPECT_EQ(module_discover(paths, at, ifname), -1);
    EXPECT_EQ(module_find_at_port(paths, at), -1);
    EXPECT_EQ(module_probe_type(paths), -1);
}

TEST_F(DiscoveryTest, NamesLongerThanFifteenAreNotFound) {
    device("1-1", "2c7c", "0125");
    tty("1-1", 2, "ttyUSB2");
    net("1-1", 4, "wwp0s20f0u1i4abc"); // 16 characters
    EXPECT_EQ(module_discover(paths, at, ifname), -1);
    net("1-1", 4, "wwp0s20f0u1i4ab"); // 15 fit
    ASSERT_EQ(module_discover(paths, at, ifname), 0);
    EXPECT_STREQ(ifname, "wwp0s20f0u1i4ab");
}

TEST_F(DiscoveryTest, BringUpOpensThePortAndPreparesTheCommands) {
    device("1-1", "2c7c", "6026");
    tty("1-1", 3, "ttyUSB3");
    net("1-1", 0, "usb0");
    temp_dir dev;
    paths.dev_dir = dev.path().c_str();
    std::atomic<int32_t> fd{-1};

    // The port is listed on the bus but has no node: the bring-up gives up.
    testing::internal::CaptureStdout();
    EXPECT_EQ(module_bring_up(paths, &fd, -1, -1), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Open at port failed!\n");
    EXPECT_EQ(fd.load(), -1);

    int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    ASSERT_EQ(symlink(ptsname(master), (dev.path() + "/ttyUSB3").c_str()), 0);
    ASSERT_EQ(module_bring_up(paths, &fd, -1, -1), 0);
    EXPECT_GE(fd.load(), 0);
    EXPECT_STREQ(state().net_if_name, "usb0");
    EXPECT_STREQ(state().ifdown_cmd, "ifconfig usb0 down");
    EXPECT_EQ(std::string(state().at_port_path), dev.path() + "/ttyUSB3");
    close(fd.load());
    close(master);
}

TEST(PowerCycleTest, WritesTheSequenceWithItsGaps) {
    int pwr[2], rst[2];
    ASSERT_EQ(pipe(pwr), 0);
    ASSERT_EQ(pipe(rst), 0);
    timespec a, b;
    clock_gettime(CLOCK_MONOTONIC, &a);
    module_power_cycle(pwr[1], rst[1]);
    clock_gettime(CLOCK_MONOTONIC, &b);
    char buf[8] = {};
    EXPECT_EQ(read(rst[0], buf, sizeof buf), 2);
    EXPECT_EQ(std::string(buf, 2), "10");
    EXPECT_EQ(read(pwr[0], buf, sizeof buf), 2);
    EXPECT_EQ(std::string(buf, 2), "01");
    long ms = (b.tv_sec - a.tv_sec) * 1000 + (b.tv_nsec - a.tv_nsec) / 1000000;
    EXPECT_GE(ms, 6000);
    EXPECT_LT(ms, 7000);
    for (int fd : {pwr[0], pwr[1], rst[0], rst[1]})
        close(fd);
}

} // namespace
