#include "core/daemon_state.h"
#include "core/report.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

namespace {

TEST(ClientReportTest, AClientThatStopsReadingNeverBlocksTheReporter) {
    daemon_state_reset();
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    int small = 4096;
    setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    state().client_fd = sv[0];
    state().client_connected = 1;
    std::string text(400, 'x');
    // Far more than the socket holds: the surplus is dropped, the caller goes on.
    for (int i = 0; i < 2000; ++i)
        client_report(EVENT_AT_LINE, STATUS_OK, text.c_str());
    // What did arrive is whole frames, and the next frame still gets through.
    uint8_t buf[1 << 16];
    ssize_t n = read(sv[1], buf, sizeof buf);
    ASSERT_GT(n, 0);
    reply_frame r;
    EXPECT_EQ(reply_parse(buf, static_cast<size_t>(n), &r), 408);
    EXPECT_EQ(r.text_len, 400u);
    state().client_connected = 0;
    close(sv[0]);
    close(sv[1]);
    daemon_state_reset();
}

} // namespace
