// The echo request's bytes, the reply filter on crafted datagrams (which
// datagrams it may accept at all is the icmp_reply fuzz target's), and real
// probes on loopback, where the kernel answers. `icmp_seq` counts the sends.
#include "check/check.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace {

TEST(IcmpMessageTest, EchoRequestAndReplyFilter) {
    unsigned char m[ICMP_BUFFER_SIZE];
    memset(m, 0xaa, sizeof m);
    ASSERT_EQ(icmp_build_echo(m, sizeof m, 0x1234, 0xfedc, 56), 64u);
    const uint16_t head[4] = {8, 0, 0x1234, 0xfedc}; // type 8, code 0, host-order id and sequence
    EXPECT_EQ(memcmp(m + 4, head + 2, 4), 0);
    EXPECT_EQ(m[0] * 256 + m[1], 0x800);
    EXPECT_EQ(std::count(m + 8, m + 64, 0), 56);

    // An echo reply (type 0) with identifier 0x1234 and any sequence, behind a
    // 20-byte IP header, then behind a 60-byte one.
    unsigned char d[68] = {0x45};
    memcpy(d + 24, head + 2, 4);
    EXPECT_EQ(icmp_check_reply(d, 28, 0x1234), 0);
    EXPECT_EQ(icmp_check_reply(d, 28, 0x1235), -1); // another process's reply
    d[0] = 0x4f;
    memcpy(d + 64, head + 2, 4);
    memset(d + 24, 0, 4);
    EXPECT_EQ(icmp_check_reply(d, 68, 0x1234), 0);
}

TEST(ProbeTest, LoopbackAnswersAndFailuresNeitherSendNorWait) {
    fresh_state fresh;
    daemon_state &s = state();
    s.icmp_seq = 0xffff; // the wire carries its low 16 bits
    EXPECT_EQ(icmp_ping("lo", "127.0.0.1"), 0);
    EXPECT_EQ(icmp_ping("lo", "localhost"), 0);
    EXPECT_EQ(s.icmp_seq, 0x10001u);
    int64_t start = monotonic_ms();
    EXPECT_EQ(icmp_ping("lo", "no.such.host.invalid"), -1);
    EXPECT_EQ(icmp_ping("nosuchif0", "127.0.0.1"), -1);
    EXPECT_LT(monotonic_ms() - start, ICMP_REPLY_WAIT_MS);
    EXPECT_EQ(s.icmp_seq, 0x10001u);

    strcpy(s.ping_address[0], "no.such.host.invalid");
    strcpy(s.ping_address[2], "127.0.0.1");
    strcpy(s.ping_address[4], "127.0.0.2");
    EXPECT_EQ(link_check(), -1); // no interface known
    strcpy(s.net_if_name, "lo");
    EXPECT_EQ(link_check(), 0);
    EXPECT_EQ(s.icmp_seq, 0x10002u); // the third answered, the fifth was spared
    s.ping_address[2][0] = s.ping_address[4][0] = '\0';
    EXPECT_EQ(link_check(), -1);
}

} // namespace
