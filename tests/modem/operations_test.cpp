// The operations over a real pty with the receive thread running: the test
// thread acts as the module while the operation blocks in its own thread.
#include "at/at.h"
#include "core/text.h"
#include "modem/modem.h"
#include "support/at_port.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

// Runs an operation on its own thread, as a worker would.
class running {
public:
    explicit running(std::function<int()> op)
        : started_(monotonic_ms()), thread_([this, op] { result_ = op(); }) {}
    ~running() {
        if (thread_.joinable())
            thread_.join();
    }
    int result() {
        thread_.join();
        return result_;
    }
    long started() const { return started_; }

private:
    int result_ = -2;
    long started_;
    std::thread thread_;
};

class OperationTest : public testing::Test {
protected:
    void SetUp() override {
        daemon_state_reset();
        port = std::make_unique<at_port>();
        client = std::make_unique<client_end>();
        port->start_rx();
    }
    void TearDown() override {
        client.reset();
        port.reset();
        daemon_state_reset();
    }

    // The command the operation wrote, up to its line end.
    std::string command(const char *end = "\r\n") { return port->module_reads(end, 2000); }

    void expect_report(int code, int status, const std::string &text) {
        reply_frame f;
        ASSERT_TRUE(client->next(&f, 3000)) << "no report for " << code;
        EXPECT_EQ(f.code, code);
        EXPECT_EQ(f.status, status);
        EXPECT_EQ(std::string(f.text), text);
    }

    void expect_idle() { EXPECT_EQ(state().at_state.load(), AT_IDLE); }

    std::unique_ptr<at_port> port;
    std::unique_ptr<client_end> client;
};

TEST_F(OperationTest, QueryEndsOnItsLineAndPassesTheRestOn) {
    running op([] { return get_csq(1); });
    EXPECT_EQ(command(), "AT+CSQ\r\n");
    port->module_says("AT+CSQ\r\r\nRING\r\n+CSQ: 23,99\r\n\r\nOK\r\n");
    EXPECT_EQ(op.result(), 0);
    expect_report(CODE_GET_CSQ, STATUS_OK, "23");
    EXPECT_STREQ(state().signal_rssi, "23");
    // The echo is dropped; the unsolicited line and the trailing OK reach the common thread.
    EXPECT_EQ(urc_next(2000), "RING");
    EXPECT_EQ(urc_next(2000), "OK");
    EXPECT_EQ(urc_next(100), "<none>");
    expect_idle();
}

TEST_F(OperationTest, ModelTextCollectsEveryLineUpToOk) {
    text_set(state().module_model, "old");
    running op([] { return get_ati(1); });
    EXPECT_EQ(command(), "ATI\r\n");
    // ATI has no error rule and no unsolicited rule: RING and ERROR become part of the text.
    port->module_says("ATI\r\r\nMAKER\r\nEC200T\r\nRING\r\nRevision: R01\r\nERROR\r\n");
    port->module_says("OKAY\r\n");
    EXPECT_EQ(op.result(), 0);
    expect_report(CODE_GET_ATI, STATUS_OK, "MAKER,EC200T,RING,Revision: R01,ERROR");
    EXPECT_STREQ(state().module_model, "MAKER,EC200T,RING,Revision: R01,ERROR");
    EXPECT_EQ(urc_next(100), "<none>");
}

TEST_F(OperationTest, DigitLineQueryWithoutErrorRuleTimesOut) {
    text_set(state().module_imei, "866123");
    running op([] { return get_gsn(1); });
    EXPECT_EQ(command(), "AT+GSN\r\n");
    port->module_says("ERROR\r\n");
    EXPECT_EQ(op.result(), -1);
    EXPECT_GE(monotonic_ms() - op.started(), 340);
    expect_report(CODE_GET_GSN, STATUS_FAIL, "time out!");
    EXPECT_EQ(urc_next(1000), "ERROR");
    EXPECT_STREQ(state().module_imei, "866123");
    expect_idle();
}

TEST_F(OperationTest, ModuleErrorFailsAndReachesTheCommonThread) {
    running op([] { return set_csms(0, 1); });
    EXPECT_EQ(command(), "AT+CSMS=0\r\n");
    port->module_says("+CMT: ,24\r\n+CMS ERROR: 500\r\n");
    EXPECT_EQ(op.result(), -1);
    expect_report(CODE_SET_CSMS, STATUS_FAIL, "");
    EXPECT_EQ(urc_next(1000), "+CMT: ,24");
    EXPECT_EQ(urc_next(1000), "+CMS ERROR: 500");
    expect_idle();
}

