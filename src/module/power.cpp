#include "module/module.h"

#include "at/serial.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/stats.h"
#include "core/text.h"

#include <cstdio>
#include <unistd.h>

void control_line_write(int line, char value) {
    ssize_t ignored = write(line, &value, 1);
    (void)ignored;
}

const power_cycle_step POWER_CYCLE[POWER_CYCLE_STEPS] = {
    {power_cycle_step::reset, '1', 1000},
    {power_cycle_step::power, '0', 5000},
    {power_cycle_step::reset, '0', 0},
    {power_cycle_step::power, '1', 0},
};

void power_cycle_write(const power_cycle_step &step, int power_line, int reset_line) {
    // Counted by its first write, whoever runs the sequence.
    if (&step == &POWER_CYCLE[0])
        stat_add(stat_counter::resets);
    control_line_write(step.line == power_cycle_step::power ? power_line : reset_line, step.value);
}

void module_power_cycle(int power_line, int reset_line) {
    for (const power_cycle_step &step : POWER_CYCLE) {
        power_cycle_write(step, power_line, reset_line);
        if (step.then_ms > 0)
            sleep_for(static_cast<uint32_t>(step.then_ms / 1000), 0);
    }
}

bool module_open_port(const module_paths &paths, const char *at_name, std::atomic<int32_t> *at_fd) {
    char device[TEXT_FIELD_SIZE];
    text_format(device, sizeof device, "%s/%s", paths.dev_dir, at_name);
    sleep_for(0, 100000); // the node follows the bus entry
    if (serial_open(at_fd, device) == -1) {
        puts("Open at port failed!");
        return false;
    }
    text_set(state().at_port_path, device);
    return true;
}

module_open_result module_try_open(const module_paths &paths, std::atomic<int32_t> *at_fd) {
    daemon_state &s = state();
    char at_name[MODULE_NAME_SIZE] = {};
    char net_name[MODULE_NAME_SIZE] = {};
    if (module_discover(paths, at_name, net_name) != 0)
        return module_open_result::absent;
    text_set(s.net_if_name, net_name);
    text_format(s.ifdown_cmd, sizeof s.ifdown_cmd, "ifconfig %s down", s.net_if_name);
    return module_open_port(paths, at_name, at_fd) ? module_open_result::opened
                                                   : module_open_result::failed;
}

int module_bring_up(const module_paths &paths, std::atomic<int32_t> *at_fd, int power_line,
                    int reset_line) {
    int misses = 0;
    for (;;) {
        switch (module_try_open(paths, at_fd)) {
        case module_open_result::opened:
            return 0;
        case module_open_result::failed:
            return -1;
        case module_open_result::absent:
            break;
        }
        if (++misses == BRING_UP_MISSES) {
            log_printf("4G module work incorrect,begin to reset!\n");
            misses = 0;
            module_power_cycle(power_line, reset_line);
            sleep_for(20, 0);
        } else {
            sleep_for(1, 0);
        }
    }
}
