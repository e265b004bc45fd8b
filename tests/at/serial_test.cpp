#include "at/serial.h"
#include "core/daemon_state.h"
#include "support/at_port.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

// The pty's slave stands for the module's ttyUSB node, opened by serial_open.
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

    // Nothing within the read's wait: -1, but only after the wait.
    char buf[64];
    long start = monotonic_ms();
    EXPECT_EQ(serial_read(fd, buf, sizeof buf), -1);
    EXPECT_GE(monotonic_ms() - start, 15);

    // CR LF pass untranslated both ways; a read takes no more than it is given.
    EXPECT_EQ(serial_write(fd, "AT+CSQ\r\n", 8), 8);
    EXPECT_EQ(port.module_reads("\n", 2000), "AT+CSQ\r\n");
    port.module_says("\r\nOK\r\n0123");
    std::string got;
    long deadline = monotonic_ms() + 2000;
    while (got.size() < 10 && monotonic_ms() < deadline) {
        int r = serial_read(fd, buf, 4);
        ASSERT_LE(r, 4);
        if (r > 0)
            got.append(buf, static_cast<size_t>(r));
    }
    EXPECT_EQ(got, "\r\nOK\r\n0123");
}

TEST(SerialTest, FailuresLeaveTheDescriptorAlone) {
    std::atomic<int32_t> fd{-1};
    EXPECT_EQ(serial_open(&fd, "/dev/ttyUSB_missing_42"), -1);
    EXPECT_EQ(fd.load(), -1);
    EXPECT_EQ(serial_write(-1, "AT\r\n", 4), -1);
    EXPECT_EQ(serial_read(-1, nullptr, 0), -1);
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    EXPECT_EQ(serial_write(pipefd[0], "AT\r\n", 4), -1); // a descriptor not open for writing
    EXPECT_EQ(serial_write(pipefd[1], "", 0), 0);
    close(pipefd[1]);
    char buf[16];
    EXPECT_EQ(serial_read(pipefd[0], buf, sizeof buf), 0); // end of file
    close(pipefd[0]);
}

} // namespace
