// The request frame as the server reads it, and the reply frames as the
// daemon sends them to a client that may stop reading.
#include "core/daemon_state.h"
#include "core/frames.h"
#include "core/report.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

std::string bytes(std::initializer_list<int> b) {
    std::string s;
    for (int c : b)
        s.push_back(static_cast<char>(c));
    return s;
}

TEST(RequestFrameTest, ParsesOnlyWhatTheReadHolds) {
    const std::string y999(999, 'y'), nul("a\0b", 3);
    const struct {
        std::string raw;
        int result;
        uint16_t code;
        std::vector<std::string> fields;
        bool oversize;
    } cases[] = {
        {"ZVS" + bytes({0x02, 0x0C, 0, 1}) + "0" + bytes({0, 0}), 0, 524, {"0"}, false},
        {"ZVS" + bytes({0xFF, 0xFE}), 0, 0xFFFE, {}, false},
        {"ZVS" + bytes({0, 1, 0, 0, 0, 3}) + "abc", 0, 1, {}, false}, // a zero length ends the list
        {"ZVS" + bytes({1, 0x92, 0, 3}) + nul + bytes({0, 0}), 0, 402, {nul}, false},
        {"ZVS" + bytes({1, 0x91, 3, 0xE7}) + y999, 0, 401, {y999}, false},
        // 1000 and more: not taken, not counted.
        {"ZVS" + bytes({1, 0x91, 0, 1}) + "a" + bytes({3, 0xE8}) + std::string(1000, 'x'), 0, 401,
         {"a"}, true},
        {"ZVS" + bytes({3}), -1, 0, {}, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.raw.substr(0, 12));
        request_frame f;
        memset(&f, 0x55, sizeof f); // no field may keep stale bytes
        ASSERT_EQ(request_parse(reinterpret_cast<const uint8_t *>(c.raw.data()), c.raw.size(), &f),
                  c.result);
        if (c.result != 0)
            continue;
        EXPECT_EQ(f.code, c.code);
        EXPECT_EQ(f.oversize_field, c.oversize);
        ASSERT_EQ(f.field_count, static_cast<int>(c.fields.size()));
        for (int i = 0; i < REQUEST_FIELDS_MAX; ++i) {
            std::string want = i < f.field_count ? c.fields[static_cast<size_t>(i)] : "";
            EXPECT_EQ(std::string(f.fields[i], f.field_len[i]), want);
            EXPECT_STREQ(f.fields[i], want.c_str()); // text up to the first NUL
        }
    }
}

// Whole frames under a flood and dropped ones counted are in the end-to-end
// tests of a client and a subscriber that stop reading.
TEST(ClientReportTest, FramesOnlyWhileConnectedAndTheNextGetsThroughAfterAFlood) {
    daemon_state_reset();
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    int small = 4096;
    setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    state().client_fd = sv[0];
    client_report(911, 0, "lost"); // nobody connected yet: dropped, not queued
    state().client_connected = 1;
    client_report(1001, 2, "1");
    client_report(0x11032, 0x100FF, nullptr);             // the low 16 bits of each
    client_report(402, 0, std::string(600, 'L').c_str()); // the text cut to 492 bytes
    uint8_t buf[1 << 16];
    ssize_t n = recv(sv[1], buf, sizeof buf, MSG_DONTWAIT);
    ASSERT_GT(n, 0);
    const std::string first = std::string("ZVR\x03\xE9\0\x02" "1\0", 9) +
                              std::string("ZVR\x10\x32\0\xFF\0", 8) +
                              std::string("ZVR\x01\x92\0\0", 7) + std::string(492, 'L') + '\0';
    EXPECT_EQ(std::string(buf, buf + n), first);
    // Far more than the socket holds, to a client that does not read meanwhile.
    const std::string text(400, 'x');
    for (int i = 0; i < 2000; ++i)
        client_report(EVENT_AT_LINE, STATUS_OK, text.c_str());
    while (recv(sv[1], buf, sizeof buf, MSG_DONTWAIT) > 0) {
    }
    client_report(911, 0, "next");
    n = recv(sv[1], buf, sizeof buf, MSG_DONTWAIT);
    ASSERT_GT(n, 0);
    reply_frame r;
    EXPECT_EQ(reply_parse(buf, static_cast<size_t>(n), &r), n);
    EXPECT_STREQ(r.text, "next");
    state().client_connected = 0;
    close(sv[0]);
    close(sv[1]);
    daemon_state_reset();
}

} // namespace
