// The board's USB side: the sysfs tree a scan of /sys/bus/usb/devices finds,
// and the module's AT port as a pty whose slave is /dev/<tty>.
#pragma once

#include "board_options.h"
#include "modem_side.h"

#include <string>

class usb_board {
public:
    usb_board(const board_options &options, modem_side &modem, std::string event_log);
    ~usb_board();
    usb_board(const usb_board &) = delete;
    usb_board &operator=(const usb_board &) = delete;

    // The host controller, its root hub and a device that is not a module.
    bool build_fixed_devices(std::string *error);
    // The module enumerates: device and interface directories, then /dev/<tty>.
    bool plug(std::string *error);
    // The module drops off the bus: /dev/<tty> and its sysfs entries vanish and
    // whoever holds the port sees a hang-up.
    bool unplug(std::string *error);

    // Waits, at most `timeout_ms`, until whoever holds the port has read what
    // the module sent: a module that reboots right after its last line must not
    // lose that line only because a loaded machine ran the reader late.
    void wait_port_read(long long timeout_ms) const;

    bool has_module() const { return family_ != nullptr; }
    bool plugged() const { return master_ >= 0; }
    std::string status() const;

private:
    std::string module_dir() const;
    std::string interface_name(int number) const;

    const board_options &options_;
    const family_layout *family_;
    modem_side &modem_;
    std::string event_log_;
    int master_ = -1;
    int slave_ = -1;
    std::string slave_path_;
};

// Where the board's USB tree lives; /sys/bus/usb/devices holds links into it.
constexpr const char *USB_LINK_DIR = "/sys/bus/usb/devices";
constexpr const char *USB_CONTROLLER_DIR = "/sys/devices/platform/ehci-platform";
