// SMS sent against hand-checked PDUs and the emulated module's record of the
// exact commands and bodies; received PDUs against an independent codec's
// vectors; the common thread's events, with its windows on a test clock.
#include "at/at.h"
#include "core/report.h"
#include "core/text.h"
#include "modem/modem.h"
#include "sms/common.h"
#include "sms/pdu.h"
#include "sms/send.h"
#include "support/test_support.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <thread>

namespace {

// Longer texts, the limits of one message and parts are checked against the
// independent codec's vectors (send_test).
TEST(SmsSubmitTest, BuildsTheHandCheckedPdu) {
    sms_submit m;
    ASSERT_TRUE(sms_submit_build(1, "8613800100500", "10086", "\xE4\xBD\xA0\xE5\xA5\xBD", 0, 1, 0, &m));
    ASSERT_EQ(m.count, 1u);
    EXPECT_EQ(std::string(m.parts[0].text, m.parts[0].len),
              "0891683108100005F0" "310005810180F6" "000800" "044F60597D\x1a");
    EXPECT_EQ(m.parts[0].tpdu_octets, 15);
}

TEST(SmsSendTest, ExchangesWithTheEmulatedModule) {
    using emu = modem_emulator;
    const std::string pdu = "07912143658709F1" "11000D91683119325476F8" "0000A7" "05E8329BFD06";
    const std::string cmgs = "AT+CMGS=20";
    sink_capture aside; // what the client gets before the send's own outcome
    auto send_hello = [&aside] {
        return sms_send_pdu(0, "DEFAULT", "+8613912345678", "hello", 167, 0, aside.sink());
    };
    auto send_stored = [send_hello] {
        text_set(state().smsc_number, "12345678901");
        return send_hello();
    };
    auto text_hi = [] { return sms_send_text("+10086", "hi"); };
    auto on_cmgs = [](modem_reply r) {
        return [r](emu &m) { m.set_reply("AT+CMGS=", r, modem_match::prefix); };
    };
    const struct {
        std::function<void(emu &)> setup;
        std::function<op_outcome()> op;
        std::string reports, urc;
        std::vector<std::string> commands;
        bool held = false; // the prompt is released only after the wait
    } cases[] = {
        // No stored centre: the module is asked (its OK is left for the common thread);
        // the echo of the body is dropped.
        {[](emu &) {}, send_hello, "251 0 1|", "OK|",
         {"AT+CMGF=0", "AT+CSCA?", cmgs + " [" + pdu + "]"}},
        // An unusable centre is the client's to know; the message goes without one.
        {[](emu &m) { m.set_reply("AT+CSCA?", modem_reply::with_lines({"+CSCA: \"\",145", "OK"})); },
         send_hello, "201 1 Wrong number!|251 0 1|", "OK|",
         {"AT+CMGF=0", "AT+CSCA?", cmgs + " [0191" + pdu.substr(16) + "]"}},
        {on_cmgs(modem_reply::ok().for_body()), send_stored, "251 0 |", "",
         {"AT+CMGF=0", cmgs + " [" + pdu + "]"}},
        {on_cmgs(modem_reply::cms_error(305)), send_stored, "251 1 |", "+CMS ERROR: 305|",
         {"AT+CMGF=0", cmgs}},
        // A late prompt still reaches the common thread; no body was sent.
        {on_cmgs(modem_reply::standard().until_released()), send_stored, "251 1 time out!|",
         ">|", {"AT+CMGF=0", cmgs + " [esc ]"}, true},
        {on_cmgs(modem_reply::cms_error(500).for_body()), send_stored, "251 1 |",
         "+CMS ERROR: 500|", {"AT+CMGF=0", cmgs + " [" + pdu + "]"}},
        {[](emu &) {}, text_hi, "252 0 |", "+CMGS: 1|",
         {"AT+CMGF=1", "AT+CMGS=\"10086\" [hi]", "AT+CMGF=0"}},
        // The text is a body: quotes and line breaks go out as they are (the
        // echo, which would bring the body's lines back, is off as the daemon sets it).
        {[](emu &m) { m.set_echo_dropped(true); }, [] { return sms_send_text("10086", "say \"hi\"\r\nbye"); },
         "252 0 |", "+CMGS: 1|", {"AT+CMGF=1", "AT+CMGS=\"10086\" [say \"hi\"\r\nbye]", "AT+CMGF=0"}},
        {[](emu &m) { m.set_reply("AT+CMGF=1", modem_reply::error()); }, text_hi,
         "252 1 set_cmgf|", "", {"AT+CMGF=1", "AT+CMGF=0"}},
        // A module that may still wait for the body has it cancelled before
        // the switch back; the exchange's other failures are the PDU rows'.
        {on_cmgs(modem_reply::standard().until_released()), text_hi,
         "252 1 time out|", ">|OK|OK|", {"AT+CMGF=1", "AT+CMGS=\"10086\" [esc ]", "AT+CMGF=0"}, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.reports);
        emulated_bench b;
        c.setup(b.port.module());
        aside.got.clear();
        op_outcome o = c.op();
        EXPECT_EQ(state().at_state.load(), AT_IDLE);
        EXPECT_EQ(aside.got + shown(o), c.reports);
        EXPECT_EQ(b.client.frames(), ""); // the outcome is the caller's to send
        EXPECT_EQ(stat_value("sms_out"), o.ok() ? 1 : 0);
        if (c.held)
            b.port.module().release();
        b.port.module().inject_line("MARK");
        EXPECT_EQ(urc_before("MARK"), c.urc);
        if (c.held)
            at_send("\x1b", 1); // ends a body still awaited, showing what was sent after the prompt
        at_send("AT+END\r", 7);
        ASSERT_TRUE(b.port.module().wait_for_command("AT+END", 3000));
        std::vector<std::string> got;
        for (const modem_command &m : b.port.module().commands()) {
            bool esc = m.state == modem_command::body_state::aborted;
            got.push_back(m.state == modem_command::body_state::none
                              ? m.text : m.text + (esc ? " [esc " : " [") + m.body + "]");
        }
        got.pop_back();
        EXPECT_EQ(got, c.commands);
    }
}

struct deliver_vector {
    const char *what, *pdu;
    bool event; // false: the fields below are not given
    const char *sender, *stamp, *text;
    size_t text_len;
    bool concatenated;
    int reference, part_count, part;
};
struct status_vector {
    const char *what, *pdu;
    int status, reference;
};
#include "sms/pdu_vectors.inc"

// The line in a heap block of exactly its length: a read past it is a fault
// under AddressSanitizer rather than a look at a terminator.
std::unique_ptr<char[]> exact(const std::string &pdu) {
    std::unique_ptr<char[]> line(new char[pdu.size()]);
    memcpy(line.get(), pdu.data(), pdu.size());
    return line;
}
bool parse_exact(const std::string &pdu, sms_deliver *sms) { return sms_deliver_parse(exact(pdu).get(), pdu.size(), sms); }

std::string parse_deliver(const std::string &pdu, size_t record_size = SMS_RECORD_MAX) {
    char record[SMS_RECORD_MAX];
    sms_deliver sms;
    if (!parse_exact(pdu, &sms))
        return "";
    return std::string(record, sms_record_build(sms.sender, sms.stamp, sms.text, sms.text_len,
                                                record, record_size));
}

bool parse_status(const std::string &pdu, int *status, int *reference) {
    return sms_status_parse(exact(pdu).get(), pdu.size(), status, reference);
}

// The vector's PDU as a module may send it: in lower case, or followed by a
// stray quote, a blank and what follows it, the line's end, half an octet or
// another character, none of it part of the PDU.
std::vector<std::string> lines_of(const std::string &pdu) {
    std::string lower = pdu;
    for (char &c : lower)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return {pdu, lower, pdu + "\"", pdu + " 1A2B",
            pdu + "\r\n", pdu + "0", pdu + "g00", pdu + ",x"};
}

TEST(SmsParseTest, AgreesWithIndependentCodecUpToTheFirstCharacterThatIsNotHexadecimal) {
    // Summer time in force: a daylight-saving flag other than "unknown" would move the hour.
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    for (const auto &v : DELIVER_VECTORS) {
        SCOPED_TRACE(v.what);
        for (const std::string &line : lines_of(v.pdu)) {
            SCOPED_TRACE(line);
            sms_deliver sms;
            memset(&sms, 0xA5, sizeof sms); // what the parse leaves unset shows
            ASSERT_EQ(parse_exact(line, &sms), v.event);
            if (!v.event) {
                EXPECT_EQ(parse_deliver(line), "");
                continue;
            }
            EXPECT_STREQ(sms.sender, v.sender);
            EXPECT_STREQ(sms.stamp, v.stamp);
            EXPECT_EQ(std::string(sms.text, sms.text_len), std::string(v.text, v.text_len));
            EXPECT_EQ(sms.concatenated, v.concatenated);
            EXPECT_EQ(sms.reference, v.reference);
            EXPECT_EQ(sms.part_count, v.part_count);
            EXPECT_EQ(sms.part, v.part);
            // The record's lengths count bytes of UTF-8, the sender's too.
            char head[64];
            snprintf(head, sizeof head, "%02zu%s14%s%03zu", strlen(v.sender), v.sender, v.stamp,
                     v.text_len);
            EXPECT_EQ(parse_deliver(line), head + std::string(v.text, v.text_len));
        }
    }
    unsetenv("TZ");
    tzset();
    for (const auto &v : STATUS_VECTORS) {
        for (const std::string &line : lines_of(v.pdu)) {
            int status = -1, reference = -1;
            EXPECT_TRUE(parse_status(line, &status, &reference)) << line;
            EXPECT_EQ(status, v.status) << line;
            EXPECT_EQ(reference, v.reference) << line;
        }
    }
}

TEST(SmsParseTest, RefusesWhatDoesNotAddUpOrIsCutShort) {
    const std::string ok = DELIVER_VECTORS[0].pdu; // SMSC "04" ... "00" "00" stamp "05" "E8329BFD06"
    const size_t first = 18, stamp = ok.size() - 26, udl = ok.size() - 12;
    auto with = [&](size_t at, const char *s) { return std::string(ok).replace(at, strlen(s), s); };
    const std::string bad[] = {
        with(0, "00041591"),                         // 21 digits
        with(0, "000415D0"),                         // an alphanumeric sender of 21 semi-octets
        ok + std::string(2 * 136, '0'),              // 141 octets of user data
        with(stamp, "5A"),                           // a letter in the year
        with(stamp + 10, "3B"),                      // and in the second
        with(first, "44"),                           // a header of 0xE8 octets in 5
        // 8-bit: a header ending inside an element
        with(first, "44").replace(stamp - 2, 2, "04").replace(udl, 12, "030100FF"),
    };
    for (const auto &pdu : bad)
        EXPECT_EQ(parse_deliver(pdu), "") << pdu;
    const size_t full = parse_deliver(ok).size();
    EXPECT_EQ(parse_deliver(ok, full), "") << "no room for the terminator";
    EXPECT_EQ(parse_deliver(ok, full + 1).size(), full);

    int status, reference;
    const std::string report = STATUS_VECTORS[0].pdu;
    EXPECT_FALSE(parse_status(std::string(report).replace(22, 2, "14"), &status, &reference));
    EXPECT_FALSE(parse_status(std::string(report).replace(22, 4, "15D0"), &status, &reference));
    // Cut anywhere, a line gives nothing and is read no further than its end.
    sms_deliver sms;
    for (const auto &v : DELIVER_VECTORS)
        for (size_t len = 0; len < strlen(v.pdu); ++len)
            ASSERT_FALSE(parse_exact(std::string(v.pdu, len), &sms)) << v.what << " cut at " << len;
    // A report is whole once its status octet is in: optional parameters after
    // it may be lost, the octets up to it may not.
    for (const auto &v : STATUS_VECTORS) {
        SCOPED_TRACE(v.what);
        size_t whole = 0;
        for (size_t len = 0; len <= strlen(v.pdu); ++len) {
            const bool parsed = parse_status(std::string(v.pdu, len), &status, &reference);
            if (parsed && whole == 0)
                whole = len;
            ASSERT_EQ(parsed, whole != 0) << len;
            if (parsed) {
                ASSERT_EQ(status, v.status) << len;
                ASSERT_EQ(reference, v.reference) << len;
            }
        }
        char octet[3];
        snprintf(octet, sizeof octet, "%02X", v.status);
        EXPECT_EQ(std::string(v.pdu).substr(whole - 2, 2), octet);
    }
}

const char *const EXPIRE = nullptr; // the thread's wake-up for its deadline
const char *const CMT = "+CMT: ,25";
const char *const DELIVER =
    "0891683108200105F0040D91683119325476F800006211320151240005C8329BFD06";
// Message reference 5, status 0.
const char *const REPORT = "0006050D91683119325476F8621132015124006211320151340000";

// What each step gave the client; after a wake-up "next N|", the deadline it
// returned (-1: none). Times count from an arbitrary origin.
std::string run(client_end &client, const std::vector<std::pair<int64_t, const char *>> &steps) {
    const int64_t origin = 5000;
    common_state st;
    std::string got;
    for (const auto &[ms, line] : steps) {
        int64_t next = line == EXPIRE ? common_expire(&st, origin + ms) : 0;
        if (line != EXPIRE)
            common_handle_line(&st, line, origin + ms);
        got += client.frames();
        if (line == EXPIRE)
            got += "next " + std::to_string(next == NO_DEADLINE ? -1 : next - origin) + "|";
    }
    return got;
}

TEST(CommonLineTest, LinesBecomeEventsWithinTheirWindows) {
    fresh_state fresh;
    client_end client;
    const char *clip = "+CLIP: \"13912345678\",129";
    const struct {
        std::vector<std::pair<int64_t, const char *>> steps;
        std::string events;
    } cases[] = {
        {{{0, "RING"}, {60, clip}, {100, EXPIRE}}, "1001 1 13912345678|next -1|"},
        {{{0, "RING"}, {99, EXPIRE}, {100, EXPIRE}}, "next 100|1001 0 |next -1|"},
        // One digit; the closing quote past index 29.
        {{{0, "RING"}, {10, "+CLIP: \"1\",129"}, {20, "+CLIP: \"12345678901234567890123\""},
          {100, EXPIRE}},
         "1001 0 |next -1|"},
        {{{0, "RING"}, {101, clip}}, "1001 0 |1001 1 13912345678|"}, // its window closed first
        {{{0, "RING"}, {1, "NO CARRIER"}, {2, "BUSY"}, {3, "NO DIALTONE"}, {4, "+COLP: 0"},
          {100, EXPIRE}},
         "1001 2 1|1001 2 2|1001 2 3|1001 2 0|next -1|"},
        {{{0, "+QWTTS: 1"}, {0, "+QWTTS: 0"}, {0, "+QTONEDET: 49"}, {0, "+QTONEDET: 4"},
          {0, "+QTONEDET:"}},
         "1011 0 |1021 1 49|1021 1 4|1021 1 |"},
        {{{0, "+CMS ERROR: 500"}, {0, "+CME ERROR: 10"}, {0, "ERROR"}},
         "1201 1 +CMS ERROR: 500|1201 1 +CME ERROR: 10|"},
        {{{0, CMT}, {10, "OK"}, {500, DELIVER}},
         "1031 0 14+86139123456781420261123101542005Hello|"},
        {{{0, CMT}, {499, EXPIRE}, {500, EXPIRE}, {501, DELIVER}}, "next 500|next -1|"},
        // A stray digit line; a PDU line starting with a letter; a PDU too late.
        {{{0, "861234567890123"}, {1, CMT}, {2, "A891683108"}, {3, EXPIRE}, {502, DELIVER}},
         "next 501|"},
        // A second header restarts the window and decides the kind.
        {{{0, CMT}, {400, "+CDS: 6"}, {899, REPORT}}, "1032 0 5|"},
        // A failed delivery's status rides in the frame; a PDU cut short gives no event.
        {{{0, "+CDS: 6"}, {1, "0891683108200505F006110D91683117358313F0525070613415235250706134952341"}},
         "1032 65 17|"},
        {{{0, CMT}, {1, "0891683108200505F0040D9168"}}, ""},
        {{{0, CMT}, {10, "RING"}, {20, EXPIRE}, {110, EXPIRE}}, "next 110|1001 0 |next 500|"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(run(client, c.steps), c.events) << c.steps[0].second;
    EXPECT_EQ(stat_value("sms_in"), 1); // the one 1031 above

    common_state st;
    for (const char *line : {"RING", "BUSY", "+CLIP: 1", "NO DIAL", "+COLP: 0", "NO CARRIER"}) {
        common_handle_line(&st, line, 0);
        EXPECT_EQ(state().call_active.load(), line[0] == 'R' || line[0] == '+') << line;
    }
}

struct CommonThreadTest : testing::Test, emulated_bench {};

TEST_F(CommonThreadTest, ABurstOfFortyLinesInOneWriteGivesFortyEventsInOrder) {
    pthread_t common;
    ASSERT_EQ(pthread_create(&common, nullptr, common_thread, nullptr), 0);
    // Twice the rings' room; a module error does not end the data-call
    // release that collects in the second round.
    std::string burst, events;
    for (int i = 0; i < 40; ++i) {
        std::string n = std::to_string(50 + i);
        std::string line = i % 3 == 0 ? "+CME ERROR: " + n : "+QTONEDET: " + n;
        burst += "\r\n" + line + "\r\n";
        events += i % 3 == 0 ? "1201 1 " + line + "|" : "1021 1 " + n + "|";
    }
    port.module().inject_raw(burst);
    EXPECT_EQ(client.frames(40, 3000), events);

    port.module().set_reply("AT+QIDEACT=1", modem_reply::standard().until_released());
    std::thread release([] {
        op_outcome o = set_qideact(1);
        client_report(o.code, o.status, o.reply_text()); // as the worker replies
    });
    EXPECT_TRUE(port.module().wait_for_command("AT+QIDEACT=1", 3000));
    port.module().inject_raw(burst);
    port.module().release();
    release.join();
    // The reply and the events come from two threads: only the events keep an order.
    std::string got = client.frames(41, 3000);
    size_t reply = got.find("352 0 |");
    EXPECT_NE(reply, std::string::npos) << got;
    EXPECT_EQ(got.erase(reply == std::string::npos ? got.size() : reply, 7), events);
    pthread_cancel(common);
    pthread_join(common, nullptr);
}

} // namespace
