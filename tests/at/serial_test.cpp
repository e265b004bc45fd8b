#include "at/serial.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <time.h>
#include <unistd.h>

namespace {

long now_ms() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000 + t.tv_nsec / 1000000;
}

// A pty pair: the slave stands for the module's ttyUSB node.
class SerialTest : public testing::Test {
protected:
    void SetUp() override {
        master = posix_openpt(O_RDWR | O_NOCTTY);
        ASSERT_GE(master, 0);
        ASSERT_EQ(grantpt(master), 0);
        ASSERT_EQ(unlockpt(master), 0);
        slave_path = ptsname(master);
    }
    void TearDown() override {
        if (master >= 0)
            close(master);
        if (fd.load() >= 0)
            close(fd.load());
    }

    int master = -1;
    std::string slave_path;
    std::atomic<int32_t> fd{-1};
};

TEST_F(SerialTest, OpensRawAndMovesBytesBothWays) {
    ASSERT_EQ(serial_open(&fd, slave_path.c_str()), 0);
    ASSERT_GE(fd.load(), 0);
    EXPECT_TRUE(fcntl(fd.load(), F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(fcntl(fd.load(), F_GETFL) & O_NONBLOCK);

    termios t;
    ASSERT_EQ(tcgetattr(fd.load(), &t), 0);
    EXPECT_EQ(cfgetispeed(&t), B115200);
    EXPECT_EQ(t.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(t.c_lflag & ICANON, 0u);
    EXPECT_EQ(t.c_oflag & OPOST, 0u);

    // Raw mode: CR LF pass untranslated in both directions.
    const char cmd[] = "AT+CSQ\r\n";
    EXPECT_EQ(serial_write(fd.load(), cmd, 8), 8);
    char buf[64] = {};
    ssize_t n = read(master, buf, sizeof buf);
    EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), "AT+CSQ\r\n");

    ASSERT_EQ(write(master, "\r\nOK\r\n", 6), 6);
    std::string got;
    long deadline = now_ms() + 2000;
    while (got.size() < 6 && now_ms() < deadline) {
        int r = serial_read(fd.load(), buf, 100);
        if (r > 0)
            got.append(buf, static_cast<size_t>(r));
    }
    EXPECT_EQ(got, "\r\nOK\r\n");

    // Reads are bounded by the maximum given.
    ASSERT_EQ(write(master, "0123456789", 10), 10);
    int r = -1;
    deadline = now_ms() + 2000;
    while (r <= 0 && now_ms() < deadline)
        r = serial_read(fd.load(), buf, 4);
    EXPECT_EQ(r, 4);
    EXPECT_EQ(std::string(buf, 4), "0123");
}

TEST_F(SerialTest, ReadWaitsAboutTwentyMillisecondsForSilence) {
    ASSERT_EQ(serial_open(&fd, slave_path.c_str()), 0);
    char buf[16];
    long start = now_ms();
    EXPECT_EQ(serial_read(fd.load(), buf, sizeof buf), -1);
    long took = now_ms() - start;
    EXPECT_GE(took, 15);
    EXPECT_LT(took, 500);
}

TEST_F(SerialTest, ReadReturnsZeroAtEndOfFile) {
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    close(pipefd[1]);
    char buf[16];
    EXPECT_EQ(serial_read(pipefd[0], buf, sizeof buf), 0);
    close(pipefd[0]);
}

TEST_F(SerialTest, MissingNodeLeavesDescriptorUntouched) {
    EXPECT_EQ(serial_open(&fd, "/dev/ttyUSB_missing_42"), -1);
    EXPECT_EQ(fd.load(), -1);
}

TEST_F(SerialTest, WriteFailuresReturnMinusOne) {
    ASSERT_EQ(serial_open(&fd, slave_path.c_str()), 0);
    EXPECT_EQ(serial_write(fd.load(), "", 0), 0);
    EXPECT_EQ(serial_write(-1, "AT\r\n", 4), -1);
    int closed = dup(fd.load());
    close(closed);
    EXPECT_EQ(serial_write(closed, "AT\r\n", 4), -1);
    EXPECT_EQ(serial_read(-1, nullptr, 0), -1);
}

TEST(SerialSettingsTest, TermiosFollowsTheSettings) {
    EXPECT_EQ(baud_to_speed(230400), B9600);
    EXPECT_EQ(baud_to_speed(0), B9600);
    EXPECT_EQ(baud_to_speed(2400), B2400);
    EXPECT_EQ(baud_to_speed(57600), B57600);

    termios t = serial_termios({9600, '7', '1', '1', '2'});
    EXPECT_EQ(t.c_cflag & CSIZE, static_cast<tcflag_t>(CS7));
    EXPECT_TRUE(t.c_cflag & CRTSCTS);
    EXPECT_TRUE(t.c_cflag & PARENB);
    EXPECT_TRUE(t.c_cflag & PARODD);
    EXPECT_TRUE(t.c_iflag & INPCK);
    EXPECT_TRUE(t.c_cflag & CSTOPB);
    EXPECT_TRUE(t.c_cflag & CLOCAL);
    EXPECT_TRUE(t.c_cflag & CREAD);
    EXPECT_EQ(t.c_cc[VMIN], 1);
    EXPECT_EQ(t.c_cc[VTIME], 1);

    t = serial_termios({115200, '5', '2', '2', '1'});
    EXPECT_EQ(t.c_cflag & CSIZE, static_cast<tcflag_t>(CS5));
    EXPECT_EQ(t.c_iflag & (IXON | IXOFF | IXANY), static_cast<tcflag_t>(IXON | IXOFF | IXANY));
    EXPECT_TRUE(t.c_cflag & PARENB);
    EXPECT_FALSE(t.c_cflag & PARODD);
    EXPECT_FALSE(t.c_cflag & CSTOPB);

    t = serial_termios({115200, 'x', '9', '9', '9'});
    EXPECT_EQ(t.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_FALSE(t.c_cflag & PARENB);
    EXPECT_FALSE(t.c_cflag & CRTSCTS);
    EXPECT_EQ(cfgetospeed(&t), B115200);
}

} // namespace
