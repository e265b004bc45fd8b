#include "at/serial.h"
#include "core/daemon_state.h"
#include "support/at_port.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>

namespace {

// The pty's slave stands for the module's ttyUSB node, opened by serial_open
// while its line settings are still the cooked defaults.
TEST(SerialTest, OpensRawAt115200WithNoFlowControlAndMovesBytesUntranslated) {
    at_port port;
    int fd = state().at_fd.load();
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    termios t;
    ASSERT_EQ(tcgetattr(fd, &t), 0);
    EXPECT_EQ(cfgetispeed(&t), B115200);
    EXPECT_EQ(cfgetospeed(&t), B115200);
    EXPECT_EQ(t.c_cflag & (CSIZE | PARENB | CSTOPB | CRTSCTS), static_cast<tcflag_t>(CS8));
    EXPECT_EQ(t.c_iflag & (IXON | IXOFF | ICRNL | INLCR), 0u);
    EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ISIG), 0u);
    EXPECT_EQ(t.c_oflag & OPOST, 0u);

    // CR LF pass untranslated both ways.
    EXPECT_EQ(serial_write(fd, "AT+CSQ\r\n", 8), 8);
    EXPECT_EQ(port.module_reads("\n", 2000), "AT+CSQ\r\n");
    port.module_says("\r\nOK\r\n");
    EXPECT_EQ(read_until(fd, "\r\nOK\r\n", 2000), "\r\nOK\r\n");
}

} // namespace
