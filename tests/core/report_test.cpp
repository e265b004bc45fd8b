#include "core/daemon_state.h"
#include "core/report.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

TEST(ClientReportTest, WholeFramesOnlyWhileConnectedAndNeverBlocking) {
    daemon_state_reset();
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    int small = 4096;
    setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    state().client_fd = sv[0];
    client_report(911, 0, "lost"); // nobody connected yet: dropped, not queued
    state().client_connected = 1;
    client_report(1001, 2, "1");
    client_report(0x11032, 0x100FF, nullptr);              // the low 16 bits of each
    client_report(402, 0, std::string(600, 'L').c_str()); // the text cut to 492 bytes
    // A client that stops reading: far more than the socket holds. The surplus
    // is dropped and the caller goes on.
    const std::string text(400, 'x');
    for (int i = 0; i < 2000; ++i)
        client_report(EVENT_AT_LINE, STATUS_OK, text.c_str());
    uint8_t buf[1 << 16];
    ssize_t n = recv(sv[1], buf, sizeof buf, MSG_DONTWAIT);
    const std::string first = std::string("ZVR\x03\xE9\0\x02" "1\0", 9) +
                              std::string("ZVR\x10\x32\0\xFF\0", 8) +
                              std::string("ZVR\x01\x92\0\0", 7) + std::string(492, 'L') + '\0';
    ASSERT_GE(n, static_cast<ssize_t>(first.size()));
    EXPECT_EQ(std::string(buf, buf + first.size()), first);
    // What did arrive is whole frames, and the next frame still gets through.
    reply_frame r;
    size_t at = first.size();
    for (long used; at < static_cast<size_t>(n); at += static_cast<size_t>(used)) {
        used = reply_parse(buf + at, static_cast<size_t>(n) - at, &r);
        ASSERT_EQ(used, 408) << "at byte " << at;
    }
    client_report(911, 0, "next");
    n = recv(sv[1], buf, sizeof buf, MSG_DONTWAIT);
    ASSERT_GT(n, 0);
    EXPECT_EQ(reply_parse(buf, static_cast<size_t>(n), &r), n);
    EXPECT_STREQ(r.text, "next");

    // A vanished client costs an error return, never a signal.
    close(sv[1]);
    client_report(911, 0, "x");
    state().client_connected = 0;
    close(sv[0]);
    daemon_state_reset();
}

} // namespace
