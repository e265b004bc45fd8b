#include "core/frames.h"
#include "core/report.h"
#include "core/daemon_state.h"
#include "support/at_port.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

std::string bytes(std::initializer_list<int> b) {
    std::string s;
    for (int c : b)
        s.push_back(static_cast<char>(c));
    return s;
}

int parse(const std::string &raw, request_frame *f) {
    return request_parse(reinterpret_cast<const uint8_t *>(raw.data()), raw.size(), f);
}

std::string field(const request_frame &f, int i) { return std::string(f.fields[i], f.field_len[i]); }

TEST(RequestFrameTest, ParsesCodeAndFields) {
    request_frame f;
    // Read the link check period: code 524, one field "0".
    ASSERT_EQ(parse("ZVS" + bytes({0x02, 0x0C, 0x00, 0x01}) + "0" + bytes({0, 0}), &f), 0);
    EXPECT_EQ(f.code, 524);
    ASSERT_EQ(f.field_count, 1);
    EXPECT_STREQ(f.fields[0], "0");
    EXPECT_STREQ(f.fields[1], "");

    ASSERT_EQ(parse("ZVS" + bytes({0xFF, 0xFE}), &f), 0);
    EXPECT_EQ(f.code, 0xFFFE);
    EXPECT_EQ(f.field_count, 0);
    ASSERT_EQ(parse("ZVS" + bytes({0, 1, 0, 0, 0, 3}) + "abc", &f), 0);
    EXPECT_EQ(f.field_count, 0); // a zero length ends the list

    // A NUL inside a field makes the field's text end there.
    ASSERT_EQ(parse("ZVS" + bytes({1, 0x92, 0, 3}) + std::string("a\0b", 3) + bytes({0, 0}), &f), 0);
    EXPECT_STREQ(f.fields[0], "a");
    EXPECT_EQ(f.field_len[0], 3u);
}

TEST(RequestFrameTest, SixFieldsAtMostWithoutTerminator) {
    std::string raw = "ZVS" + bytes({0, 7});
    for (int i = 1; i <= 7; ++i)
        raw += bytes({0, 1}) + std::to_string(i);
    request_frame f;
    ASSERT_EQ(parse(raw, &f), 0);
    ASSERT_EQ(f.field_count, 6);
    EXPECT_EQ(field(f, 0), "1");
    EXPECT_EQ(field(f, 5), "6");

    raw = "ZVS" + bytes({0, 7});
    for (int i = 1; i <= 6; ++i)
        raw += bytes({0, 1}) + std::to_string(i);
    ASSERT_EQ(parse(raw, &f), 0);
    EXPECT_EQ(f.field_count, 6);
}

TEST(RequestFrameTest, BadLengthsEndTheParseUncounted) {
    request_frame f;
    // 1000 and more: not taken, not counted.
    std::string big(1000, 'x');
    ASSERT_EQ(parse("ZVS" + bytes({1, 0x91, 0, 1}) + "a" + bytes({0x03, 0xE8}) + big, &f), 0);
    EXPECT_EQ(f.field_count, 1);
    EXPECT_TRUE(f.oversize_field);
    // 999 bytes is the largest field.
    ASSERT_EQ(parse("ZVS" + bytes({1, 0x91, 0x03, 0xE7}) + std::string(999, 'y'), &f), 0);
    ASSERT_EQ(f.field_count, 1);
    EXPECT_EQ(f.field_len[0], 999u);
    // A length that runs past the bytes received.
    ASSERT_EQ(parse("ZVS" + bytes({1, 0x91, 0, 1}) + "a" + bytes({0, 5}) + "abc", &f), 0);
    EXPECT_EQ(f.field_count, 1);
    EXPECT_FALSE(f.oversize_field);
    EXPECT_STREQ(f.fields[1], "");
    // A length cut in half by the end of the read.
    ASSERT_EQ(parse("ZVS" + bytes({1, 0x91, 0}), &f), 0);
    EXPECT_EQ(f.field_count, 0);
}

TEST(RequestFrameTest, NoMagicNoFrame) {
    request_frame f;
    EXPECT_EQ(parse("ZVT" + bytes({3, 0x8F, 0, 0}), &f), -1);
    EXPECT_EQ(parse("zvs" + bytes({3, 0x8F, 0, 0}), &f), -1);
    EXPECT_EQ(parse("ZVS" + bytes({3}), &f), -1);
    EXPECT_EQ(parse("", &f), -1);
}

