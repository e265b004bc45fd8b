// SMS sending: the SUBMIT PDU against hand-checked ones, and both codes'
// exchanges with the emulated module, whose record shows the exact commands
// and bodies it received (a 7-bit PDU among them).
#include "at/at.h"
#include "core/text.h"
#include "sms/send.h"
#include "support/at_port.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>

namespace {

TEST(SmsSubmitTest, BuildsTheHandCheckedPdus) {
    auto times = [](const std::string &s, int n) {
        std::string out;
        while (n-- > 0)
            out += s;
        return out;
    };
    const struct {
        uint8_t ucs2;
        const char *smsc, *destination;
        std::string text;
        int validity;
        uint8_t status_report;
        std::string pdu; // without its Ctrl-Z
        int tpdu_octets;
    } cases[] = {
        {1, "8613800100500", "10086", "\xE4\xBD\xA0\xE5\xA5\xBD", 0, 1,
         "0891683108100005F0" "310005810180F6" "000800" "044F60597D", 15},
        // Cut to 160 characters in 140 octets, and to 70 UCS-2 characters.
        {0, "12345678901", "10086", std::string(200, 'a'), 255, 0,
         "07912143658709F1" "110005810180F6" "0000FF" "A0" + times("E170381C0E87C3", 20), 151},
        {1, "12345678901", "12345678901234", times("\xE4\xBD\xA0", 100), 1, 0,
         "07912143658709F1" "11000E8121436587092143" "000801" "8C" + times("4F60", 70), 155},
    };
    for (const auto &c : cases) {
        sms_submit_pdu pdu;
        ASSERT_TRUE(sms_submit_build(c.ucs2, c.smsc, c.destination, c.text.c_str(), c.validity,
                                     c.status_report, &pdu));
        EXPECT_EQ(std::string(pdu.text, pdu.len), c.pdu + "\x1a");
        EXPECT_EQ(pdu.tpdu_octets, c.tpdu_octets) << c.pdu;
    }
}

struct sms_bench {
    fresh_state fresh;
    emulated_port port;
    client_end client;
};

TEST(SmsSendTest, ExchangesWithTheEmulatedModule) {
    using emu = modem_emulator;
    const std::string pdu = "07912143658709F1" "11000D91683119325476F8" "0000A7" "05E8329BFD06";
    const std::string cmgs = "AT+CMGS=20";
    auto send_hello = [] { return sms_send_pdu(0, "DEFAULT", "+8613912345678", "hello", 167, 0); };
    auto send_stored = [send_hello] {
        text_set(state().smsc_number, "12345678901");
        return send_hello();
    };
    auto text_hi = [] {
        sms_send_text("+10086", "hi");
        return 0;
    };
    auto on_cmgs = [](modem_reply r) {
        return [r](emu &m) { m.set_reply("AT+CMGS=", r, modem_match::prefix); };
    };
    const struct {
        std::function<void(emu &)> setup;
        std::function<int()> op;
        std::optional<int> result; // sms_send_text's is not kept
        std::string reports, urc;
        std::vector<std::string> commands;
        bool held = false; // the prompt is released only after the wait
    } cases[] = {
        // No stored centre: the module is asked (its OK is left for the common thread);
        // the echo of the body is dropped.
        {[](emu &) {}, send_hello, 0, "251 0 1|", "OK|",
         {"AT+CMGF=0", "AT+CSCA?", cmgs + " [" + pdu + "]"}},
        {on_cmgs(modem_reply::ok().for_body()), send_stored, 0, "251 0 |", "",
         {"AT+CMGF=0", cmgs + " [" + pdu + "]"}},
        {on_cmgs(modem_reply::cms_error(305)), send_stored, -1, "251 1 |", "+CMS ERROR: 305|",
         {"AT+CMGF=0", cmgs}},
        // A late prompt still reaches the common thread; no body was sent.
        {on_cmgs(modem_reply::standard().until_released()), send_stored, -1, "251 1 time out!|",
         ">|", {"AT+CMGF=0", cmgs + " [esc ]"}, true},
        {on_cmgs(modem_reply::cms_error(500).for_body()), send_stored, -1, "251 1 |",
         "+CMS ERROR: 500|", {"AT+CMGF=0", cmgs + " [" + pdu + "]"}},
        {[](emu &) {}, text_hi, std::nullopt, "252 0 |", "+CMGS: 1|",
         {"AT+CMGF=1", "AT+CMGS=\"10086\" [hi]", "AT+CMGF=0"}},
        {[](emu &m) { m.set_reply("AT+CMGF=1", modem_reply::error()); }, text_hi, std::nullopt,
         "252 1 set_cmgf|", "", {"AT+CMGF=1", "AT+CMGF=0"}},
        // A module that may still wait for the body is not sent the switch back.
        {on_cmgs(modem_reply::standard().until_released()), text_hi, std::nullopt,
         "252 1 time out|", ">|", {"AT+CMGF=1", "AT+CMGS=\"10086\" [esc ]"}, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.reports);
        std::optional<sms_bench> b;
        b.emplace();
        c.setup(b->port.module());
        int result = c.op();
        if (c.result) {
            EXPECT_EQ(result, *c.result);
        }
        EXPECT_EQ(state().at_state.load(), AT_IDLE);
        EXPECT_EQ(b->client.frames(), c.reports);
        if (c.held)
            b->port.module().release();
        b->port.module().inject_line("MARK");
        std::string urc;
        for (std::string l = urc_next(3000); l != "MARK" && l != "<none>"; l = urc_next(3000))
            urc += l + "|";
        EXPECT_EQ(urc, c.urc);
        if (c.held)
            at_send("\x1b", 1); // ends the awaited body, showing what was sent after the prompt
        at_send("AT+END\r", 7);
        ASSERT_TRUE(b->port.module().wait_for_command("AT+END", 3000));
        std::vector<std::string> got;
        for (const modem_command &m : b->port.module().commands()) {
            bool esc = m.state == modem_command::body_state::aborted;
            got.push_back(m.state == modem_command::body_state::none
                              ? m.text : m.text + (esc ? " [esc " : " [") + m.body + "]");
        }
        got.pop_back();
        EXPECT_EQ(got, c.commands);
    }
}

} // namespace
