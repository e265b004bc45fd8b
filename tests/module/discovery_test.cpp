#include "module/module.h"
#include "support/test_support.h"

namespace {

// A sysfs USB device tree as the kernel lays it out, with the module at 1-1
// ("vendor:product") and its `dirs`. Each tree also holds a root hub, one of
// its interfaces and an unrelated device that a scan must pass over.
void lay_out(const temp_dir &sys, const std::string &ids, const std::vector<std::string> &dirs) {
    for (const std::string &d : dirs)
        sys.mkdir(d);
    const std::pair<std::string, std::string> files[] = {
        {"1-1/idVendor", ids.substr(0, 4)}, {"1-1/idProduct", ids.substr(5)},
        {"usb1/idVendor", "1d6b"}, {"usb1/idProduct", "0002"}, {"2-1/idVendor", "0bda"},
        {"2-1/idProduct", "8153"}};
    for (const auto &[path, content] : files)
        sys.write(path, content + "\n");
    sys.mkdir("1-0:1.0");
}

TEST(DiscoveryTest, UsbLayouts) {
    const struct {
        std::string ids; // "" for no device tree at all
        std::vector<std::string> dirs;
        int discovered; // module_discover: both names or nothing
        const char *at, *net;
        int at_found; // module_find_at_port: the AT port alone
        const char *at_alone;
        std::string probed; // module_probe_family ("" none), also the state's family at the end
    } cases[] = {
        {"2c7c:0125", {"1-1/1-1:1.2/ttyUSB2", "1-1/1-1:1.4/net/wwan0"}, 0, "ttyUSB2", "wwan0", 0,
         "ttyUSB2", "EC20"},
        // No network directory: discovery skips the device, the AT port alone is found.
        {"2c7c:6026", {"1-1/1-1:1.3/ttyUSB3"}, -1, "old", "old", 0, "ttyUSB3", "EC200T"},
        // The network interface without a tty: one name found still fails.
        {"2c7c:6026", {"1-1/1-1:1.3", "1-1/1-1:1.0/net/usb0"}, -1, "old", "old", -1,
         "old", "EC200T"},
        {"2c7c:0125", {"1-1/1-1:1.2/ttyUSB2", "1-1/1-1:1.4/net/wwp0s20f0u1i4abc"}, -1,
         "old", "old", 0, "ttyUSB2", "EC20"}, // 16 characters are too many
        {"2c7c:0126", {"1-1/1-1:1.2/ttyUSB2"}, -1, "old", "old", -1, "old", ""},
        {"", {}, -1, "old", "old", -1, "old", ""}, // no device tree at all
    };
    auto name = [](const module_family *f) { return std::string(f != nullptr ? f->name : ""); };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "row " << (&c - cases));
        fresh_state fresh;
        temp_dir sys;
        if (!c.ids.empty())
            lay_out(sys, c.ids, c.dirs);
        module_paths paths;
        paths.usb_devices = c.ids.empty() ? "/nonexistent/usb/devices" : sys.path().c_str();
        char at[MODULE_NAME_SIZE] = "old", net[MODULE_NAME_SIZE] = "old";
        state().family = nullptr; // no scan writes it, to see whether one did
        EXPECT_EQ(module_discover(paths, at, net), c.discovered);
        EXPECT_STREQ(at, c.at);
        EXPECT_STREQ(net, c.net);
        char alone[MODULE_NAME_SIZE] = "old";
        EXPECT_EQ(module_find_at_port(paths, alone), c.at_found);
        EXPECT_STREQ(alone, c.at_alone);
        EXPECT_EQ(name(module_probe_family(paths)), c.probed);
        EXPECT_EQ(name(state().family.load()), c.probed);
    }
}

// The port is listed on the bus but has no device node: the bring-up gives up.
TEST(DiscoveryTest, BringUpWithoutThePortNodeFails) {
    fresh_state fresh;
    temp_dir sys, dev;
    lay_out(sys, "2c7c:6026", {"1-1/1-1:1.3/ttyUSB3", "1-1/1-1:1.0/net/usb0"});
    module_paths paths;
    paths.usb_devices = sys.path().c_str();
    paths.dev_dir = dev.path().c_str();
    std::atomic<int32_t> fd{-1};
    testing::internal::CaptureStdout();
    EXPECT_EQ(module_bring_up(paths, &fd, -1, -1), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Open at port failed!\n");
    EXPECT_EQ(fd.load(), -1);
}

} // namespace
