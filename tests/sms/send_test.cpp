// Sent SMS against an independent codec's PDUs (the GSM alphabet and its
// extension table, UCS-2 with surrogate pairs, concatenated parts and their
// cuts, refusals), and long messages sent part by part to the emulated module.
#include "at/at.h"
#include "core/daemon_state.h"
#include "core/text.h"
#include "sms/alphabet.h"
#include "sms/send.h"
#include "sms/submit_vectors.h"
#include "support/test_support.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

const submit_vector &vector_named(const std::string &prefix) {
    const submit_vector *v = submit_vector_named(prefix);
    if (v == nullptr) {
        ADD_FAILURE() << "no vector " << prefix;
        return SUBMIT_VECTORS[0];
    }
    return *v;
}

TEST(SmsSubmitVectorTest, AgreesWithIndependentCodec) {
    for (const submit_vector &v : SUBMIT_VECTORS) {
        SCOPED_TRACE(v.what);
        sms_text_parts t;
        bool split = sms_text_split(v.ucs2, v.text, strlen(v.text), &t);
        sms_submit m;
        bool built = sms_submit_build(v.ucs2, v.smsc, v.destination, v.text, v.validity,
                                      v.status_report, v.reference, &m);
        EXPECT_EQ(split, v.parts > 0);
        ASSERT_EQ(built, v.parts > 0);
        if (!built)
            continue;
        ASSERT_EQ(t.count, v.parts);
        ASSERT_EQ(m.count, v.parts);
        for (size_t i = 0; i < v.parts; ++i) {
            EXPECT_EQ((t.start[i + 1] - t.start[i]) / (v.ucs2 ? 2 : 1), v.sizes[i]) << i;
            EXPECT_EQ(std::string(m.parts[i].text, m.parts[i].len), v.pdus[i] + "\x1a") << i;
            EXPECT_EQ(m.parts[i].tpdu_octets, v.tpdu_octets[i]) << i;
        }
    }
}

// Fields that cannot be sent are refused in the workers' tests; the limits
// themselves are accepted: an empty text is one empty message.
TEST(SmsSubmitVectorTest, AnEmptyTextAndTheLongestValidityAreSent) {
    sms_submit m;
    ASSERT_TRUE(sms_submit_build(0, "", "10086", "", 255, 0, 0, &m));
    EXPECT_EQ(std::string(m.parts[0].text), "0191" "110005810180F60000FF00\x1a");
}

// The vectors put one pair at a cut; here one straddles every cut, and each
// part after the first begins with it.
TEST(SmsSubmitVectorTest, EveryCutMovesAnEscapeOrASurrogatePairWhole) {
    std::string seven, sixteen;
    for (int i = 0; i < 4; ++i) {
        seven += std::string(i == 0 ? 152 : 150, 'a') + "\xE2\x82\xAC"; // euro: escape pair
        sixteen += std::string(i == 0 ? 66 : 64, 'a') + "\xF0\x9F\x98\x80";
    }
    sms_text_parts t;
    ASSERT_TRUE(sms_text_split(0, seven.data(), seven.size(), &t));
    EXPECT_EQ(std::vector<size_t>(t.start, t.start + t.count + 1),
              (std::vector<size_t>{0, 152, 304, 456, 608, 610}));
    ASSERT_TRUE(sms_text_split(1, sixteen.data(), sixteen.size(), &t));
    EXPECT_EQ(std::vector<size_t>(t.start, t.start + t.count + 1),
              (std::vector<size_t>{0, 132, 264, 396, 528, 532})); // bytes of UTF-16
}

// Long messages through the emulated module, part by part.
struct SmsLongSendTest : testing::Test, emulated_bench {
    std::vector<std::string> cmgs() {
        at_send("AT+END\r", 7);
        EXPECT_TRUE(port.module().wait_for_command("AT+END", 3000));
        std::vector<std::string> got;
        for (const modem_command &m : port.module().commands()) {
            if (m.text.rfind("AT+CMGS=", 0) == 0)
                got.push_back(m.text + " " + m.body);
        }
        return got;
    }
};

TEST_F(SmsLongSendTest, TheFirstFailingPartEndsTheSendWithItsOwnReply) {
    const submit_vector &v = vector_named("7-bit, the 400 characters");
    text_set(state().smsc_number, v.smsc);
    modem_emulator &emu = port.module();
    // The newest rule decides: part 1 is answered as usual, part 2 refused.
    emu.set_reply("AT+CMGS=", modem_reply::cms_error(500).for_body().one_shot(), modem_match::prefix);
    emu.set_reply("AT+CMGS=", modem_reply::standard().for_body().one_shot(), modem_match::prefix);
    EXPECT_EQ(shown(sms_send_pdu(0, "DEFAULT", v.destination, v.text, v.validity, 0)), "251 1 |");
    EXPECT_EQ(stat_value("sms_out"), 0);
    emu.inject_line("MARK");
    EXPECT_EQ(urc_before("MARK"), "+CMS ERROR: 500|");
    std::vector<std::string> sent = cmgs();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1], "AT+CMGS=155 " + v.pdus[1]);
}

// The 8-bit reference in a part's header: its fourth octet, after the
// centre, the fixed fields and the destination.
std::string reference_of(const std::string &command) {
    size_t header = command.find("050003");
    return header == std::string::npos ? "none" : command.substr(header + 6, 2);
}

TEST_F(SmsLongSendTest, EveryLongMessageTakesTheNextReferenceAShortOneNoneARefusedOneNothing) {
    text_set(state().smsc_number, "12345678901");
    const std::string long_text(200, 'x');
    const std::string cjk = "\xE7\x9F\xAD\xE4\xBF\xA1"; // two units
    std::string long_ucs2;
    for (int i = 0; i < 40; ++i)
        long_ucs2 += cjk;
    state().sms_reference = 254; // it wraps round to 0 after 255
    EXPECT_EQ(shown(sms_send_pdu(0, "DEFAULT", "10086", long_text.c_str(), 0, 1)), "251 0 1,2|");
    EXPECT_EQ(shown(sms_send_pdu(1, "DEFAULT", "10086", "short", 0, 0)), "251 0 3|");
    EXPECT_EQ(shown(sms_send_pdu(1, "DEFAULT", "10086", long_ucs2.c_str(), 0, 1)), "251 0 4,5|");
    EXPECT_EQ(shown(sms_send_pdu(0, "DEFAULT", "10086", long_text.c_str(), 0, 0)), "251 0 6,7|");
    EXPECT_EQ(stat_value("sms_out"), 4);
    std::vector<std::string> refs, firsts;
    for (const std::string &c : cmgs()) {
        refs.push_back(reference_of(c));
        firsts.push_back(c.substr(c.find(' ') + 1 + 16, 2)); // the TPDU's first octet
    }
    EXPECT_EQ(refs, (std::vector<std::string>{"FF", "FF", "none", "00", "00", "01", "01"}));
    // A status report is asked of every part when asked at all.
    EXPECT_EQ(firsts, (std::vector<std::string>{"71", "71", "11", "71", "71", "51", "51"}));

    // A long text that cannot be sent sends nothing and takes no reference.
    const size_t before = port.module().command_count();
    EXPECT_EQ(shown(sms_send_pdu(0, "DEFAULT", "10086", std::string(1531, 'x').c_str(), 0, 0)), "251 10 |");
    at_send("AT+END\r", 7);
    ASSERT_TRUE(port.module().wait_for_command("AT+END", 3000, before));
    EXPECT_EQ(port.module().command_count(), before + 1); // only the marker
    EXPECT_EQ(state().sms_reference.load(), 1);
}

} // namespace