TEST(RequestFrameTest, BuildRoundTrips) {
    std::string third(999, 'z');
    const char *fields[] = {"1", "internet", third.c_str()};
    size_t lens[] = {1, 8, 999};
    uint8_t buf[REQUEST_MAX + 100];
    size_t n = request_build(buf, sizeof buf, 521, fields, lens, 3);
    ASSERT_GT(n, 0u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), 8), "ZVS" + bytes({2, 9, 0, 1}) + "1");
    request_frame f;
    ASSERT_EQ(request_parse(buf, n, &f), 0);
    EXPECT_EQ(f.code, 521);
    ASSERT_EQ(f.field_count, 3);
    EXPECT_EQ(field(f, 1), "internet");
    EXPECT_EQ(field(f, 2), third);

    size_t bad_len[] = {1, 0, 3};
    EXPECT_EQ(request_build(buf, sizeof buf, 1, fields, bad_len, 3), 0u);
    EXPECT_EQ(request_build(buf, 10, 1, fields, lens, 3), 0u);
}

TEST(ReplyFrameTest, ByteForByte) {
    uint8_t out[REPLY_MAX];
    size_t n = reply_build(out, 911, 0, "ZOLVIN 4G SERVER V1.23");
    EXPECT_EQ(n, 30u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out), n),
              "ZVR" + bytes({0x03, 0x8F, 0, 0}) + "ZOLVIN 4G SERVER V1.23" + bytes({0}));
    n = reply_build(out, 0x1234, 10, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out), n), "ZVR" + bytes({0x12, 0x34, 0, 10, 0}));
    n = reply_build(out, 0x11032, 0x100FF, ""); // only the low 16 bits travel
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out), n), "ZVR" + bytes({0x10, 0x32, 0, 0xFF, 0}));

    std::string long_text(600, 'L');
    n = reply_build(out, 402, 0, long_text.c_str());
    EXPECT_EQ(n, REPLY_MAX);
    EXPECT_EQ(out[REPLY_MAX - 1], 0);

    reply_frame r;
    EXPECT_EQ(reply_parse(out, n, &r), static_cast<long>(n));
    EXPECT_EQ(r.code, 402);
    EXPECT_EQ(r.text_len, 492u);
    EXPECT_EQ(reply_parse(out, 7, &r), 0);
    EXPECT_EQ(reply_parse(reinterpret_cast<const uint8_t *>("ZVX1234"), 7, &r), -1);
}

TEST(ClientReportTest, SendsOneFrameOnlyWhileConnected) {
    daemon_state_reset();
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    state().client_fd = sv[0];
    client_report(911, 0, "lost"); // nobody connected yet: dropped, not queued
    state().client_connected = 1;
    client_report(1001, 2, "1");
    client_report(524, 10, "Value between 1-30000");
    state().client_connected = 0;
    close(sv[0]);
    char buf[200];
    ssize_t n = read(sv[1], buf, sizeof buf);
    close(sv[1]);
    std::string expected = "ZVR" + bytes({0x03, 0xE9, 0, 2}) + "1" + bytes({0}) + "ZVR" +
                           bytes({0x02, 0x0C, 0, 10}) + "Value between 1-30000" + bytes({0});
    EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), expected);

    // A vanished client costs an error return, never a signal.
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    close(sv[1]);
    state().client_fd = sv[0];
    state().client_connected = 1;
    client_report(911, 0, "x");
    close(sv[0]);
    daemon_state_reset();
}

TEST(FrameFuzzTest, RandomBytesNeverCrashTheParsers) {
    std::mt19937 rng(12345);
    uint8_t buf[REQUEST_MAX];
    request_frame f;
    reply_frame r;
    long deadline = monotonic_ms() + 2000;
    long rounds = 0;
    while (monotonic_ms() < deadline) {
        size_t len = rng() % (sizeof buf + 1);
        for (size_t i = 0; i < len; ++i)
            buf[i] = static_cast<uint8_t>(rng());
        // Half the time a valid magic, so the field walk gets exercised.
        if (len >= 3 && (rng() & 1))
            memcpy(buf, rng() & 2 ? "ZVS" : "ZVR", 3);
        if (request_parse(buf, len, &f) == 0) {
            ASSERT_LE(f.field_count, REQUEST_FIELDS_MAX);
            size_t total = 5;
            for (int i = 0; i < f.field_count; ++i) {
                ASSERT_GT(f.field_len[i], 0u);
                ASSERT_LT(f.field_len[i], FIELD_SIZE);
                total += 2 + f.field_len[i];
            }
            ASSERT_LE(total, len);
        }
        long used = reply_parse(buf, len, &r);
        ASSERT_LE(used, static_cast<long>(len));
        ++rounds;
    }
    EXPECT_GT(rounds, 1000);
}

} // namespace
