#include "modem_emu/modem_emu.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

int64_t now_ms() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

// The daemon's side of the pty: the slave, read and written raw.
class ModemEmuTest : public testing::Test {
protected:
    void SetUp() override {
        master = open_modem_pty(&slave_path);
        ASSERT_GE(master, 0);
        open_slave();
    }

    void TearDown() override {
        emu.stop();
        if (slave >= 0)
            close(slave);
        close(master);
    }

    void open_slave() {
        slave = open(slave_path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(slave, 0);
        pending.clear();
    }

    void start(modem_family family = modem_family::ec200t) {
        emu.set_family(family);
        ASSERT_TRUE(emu.start(master));
    }

    void send(const std::string &bytes) {
        ASSERT_EQ(write(slave, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    // Reads until `pending` holds `what`; returns everything up to its end.
    std::string read_until(const std::string &what, int timeout_ms = 2000) {
        int64_t deadline = now_ms() + timeout_ms;
        for (;;) {
            size_t at = pending.find(what);
            if (at != std::string::npos) {
                std::string got = pending.substr(0, at + what.size());
                pending.erase(0, at + what.size());
                return got;
            }
            int64_t left = deadline - now_ms();
            if (left <= 0) {
                ADD_FAILURE() << "no " << testing::PrintToString(what)
                              << " in: " << testing::PrintToString(pending);
                return "";
            }
            pollfd p = {slave, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left)) > 0) {
                char buf[512];
                ssize_t n = read(slave, buf, sizeof buf);
                if (n > 0)
                    pending.append(buf, static_cast<size_t>(n));
            }
        }
    }

    // Exactly these bytes come next.
    void expect_stream(const std::string &expected) {
        int64_t deadline = now_ms() + 2000;
        while (pending.size() < expected.size() && now_ms() < deadline) {
            pollfd p = {slave, POLLIN, 0};
            if (poll(&p, 1, 50) > 0) {
                char buf[512];
                ssize_t n = read(slave, buf, sizeof buf);
                if (n > 0)
                    pending.append(buf, static_cast<size_t>(n));
            }
        }
        EXPECT_EQ(pending.substr(0, expected.size()), expected);
        pending.erase(0, std::min(expected.size(), pending.size()));
    }

    // The answer lines to `command`, up to its final result line; the echo
    // must be off.
    std::vector<std::string> ask(const std::string &command) {
        send(command + "\r\n");
        std::vector<std::string> lines;
        for (;;) {
            std::string line = next_line();
            if (line.empty())
                return lines;
            lines.push_back(line);
            if (line == "OK" || line == "ERROR" || line.rfind("+CME ERROR:", 0) == 0 ||
                line.rfind("+CMS ERROR:", 0) == 0)
                return lines;
        }
    }

    std::string next_line() {
        for (;;) {
            std::string got = read_until("\r\n");
            if (got.empty())
                return "";
            if (got != "\r\n")
                return got.substr(0, got.size() - 2);
        }
    }

    int master = -1;
    int slave = -1;
    std::string slave_path;
    std::string pending;
    modem_emulator emu;
};

TEST_F(ModemEmuTest, EchoesUntilAte0AndFramesEveryLine) {
    start();
    EXPECT_TRUE(emu.echo_on());
    send("AT+CSQ\r\n");
    expect_stream("AT+CSQ\r\n\r\n+CSQ: 20,99\r\n\r\nOK\r\n");
    send("ATE0\r\n");
    expect_stream("ATE0\r\n\r\nOK\r\n");
    EXPECT_FALSE(emu.echo_on());
    send("AT+CSQ\r\n");
    expect_stream("\r\n+CSQ: 20,99\r\n\r\nOK\r\n");
    send("ATE1\r\n");
    expect_stream("\r\nOK\r\n");
    // Text-to-speech commands end in CR alone.
    send("AT\r");
    expect_stream("AT\r\r\nOK\r\n");
    EXPECT_TRUE(emu.echo_on());
}

TEST_F(ModemEmuTest, TakesCommandsInPiecesAndSeveralInOneWrite) {
    start();
    // Each piece is echoed before the next is sent, so each arrived on its own.
    send("AT+C");
    expect_stream("AT+C");
    send("SQ");
    expect_stream("SQ");
    send("\r");
    expect_stream("\r\r\n+CSQ: 20,99\r\n\r\nOK\r\n");
    // The LF of that CR comes late: echoed, no command of its own.
    send("\n");
    expect_stream("\n");

    send("AT\r\nAT+CSQ\r\nAT+GSN\r\n");
    expect_stream("AT\r\n\r\nOK\r\nAT+CSQ\r\n\r\n+CSQ: 20,99\r\n\r\nOK\r\n"
                  "AT+GSN\r\n\r\n861234567890123\r\n\r\nOK\r\n");
    // An empty line is no command either.
    send("\r\n");
    expect_stream("\r\n");
    send("AT\r\n");
    expect_stream("AT\r\n\r\nOK\r\n");

    std::vector<std::string> texts;
    for (const modem_command &c : emu.commands())
        texts.push_back(c.text);
    EXPECT_EQ(texts, (std::vector<std::string>{"AT+CSQ", "AT", "AT+CSQ", "AT+GSN", "AT"}));
}

TEST_F(ModemEmuTest, FamiliesAnswerTheirOwnCommands) {
    struct {
        modem_family family;
        const char *command;
        std::vector<std::string> answer;
    } cases[] = {
        {modem_family::ec20, "ATI", {"MAKER", "EC20F", "Revision: EMU-EC20F-R01", "OK"}},
        {modem_family::ec200s, "ATI", {"MAKER", "EC200S", "Revision: EMU-EC200S-R01", "OK"}},
        {modem_family::ec20, "AT$QCRMCALL=1,1,1,2,1", {"$QCRMCALL: 1,V4", "OK"}},
        {modem_family::ec200t, "AT$QCRMCALL=1,1,1,2,1", {"ERROR"}},
        {modem_family::ec200t, "AT+QNETDEVCTL=1,1", {"OK"}},
        {modem_family::ec20, "AT+QNETDEVCTL=1,1", {"ERROR"}},
        {modem_family::ec200s, "AT+QCFG=\"USBIFC\",2,2", {"OK"}},
        {modem_family::ec20, "AT+QCFG=\"USBIFC\",2,2", {"ERROR"}},
        {modem_family::ec20, "AT+QWTTS=0,0,0", {"OK"}},
        {modem_family::ec200t, "AT+QWTTS=0,0,0", {"ERROR"}},
        {modem_family::ec200t, "AT+COPS?", {"+COPS: 0,0,\"NETWORK\",7", "OK"}},
        {modem_family::ec200t, "AT+QICSGP=1,1,\"internet\",\"\",\"\",1", {"OK"}},
        {modem_family::ec200t, "AT+CMGF=5", {"ERROR"}},
        {modem_family::ec200t, "AT+CNMI=2,2,0,1,0", {"OK"}},
        {modem_family::ec200t, "AT+CSMS=0", {"+CSMS: 1,1,1", "OK"}},
        {modem_family::ec200t, "AT+NOSUCH", {"ERROR"}},
        {modem_family::ec200t, "ATI0", {"ERROR"}},
        {modem_family::ec200t, "AT", {"OK"}},
    };
    emu.set_echo_dropped(true);
    start();
    for (auto &c : cases) {
        emu.set_family(c.family);
        EXPECT_EQ(ask(c.command), c.answer) << modem_family_name(c.family) << " " << c.command;
    }
}

TEST_F(ModemEmuTest, AnswersFollowWhatTheModuleWasToldBefore) {
    emu.set_echo_dropped(true);
    start(modem_family::ec20);
    EXPECT_EQ(ask("AT+CREG?"), (std::vector<std::string>{"+CREG: 0,1", "OK"}));
    EXPECT_EQ(ask("AT+CREG=2"), std::vector<std::string>{"OK"});
    EXPECT_EQ(ask("AT+CREG?"),
              (std::vector<std::string>{"+CREG: 2,1,\"1A2B\",\"01C3D4E\",7", "OK"}));

    EXPECT_EQ(ask("AT+QNETDEVSTATUS?"), (std::vector<std::string>{"+QNETDEVSTATUS: 0,0", "OK"}));
    ask("AT$QCRMCALL=1,1,1,2,1");
    EXPECT_EQ(ask("AT+QNETDEVSTATUS?"), (std::vector<std::string>{"+QNETDEVSTATUS: 1,1", "OK"}));

    EXPECT_EQ(ask("AT+QLBSCFG=\"timeout\""),
              (std::vector<std::string>{"+QLBSCFG: \"timeout\",10", "OK"}));
    EXPECT_EQ(ask("AT+QLBSCFG=\"token\",\"abc\""), std::vector<std::string>{"OK"});
    EXPECT_EQ(ask("AT+QLBSCFG=\"token\""),
              (std::vector<std::string>{"+QLBSCFG: \"token\",\"abc\"", "OK"}));
    EXPECT_EQ(ask("AT+QLBSCFG=\"speed\""), std::vector<std::string>{"ERROR"});

    // Speaking ends later with its own unsolicited line.
    EXPECT_EQ(ask("AT+QWTTS=1,1,1,\"00410042\""), std::vector<std::string>{"OK"});
    EXPECT_EQ(next_line(), "+QWTTS: 0");

    // A reboot forgets all of it and turns the echo back on.
    emu.reboot();
    emu.set_echo_dropped(false);
    EXPECT_TRUE(emu.echo_on());
    send("AT+CREG?\r\n");
    expect_stream("AT+CREG?\r\n\r\n+CREG: 0,1\r\n\r\nOK\r\n");
}

TEST_F(ModemEmuTest, OverridesReplaceDelayOrSilenceTheAnswer) {
    emu.set_echo_dropped(true);
    start();
    emu.set_reply("AT+CSQ", modem_reply::with_lines({"+CSQ: 99,99", "OK"}));
    emu.set_reply("AT+CSQ", modem_reply::cme_error(10).one_shot());
    emu.set_reply("AT+QIACT=", modem_reply::error(), modem_match::prefix);
    emu.set_reply("AT+GSN", modem_reply::raw_bytes("\r\n12345"));
    emu.set_reply("AT+CIMI", modem_reply::silence().one_shot());

    // The newest rule decides; once used up, the older one holds.
    EXPECT_EQ(ask("AT+CSQ"), std::vector<std::string>{"+CME ERROR: 10"});
    EXPECT_EQ(ask("AT+CSQ"), (std::vector<std::string>{"+CSQ: 99,99", "OK"}));
    EXPECT_EQ(ask("AT+CSQ"), (std::vector<std::string>{"+CSQ: 99,99", "OK"}));
    EXPECT_EQ(ask("AT+QIACT=1"), std::vector<std::string>{"ERROR"});
    // Exact rules do not catch longer commands.
    emu.set_reply("AT+QIDEACT", modem_reply::error());
    EXPECT_EQ(ask("AT+QIDEACT=1"), std::vector<std::string>{"OK"});

    send("AT+GSN\r\n");
    expect_stream("\r\n12345");
    // Silence: the next command's answer is the next thing on the line.
    send("AT+CIMI\r\n");
    send("AT\r\n");
    expect_stream("\r\nOK\r\n");
    EXPECT_EQ(ask("AT+CIMI"), (std::vector<std::string>{"001010123456789", "OK"}));

    emu.set_reply("AT+COPS?", modem_reply::standard().after(300));
    int64_t t0 = now_ms();
    EXPECT_EQ(ask("AT+COPS?"), (std::vector<std::string>{"+COPS: 0,0,\"NETWORK\",7", "OK"}));
    int64_t took = now_ms() - t0;
    EXPECT_GE(took, 295);
    EXPECT_LT(took, 2000);

    emu.clear_replies("AT+CSQ");
    EXPECT_EQ(ask("AT+CSQ"), (std::vector<std::string>{"+CSQ: 20,99", "OK"}));
    emu.clear_replies();
    EXPECT_EQ(ask("AT+QIACT=1"), std::vector<std::string>{"OK"});
    EXPECT_EQ(emu.command_count(), 12u);
}

TEST_F(ModemEmuTest, GarbageSilenceAndDroppedEcho) {
    start();
    emu.set_garbage(true);
    send("AT+CSQ\r\n");
    expect_stream(std::string("AT+CSQ\r\n") + MODEM_GARBAGE);
    emu.set_garbage(false);

    // A hung module: nothing at all, though it still hears the commands.
    emu.set_silent(true);
    send("AT+CSQ\r\n");
    ASSERT_TRUE(emu.wait_for_command("AT+CSQ", 2000, 1));
    emu.set_silent(false);
    send("AT\r\n");
    expect_stream("AT\r\n\r\nOK\r\n");

    emu.set_echo_dropped(true);
    send("AT\r\n");
    expect_stream("\r\nOK\r\n");
    EXPECT_TRUE(emu.echo_on());
}

TEST_F(ModemEmuTest, MessagePromptCollectsTheBodyUpToCtrlZ) {
    start();
    // PDU mode: the length only, CR only; the body is echoed.
    send("AT+CMGS=19\r");
    expect_stream("AT+CMGS=19\r\r\n> ");
    send("0011000B91");
    expect_stream("0011000B91");
    send("2143F5\x1a");
    expect_stream("2143F5\r\n+CMGS: 1\r\n\r\nOK\r\n");
    auto c = emu.wait_for_command("AT+CMGS=", 2000);
    ASSERT_TRUE(c);
    EXPECT_EQ(c->text, "AT+CMGS=19");
    EXPECT_EQ(c->state, modem_command::body_state::complete);
    EXPECT_EQ(c->body, "0011000B912143F5");

    // Text mode: the LF after the command's CR is not part of the body.
    emu.set_echo_dropped(true);
    EXPECT_EQ(ask("AT+CMGF=1"), std::vector<std::string>{"OK"});
    send("AT+CMGS=\"10086\"\r\n");
    expect_stream("\r\n> ");
    send("hi there\x1a");
    EXPECT_EQ(next_line(), "+CMGS: 2");
    EXPECT_EQ(next_line(), "OK");
    c = emu.wait_for_command("AT+CMGS=\"", 2000);
    ASSERT_TRUE(c);
    EXPECT_EQ(c->body, "hi there");

    // Esc abandons the message.
    send("AT+CMGS=\"10086\"\r\n");
    expect_stream("\r\n> ");
    send("never mind\x1b");
    EXPECT_EQ(next_line(), "OK");
    c = emu.wait_for_command("AT+CMGS=", 2000, c->index + 1);
    ASSERT_TRUE(c);
    EXPECT_EQ(c->state, modem_command::body_state::aborted);
    EXPECT_EQ(c->body, "never mind");

    // Overrides for the command itself refuse the prompt; body overrides
    // answer the message.
    emu.set_reply("AT+CMGS=", modem_reply::cms_error(500).for_body().one_shot(),
                  modem_match::prefix);
    send("AT+CMGS=\"10086\"\r\n");
    expect_stream("\r\n> ");
    send("x\x1a");
    EXPECT_EQ(next_line(), "+CMS ERROR: 500");
    emu.set_reply("AT+CMGS=", modem_reply::error().one_shot(), modem_match::prefix);
    EXPECT_EQ(ask("AT+CMGS=\"10086\""), std::vector<std::string>{"ERROR"});
    // Back in command mode, and a destination does not fit PDU mode.
    EXPECT_EQ(ask("AT+CMGF=0"), std::vector<std::string>{"OK"});
    EXPECT_EQ(ask("AT+CMGS=\"10086\""), std::vector<std::string>{"ERROR"});
}

TEST_F(ModemEmuTest, FirmwareImageIsTakenAsDataNotCommands) {
    emu.set_echo_dropped(true);
    start(modem_family::ec200t);
    const std::string image("\r\nAT\x1a\x1b\x00\xff", 8);
    EXPECT_EQ(ask("AT+QFOTADL=\"FILE:8\""), std::vector<std::string>{"OK"});
    EXPECT_EQ(next_line(), "+QIND: \"FOTA\",\"FILESTART\"");
    send(image.substr(0, 3));
    send(image.substr(3));
    for (const char *line :
         {"+QIND: \"FOTA\",\"FILEEND\",0", "+QIND: \"FOTA\",\"START\"",
          "+QIND: \"FOTA\",\"UPDATING\",50", "+QIND: \"FOTA\",\"UPDATING\",100",
          "+QIND: \"FOTA\",\"END\",0"})
        EXPECT_EQ(next_line(), line);
    EXPECT_EQ(ask("AT"), std::vector<std::string>{"OK"});
    auto all = emu.commands();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].state, modem_command::body_state::complete);
    EXPECT_EQ(all[0].body, image);

