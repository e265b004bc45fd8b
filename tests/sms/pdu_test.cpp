#include "sms/pdu.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

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

std::string parse_deliver(const std::string &pdu, size_t record_size = SMS_RECORD_MAX) {
    char record[SMS_RECORD_MAX];
    return std::string(record, sms_deliver_parse(pdu.data(), pdu.size(), record, record_size));
}

bool parse_status(const std::string &pdu, int *status, int *reference) {
    return sms_status_parse(pdu.data(), pdu.size(), status, reference);
}

TEST(SmsParseTest, AgreesWithIndependentCodec) {
    // Summer time in force: a daylight-saving flag other than "unknown" would move the hour.
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    for (const auto &v : DELIVER_VECTORS) {
        SCOPED_TRACE(v.what);
        const std::string r = parse_deliver(v.pdu);
        ASSERT_GE(r.size(), 21u);
        const size_t number_len = std::stoul(r.substr(0, 2)), text_at = number_len + 21;
        if (v.number) { EXPECT_EQ(r.substr(2, number_len), v.number); }
        EXPECT_EQ(r.substr(number_len + 2, 16), std::string("14") + v.time);
        EXPECT_EQ(std::stoul(r.substr(text_at - 3, 3)), r.size() - text_at);
        if (v.text) { EXPECT_EQ(r.substr(text_at), std::string(v.text, v.text_len)); }
    }
    unsetenv("TZ");
    tzset();
    for (const auto &v : STATUS_VECTORS) {
        int status = -1, reference = -1;
        EXPECT_TRUE(parse_status(v.pdu, &status, &reference)) << v.what;
        EXPECT_EQ(status, v.status) << v.what;
        EXPECT_EQ(reference, v.reference) << v.what;
    }
}

TEST(SmsParseTest, RefusesWhatDoesNotAddUpOrIsCutShort) {
    const std::string ok = DELIVER_VECTORS[0].pdu; // ... "00" "00" stamp "05" "E8329BFD06"
    const size_t stamp = ok.size() - 26, udl = ok.size() - 12;
    auto with = [&](size_t at, const char *s) { return std::string(ok).replace(at, strlen(s), s); };
    const std::string bad[] = {
        with(0, "00041591"),                         // 21 digits
        with(udl, "06"),                             // 6 septets need 6 octets, 5 follow
        with(stamp - 2, "04").replace(udl, 2, "06"), // 8-bit: 6 octets announced, 5 follow
        ok + std::string(2 * 136, '0'),              // 141 octets of user data
        ok + "0",                                    // odd length
        ok + "\r\n",                                 // not hexadecimal
        with(0, "0891683108200505f0"),               // lower case
        with(stamp, "5A"),                           // a letter in the year
        with(stamp + 10, "3B"),                      // and in the second
        with(stamp - 2, "10"),                       // 7-bit with a message class
    };
    for (const auto &pdu : bad)
        EXPECT_EQ(parse_deliver(pdu), "") << pdu;
    const size_t full = parse_deliver(ok).size();
    EXPECT_EQ(parse_deliver(ok, full), "") << "no room for the terminator";
    EXPECT_EQ(parse_deliver(ok, full + 1).size(), full);

    int status, reference;
    const std::string report = STATUS_VECTORS[0].pdu;
    EXPECT_FALSE(parse_status(std::string(report).replace(22, 2, "14"), &status, &reference));
    EXPECT_FALSE(parse_status(report + "0", &status, &reference));
    for (const auto &v : DELIVER_VECTORS)
        for (size_t len = 0; len < strlen(v.pdu); ++len)
            ASSERT_EQ(parse_deliver(std::string(v.pdu, len)), "") << v.what << " cut at " << len;
    for (const auto &v : STATUS_VECTORS)
        for (size_t len = 0; len < strlen(v.pdu); ++len)
            ASSERT_FALSE(parse_status(std::string(v.pdu, len), &status, &reference)) << len;
}

} // namespace
