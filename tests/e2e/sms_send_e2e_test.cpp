// SMS sent by the real daemon on the simulated board: a text-mode send that the
// module refused leaves it reading PDUs again, so an incoming message still
// reaches the client.

#include "e2e/board.h"

namespace {

TEST(SmsSendE2eTest, AfterARefusedTextModeSendAnIncomingSmsStillReachesTheClient) {
    READY_BOARD(b);
    // One message in both of the module's forms.
    const std::string pdu = "0891683108200505F0040D91683117358313F000005250706134152305E8329BFD06";
    const std::string record = "14+86137153383101420250507164351005hello";
    const struct {
        const char *what;
        modem_reply reply;
        std::string answer;
    } cases[] = {
        {"prompt refused", modem_reply::error().one_shot(), "252/1/"},
        {"body refused", modem_reply::cms_error(500).for_body().one_shot(), "252/1/"},
        {"no prompt", modem_reply::silence().one_shot(), "252/1/time out"},
        {"prompt kept back", modem_reply::standard().until_released().one_shot(), "252/1/time out"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(b.emu.set_reply("AT+CMGS=", c.reply, modem_match::prefix));
        size_t from = next_index(b.emu);
        EXPECT_EQ(b.client->ask_settled(252, {"10086", "hi"}), c.answer);
        // The switch back follows the reply; a message that came before it
        // would come as text from any module.
        EXPECT_TRUE(b.emu.wait_for_command("AT+CMGF=0", 5000, from));
        ASSERT_TRUE(b.emu.release());
        ASSERT_TRUE(b.emu.deliver_sms(pdu, "+8613715338310", "25/05/07,16:43:51+32", "hello"));
        EXPECT_EQ(show(b.client->reply(1031, milliseconds(5000))), "1031/0/" + record);
        std::vector<std::string> sent = commands_since(b.emu, from);
        ASSERT_FALSE(sent.empty());
        EXPECT_EQ(sent.front(), "AT+CMGF=1");
        EXPECT_EQ(sent.back(), "AT+CMGF=0");
    }
}

} // namespace
