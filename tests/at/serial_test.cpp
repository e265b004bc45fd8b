#include "at/serial.h"
#include "core/daemon_state.h"
#include "support/at_port.h"

#include <gtest/gtest.h>

#include <fcntl.h>

namespace {

// The pty's slave stands for the module's ttyUSB node, opened by serial_open
// while its line settings are still the cooked defaults.
TEST(SerialTest, OpensRawAt115200WithNoFlowControl) {
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
}

} // namespace
