// Long received messages on the simulated board: the module sends the parts
// of gammu's long messages (tests/sms/concat_vectors.inc) as "+CMT:" lines,
// out of order, and the client gets the message once, whole, as 1033 frames
// when its record is longer than one frame.

#include "e2e/board.h"

#include "../sms/concat_vectors.h"

#include <cstring>

namespace {

std::string whole_record(size_t m) {
    const concat_message &msg = CONCAT_MESSAGES[m];
    char head[64];
    snprintf(head, sizeof head, "%02zu%s14%s%03zu", strlen(msg.sender), msg.sender, msg.stamp, msg.text_len);
    return head + std::string(msg.text, msg.text_len);
}

// The header and PDU line of each part, in the order given (part numbers from 1).
std::vector<std::string> cmt_lines(size_t m, const std::vector<size_t> &order) {
    std::vector<std::string> lines;
    for (size_t n : order) {
        const char *pdu = CONCAT_PARTS[CONCAT_MESSAGES[m].first + n - 1].pdu;
        lines.push_back("+CMT: ," + std::to_string(strlen(pdu) / 2 - 9));
        lines.push_back(pdu);
    }
    return lines;
}

// No further SMS frame within a while: each message came once.
void no_more_sms(client_conn &c) {
    while (std::optional<reply_frame> f = c.next(milliseconds(500)))
        EXPECT_TRUE(f->code != 1031 && f->code != 1033) << show(f);
}

// The parts out of order, one of them twice and the module's other lines
// among them; the record is longer than one frame.
TEST(SmsReceiveTest, ALongMessageOutOfOrderArrivesOnceIn1033FramesThatJoinToItsRecord) {
    READY_BOARD(b);
    client_conn &c = *b.client;
    const std::string record = whole_record(LONG_UCS2_4);
    ASSERT_GT(record.size(), REPLY_TEXT_MAX);
    ASSERT_TRUE(b.emu.inject_lines(cmt_lines(LONG_UCS2_4, {4, 1})));
    ASSERT_TRUE(b.emu.inject_lines({"RING", "NO CARRIER"}));
    ASSERT_TRUE(b.emu.inject_lines(cmt_lines(LONG_UCS2_4, {4, 3, 2})));
    std::string joined;
    std::vector<uint16_t> statuses;
    for (;;) {
        std::optional<reply_frame> f = c.reply(1033);
        ASSERT_TRUE(f) << "after " << statuses.size() << " frames";
        statuses.push_back(f->status);
        joined.append(f->text, f->text_len);
        if (f->status == 0)
            break;
    }
    EXPECT_EQ(statuses, (std::vector<uint16_t>{1, 0}));
    EXPECT_EQ(joined, record);
    no_more_sms(c);
    for (const reply_frame &f : c.others)
        EXPECT_NE(f.code, 1031) << show(f);
    std::string stats = c.ask(913);
    EXPECT_NE(stats.find(" sms_in=1 "), std::string::npos) << stats;
}

} // namespace
