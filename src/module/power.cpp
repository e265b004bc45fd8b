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

void module_power_cycle(int power_line, int reset_line) {
    stat_add(stat_counter::resets);
    control_line_write(reset_line, '1');
    sleep_for(1, 0);
    control_line_write(power_line, '0');
    sleep_for(5, 0);
    control_line_write(reset_line, '0');
    control_line_write(power_line, '1');
}

int module_bring_up(const module_paths &paths, std::atomic<int32_t> *at_fd, int power_line,
                    int reset_line) {
    daemon_state &s = state();
    char at_name[MODULE_NAME_SIZE] = {};
    char net_name[MODULE_NAME_SIZE] = {};
    int tries = 0;
    while (module_discover(paths, at_name, net_name) != 0) {
        if (++tries == 30) {
            log_printf("4G module work incorrect,begin to reset!\n");
            tries = 0;
            module_power_cycle(power_line, reset_line);
            sleep_for(20, 0);
        } else {
            sleep_for(1, 0);
        }
    }
    char device[TEXT_FIELD_SIZE];
    text_format(device, sizeof device, "%s/%s", paths.dev_dir, at_name);
    text_set(s.net_if_name, net_name);
    text_format(s.ifdown_cmd, sizeof s.ifdown_cmd, "ifconfig %s down", s.net_if_name);
    sleep_for(0, 100000);
    if (serial_open(at_fd, device) == -1) {
        puts("Open at port failed!");
        return -1;
    }
    text_set(s.at_port_path, device);
    return 0;
}
