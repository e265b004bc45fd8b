#include "core/daemon_state.h"
#include "core/frames.h"
#include "sms/pdu.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct deliver_vector {
    const char *what, *pdu, *number, *time, *text;
    size_t text_len;
};
struct status_vector {
    const char *what, *pdu;
    int status, reference;
};
#include "sms/pdu_vectors.inc"

// The line in a heap block of exactly its length, no terminator: reading one
// byte past it is an AddressSanitizer finding.
struct exact_line {
    explicit exact_line(const std::string &s) : len(s.size()), p(new char[s.size()]) {
        memcpy(p.get(), s.data(), len);
    }
    size_t len;
    std::unique_ptr<char[]> p;
};

std::string parse_deliver(const std::string &pdu, size_t record_size = SMS_RECORD_MAX) {
    exact_line line(pdu);
    char record[SMS_RECORD_MAX + 1];
    memset(record, '#', sizeof record);
    size_t n = sms_deliver_parse(line.p.get(), line.len, record, record_size);
    EXPECT_EQ(record[record_size], '#');
    return n ? std::string(record, n) : std::string();
}

bool parse_status(const std::string &pdu, int *status, int *reference) {
    exact_line line(pdu);
    return sms_status_parse(line.p.get(), line.len, status, reference);
}

// Summer time in force, so a daylight-saving flag other than "unknown" would
// move the printed hour.
struct summer_time_zone {
    summer_time_zone() {
        const char *old = getenv("TZ");
        saved = old ? old : "";
        had = old != nullptr;
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
    }
    ~summer_time_zone() {
        had ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
        tzset();
    }
    std::string saved;
    bool had;
};

TEST(SmsDeliverParseTest, AgreesWithIndependentCodec) {
    summer_time_zone tz;
    for (const auto &v : DELIVER_VECTORS) {
        SCOPED_TRACE(v.what);
        const std::string r = parse_deliver(v.pdu);
        ASSERT_GE(r.size(), 21u);
        size_t number_len = std::stoul(r.substr(0, 2));
        const std::string head = r.substr(2 + number_len, 16 + 3);
        if (v.number) {
            EXPECT_EQ(r.substr(2, number_len), v.number);
        }
        EXPECT_EQ(head.substr(0, 16), std::string("14") + v.time);
        const std::string text = r.substr(2 + number_len + 19);
        EXPECT_EQ(std::stoul(head.substr(16)), text.size());
        if (v.text) {
            EXPECT_EQ(text, std::string(v.text, v.text_len));
        }
    }
}

TEST(SmsStatusParseTest, AgreesWithIndependentCodec) {
    for (const auto &v : STATUS_VECTORS) {
        int status = -1, reference = -1;
        EXPECT_TRUE(parse_status(v.pdu, &status, &reference)) << v.what;
        EXPECT_EQ(status, v.status) << v.what;
        EXPECT_EQ(reference, v.reference) << v.what;
    }
}

TEST(SmsParseTest, RefusesWhatDoesNotAddUpAndReadsNothingPastTheEnd) {
    const std::string ok = DELIVER_VECTORS[0].pdu; // "...F0" "00" "00" stamp "05" "E8329BFD06"
    const size_t stamp = ok.size() - 26, udl = ok.size() - 12;
    auto with = [&](size_t at, const char *s) { return std::string(ok).replace(at, strlen(s), s); };
    const std::string bad[] = {
        "FF0004",                                   // service-centre address past the end
        "00040D916831",                              // address digits past the end
        with(0, "00041591"),                         // 21 digits
        with(udl, "06"),                             // 6 septets need 6 octets, 5 follow
        with(stamp - 2, "04").replace(udl, 2, "06"), // 8-bit: 6 octets announced, 5 follow
        ok + "0",                                    // odd length
        ok + "\r\n",                                // not hexadecimal
        with(0, "0891683108200505f0"),               // lower case
        with(stamp, "5A"),                           // a letter in the year
        with(stamp + 10, "3B"),                      // and in the second
        with(stamp - 2, "10"),                       // 7-bit with a message class
    };
    for (const auto &pdu : bad)
        EXPECT_EQ(parse_deliver(pdu), "") << pdu;
    EXPECT_EQ(parse_deliver(ok + std::string(2 * 136, '0')), "") << "141 octets of user data";
    size_t full = parse_deliver(ok).size();
    EXPECT_EQ(parse_deliver(ok, full), "") << "no room for the terminator";
    EXPECT_EQ(parse_deliver(ok, full + 1).size(), full);

    int status, reference;
    const std::string report = STATUS_VECTORS[0].pdu;
    EXPECT_FALSE(parse_status(std::string(report).replace(22, 2, "14"), &status, &reference));
    EXPECT_FALSE(parse_status(report + "0", &status, &reference));
    // Cut anywhere, a valid PDU yields nothing.
    for (const auto &v : DELIVER_VECTORS)
        for (size_t len = 0; len < strlen(v.pdu); ++len)
            ASSERT_EQ(parse_deliver(std::string(v.pdu, len)), "") << v.what << " cut at " << len;
    for (const auto &v : STATUS_VECTORS)
        for (size_t len = 0; len < strlen(v.pdu); ++len)
            ASSERT_FALSE(parse_status(std::string(v.pdu, len), &status, &reference))
                << v.what << " cut at " << len;
}

TEST(SmsDecodeTest, ReportsRecordsAndStatusesToTheClient) {
    daemon_state_reset();
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    state().client_fd = sv[0];
    state().client_connected = 1;
    sms_deliver_decode(DELIVER_VECTORS[0].pdu);
    sms_deliver_decode("0891683108200505F0040D9168");
    sms_status_decode(STATUS_VECTORS[0].pdu);
    sms_status_decode(STATUS_VECTORS[5].pdu);
    uint8_t buf[4096];
    ssize_t n = recv(sv[1], buf, sizeof buf, MSG_DONTWAIT);
    const struct {
        int code, status;
        const char *text;
    } want[] = {{EVENT_SMS_RECEIVED, 0, "14+86137153383101420250507164351005hello"},
                {EVENT_SMS_STATUS, 0, "71"},
                {EVENT_SMS_STATUS, 0x41, "17"}};
    size_t at = 0;
    for (const auto &w : want) {
        reply_frame r;
        long used = reply_parse(buf + at, static_cast<size_t>(n) - at, &r);
        ASSERT_GT(used, 0);
        at += static_cast<size_t>(used);
        EXPECT_EQ(r.code, w.code);
        EXPECT_EQ(r.status, w.status);
        EXPECT_STREQ(r.text, w.text);
    }
    EXPECT_EQ(at, static_cast<size_t>(n));
    close(sv[0]);
    close(sv[1]);
    daemon_state_reset();
}

} // namespace
