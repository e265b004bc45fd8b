// Long messages from their PDU lines to the client: gammu's parts
// (concat_vectors.inc) through the parser, the common thread's line handling
// and its one deadline, and a restart of the thread between the parts.
#include "at/at.h"
#include "concat_vectors.h"
#include "sms/common.h"
#include "sms/inbox.h"
#include "support/test_support.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

std::string record_of(const char *sender, const char *stamp, const std::string &text) {
    char record[SMS_RECORD_MAX];
    size_t len = sms_record_build(sender, stamp, text.data(), text.size(), record, sizeof record);
    return std::string(record, len);
}
std::string whole_record(size_t m) {
    const concat_message &msg = CONCAT_MESSAGES[m];
    return record_of(msg.sender, msg.stamp, std::string(msg.text, msg.text_len));
}
std::string part_record(size_t m, size_t n) {
    const concat_part &p = CONCAT_PARTS[CONCAT_MESSAGES[m].first + n - 1];
    return record_of(CONCAT_MESSAGES[m].sender, p.stamp, std::string(p.text, p.text_len));
}
const char *pdu_of(size_t m, size_t n) { return CONCAT_PARTS[CONCAT_MESSAGES[m].first + n - 1].pdu; }

// The records the client got: a 1031 as it is, 1033 frames joined. A 1033
// whose status does not count down fails the test. The first frame may take
// `first_ms`; the rest follow at once.
std::vector<std::string> records(client_end &client, long first_ms = 100) {
    std::vector<std::string> out;
    std::string joining;
    int expect = -1;
    reply_frame f;
    for (long wait = first_ms; client.next(&f, wait); wait = 100) {
        if (f.code == EVENT_SMS) {
            EXPECT_EQ(expect, -1) << "a 1031 inside a long record";
            out.emplace_back(f.text, f.text_len);
        } else if (f.code == EVENT_SMS_PART) {
            EXPECT_TRUE(expect == -1 || f.status == expect) << f.status;
            joining.append(f.text, f.text_len);
            expect = f.status - 1;
            if (f.status == 0)
                out.push_back(std::exchange(joining, {}));
        } else {
            ADD_FAILURE() << "frame " << f.code;
        }
    }
    EXPECT_EQ(expect, -1) << "a long record left unfinished";
    return out;
}

TEST(SmsInboxTest, PartsDecodeToWhatGammuSays) {
    for (const concat_part &p : CONCAT_PARTS) {
        const concat_message &msg = CONCAT_MESSAGES[p.message];
        SCOPED_TRACE(std::string(msg.what) + " part " + std::to_string(p.part));
        sms_deliver d;
        ASSERT_TRUE(sms_deliver_parse(p.pdu, strlen(p.pdu), &d));
        EXPECT_STREQ(d.sender, msg.sender);
        EXPECT_STREQ(d.stamp, p.stamp);
        EXPECT_EQ(std::string(d.text, d.text_len), std::string(p.text, p.text_len));
        EXPECT_TRUE(d.concatenated);
        EXPECT_EQ(d.reference, p.reference);
        EXPECT_EQ(d.part_count, p.count);
        EXPECT_EQ(d.part, p.part);
    }
}

// The lines of the common thread as the module sends them: header, PDU.
void cmt(common_state *st, const char *pdu, int64_t now) {
    common_handle_line(st, "+CMT: ,159", now);
    common_handle_line(st, pdu, now);
}

TEST(CommonInboxTest, PartsOutOfOrderBecomeOneEventAndALongOneComesIn1033Frames) {
    fresh_state fresh;
    client_end client;
    auto store = std::make_unique<sms_assembly>();
    common_state st;
    st.inbox = store.get();
    cmt(&st, pdu_of(EMOJI_3, 3), 1000);
    cmt(&st, pdu_of(EMOJI_3, 1), 2000);
    // The part's own window is closed; the message's five minutes are what is left.
    EXPECT_EQ(common_expire(&st, 2600), 1000 + ASSEMBLY_WAIT_MS);
    cmt(&st, pdu_of(EMOJI_3, 1), 3000); // the network's repeat
    cmt(&st, pdu_of(EMOJI_3, 2), 4000);
    EXPECT_EQ(records(client), std::vector<std::string>{whole_record(EMOJI_3)});

    for (size_t n : {2u, 4u, 1u, 3u})
        cmt(&st, pdu_of(LONG_UCS2_4, n), 5000);
    EXPECT_EQ(records(client), std::vector<std::string>{whole_record(LONG_UCS2_4)});
    EXPECT_EQ(common_expire(&st, 6000), NO_DEADLINE);
    EXPECT_EQ(stat_value("sms_in"), 2); // each message once
}