    // The EC20 fetches from a URL only.
    emu.set_family(modem_family::ec20);
    EXPECT_EQ(ask("AT+QFOTADL=\"FILE:8\""), std::vector<std::string>{"ERROR"});
    EXPECT_EQ(ask("AT+QFOTADL=\"ftp://host/image.bin\""), std::vector<std::string>{"OK"});
    EXPECT_EQ(next_line(), "+QIND: \"FOTA\",\"FTPSTART\"");
    EXPECT_EQ(next_line(), "+QIND: \"FOTA\",\"FTPEND\",0");
}

TEST_F(ModemEmuTest, InjectedLinesFallBetweenAnswers) {
    emu.set_echo_dropped(true);
    start();
    emu.set_reply("AT+QIACT=1", modem_reply::ok().after(300));
    send("AT+QIACT=1\r\n");
    ASSERT_TRUE(emu.wait_for_command("AT+QIACT=1", 2000));
    emu.inject_line("RING");
    expect_stream("\r\nRING\r\n\r\nOK\r\n");

    emu.set_reply("AT+QLBS", modem_reply::with_lines({"+QLBS: 0,1.5,2.5", "OK"}).between_lines(500));
    send("AT+QLBS\r\n");
    EXPECT_EQ(next_line(), "+QLBS: 0,1.5,2.5");
    emu.inject_lines({"+CMT: ,24", "0891683108200805F0040D91"});
    emu.inject_raw("\r\n+CSQ");
    EXPECT_EQ(next_line(), "+CMT: ,24");
    EXPECT_EQ(next_line(), "0891683108200805F0040D91");
    expect_stream("\r\n+CSQ\r\nOK\r\n");
}

