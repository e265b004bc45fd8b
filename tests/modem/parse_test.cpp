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

TEST(AnswerParseTest, SignalValue) {
    EXPECT_EQ(csq("+CSQ: 23,99"), "23");
    EXPECT_EQ(csq("+CSQ: 99,99"), "-1");
    EXPECT_EQ(csq("+CSQ: 199,99"), "-1");
    EXPECT_EQ(csq("+CSQ: 1234567"), "12345"); // terminated with no ',' to stop at
    EXPECT_EQ(csq("+CSQ:"), "");
}

// Quotes after the terminator catch a scan that runs past the line's end.
TEST(AnswerParseTest, QuoteSearchStopsAtTheLineEndAndIndex29) {
    char line[40];
    memset(line, '"', sizeof line);
    memcpy(line, "+COPS: 0,0,\"AB", 15);
    quote_span q;
    EXPECT_FALSE(find_quotes(line, 6, 29, &q));
    char name[100];
    ASSERT_TRUE(cops_operator("+COPS: 0,0,\"NETWORK\",7", name, sizeof name));
    EXPECT_STREQ(name, "NETWORK");
    std::string n17 = "+COPS: 0,0,\"" + std::string(17, 'N') + "\""; // closes at 29
    EXPECT_TRUE(cops_operator(n17.c_str(), name, sizeof name));
    std::string n18 = "+COPS: 0,0,\"" + std::string(18, 'N') + "\"";
    EXPECT_FALSE(cops_operator(n18.c_str(), name, sizeof name));
    EXPECT_FALSE(cops_operator("+COPS: 0,0,\"N\",7", name, sizeof name));
    EXPECT_FALSE(cops_operator("+COPS: 0", name, sizeof name));
}

TEST(AnswerParseTest, CentreNumberWithoutPlusAndWithinTheField) {
    char number[20];
    ASSERT_TRUE(csca_number("+CSCA: \"+86138001380\",145", number, sizeof number));
    EXPECT_STREQ(number, "86138001380");
    EXPECT_FALSE(csca_number("+CSCA: \"\",145", number, sizeof number));
    std::string d19 = "+CSCA: \"+" + std::string(19, '1') + "\"";
    EXPECT_TRUE(csca_number(d19.c_str(), number, sizeof number));
    std::string d20 = "+CSCA: \"+" + std::string(20, '2') + "\""; // closes at 29 but won't fit
    EXPECT_FALSE(csca_number(d20.c_str(), number, sizeof number));
}

TEST(AnswerParseTest, RegistrationAreaAndCell) {
    char text[120];
    ASSERT_TRUE(creg_location("+CREG: 2,1,\"1A2B\",\"01C3D4E\",7", text, sizeof text));
    EXPECT_STREQ(text, "1A2B,01C3D4E");
    EXPECT_FALSE(creg_location("+CREG: 2,0", text, sizeof text));
    // The cell search starts two past the area's closing quote: past the end here.
    EXPECT_FALSE(creg_location("+CREG: 2,1,\"1A2B\"", text, sizeof text));
    std::string at39 = "+CREG: 2,1,\"1A2B\",\"" + std::string(20, 'C') + "\"";
    EXPECT_TRUE(creg_location(at39.c_str(), text, sizeof text));
    std::string at40 = "+CREG: 2,1,\"1A2B\",\"" + std::string(21, 'C') + "\"";
    EXPECT_FALSE(creg_location(at40.c_str(), text, sizeof text));
}

TEST(AnswerParseTest, NetworkDeviceStatus) {
    const char *text = nullptr;
    EXPECT_EQ(qnetdevstatus_parse("+QNETDEVSTATUS: 1,1", &text), 1);
    EXPECT_STREQ(text, "1,1");
    EXPECT_EQ(qnetdevstatus_parse("+QNETDEVSTATUS: 1,0", &text), 0);
    EXPECT_EQ(qnetdevstatus_parse("+QNETDEVSTATUS:", &text), 0);
    EXPECT_STREQ(text, "");
}

TEST(AnswerParseTest, LocationSettingsAndPosition) {
    EXPECT_STREQ(lbs_key_find("timeoutXYZ")->name, "timeout");
    EXPECT_EQ(lbs_key_find("time"), nullptr);
    EXPECT_EQ(lbs_key_find("speed"), nullptr);

    char out[100] = "";
    ASSERT_TRUE(qlbscfg_answer("+QLBSCFG: \"server\",\"www.example.org\"", out, sizeof out));
    EXPECT_STREQ(out, "server: www.example.org");
    ASSERT_TRUE(qlbscfg_answer("+QLBSCFG: \"withTime\"", out, sizeof out)); // value start past the end
    EXPECT_STREQ(out, "withTime: ");
    std::string bare = "+QLBSCFG: \"asynch\"," + std::string(90, '7');
    ASSERT_TRUE(qlbscfg_answer(bare.c_str(), out, sizeof out));
    EXPECT_EQ(std::string(out), "asynch: " + std::string(80, '7'));
    strcpy(out, "kept");
    std::string far = "+QLBSCFG: \"server\",\"" + std::string(40, 's') + "\""; // closes at 60
    EXPECT_FALSE(qlbscfg_answer(far.c_str(), out, sizeof out));
    EXPECT_FALSE(qlbscfg_answer("+QLBSCFG: \"token\",\"\"", out, sizeof out));
    EXPECT_STREQ(out, "kept");

    EXPECT_TRUE(qlbs_answer("+QLBS: 0,31.123456,121.123456", out, sizeof out));
    EXPECT_STREQ(out, "31.123456,121.123456");
    std::string err = "+QLBS: " + std::string(200, '9');
    EXPECT_FALSE(qlbs_answer(err.c_str(), out, sizeof out));
    EXPECT_EQ(std::string(out), "errCode:" + std::string(91, '9'));
}

std::string tts(const std::string &text) {
    char cmd[TTS_COMMAND_SIZE];
    size_t n = tts_command(text.c_str(), cmd);
    EXPECT_EQ(n, strlen(cmd));
    return cmd;
}

TEST(AnswerParseTest, SpeakingCommand) {
    EXPECT_EQ(tts("A\xE4\xBD\xA0"), "AT+QWTTS=1,1,1,\"00414F60\"\r");
    std::string digits;
    for (int i = 0; i < 127; ++i)
        digits += "0061";
    EXPECT_EQ(tts(std::string(200, 'a')), "AT+QWTTS=1,1,1,\"" + digits + "\"\r");
}

} // namespace
