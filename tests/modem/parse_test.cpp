#include "modem/modem.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

std::string csq(const char *line) {
    char v[CSQ_VALUE_SIZE];
    memset(v, 'x', sizeof v);
    csq_value(line, v);
    return v;
}

TEST(CsqValueTest, FirstNumberOrUnknown) {
    EXPECT_EQ(csq("+CSQ: 23,99"), "23");
    EXPECT_EQ(csq("+CSQ: 99,99"), "-1");
    EXPECT_EQ(csq("+CSQ: 199,99"), "-1");
    EXPECT_EQ(csq("+CSQ: 9,99"), "9");
    // Five characters at most, terminated even with no ',' to stop at.
    EXPECT_EQ(csq("+CSQ: 1234567"), "12345");
    EXPECT_EQ(csq("+CSQ:"), "");
    EXPECT_EQ(csq("+CSQ: ,99"), "");
}

// Operator, centre number and location all come out of the same quote search;
// a buffer with quotes after the terminator catches a scan that runs on.
TEST(QuoteSearchTest, StopsAtTheLineEndAndTheLastIndex) {
    char line[40];
    memset(line, '"', sizeof line);
    memcpy(line, "+COPS: 0,0,\"AB", 15); // cut before the closing quote
    quote_span q;
    EXPECT_FALSE(find_quotes(line, 6, 29, &q));

    ASSERT_TRUE(find_quotes("+COPS: 0,0,\"NET\",7", 6, 29, &q));
    EXPECT_EQ(q.open, 11u);
    EXPECT_EQ(q.close, 15u);
    // A closing quote at index 30 is out of reach.
    std::string far = "+COPS: 0,0,\"" + std::string(18, 'N') + "\"";
    EXPECT_FALSE(find_quotes(far.c_str(), 6, 29, &q));
    EXPECT_FALSE(find_quotes("+COPS: 0", 6, 29, &q));
    EXPECT_FALSE(find_quotes("\"a\"", 6, 29, &q)); // starts past the end
}

TEST(CopsOperatorTest, NameBetweenTheFirstQuotes) {
    char name[100];
    ASSERT_TRUE(cops_operator("+COPS: 0,0,\"NETWORK\",7", name, sizeof name));
    EXPECT_STREQ(name, "NETWORK");
    std::string longest = "+COPS: 0,0,\"" + std::string(17, 'N') + "\",7"; // closes at 29
    ASSERT_TRUE(cops_operator(longest.c_str(), name, sizeof name));
    EXPECT_EQ(std::string(name), std::string(17, 'N'));
    std::string too_long = "+COPS: 0,0,\"" + std::string(18, 'N') + "\",7";
    EXPECT_FALSE(cops_operator(too_long.c_str(), name, sizeof name));
    EXPECT_FALSE(cops_operator("+COPS: 0,0,\"N\",7", name, sizeof name));
    EXPECT_FALSE(cops_operator("+COPS: 0,0,\"\",7", name, sizeof name));
    EXPECT_FALSE(cops_operator("+COPS: 0", name, sizeof name));
}

TEST(CscaNumberTest, DropsThePlusAndRefusesWhatDoesNotFit) {
    char number[20];
    ASSERT_TRUE(csca_number("+CSCA: \"+86138001380\",145", number, sizeof number));
    EXPECT_STREQ(number, "86138001380");
    ASSERT_TRUE(csca_number("+CSCA: \"13800138000\",129", number, sizeof number));
    EXPECT_STREQ(number, "13800138000");
    EXPECT_FALSE(csca_number("+CSCA: \"\",145", number, sizeof number));
    EXPECT_FALSE(csca_number("+CSCA: \"5\",145", number, sizeof number));
    EXPECT_FALSE(csca_number("+CSCA: ", number, sizeof number));
    // 19 digits fit the 20-byte field, 20 do not.
    std::string d19 = "+CSCA: \"+" + std::string(19, '1') + "\"";
    ASSERT_TRUE(csca_number(d19.c_str(), number, sizeof number));
    EXPECT_EQ(std::string(number), std::string(19, '1'));
    std::string d20 = "+CSCA: \"+" + std::string(20, '2') + "\"";
    EXPECT_FALSE(csca_number(d20.c_str(), number, sizeof number));
}

TEST(CregLocationTest, AreaAndCell) {
    char text[120];
    ASSERT_TRUE(creg_location("+CREG: 2,1,\"1A2B\",\"01C3D4E\",7", text, sizeof text));
    EXPECT_STREQ(text, "1A2B,01C3D4E");
    EXPECT_FALSE(creg_location("+CREG: 2,0", text, sizeof text));
    // The cell search starts two past the area's closing quote, past the line's end here.
    EXPECT_FALSE(creg_location("+CREG: 2,1,\"1A2B\"", text, sizeof text));
    EXPECT_FALSE(creg_location("+CREG: 2,1,\"1A2B\",\"C\",7", text, sizeof text));
    // The cell's closing quote must lie at index 39 at the latest.
    std::string reach = "+CREG: 2,1,\"1A2B\",\"" + std::string(20, 'C') + "\""; // closes at 39
    ASSERT_TRUE(creg_location(reach.c_str(), text, sizeof text));
    EXPECT_EQ(std::string(text), "1A2B," + std::string(20, 'C'));
    std::string beyond = "+CREG: 2,1,\"1A2B\",\"" + std::string(21, 'C') + "\"";
    EXPECT_FALSE(creg_location(beyond.c_str(), text, sizeof text));
}