TEST_F(ModemEmuTest, RecordsCommandsWithMonotonicTimes) {
    temp_dir dir;
    ASSERT_TRUE(emu.set_log_file(dir.path() + "/commands.log"));
    start();
    int64_t before = now_ms();
    send("AT+CSQ\r\n");
    auto first = emu.wait_for_command("AT+CSQ", 2000);
    ASSERT_TRUE(first);
    int64_t after = now_ms();
    EXPECT_GE(first->ms, before);
    EXPECT_LE(first->ms, after);
    EXPECT_EQ(first->index, 0u);
    EXPECT_EQ(first->state, modem_command::body_state::none);

    // Nothing newer yet: the wait runs out.
    EXPECT_FALSE(emu.wait_for_command("AT+CSQ", 50, first->index + 1));
    size_t mark = emu.command_count();
    std::thread later([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        send("AT+CSQ\r\n");
    });
    auto second = emu.wait_for_command("AT+CSQ", 2000, mark);
    later.join();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->index, 1u);
    EXPECT_GE(second->ms, first->ms + 100);

    // Forgetting keeps the numbering, so a cursor taken before stays good.
    emu.forget_commands();
    EXPECT_TRUE(emu.commands().empty());
    send("AT+GSN\r\n");
    auto third = emu.wait_for_command("AT", 2000, mark);
    ASSERT_TRUE(third);
    EXPECT_EQ(third->text, "AT+GSN");
    EXPECT_EQ(third->index, 2u);

    EXPECT_EQ(read_file(dir.path() + "/commands.log"),
              std::to_string(first->ms) + " AT+CSQ\n" + std::to_string(second->ms) +
                  " AT+CSQ\n" + std::to_string(third->ms) + " AT+GSN\n");
}