TEST_F(OperationTest, SettingCommandsAreSilentWithReportZero) {
    struct {
        std::function<int()> op;
        const char *cmd;
    } cases[] = {
        {[] { return set_cnmi(7, 0); }, "AT+CNMI=2,3,0,1,0\r\n"},
        {[] { return set_cmgf(5, 0); }, "AT+CMGF=1\r\n"},
        {[] { return set_cscs("GSM", 0); }, "AT+CSCS=\"GSM\"\r\n"},
        {[] { return set_clip(7, 0); }, "AT+CLIP=1\r\n"},
        {[] { return set_qcrmcall(1, 1, 0); }, "AT$QCRMCALL=1,1,1,2,1\r\n"},
    };
    for (auto &c : cases) {
        running op(c.op);
        EXPECT_EQ(command(), c.cmd);
        port->module_says("OK\r\n");
        EXPECT_EQ(op.result(), 0) << c.cmd;
    }
    EXPECT_TRUE(client->silent(100));
}

TEST_F(OperationTest, SendFailureOnAClosedPort) {
    port->stop_rx();
    int fd = state().at_fd.exchange(-1);
    EXPECT_EQ(set_cmgf(0, 0), -1);
    EXPECT_TRUE(client->silent(100));
    EXPECT_EQ(get_cops(1), -1);
    expect_report(CODE_GET_COPS, STATUS_FAIL, "at send error!");
    // These report a dead port whatever the caller asked.
    EXPECT_EQ(get_qnetdevstatus(0), -1);
    expect_report(CODE_GET_QNETDEVSTATUS, STATUS_FAIL, "at send error!");
    EXPECT_EQ(get_creg(), -1); // its first step fails silently, then it reports
    expect_report(CODE_GET_CREG, STATUS_FAIL, "");
    EXPECT_EQ(hang_up(), -1);
    expect_report(CODE_HANG_UP, STATUS_FAIL, "at send error!");
    expect_idle();
    state().at_fd = fd;
}

TEST_F(OperationTest, UnusableCentreIsAlwaysReported) {
    text_set(state().smsc_number, "8613800000000");
    running op([] { return get_csca(0); });
    EXPECT_EQ(command(), "AT+CSCA?\r\n");
    port->module_says("+CSCA: \"\",145\r\nOK\r\n");
    EXPECT_EQ(op.result(), -1);
    expect_report(CODE_GET_CSCA, STATUS_FAIL, "Wrong number!");
    EXPECT_STREQ(state().smsc_number, "");

}

TEST_F(OperationTest, RegistrationSwitchesModeThenAsks) {
    running op([] { return get_creg(); });
    EXPECT_EQ(command(), "AT+CREG=2\r\n");
    port->module_says("OK\r\n");
    EXPECT_EQ(command(), "AT+CREG?\r\n");
    port->module_says("+CREG: 2,1,\"1A2B\",\"01C3D4E\",7\r\nOK\r\n");
    EXPECT_EQ(op.result(), 0);
    // The mode switch itself stays silent: the only frame is the answer.
    expect_report(CODE_GET_CREG, STATUS_OK, "1A2B,01C3D4E");

    running refused([] { return get_creg(); });
    command();
    port->module_says("+CME ERROR: 10\r\n");
    EXPECT_EQ(refused.result(), -1);
    expect_report(CODE_GET_CREG, STATUS_FAIL, "");
    EXPECT_EQ(port->module_reads("AT+CREG?", 200), ""); // no query after a failed switch
    EXPECT_TRUE(client->silent(100));
}

TEST_F(OperationTest, NetworkDeviceStatusIsOneZeroOrFailure) {
    running up([] { return get_qnetdevstatus(1); });
    EXPECT_EQ(command(), "AT+QNETDEVSTATUS?\r\n");
    port->module_says("OK\r\n+QNETDEVSTATUS: 1,1\r\n");
    EXPECT_EQ(up.result(), 1);
    expect_report(CODE_GET_QNETDEVSTATUS, STATUS_OK, "1,1");
    EXPECT_EQ(urc_next(100), "<none>"); // an OK before the answer is dropped
}

TEST_F(OperationTest, AnswerEndedByTheCallerStillReturnsZero) {
    state().call_active = 1;
    running op([] { return answer_call(); });
    EXPECT_EQ(command(), "ATA\r\n");
    port->module_says("RING\r\nNO CARRIER\r\n");
    EXPECT_EQ(op.result(), 0);
    expect_report(CODE_ANSWER_CALL, STATUS_FAIL, "NO CARRIER");
    EXPECT_EQ(state().call_active.load(), 0);
    EXPECT_EQ(urc_next(1000), "RING");
    EXPECT_EQ(urc_next(1000), "NO CARRIER");
    expect_idle();
}

TEST_F(OperationTest, SpeakingEndsInCarriageReturnOnly) {
    running op([] { return play_tts(1, "AB"); });
    EXPECT_EQ(command("\r"), "AT+QWTTS=1,1,1,\"00410042\"\r");
    EXPECT_EQ(port->module_reads("\n", 100), ""); // no line feed follows
    port->module_says("OK\r\n");
    EXPECT_EQ(op.result(), 0);
    expect_report(CODE_PLAY_TTS, STATUS_OK, "");
}