TEST(QnetdevstatusTest, UpWhenTheSecondNumberIsOneOrTwo) {
    const char *text = nullptr;
    EXPECT_EQ(qnetdevstatus_parse("+QNETDEVSTATUS: 1,1", &text), 1);
    EXPECT_STREQ(text, "1,1");
    EXPECT_EQ(qnetdevstatus_parse("+QNETDEVSTATUS: 1,2,4", &text), 1);
    EXPECT_EQ(qnetdevstatus_parse("+QNETDEVSTATUS: 1,0", &text), 0);
    EXPECT_EQ(qnetdevstatus_parse("+QNETDEVSTATUS: 1", &text), 0);
    EXPECT_STREQ(text, "1");
    EXPECT_EQ(qnetdevstatus_parse("+QNETDEVSTATUS:", &text), 0);
    EXPECT_STREQ(text, "");
}

TEST(LbsKeyTest, MatchedByLeadingCharacters) {
    ASSERT_NE(lbs_key_find("timeoutXYZ"), nullptr);
    EXPECT_STREQ(lbs_key_find("timeoutXYZ")->name, "timeout");
    EXPECT_STREQ(lbs_key_find("timeUpdate")->name, "timeUpdate");
    EXPECT_TRUE(lbs_key_find("token")->quoted);
    EXPECT_TRUE(lbs_key_find("server")->quoted);
    EXPECT_FALSE(lbs_key_find("withTime")->quoted);
    EXPECT_EQ(lbs_key_find("speed"), nullptr);
    EXPECT_EQ(lbs_key_find("time"), nullptr);
    EXPECT_EQ(lbs_key_find(""), nullptr);
}

TEST(QlbscfgAnswerTest, BareAndQuotedValues) {
    char out[100] = "before";
    ASSERT_TRUE(qlbscfg_answer("+QLBSCFG: \"timeout\",10", out, sizeof out));
    EXPECT_STREQ(out, "timeout: 10");
    ASSERT_TRUE(qlbscfg_answer("+QLBSCFG: \"server\",\"www.example.org\"", out, sizeof out));
    EXPECT_STREQ(out, "server: www.example.org");
    ASSERT_TRUE(qlbscfg_answer("+QLBSCFG: \"token\",\"A\"", out, sizeof out));
    EXPECT_STREQ(out, "token: A");
    ASSERT_TRUE(qlbscfg_answer("+QLBSCFG: \"withTime\"", out, sizeof out)); // no value at all
    EXPECT_STREQ(out, "withTime: ");
    std::string bare = "+QLBSCFG: \"asynch\"," + std::string(90, '7');
    ASSERT_TRUE(qlbscfg_answer(bare.c_str(), out, sizeof out));
    EXPECT_EQ(std::string(out), "asynch: " + std::string(80, '7'));

    // Unusable lines leave the text as it was.
    strcpy(out, "kept");
    EXPECT_FALSE(qlbscfg_answer("+QLBSCFG: \"speed\",3", out, sizeof out));
    EXPECT_FALSE(qlbscfg_answer("+QLBSCFG: \"token\",\"\"", out, sizeof out));
    std::string far = "+QLBSCFG: \"server\",\"" + std::string(40, 's') + "\""; // closes at 60
    EXPECT_FALSE(qlbscfg_answer(far.c_str(), out, sizeof out));
    EXPECT_FALSE(qlbscfg_answer("+QLBSCFG: ", out, sizeof out));
    EXPECT_STREQ(out, "kept");
}

TEST(QlbsAnswerTest, PositionOrErrorCode) {
    char out[100];
    EXPECT_TRUE(qlbs_answer("+QLBS: 0,31.123456,121.123456", out, sizeof out));
    EXPECT_STREQ(out, "31.123456,121.123456");
    EXPECT_FALSE(qlbs_answer("+QLBS: 1", out, sizeof out));
    EXPECT_STREQ(out, "errCode:1");
    EXPECT_FALSE(qlbs_answer("+QLBS: 0", out, sizeof out)); // "0" without ','
    EXPECT_STREQ(out, "errCode:0");
    EXPECT_FALSE(qlbs_answer("+QLBS: ", out, sizeof out));
    EXPECT_STREQ(out, "errCode:");
    // Both texts are cut to the 100-byte output.
    std::string err = "+QLBS: " + std::string(200, '9');
    EXPECT_FALSE(qlbs_answer(err.c_str(), out, sizeof out));
    EXPECT_EQ(std::string(out), "errCode:" + std::string(91, '9'));
    std::string pos = "+QLBS: 0," + std::string(200, '1');
    EXPECT_TRUE(qlbs_answer(pos.c_str(), out, sizeof out));
    EXPECT_EQ(std::string(out), std::string(99, '1'));
}

std::string tts(const std::string &text) {
    char cmd[TTS_COMMAND_SIZE];
    size_t n = tts_command(text.c_str(), cmd);
    EXPECT_EQ(n, strlen(cmd));
    return cmd;
}

TEST(TtsCommandTest, TextAsHexadecimalUcs2) {
    EXPECT_EQ(tts("AB"), "AT+QWTTS=1,1,1,\"00410042\"\r");
    EXPECT_EQ(tts("\xE4\xBD\xA0!"), "AT+QWTTS=1,1,1,\"4F600021\"\r");
    EXPECT_EQ(tts(""), "AT+QWTTS=1,1,1,\"\"\r");
    // A four-byte character ends the text.
    EXPECT_EQ(tts("A\xF0\x9F\x98\x80" "B"), "AT+QWTTS=1,1,1,\"0041\"\r");
    // 127 characters at most.
    std::string digits;
    for (int i = 0; i < 127; ++i)
        digits += "0061";
    EXPECT_EQ(tts(std::string(200, 'a')), "AT+QWTTS=1,1,1,\"" + digits + "\"\r");
    std::string wide;
    for (int i = 0; i < 200; ++i)
        wide += "\xE4\xBD\xA0";
    EXPECT_EQ(tts(wide).size(), 16 + 127 * 4 + 2);
}

} // namespace
