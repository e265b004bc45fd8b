// SMS sent by the real daemon on the simulated board: a long text reaches the
// module as concatenated parts whose PDUs an independent codec built, and a
// text-mode send that the module refused leaves it reading PDUs again, so an
// incoming message still reaches the client.

#include "e2e/board.h"
#include "sms/submit_vectors.h"

#include <cstring>

namespace {

// The message sends of the emulator's record from index `from` on: command and body.
std::vector<std::string> cmgs_since(modem_control &emu, size_t from) {
    std::vector<std::string> out;
    std::optional<std::vector<modem_command>> all = emu.commands(from);
    for (const modem_command &c : all.value_or(std::vector<modem_command>{})) {
        if (c.text.rfind("AT+CMGS=", 0) == 0)
            out.push_back(c.text + " " + c.body);
    }
    return out;
}

TEST(SmsSendE2eTest, A400CharacterTextGoesOutAsThreePartsOfOneMessage) {
    READY_BOARD(b);
    const submit_vector *v = submit_vector_named("7-bit, the 400 characters");
    ASSERT_NE(v, nullptr);
    ASSERT_EQ(strlen(v->text), 400u);
    ASSERT_EQ(v->parts, 3u);
    // The vectors were built with the emulated module's own centre.
    ASSERT_EQ(b.client->ask(201), std::string("201/0/") + (v->smsc + 1)); // without its '+'
    size_t from = next_index(b.emu);
    EXPECT_EQ(b.client->ask_settled(251, {"0", "DEFAULT", v->destination, v->text,
                                          std::to_string(v->validity), "0"}),
              "251/0/1,2,3");
    std::vector<std::string> want;
    for (size_t i = 0; i < v->parts; ++i)
        want.push_back("AT+CMGS=" + std::to_string(v->tpdu_octets[i]) + " " + v->pdus[i]);
    EXPECT_EQ(cmgs_since(b.emu, from), want);
    std::string stats = b.client->ask_settled(913);
    EXPECT_NE(stats.find(" sms_out=1 "), std::string::npos) << stats;

    // The same text from the command-line client: the next long message, so
    // the next reference in every part's header.
    b.client.reset(); // the tool is the client now
    from = next_index(b.emu);
    std::pair<int, std::string> run;
    const std::string command = std::string(ZOLVIN_CTL_BIN) + " sms send " + v->destination + " '" + v->text + "'";
    ASSERT_EQ(std::string(v->text).find('\''), std::string::npos);
    b.board.in_network([&] { run = run_command(command); });
    EXPECT_EQ(run.first, 0) << run.second;
    EXPECT_EQ(run.second, "251 ok(0) 4,5,6\n");
    for (std::string &w : want) {
        size_t header = w.find("050003" + std::string("01"));
        ASSERT_NE(header, std::string::npos);
        w.replace(header + 6, 2, "02");
    }
    EXPECT_EQ(cmgs_since(b.emu, from), want);
}

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