TEST_F(OperationTest, LocationSettingReadAndSet) {
    running read([] { return lbs_config(0, "timeout", nullptr); });
    EXPECT_EQ(command(), "AT+QLBSCFG=\"timeout\"\r\n");
    port->module_says("+QLBSCFG: \"timeout\",10\r\nRING\r\nOK\r\n");
    EXPECT_EQ(read.result(), 0);
    expect_report(CODE_LBS_CONFIG, STATUS_OK, "timeout: 10");
    EXPECT_EQ(urc_next(1000), "RING");

    running token([] { return lbs_config(1, "token", "abc"); });
    EXPECT_EQ(command(), "AT+QLBSCFG=\"token\",\"abc\"\r\n");
    port->module_says("OK\r\n");
    EXPECT_EQ(token.result(), 0);
    expect_report(CODE_LBS_CONFIG, STATUS_OK, "set token");
}

TEST_F(OperationTest, UnknownLocationSettingSendsNothing) {
    EXPECT_EQ(lbs_config(1, "speed", "3"), -1);
    expect_report(CODE_LBS_CONFIG, STATUS_BAD_PARAM, "");
    EXPECT_EQ(port->module_reads("\n", 200), "");
    expect_idle();
}

class DialTest : public OperationTest {
protected:
    void SetUp() override {
        OperationTest::SetUp();
        text_set(state().apn_name, "internet");
        state().apn_auth = 1;
    }
    // Answers every command with OK until `fail_on` arrives, which gets "ERROR".
    // Returns the commands seen.
    std::string module_answers(const std::string &fail_on, const std::string &last) {
        std::string seen;
        for (;;) {
            std::string cmd = command();
            if (cmd.empty())
                return seen;
            EXPECT_EQ(state().dial_in_progress.load(), 1) << cmd;
            seen += cmd;
            bool fail = cmd.find(fail_on) == 0;
            port->module_says(fail ? "ERROR\r\n" : "OK\r\n");
            if (fail || cmd.find(last) == 0)
                return seen;
        }
    }
};

TEST_F(DialTest, Ec200StopsAtTheFailingStep) {
    state().debug = 1;
    testing::internal::CaptureStdout();
    running dial([] { return dial_ec200(1); });
    std::string seen = module_answers("AT+QIACT", "AT+QNETDEVCTL");
    EXPECT_EQ(dial.result(), -1);
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(seen, "ATE0\r\nAT+QIDEACT=1\r\nAT+QICSGP=1,1,\"internet\",\"\",\"\",1\r\n"
                    "AT+QIACT=1\r\n");
    EXPECT_EQ(port->module_reads("\n", 200), ""); // no AT+QNETDEVCTL
    expect_report(CODE_DIAL, STATUS_FAIL, "set_qiact");
    EXPECT_TRUE(client->silent(100)); // the step itself reports nothing
    EXPECT_EQ(state().dial_in_progress.load(), 0);
    EXPECT_NE(out.find("] Begin to dial up...\n"), std::string::npos) << out;
    EXPECT_NE(out.find("] set_qiact failed!\n"), std::string::npos) << out;
}

TEST_F(DialTest, Ec20IgnoresEchoAndStopFailuresThenDials) {
    text_set(state().apn_passwd, "pw");
    running dial([] { return dial_ec20(1); });
    // Failures of the echo switch and of stopping an old call do not stop the dial.
    EXPECT_EQ(command(), "ATE0\r\n");
    port->module_says("ERROR\r\n");
    EXPECT_EQ(command(), "AT$QCRMCALL=0,1,1,2,1\r\n");
    port->module_says("ERROR\r\n");
    std::string seen = module_answers("AT$QCRMCALL=1", "-");
    EXPECT_EQ(dial.result(), -1);
    EXPECT_EQ(seen, "AT+QIDEACT=1\r\nAT+QICSGP=1,1,\"internet\",\"\",\"pw\",1\r\n"
                    "AT+QIACT=1\r\nAT$QCRMCALL=1,1,1,2,1\r\n");
    expect_report(CODE_DIAL, STATUS_FAIL, "set_qcrmcall");
    EXPECT_EQ(state().dial_in_progress.load(), 0);
}

TEST_F(DialTest, Ec20LeavesTheConnectionToTheExternalProgram) {
    temp_dir dir;
    std::string mark = dir.path() + "/ran";
    text_set(state().app_name, "connector");
    text_set(state().app_cmd, ("touch " + mark).c_str());
    EXPECT_EQ(dial_ec20(1), 0);
    expect_report(CODE_DIAL, STATUS_OK, "");
    EXPECT_EQ(access(mark.c_str(), F_OK), 0);
    EXPECT_EQ(port->module_reads("\n", 200), "");
    EXPECT_EQ(state().dial_in_progress.load(), 0);
}

} // namespace
