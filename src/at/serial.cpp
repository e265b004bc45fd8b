#include "at/serial.h"

#include <cerrno>

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

speed_t baud_to_speed(uint32_t baud) {
    switch (baud) {
    case 2400: return B2400;
    case 4800: return B4800;
    case 9600: return B9600;
    case 19200: return B19200;
    case 38400: return B38400;
    case 57600: return B57600;
    case 115200: return B115200;
    default: return B9600;
    }
}

termios serial_termios(const serial_settings &settings) {
    // Built from scratch: whatever the port was left with must not leak in.
    termios t;
    memset(&t, 0, sizeof t);
    cfmakeraw(&t);
    cfsetispeed(&t, baud_to_speed(settings.baud));
    cfsetospeed(&t, baud_to_speed(settings.baud));
    t.c_cflag |= CLOCAL | CREAD;

    switch (settings.flow_control) {
    case '0': t.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS); break;
    case '1': t.c_cflag |= CRTSCTS; break;
    case '2': t.c_iflag |= IXON | IXOFF | IXANY; break;
    default: break;
    }

    t.c_cflag &= ~static_cast<tcflag_t>(CSIZE);
    switch (settings.data_bits) {
    case '5': t.c_cflag |= CS5; break;
    case '6': t.c_cflag |= CS6; break;
    case '7': t.c_cflag |= CS7; break;
    default: t.c_cflag |= CS8; break;
    }

    switch (settings.parity) {
    case '0':
        t.c_cflag &= ~static_cast<tcflag_t>(PARENB);
        t.c_iflag &= ~static_cast<tcflag_t>(INPCK);
        break;
    case '1':
        t.c_cflag |= PARENB | PARODD;
        t.c_iflag |= INPCK;
        break;
    case '2':
        t.c_cflag |= PARENB;
        t.c_cflag &= ~static_cast<tcflag_t>(PARODD);
        t.c_iflag |= INPCK;
        break;
    default: break;
    }

    if (settings.stop_bits == '2')
        t.c_cflag |= CSTOPB;
    else
        t.c_cflag &= ~static_cast<tcflag_t>(CSTOPB);

    t.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    t.c_cc[VTIME] = 1;
    t.c_cc[VMIN] = 1;
    return t;
}

int serial_configure(int fd, const serial_settings &settings) {
    termios t = serial_termios(settings);
    tcflush(fd, TCIFLUSH);
    return tcsetattr(fd, TCSANOW, &t);
}

int serial_open(std::atomic<int32_t> *fd, const char *path) {
    int d = open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (d < 0)
        return -1;
    serial_configure(d, AT_PORT_SETTINGS);
    fd->store(d, std::memory_order_release);
    return 0;
}

int serial_write(int fd, const void *buf, size_t len) {
    ssize_t n = write(fd, buf, len);
    if (n >= 0 && static_cast<size_t>(n) == len)
        return static_cast<int>(len);
    int error = errno; // the caller tells a port that hung up by it
    tcflush(fd, TCOFLUSH);
    errno = error;
    return -1;
}

int serial_close(int fd) {
    close(fd);
    return 0;
}
