// The module's AT port: open and configure the ttyUSB node raw at 115200 8N1,
// one whole write, close. The receive thread reads the port itself.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <termios.h>

struct serial_settings {
    uint32_t baud;
    char data_bits;    // '5' .. '8'
    char flow_control; // '0' none, '1' RTS/CTS, '2' XON/XOFF
    char parity;       // '0' none, '1' odd, '2' even
    char stop_bits;    // '1' or '2'
};

constexpr serial_settings AT_PORT_SETTINGS = {115200, '8', '0', '0', '1'};

// Stores the descriptor through `fd` and returns 0; -1 leaves `fd` untouched.
int serial_open(std::atomic<int32_t> *fd, const char *path);
int serial_configure(int fd, const serial_settings &settings);
// Builds the termios record that serial_configure applies.
termios serial_termios(const serial_settings &settings);
speed_t baud_to_speed(uint32_t baud);
// The length when every byte left in one write, else -1 (queued output is dropped).
int serial_write(int fd, const void *buf, size_t len);
int serial_close(int fd);
