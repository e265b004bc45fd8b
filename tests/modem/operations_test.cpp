// The operations over a real pty with the receive thread running (the test
// thread plays the module while the operation blocks on its own thread), then
// the answer parsers on captured lines.
#include "at/at.h"
#include "core/config.h"
#include "core/text.h"
#include "modem/modem.h"
#include "support/test_support.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <csignal>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using OperationTest = port_test;

struct exchange {
    std::function<op_outcome()> op;
    std::string commands; // all the module receives
    std::string answer;   // to each command but those refused
    const char *outcome;  // as the reply frame would show it
    const char *urc;
    const char *field = nullptr; // a text of daemon_state, and what it holds afterwards
    const char *value = nullptr;
    std::vector<std::string> refused = {}; // commands answered ERROR
    bool dial = false;                     // dial_in_progress while each command is sent
};

TEST_F(OperationTest, ExchangesWithThePlayedModule) {
    daemon_state &s = state();
    text_set(s.module_imei, "866123");
    text_set(s.smsc_number, "861380000");
    text_set(s.apn_name, "internet");
    text_set(s.apn_passwd, "pw");
    s.call_active = 1;
    const std::string context =
        "AT+QIDEACT=1\r\nAT+QICSGP=1,1,\"internet\",\"\",\"pw\",1\r\nAT+QIACT=1\r\n";
    const exchange cases[] = {
        // The echo is dropped; lines around the answer go on to the common thread.
        {get_csq, "AT+CSQ\r\n", "AT+CSQ\r\r\nRING\r\n+CSQ: 23,99\r\n\r\nOK\r\n", "102 0 23|",
         "RING|OK|", s.signal_rssi, "23"},
        // Everything up to OK is the model text, even RING and ERROR.
        {get_ati, "ATI\r\n", "ATI\r\r\nMAKER\r\nRING\r\nR01\r\nERROR\r\nOKAY\r\n",
         "51 0 MAKER,RING,R01,ERROR|", "", s.module_model, "MAKER,RING,R01,ERROR"},
        // The IMEI query waits for digits; an ERROR does not end the wait.
        {get_gsn, "AT+GSN\r\n", "ERROR\r\n", "52 1 time out!|", "ERROR|", s.module_imei, "866123"},
        {[] { return set_csms(0); }, "AT+CSMS=0\r\n", "+CMT: ,24\r\n+CMS ERROR: 500\r\n", "232 1 |",
         "+CMT: ,24|+CMS ERROR: 500|"},
        {[] { return set_cnmi(7); }, "AT+CNMI=2,3,0,1,0\r\n", "OK\r\n", "233 0 |", ""},
        {[] { return set_usbifc(1); }, "AT+QCFG=\"USBIFC\",2,2\r\n", "OK\r\n", "551 0 |", ""},
        // The centre is emptied first; an unusable one is a failure with its reason.
        {[] { return get_csca(); }, "AT+CSCA?\r\n", "+CSCA: \"\",145\r\nOK\r\n",
         "201 1 Wrong number!|", "OK|", s.smsc_number, ""},
        // A refused mode switch ends the registration query before it asks.
        {get_creg, "AT+CREG=2\r\n", "+CME ERROR: 10\r\n", "111 1 |", "+CME ERROR: 10|"},
        // An OK ahead of the answer is dropped.
        {[] {
             bool up = false;
             op_outcome o = get_qnetdevstatus(&up);
             EXPECT_TRUE(up);
             return o;
         },
         "AT+QNETDEVSTATUS?\r\n", "OK\r\n+QNETDEVSTATUS: 1,1\r\n", "191 0 1,1|", ""},
        // A call ended by the caller (and ends the call, below).
        {answer_call, "ATA\r\n", "RING\r\nNO CARRIER\r\n", "302 1 NO CARRIER|", "RING|NO CARRIER|"},
        {[] { return lbs_config(1, "token", "abc"); }, "AT+QLBSCFG=\"token\",\"abc\"\r\n", "OK\r\n",
         "451 0 set token|", ""},
        {[] { return lbs_config(1, "speed", "3"); }, "", "", "451 10 |", ""},
        // A dial stops at its first failing step, whose name is its outcome.
        {[] { return dial(family_of(modem_family::ec200t)); }, "ATE0\r\n" + context, "OK\r\n", "370 1 set_qiact|", "", nullptr, nullptr,
         {"AT+QIACT"}, true},
        // The echo switch and stopping an old call may fail; the dial goes on.
        {[] { return dial(family_of(modem_family::ec20)); }, "ATE0\r\nAT$QCRMCALL=0,1,1,2,1\r\n" + context + "AT$QCRMCALL=1,1,1,2,1\r\n",
         "OK\r\n", "370 1 set_qcrmcall|", "", nullptr, nullptr, {"ATE0", "AT$QCRMCALL"}, true},
    };
    for (const exchange &c : cases) {
        SCOPED_TRACE(c.commands.empty() ? c.outcome : c.commands);
        std::future<op_outcome> op = std::async(std::launch::async, c.op); // as a worker runs it
        std::string seen;
        while (op.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready) {
            std::string cmd = port.module_reads("\r\n", 50);
            if (cmd.empty())
                continue;
            EXPECT_EQ(s.dial_in_progress.load(), c.dial) << cmd;
            seen += cmd;
            bool refuse = std::any_of(c.refused.begin(), c.refused.end(),
                                      [&](const std::string &r) { return cmd.rfind(r, 0) == 0; });
            port.module_says(refuse ? "ERROR\r\n" : c.answer);
        }
        EXPECT_EQ(shown(op.get()), c.outcome);
        EXPECT_EQ(seen + module_got(), c.commands);
        EXPECT_EQ(client.frames(), ""); // the outcome is the caller's to send
        EXPECT_EQ(urc(), c.urc);
        EXPECT_STREQ(c.field, c.value); // both null when the row names no field
        EXPECT_EQ(s.at_state.load(), AT_IDLE);
        EXPECT_EQ(s.dial_in_progress.load(), 0);
    }
    EXPECT_EQ(s.call_active.load(), 0);
    EXPECT_EQ(stat_value("dial_failures"), 2);
}

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

