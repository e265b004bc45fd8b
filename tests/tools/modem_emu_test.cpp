// The module emulator as the daemon's tests drive it: through its control
// socket, with the daemon's side of the pty read and written raw.

#include "modem_emu/modem_emu.h"
#include "support/at_port.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

namespace {

class ModemEmuTest : public testing::Test {
protected:
    void SetUp() override {
        std::string slave_path;
        master = open_modem_pty(&slave_path);
        ASSERT_GE(master, 0);
        slave = open(slave_path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(slave, 0);
        ASSERT_TRUE(emu.serve_control(dir.path() + "/modem.ctl"));
        ASSERT_TRUE(emu.start(master));
        ASSERT_TRUE(ctl.connect(dir.path() + "/modem.ctl")) << ctl.last_error();
    }
    void TearDown() override {
        emu.stop();
        close(slave);
        close(master);
    }

    void send(const std::string &bytes) {
        ASSERT_EQ(write(slave, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    // What the module sent, read until `end` is in it or `ms` have passed.
    std::string read_until(const std::string &end, long ms = 2000) { return ::read_until(slave, end, ms); }

    temp_dir dir;
    int master = -1, slave = -1;
    modem_emulator emu;
    modem_control ctl;
};

TEST_F(ModemEmuTest, EchoesAnswersAsToldAndRecordsEveryCommand) {
    send("AT+CSQ\r\n");
    EXPECT_EQ(read_until("OK\r\n"), "AT+CSQ\r\n\r\n+CSQ: 20,99\r\n\r\nOK\r\n");
    ASSERT_TRUE(ctl.set_reply("AT+QIACT=", modem_reply::error().one_shot(), modem_match::prefix));
    ASSERT_TRUE(ctl.set_reply("AT+CIMI", modem_reply::silence()));
    send("AT+QIACT=1\r\n");
    EXPECT_EQ(read_until("ERROR\r\n"), "AT+QIACT=1\r\n\r\nERROR\r\n");
    send("AT+QIACT=1\r\n");
    EXPECT_EQ(read_until("OK\r\n"), "AT+QIACT=1\r\n\r\nOK\r\n");
    // Silence: the next thing after the echo is the next command's answer.
    send("AT+CIMI\r\nAT\r\n");
    EXPECT_EQ(read_until("OK\r\n"), "AT+CIMI\r\nAT\r\n\r\nOK\r\n");
    ASSERT_TRUE(ctl.inject_line("RING"));
    EXPECT_EQ(read_until("RING\r\n"), "\r\nRING\r\n");

    std::optional<modem_command> waited = ctl.wait_for_command("AT+QIACT", 2000, 2);
    ASSERT_TRUE(waited) << ctl.last_error();
    EXPECT_EQ(waited->index, 2u);
    std::optional<std::vector<modem_command>> all = ctl.commands();
    ASSERT_TRUE(all) << ctl.last_error();
    std::vector<std::string> sent;
    for (const modem_command &c : *all)
        sent.push_back(c.text);
    EXPECT_EQ(sent, (std::vector<std::string>{"AT+CSQ", "AT+QIACT=1", "AT+QIACT=1", "AT+CIMI", "AT"}));
    EXPECT_LE(all->front().ms, all->back().ms);
}

TEST_F(ModemEmuTest, HeldAnswerAndThoseBehindItLeaveOnlyWhenReleased) {
    ASSERT_TRUE(ctl.set_reply("AT+COPS?", modem_reply::standard().until_released().one_shot()));
    send("AT+COPS?\r\nAT\r\n");
    ASSERT_TRUE(ctl.wait_for_command("AT", 2000, 1));
    // Both answers would be due at once; only the echo comes.
    EXPECT_EQ(read_until("\n\n", 200), "AT+COPS?\r\nAT\r\n");
    ASSERT_TRUE(ctl.release());
    EXPECT_EQ(read_until("OK\r\n\r\nOK\r\n"), "\r\n+COPS: 0,0,\"NETWORK\",7\r\n\r\nOK\r\n\r\nOK\r\n");
    // Released, the override is used up: the next answer comes at once.
    send("AT+COPS?\r\n");
    EXPECT_EQ(read_until("OK\r\n"), "AT+COPS?\r\n\r\n+COPS: 0,0,\"NETWORK\",7\r\n\r\nOK\r\n");
}

} // namespace
