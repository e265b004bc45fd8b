// The module emulator's record of commands, read through its control socket.
// The daemon's tests use it to show what the daemon did not send, so a record
// that dropped a command would let them pass wrongly; a wrong answer from the
// emulator fails them by itself.

#include "modem_emu/modem_emu.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

namespace {

TEST(ModemEmuTest, RecordsEveryCommandInOrderEvenBackToBackRepeatedOrUnanswered) {
    temp_dir dir;
    std::string slave_path;
    int master = open_modem_pty(&slave_path);
    ASSERT_GE(master, 0);
    int slave = open(slave_path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(slave, 0);
    modem_emulator emu;
    modem_control ctl;
    ASSERT_TRUE(emu.serve_control(dir.path() + "/modem.ctl"));
    ASSERT_TRUE(emu.start(master));
    ASSERT_TRUE(ctl.connect(dir.path() + "/modem.ctl")) << ctl.last_error();
    ASSERT_TRUE(ctl.set_reply("AT+CIMI", modem_reply::silence()));

    const std::string written = "AT+CSQ\r\nAT+QIACT=1\r\nAT+QIACT=1\r\nAT+CIMI\r\nAT\r\n";
    ASSERT_EQ(write(slave, written.data(), written.size()), static_cast<ssize_t>(written.size()));
    ASSERT_TRUE(ctl.wait_for_command("AT", 2000, 4)) << ctl.last_error();
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
    emu.stop();
    close(slave);
    close(master);
}

} // namespace