TEST(CommonInboxTest, TheWaitForMissingPartsIsPartOfTheThreadsOneDeadline) {
    fresh_state fresh;
    client_end client;
    auto store = std::make_unique<sms_assembly>();
    common_state st;
    st.inbox = store.get();
    const int64_t t0 = 10000;
    cmt(&st, pdu_of(PLAIN_3, 3), t0);
    cmt(&st, pdu_of(EXTENDED_4, 2), t0 + 1000);
    cmt(&st, pdu_of(PLAIN_3, 1), t0 + 2000);
    common_handle_line(&st, "RING", t0 + 3000);
    EXPECT_EQ(common_expire(&st, t0 + 3000), t0 + 3000 + RING_WINDOW_MS);
    EXPECT_EQ(common_expire(&st, t0 + 3100), t0 + ASSEMBLY_WAIT_MS);
    reply_frame f;
    ASSERT_TRUE(client.next(&f, 1000));
    EXPECT_EQ(f.code, EVENT_CALL);
    EXPECT_TRUE(records(client).empty());
    // A line taken at the very time still finds the message waiting.
    cmt(&st, pdu_of(PLAIN_3, 2), t0 + ASSEMBLY_WAIT_MS);
    EXPECT_EQ(records(client), std::vector<std::string>{whole_record(PLAIN_3)});
    // The other one is given up part by part at its time.
    EXPECT_EQ(common_expire(&st, t0 + 1000 + ASSEMBLY_WAIT_MS - 1), t0 + 1000 + ASSEMBLY_WAIT_MS);
    EXPECT_TRUE(records(client).empty());
    EXPECT_EQ(common_expire(&st, t0 + 1000 + ASSEMBLY_WAIT_MS), NO_DEADLINE);
    EXPECT_EQ(records(client), std::vector<std::string>{part_record(EXTENDED_4, 2)});

    // Over 999 bytes joined: each part its own record, in part order.
    for (size_t n : {5u, 3u, 1u, 4u, 2u})
        cmt(&st, pdu_of(OVER_999_5, n), t0);
    std::vector<std::string> parts;
    for (size_t n = 1; n <= 5; ++n)
        parts.push_back(part_record(OVER_999_5, n));
    EXPECT_EQ(records(client), parts);
    EXPECT_EQ(stat_value("sms_in"), 7);
}

struct CommonThreadInboxTest : testing::Test, emulated_bench {};

// The supervisor stops the common thread when the module leaves the bus and
// starts a new one when it is back: the parts that came before still join.
TEST_F(CommonThreadInboxTest, PartsSurviveARestartOfTheThread) {
    sms_inbox = sms_assembly{}; // no thread runs: nothing of earlier tests is held
    auto part_lines = [](size_t n) {
        return "\r\n+CMT: ,159\r\n" + std::string(pdu_of(EMOJI_3, n)) + "\r\n";
    };
    pthread_t common;
    ASSERT_EQ(pthread_create(&common, nullptr, common_thread, nullptr), 0);
    // The tone behind the parts says they were handled.
    port.module().inject_raw(part_lines(2) + part_lines(3) + "\r\n+QTONEDET: 49\r\n");
    EXPECT_EQ(client.frames(1, 3000), "1021 1 49|");
    pthread_cancel(common);
    pthread_join(common, nullptr);
    EXPECT_EQ(assembly_count(sms_inbox), 1u);

    ASSERT_EQ(pthread_create(&common, nullptr, common_thread, nullptr), 0);
    port.module().inject_raw(part_lines(1));
    EXPECT_EQ(records(client, 3000), std::vector<std::string>{whole_record(EMOJI_3)});
    pthread_cancel(common);
    pthread_join(common, nullptr);
    EXPECT_EQ(assembly_count(sms_inbox), 0u);
}

} // namespace
