// Module hardware: the board's power and reset lines of the module, and (with
// USB discovery) finding the module and its AT port.
#pragma once

constexpr const char *POWER_LINE_PATH = "/dev/pcie_pwr";
constexpr const char *RESET_LINE_PATH = "/dev/pcie_rst";

// One ASCII digit to a control line; the board gives no answer worth checking.
void control_line_write(int line, char value);

// Hold reset, power off, release reset, power on: reset "1"; 1 s; power "0";
// 5 s; reset "0"; power "1".
void module_power_cycle(int power_line, int reset_line);
