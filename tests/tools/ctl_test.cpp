// zolvin_4g_ctl's own rules: the words of a command become request frames,
// the frames that come back end the request or not, and each is printed on
// one line. Its runs against the daemon are in the end-to-end tests.

#include "ctl/ctl.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

namespace {

ctl::command parsed(const std::vector<std::string> &words) {
    ctl::command c;
    std::string error;
    EXPECT_TRUE(ctl::parse_command(words, &c, &error)) << error;
    return c;
}

reply_frame reply(uint16_t code, uint16_t status, const std::string &text = "") {
    reply_frame f{code, status, text.size(), {}};
    memcpy(f.text, text.data(), text.size());
    return f;
}

TEST(CtlTest, WordsBecomeTheRequestFrames) {
    std::string error;
    // Reading the check period: the 10-byte request of the protocol's own example.
    std::vector<uint8_t> period = ctl::encode(parsed({"check", "period"}).steps.at(0), &error);
    EXPECT_EQ(std::string(period.begin(), period.end()), std::string("ZVS\x02\x0C\x00\x01" "0\x00\x00", 10));
    const struct {
        std::vector<std::string> words;
        uint16_t code;
        std::vector<std::string> fields;
    } cases[] = {
        {{"apn", "set", "1", "internet"}, 521, {"1", "1", "internet"}},
        {{"apn", "set", "2", ""}, 521, {"1", "2"}}, // no third field clears the setting
        {{"ping", "set", "2", "10.64.0.1"}, 523, {"1", "2", "10.64.0.1"}},
        {{"check", "period", "60"}, 524, {"1", "60"}},
        {{"sms", "send", "10086", "hi"}, 251, {"0", "DEFAULT", "10086", "hi", "167", "0"}},
        {{"sms", "send", "--report", "--validity", "0", "+86", "\xE4\xBD\xA0"}, 251,
         {"1", "DEFAULT", "+86", "\xE4\xBD\xA0", "0", "1"}},
        {{"sms", "send", "--text-mode", "10086", "--hi"}, 252, {"10086", "--hi"}},
        {{"fota", "a.bin", "--pause", "20", "--chunk", "500"}, 561, {"0", std::filesystem::current_path().string() + "/a.bin", "500", "20"}},
        {{"fota", "ftp://h/a.bin", "--chunk", "1000"}, 561, {"1", "ftp://h/a.bin", "1000", "8"}},
    };
    for (const auto &c : cases) {
        ctl::command cmd = parsed(c.words);
        ASSERT_EQ(cmd.steps.size(), 1u) << c.words[0];
        std::vector<uint8_t> bytes = ctl::encode(cmd.steps[0], &error);
        request_frame f;
        ASSERT_EQ(request_parse(bytes.data(), bytes.size(), &f), 0) << c.words[0];
        std::vector<std::string> fields;
        for (int i = 0; i < f.field_count; ++i)
            fields.emplace_back(f.fields[i], f.field_len[i]);
        EXPECT_EQ(f.code, c.code) << c.words[0];
        EXPECT_EQ(fields, c.fields) << c.words[0];
    }
    // The daemon reads one target per request: the list is six reads in slot order.
    std::vector<ctl::request> list = parsed({"ping", "list"}).steps;
    ASSERT_EQ(list.size(), 6u);
    EXPECT_EQ(list[5].code, 523);
    EXPECT_EQ(list[0].fields[1] + list[5].fields[0] + list[5].fields[1], "106");
    for (const std::vector<std::string> &bad : std::vector<std::vector<std::string>>{
             {}, {"frobnicate"}, {"dial", "maybe"}, {"ping", "set", "1"}, {"raw", "65536"}, {"at", std::string(999, 'A')},
             {"sms", "send", "--validity", "256", "1", "x"}, {"sms", "send", "--text-mode", "--report", "1", "x"},
             {"fota", "/f", "--pause", "5"}, {"fota", "/f", "--chunk", "0"}, {"fota", "/f", "--chunk"}}) {
        ctl::command c;
        EXPECT_FALSE(ctl::parse_command(bad, &c, &error)) << (bad.empty() ? "" : bad[0]);
    }
}

TEST(CtlTest, RepliesEndTheRequestAndArePrintedOnOneLine) {
    ctl::request query;
    query.code = 561;
    ctl::exchange fota(query);
    EXPECT_EQ(fota.take(reply(1001, 1, "123")), ctl::verdict::unrelated);
    EXPECT_EQ(fota.take(reply(561, 5, "50")), ctl::verdict::progress);
    EXPECT_EQ(fota.take(reply(561, 12)), ctl::verdict::done);
    EXPECT_EQ(fota.exit_status(), ctl::EXIT_FAILED);

    // A raw AT line the module refuses fails the run (its "OK" path is in ClientToolTest).
    ctl::exchange refused(parsed({"at", "AT+CSQ"}).steps.at(1));
    EXPECT_EQ(refused.take(reply(402, 0, "+CME ERROR: 10")), ctl::verdict::done);
    EXPECT_EQ(refused.exit_status(), ctl::EXIT_FAILED);

    ctl::print_style plain, json;
    json.json = true;
    EXPECT_EQ(ctl::format_frame(reply(1001, 2, "1"), plain, true), "event 1001 call-state(2) 1");
    EXPECT_EQ(ctl::format_frame(reply(402, 0, "a\r\nb\\c\x01"), plain, false), "402 ok(0) a\\r\\nb\\\\c\\x01");
    EXPECT_EQ(ctl::format_frame(reply(1031, 0, "say \"hi\"\xFF"), json, false),
              "{\"code\":1031,\"status\":0,\"status_name\":\"ok\",\"text\":\"say \\\"hi\\\"\\ufffd\"}");
}

TEST(CtlTest, ListenShowsEventsDecodedAndRecordsThatDoNotAddUpRaw) {
    ctl::print_style plain, json;
    json.json = true;
    const std::string sms = "14+86139123456781420261123101542005Hello";
    const struct {
        reply_frame f;
        std::string plain, json;
    } cases[] = {
        {reply(1001, 1, "13912345678"), "call incoming 13912345678",
         R"({"event":"call","state":"incoming","number":"13912345678"})"},
        {reply(1001, 2, "1"), "call ended (no carrier)", R"({"event":"call","state":"ended","reason":"no carrier"})"},
        {reply(1031, 0, sms), "sms from +8613912345678 at 2026-11-23 10:15:42: Hello",
         R"({"event":"sms","from":"+8613912345678","time":"2026-11-23T10:15:42","text":"Hello"})"},
        // A 7-bit text of 7 characters ends in a 0 that the frame's end cuts off.
        {reply(1031, 0, "0212142026112310154200812\"\n\x01" "56"), "sms from 12 at 2026-11-23 10:15:42: 12\"\\n\\x0156",
         R"({"event":"sms","from":"12","time":"2026-11-23T10:15:42","text":"12\"\n\u000156"})"},
        {reply(1032, 0x41, "255"), "sms report ref 255 status 65 (failed)",
         R"({"event":"sms_report","reference":255,"status":65,"outcome":"failed"})"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(ctl::format_event(c.f, plain), c.plain);
        EXPECT_EQ(ctl::format_event(c.f, json), c.json);
    }
    // Lengths that run past the end, a text longer than announced, no "14",
    // unknown call states and references: printed as frames.
    for (const reply_frame &f : {reply(1031, 0, "99+86"), reply(1031, 0, sms + "!"), reply(1031, 0, "0212152026112310154200"),
                                 reply(1001, 2, "9"), reply(1032, 0, "x"), reply(102, 0, "20")})
        EXPECT_EQ(ctl::format_event(f, plain), "") << std::string(f.text, f.text_len);
}

} // namespace