TEST_F(ModemEmuTest, WaitsForThePortToBeOpenedAgain) {
    start();
    send("AT\r\n");
    expect_stream("AT\r\n\r\nOK\r\n");
    close(slave);
    slave = -1;
    int64_t deadline = now_ms() + 2000;
    while (emu.peer_present() && now_ms() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_FALSE(emu.peer_present());
    // Said to nobody: lost, as from a module whose port is closed.
    emu.inject_line("RING");

    open_slave();
    deadline = now_ms() + 2000;
    while (!emu.peer_present() && now_ms() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_TRUE(emu.peer_present());
    send("AT+CSQ\r\n");
    expect_stream("AT+CSQ\r\n\r\n+CSQ: 20,99\r\n\r\nOK\r\n");
}

TEST_F(ModemEmuTest, StopIsPromptAndTheEmulatorStartsAgain) {
    start();
    emu.set_reply("AT", modem_reply::ok().after(10000));
    send("AT\r\n");
    expect_stream("AT\r\n");
    int64_t t0 = now_ms();
    emu.stop();
    EXPECT_LT(now_ms() - t0, 500);
    EXPECT_FALSE(emu.running());
    EXPECT_FALSE(emu.start(-1));

    emu.clear_replies();
    ASSERT_TRUE(emu.start(master));
    EXPECT_FALSE(emu.start(master));
    // The answer that was still due died with the stop.
    send("AT\r\n");
    expect_stream("AT\r\n\r\nOK\r\n");
}

TEST_F(ModemEmuTest, ControlSocketDrivesTheEmulator) {
    temp_dir dir;
    std::string sock = dir.path() + "/modem.ctl";
    ASSERT_TRUE(emu.serve_control(sock));
    EXPECT_FALSE(emu.serve_control(sock));
    start();
    modem_control ctl;
    ASSERT_TRUE(ctl.connect(sock)) << ctl.last_error();

    // Quotes, spaces and control bytes survive the trip.
    ASSERT_TRUE(ctl.set_echo_dropped(true));
    ASSERT_TRUE(ctl.set_reply("AT+COPS?",
                              modem_reply::with_lines({"+COPS: 0,0,\"MY NET\",7", "OK"}).one_shot()));
    ASSERT_TRUE(ctl.set_reply("AT+CSCS=", modem_reply::raw_bytes(std::string("\r\nA\0\xff\r\n", 7)),
                              modem_match::prefix));
    EXPECT_EQ(ask("AT+COPS?"), (std::vector<std::string>{"+COPS: 0,0,\"MY NET\",7", "OK"}));
    EXPECT_EQ(ask("AT+COPS?"), (std::vector<std::string>{"+COPS: 0,0,\"NETWORK\",7", "OK"}));
    send("AT+CSCS=\"GSM\"\r\n");
    expect_stream(std::string("\r\nA\0\xff\r\n", 7));
    ASSERT_TRUE(ctl.inject_lines({"+CMT: ,24", "07911326040000F0"}));
    ASSERT_TRUE(ctl.inject_raw(std::string("\x1a\r\n", 3)));
    expect_stream(std::string("\r\n+CMT: ,24\r\n\r\n07911326040000F0\r\n\x1a\r\n"));

    send("AT+CMGS=5\r");
    expect_stream("\r\n> ");
    send("00 \"x\"\x1a");
    auto cmgs = ctl.wait_for_command("AT+CMGS", 2000);
    ASSERT_TRUE(cmgs) << ctl.last_error();
    EXPECT_EQ(cmgs->body, "00 \"x\"");
    EXPECT_EQ(cmgs->state, modem_command::body_state::complete);

    auto listed = ctl.commands();
    ASSERT_TRUE(listed) << ctl.last_error();
    auto local = emu.commands();
    ASSERT_EQ(listed->size(), local.size());
    for (size_t i = 0; i < local.size(); ++i) {
        EXPECT_EQ((*listed)[i].index, local[i].index);
        EXPECT_EQ((*listed)[i].ms, local[i].ms);
        EXPECT_EQ((*listed)[i].text, local[i].text);
        EXPECT_EQ((*listed)[i].body, local[i].body);
    }
    ASSERT_EQ(ctl.commands(3)->size(), 1u);

    EXPECT_FALSE(ctl.wait_for_command("AT+QIACT", 50));
    EXPECT_EQ(ctl.last_error(), "timeout");
    EXPECT_FALSE(ctl.set_reply("AT", modem_reply::ok().after(-5)));
    ASSERT_TRUE(ctl.set_silent(true));
    send("AT\r\n");
    ASSERT_TRUE(ctl.wait_for_command("AT", 2000, 4));
    ASSERT_TRUE(ctl.set_silent(false));
    ASSERT_TRUE(ctl.set_family(modem_family::ec20));
    EXPECT_EQ(emu.family(), modem_family::ec20);
    ASSERT_TRUE(ctl.set_garbage(false));
    ASSERT_TRUE(ctl.clear_replies());
    ASSERT_TRUE(ctl.forget_commands());
    EXPECT_TRUE(emu.commands().empty());
    ASSERT_TRUE(ctl.set_log_file(dir.path() + "/log"));
    ASSERT_TRUE(ctl.set_log_file(""));
    ASSERT_TRUE(ctl.reboot());

    // stop() ends a client's wait at once, closes the socket and removes it.
    std::thread waiter([&] { EXPECT_FALSE(ctl.wait_for_command("AT+NEVER", 20000)); });
    // Gives the request time to reach the emulator; had it not, the closed
    // socket ends the wait just the same.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    int64_t t0 = now_ms();
    emu.stop();
    waiter.join();
    EXPECT_LT(now_ms() - t0, 1000);
    EXPECT_NE(access(sock.c_str(), F_OK), 0);
    modem_control late;
    EXPECT_FALSE(late.connect(sock, 50));
}

} // namespace
