#include "module/module.h"

#include "core/log.h"

#include <unistd.h>

void control_line_write(int line, char value) {
    ssize_t ignored = write(line, &value, 1);
    (void)ignored;
}

void module_power_cycle(int power_line, int reset_line) {
    control_line_write(reset_line, '1');
    sleep_for(1, 0);
    control_line_write(power_line, '0');
    sleep_for(5, 0);
    control_line_write(reset_line, '0');
    control_line_write(power_line, '1');
}
