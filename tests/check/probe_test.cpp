// The echo probe: the request's bytes, the reply filter on crafted datagrams,
// and real probes on loopback, watched from a second raw socket.
#include "check/check.h"
#include "core/config.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

uint16_t word_at(const unsigned char *p) {
    uint16_t w;
    memcpy(&w, p, sizeof w);
    return w;
}

TEST(IcmpMessageTest, EchoRequestAndChecksum) {
    unsigned char buf[ICMP_BUFFER_SIZE];
    memset(buf, 0xaa, sizeof buf);
    ASSERT_EQ(icmp_build_echo(buf, sizeof buf, 0x1234, 0xfedc, 56), 64u);
    EXPECT_EQ(buf[0], 8);
    EXPECT_EQ(buf[1], 0);
    EXPECT_EQ(word_at(buf + 4), 0x1234); // host order, as the reply brings it back
    EXPECT_EQ(word_at(buf + 6), 0xfedc);
    EXPECT_EQ(std::vector<unsigned char>(buf + 8, buf + 64), std::vector<unsigned char>(56, 0));
    EXPECT_EQ(icmp_checksum(buf, 64), 0); // the stored checksum verifies
    EXPECT_EQ(icmp_build_echo(buf, 63, 1, 1, 56), 0u);

    // An odd last byte counts as a word padded with a zero byte.
    const unsigned char odd[] = {0x45, 0x01, 0xf2, 0x03, 0x9c};
    const unsigned char padded[] = {0x45, 0x01, 0xf2, 0x03, 0x9c, 0x00};
    EXPECT_EQ(icmp_checksum(odd, sizeof odd), icmp_checksum(padded, sizeof padded));
    // Carries fold back: 0xffff words sum to 0xffff, whose complement is 0.
    std::vector<unsigned char> ones(4000, 0xff);
    EXPECT_EQ(icmp_checksum(ones.data(), ones.size()), 0);
}

TEST(IcmpMessageTest, ReplyFilterReadsTheHeaderLengthAndIdentifierOnly) {
    // IP header of 5 words, then an echo reply with identifier 0x4242, sequence 3.
    std::vector<unsigned char> d(28, 0);
    d[0] = 0x45;
    uint16_t ident = 0x4242, seq = 3;
    memcpy(&d[24], &ident, 2);
    memcpy(&d[26], &seq, 2);
    EXPECT_EQ(icmp_check_reply(d.data(), d.size(), 0x4242), 0);
    EXPECT_EQ(icmp_check_reply(d.data(), d.size(), 0x4243), -1); // another process's reply
    EXPECT_EQ(icmp_check_reply(d.data(), 27, 0x4242), -1);       // shorter than IP + 8
    EXPECT_EQ(icmp_check_reply(d.data(), 0, 0x4242), -1);
    d[20] = 8; // our own request, seen on loopback
    EXPECT_EQ(icmp_check_reply(d.data(), d.size(), 0x4242), -1);
    d[20] = 0;
    d[0] = 0x4f; // a 60-byte header announced in 28 bytes
    EXPECT_EQ(icmp_check_reply(d.data(), d.size(), 0x4242), -1);
    d.resize(68, 0);
    memcpy(&d[64], &ident, 2);
    EXPECT_EQ(icmp_check_reply(d.data(), d.size(), 0x4242), 0); // options skipped
}

// The kernel answers echo requests on loopback: a real probe must get through.
class ProbeTest : public testing::Test {
protected:
    void SetUp() override {
        watch = socket(AF_INET, SOCK_RAW | SOCK_NONBLOCK, IPPROTO_ICMP);
        ASSERT_GE(watch, 0) << "raw sockets need root";
    }
    void TearDown() override { close(watch); }

    // The echo requests seen on loopback since the last call, as their sequences.
    std::vector<uint16_t> requests_seen() {
        std::vector<uint16_t> seqs;
        unsigned char d[ICMP_BUFFER_SIZE];
        ssize_t n;
        while ((n = recv(watch, d, sizeof d, 0)) > 0) {
            size_t ip = static_cast<size_t>(d[0] & 0x0f) * 4;
            if (d[ip] != 8 || word_at(d + ip + 4) != static_cast<uint16_t>(getpid()))
                continue;
            EXPECT_EQ(static_cast<size_t>(n), ip + 64);
            seqs.push_back(word_at(d + ip + 6));
        }
        return seqs;
    }

    fresh_state fresh;
    int watch = -1;
};

TEST_F(ProbeTest, LoopbackAnswersWithConsecutiveSequences) {
    state().icmp_seq = 0xffff; // the wire carries the low 16 bits
    EXPECT_EQ(icmp_ping("lo", "127.0.0.1"), 0);
    EXPECT_EQ(icmp_ping("lo", "localhost"), 0);
    EXPECT_EQ(requests_seen(), (std::vector<uint16_t>{0, 1}));
    EXPECT_EQ(state().icmp_seq, 0x10001u);
}

size_t open_fds() {
    size_t n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (readdir(d) != nullptr)
        ++n;
    closedir(d);
    return n;
}

TEST_F(ProbeTest, FailuresComeWithoutSendingOrWaiting) {
    size_t fds = open_fds();
    int64_t start = monotonic_ms();
    EXPECT_EQ(icmp_ping("lo", "no.such.host.invalid"), -1);
    EXPECT_EQ(icmp_ping("nosuchif0", "127.0.0.1"), -1);
    EXPECT_LT(monotonic_ms() - start, ICMP_REPLY_WAIT_MS);
    EXPECT_TRUE(requests_seen().empty());
    EXPECT_EQ(open_fds(), fds); // every path closed its socket
}

TEST_F(ProbeTest, LinkCheckProbesTheSetAddressesInOrderUntilOneAnswers) {
    daemon_state &s = state();
    strcpy(s.ping_address[2], "127.0.0.1");
    EXPECT_EQ(link_check(), -1); // no interface known yet
    strcpy(s.net_if_name, "lo");
    EXPECT_EQ(link_check(), 0);
    EXPECT_EQ(requests_seen().size(), 1u);

    strcpy(s.ping_address[0], "no.such.host.invalid");
    strcpy(s.ping_address[4], "127.0.0.2");
    EXPECT_EQ(link_check(), 0);
    EXPECT_EQ(requests_seen().size(), 1u); // the 5th is not probed after the 3rd answered

    s.ping_address[2][0] = '\0';
    s.ping_address[4][0] = '\0';
    EXPECT_EQ(link_check(), -1);
}

} // namespace
