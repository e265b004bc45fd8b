// Module hardware: recognising the module on the USB bus (by the USB ids and
// interface numbers of its family's row, core/family.h), the board's power
// and reset lines of the module, and the bring-up that waits for the module
// and opens its AT port.
#pragma once

#include "core/family.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

constexpr const char *POWER_LINE_PATH = "/dev/pcie_pwr";
constexpr const char *RESET_LINE_PATH = "/dev/pcie_rst";
constexpr const char *USB_DEVICES_PATH = "/sys/bus/usb/devices";

// Interface and tty names up to the kernel's 15 characters; longer ones are not found.
constexpr size_t MODULE_NAME_SIZE = 16;

// Where the module is looked for; the daemon uses the real paths.
struct module_paths {
    const char *usb_devices = USB_DEVICES_PATH;
    const char *dev_dir = "/dev";
};

// Full discovery: the AT port's tty name and the network interface name, both
// needed for 0. Sets the state's `family` and logs what it finds.
int module_discover(const module_paths &paths, char (&at_port)[MODULE_NAME_SIZE],
                    char (&net_if)[MODULE_NAME_SIZE]);
// The AT port alone (the module back after a firmware download). Sets `family`.
int module_find_at_port(const module_paths &paths, char (&at_port)[MODULE_NAME_SIZE]);
// The family of the supported module present (the last one wins), or null.
// Leaves the state's `family` alone.
const module_family *module_probe_family(const module_paths &paths);

// One ASCII digit to a control line; the board gives no answer worth checking.
void control_line_write(int line, char value);

// The power cycle: hold reset, power off, release reset, power on, with the
// module's own pauses after the first two writes.
struct power_cycle_step {
    enum { power, reset } line;
    char value;
    int64_t then_ms; // the pause before the next write
};
constexpr int POWER_CYCLE_STEPS = 4;
extern const power_cycle_step POWER_CYCLE[POWER_CYCLE_STEPS];
void power_cycle_write(const power_cycle_step &step, int power_line, int reset_line);

// The whole power cycle in one go: reset "1"; 1 s; power "0"; 5 s; reset "0"; power "1".
void module_power_cycle(int power_line, int reset_line);

// Discovery misses, 1 s apart, before the bring-up power-cycles the module.
constexpr int BRING_UP_MISSES = 30;

// Opens the AT port `at_name` under paths.dev_dir into `at_fd` (its node
// follows the bus entry by up to 100 ms) and sets at_port_path; false after
// "Open at port failed!".
bool module_open_port(const module_paths &paths, const char *at_name, std::atomic<int32_t> *at_fd);

// One look for the module: when it is there, its AT port is opened into
// `at_fd` and net_if_name, ifdown_cmd and at_port_path are set.
enum class module_open_result { opened, absent, failed };
// `failed` after "Open at port failed!".
module_open_result module_try_open(const module_paths &paths, std::atomic<int32_t> *at_fd);

// Waits for a supported module (power-cycling it after every 30 misses), then
// opens its AT port into `at_fd`. Sets net_if_name, ifdown_cmd, at_port_path.
// -1 after "Open at port failed!" when the port cannot be opened.
int module_bring_up(const module_paths &paths, std::atomic<int32_t> *at_fd, int power_line,
                    int reset_line);
