// The simulated board's command line and the module families it can carry.
#pragma once

#include <string>
#include <utility>
#include <vector>

// How a module family enumerates on USB: its ids, which interfaces carry a
// serial port, which one is the AT port and which one carries the network
// interface.
struct family_layout {
    const char *name;
    const char *model;
    const char *vendor_id;
    const char *product_id;
    int interface_count;
    std::vector<int> serial_interfaces;
    int at_interface;
    int net_interface;
    const char *default_tty;
    const char *default_ifname;
};

// nullptr for "none" and for unknown names (tell them apart with family_known).
const family_layout *find_family(const std::string &name);
bool family_known(const std::string &name);

struct board_options {
    std::string work_dir;
    std::string family = "ec200t";
    std::string tty;    // empty: the family's default
    std::string ifname; // empty: the family's default
    bool usb_upper = false;
    bool net_dir = true;
    bool power_line = true;
    bool reset_line = true;
    std::string conf_path; // empty: no configuration file on the board
    // More files in the board's /etc: the name there, the file whose content it gets.
    std::vector<std::pair<std::string, std::string>> etc_files;
    bool relay_modem = false; // the AT port relayed to a socket instead of the emulator
    int power_replug_ms = -1; // >= 0: power "0" unplugs, power "1" plugs back after this delay
    // After a firmware update's reboot the module is back on the bus this
    // much later; -1: it never comes back by itself.
    int fota_return_ms = 3000;
    bool start_unplugged = false; // the module comes on the bus only with "plug"
    std::vector<std::vector<std::string>> spawns;
    std::vector<std::string> command;
};

// Fills `out` from argv; on a usage error returns false with the reason in `error`.
bool parse_board_options(int argc, char **argv, board_options *out, std::string *error);

extern const char *const BOARD_USAGE;
