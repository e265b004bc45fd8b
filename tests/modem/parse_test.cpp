#include "modem/modem.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using answer_fn = bool (*)(const char *, char *, size_t);

struct answer_case {
    answer_fn parse;
    std::string line;
    size_t size; // of the caller's buffer
    bool ok;
    std::string out; // what the caller's buffer holds afterwards, "kept" before
};

TEST(AnswerParseTest, CapturedAnswerLines) {
    const std::string n17(17, 'N'), c20(20, 'C');
    const answer_case cases[] = {
        {cops_operator, "+COPS: 0,0,\"NETWORK\",7", 100, true, "NETWORK"},
        {cops_operator, "+COPS: 0,0,\"" + n17 + "\"", 100, true, n17}, // closes at index 29
        {cops_operator, "+COPS: 0,0,\"" + n17 + "N\"", 100, false, "kept"},
        {cops_operator, "+COPS: 0,0,\"N\",7", 100, false, "kept"},
        {cops_operator, "+COPS: 0", 100, false, "kept"},
        {csca_number, "+CSCA: \"+86138001380\",145", 20, true, "86138001380"},
        {csca_number, "+CSCA: \"\",145", 20, false, "kept"},
        {csca_number, "+CSCA: \"+" + std::string(19, '1') + "\"", 20, true, std::string(19, '1')},
        {csca_number, "+CSCA: \"+" + std::string(20, '2') + "\"", 20, false, "kept"}, // no room
        {creg_location, "+CREG: 2,1,\"1A2B\",\"01C3D4E\",7", 100, true, "1A2B,01C3D4E"},
        {creg_location, "+CREG: 2,0", 100, false, "kept"},
        {creg_location, "+CREG: 2,1,\"1A2B\",\"" + c20 + "\"", 100, true, "1A2B," + c20},
        {creg_location, "+CREG: 2,1,\"1A2B\",\"" + c20 + "C\"", 100, false, "kept"}, // closes at 40
        {qlbscfg_answer, "+QLBSCFG: \"server\",\"example.org\"", 100, true, "server: example.org"},
        {qlbscfg_answer, "+QLBSCFG: \"withTime\"", 100, true, "withTime: "}, // value past the end
        {qlbscfg_answer, "+QLBSCFG: \"asynch\"," + std::string(90, '7'), 100, true,
         "asynch: " + std::string(80, '7')},
        {qlbscfg_answer, "+QLBSCFG: \"server\",\"" + c20 + c20 + "\"", 100, false, "kept"}, // at 60
        {qlbscfg_answer, "+QLBSCFG: \"token\",\"\"", 100, false, "kept"},
        {qlbs_answer, "+QLBS: 0,31.123456,121.123456", 100, true, "31.123456,121.123456"},
        {qlbs_answer, "+QLBS: " + std::string(200, '9'), 100, false,
         "errCode:" + std::string(91, '9')},
    };
    for (const answer_case &c : cases) {
        char out[100] = "kept";
        EXPECT_EQ(c.parse(c.line.c_str(), out, c.size), c.ok) << c.line;
        EXPECT_EQ(std::string(out), c.out) << c.line;
    }
}

TEST(AnswerParseTest, SignalDeviceStatusLocationKeysAndSpeech) {
    // The value is terminated even with no ',' to stop at.
    const std::pair<const char *, const char *> csq[] = {{"+CSQ: 23,99", "23"},
        {"+CSQ: 99,99", "-1"}, {"+CSQ: 199,99", "-1"}, {"+CSQ: 1234567", "12345"}, {"+CSQ:", ""}};
    for (const auto &c : csq) {
        char v[CSQ_VALUE_SIZE];
        memset(v, 'x', sizeof v);
        csq_value(c.first, v);
        EXPECT_STREQ(v, c.second);
    }
    const char *text = nullptr;
    EXPECT_EQ(qnetdevstatus_parse("+QNETDEVSTATUS:", &text), 0);
    EXPECT_STREQ(text, "");
    EXPECT_STREQ(lbs_key_find("timeoutXYZ")->name, "timeout");
    EXPECT_EQ(lbs_key_find("time"), nullptr);
    // A text to speak keeps its first 127 characters.
    std::string digits;
    for (int i = 0; i < 127; ++i)
        digits += "0061";
    char cmd[TTS_COMMAND_SIZE];
    size_t n = tts_command(std::string(200, 'a').c_str(), cmd);
    EXPECT_EQ(std::string(cmd), "AT+QWTTS=1,1,1,\"" + digits + "\"\r");
    EXPECT_EQ(n, strlen(cmd));
}

} // namespace