TEST(AnswerParseTest, SignalLocationKeysAndSpeech) {
    // The value is terminated even with no ',' to stop at.
    const std::pair<const char *, const char *> csq[] = {{"+CSQ: 23,99", "23"},
        {"+CSQ: 99,99", "-1"}, {"+CSQ: 199,99", "-1"}, {"+CSQ: 1234567", "12345"}, {"+CSQ:", ""}};
    for (const auto &c : csq) {
        char v[CSQ_VALUE_SIZE];
        memset(v, 'x', sizeof v);
        csq_value(c.first, v);
        EXPECT_STREQ(v, c.second);
    }
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

// The EC20's external program gets each setting as one argument whatever it
// holds: no shell reads them. With an APN it runs on in the background, no
// child of the daemon's; without one it is awaited.
TEST(ExternalProgramTest, EachSettingIsOneArgument) {
    fresh_state fresh;
    temp_dir dir;
    const std::string out = dir.path() + "/argv";
    // Notes its pid and arguments, then stays on while it has arguments.
    const std::string program = dir.write(
        "dialer", "#!/bin/sh\n{ echo $$; for a do printf '%s\\n' \"$a\"; done; } >" + out + ".new\nmv " + out +
                      ".new " + out + "\n[ $# -eq 0 ] || exec sleep 30\n");
    ASSERT_EQ(chmod(program.c_str(), 0755), 0);
    auto arguments = [&] {
        std::string got = read_file(out);
        return got.substr(got.find('\n') + 1);
    };
    config_apply("app_name", program.c_str());
    app_cmd_build();
    ASSERT_TRUE(dial(family_of(modem_family::ec20)).ok());
    EXPECT_EQ(arguments(), ""); // already there: awaited
    ASSERT_EQ(unlink(out.c_str()), 0);

    for (const auto &[key, value] :
         {std::pair{"apn_name", "my apn;x"}, {"apn_user", "u&"}, {"apn_passwd", "p w'"},
          {"apn_auth", "2"}})
        config_apply(key, value);
    app_cmd_build();
    ASSERT_TRUE(dial(family_of(modem_family::ec20)).ok());
    ASSERT_TRUE(wait_until([&] { return access(out.c_str(), F_OK) == 0; }, 5000))
        << state().app_cmd;
    EXPECT_EQ(arguments(), "-s\nmy apn;x\nu&\np w'\n2\n");
    const pid_t pid = static_cast<pid_t>(std::stol(read_file(out)));
    EXPECT_EQ(kill(pid, 0), 0);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
    kill(pid, SIGKILL);
}

} // namespace
