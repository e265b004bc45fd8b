// Long messages joined from their parts: the parts and the texts they carry
// are gammu's (concat_vectors.inc). The store is tested on parts put into the
// decoded form by hand, apart from the PDU parser; then the PDU lines go
// through the parser and the common thread's one deadline, and through a
// restart of the thread. Records longer than one frame are cut into 1033
// frames.
#include "at/at.h"
#include "concat_vectors.h"
#include "sms/alphabet.h"
#include "sms/common.h"
#include "sms/inbox.h"
#include "sms/reassembly.h"
#include "support/test_support.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

// What left the store, in order.
struct delivered {
    std::string sender, stamp, text;
    size_t parts;
    bool operator==(const delivered &o) const {
        return sender == o.sender && stamp == o.stamp && text == o.text && parts == o.parts;
    }
};
std::ostream &operator<<(std::ostream &os, const delivered &d) {
    return os << d.sender << " " << d.stamp << " (" << d.parts << ") " << d.text.size() << " bytes";
}

struct recorder {
    std::vector<delivered> got;
    assembly_sink sink() {
        return {[](void *ctx, const char *sender, const char *stamp, const char *text, size_t len,
                   size_t parts) {
                    static_cast<recorder *>(ctx)->got.push_back({sender, stamp, std::string(text, len), parts});
                },
                this};
    }
    std::vector<delivered> take() { return std::exchange(got, {}); }
};

// Each test has its own store (it is large), zeroed as a static one is.
struct SmsAssemblyTest : testing::Test {
    std::unique_ptr<sms_assembly> store = std::make_unique<sms_assembly>();
    recorder r;
    void take(const sms_deliver &d, int64_t now) { assembly_take(store.get(), d, now, r.sink()); }
    int64_t expire(int64_t now) { return assembly_expire(store.get(), now, r.sink()); }
};

const concat_part &part_of(size_t m, size_t n) { return CONCAT_PARTS[CONCAT_MESSAGES[m].first + n - 1]; }

// Part n (from 1) of message m, as the parser gives it.
sms_deliver part(size_t m, size_t n) {
    const concat_part &p = part_of(m, n);
    sms_deliver d{};
    snprintf(d.sender, sizeof d.sender, "%s", CONCAT_MESSAGES[m].sender);
    snprintf(d.stamp, sizeof d.stamp, "%s", p.stamp);
    memcpy(d.text, p.text, p.text_len);
    d.text_len = p.text_len;
    d.concatenated = true;
    d.reference = static_cast<uint16_t>(p.reference);
    d.part_count = static_cast<uint8_t>(p.count);
    d.part = static_cast<uint8_t>(p.part);
    return d;
}

delivered whole(size_t m) {
    const concat_message &msg = CONCAT_MESSAGES[m];
    return {msg.sender, msg.stamp, std::string(msg.text, msg.text_len), msg.count};
}
delivered alone(size_t m, size_t n) {
    const concat_part &p = part_of(m, n);
    return {CONCAT_MESSAGES[m].sender, p.stamp, std::string(p.text, p.text_len), 1};
}
std::vector<delivered> each_alone(size_t m, std::vector<size_t> parts) {
    std::vector<delivered> out;
    for (size_t n : parts)
        out.push_back(alone(m, n));
    return out;
}

TEST_F(SmsAssemblyTest, PartsInAnyOrderAndAgainGiveTheWholeMessageOnce) {
    for (size_t m : {PLAIN_3, EXTENDED_4, EMOJI_3, LONG_UCS2_4}) {
        SCOPED_TRACE(CONCAT_MESSAGES[m].what);
        std::vector<size_t> in_order, reversed;
        for (size_t n = 1; n <= CONCAT_MESSAGES[m].count; ++n)
            in_order.push_back(n);
        reversed.assign(in_order.rbegin(), in_order.rend());
        // The network's repeats, all before the message is complete: after
        // that a repeat could not be told from a new message.
        std::vector<size_t> with_repeats = {2, 1, 2, 1};
        with_repeats.insert(with_repeats.end(), reversed.begin(), reversed.end() - 2);
        for (const std::vector<size_t> &order : {in_order, reversed, with_repeats}) {
            store = std::make_unique<sms_assembly>();
            int64_t now = 1000;
            for (size_t n : order) {
                EXPECT_TRUE(r.got.empty()) << "before part " << n;
                take(part(m, n), now += 1000);
            }
            EXPECT_EQ(r.take(), std::vector<delivered>{whole(m)});
            EXPECT_EQ(assembly_count(*store), 0u);
            EXPECT_EQ(expire(now + ASSEMBLY_WAIT_MS), NO_DEADLINE);
            EXPECT_TRUE(r.got.empty());
        }
    }
}

TEST_F(SmsAssemblyTest, TheSameReferenceFromTwoSendersMakesTwoMessages) {
    ASSERT_EQ(part(SAME_REF_A, 1).reference, part(SAME_REF_B, 1).reference);
    take(part(SAME_REF_A, 1), 0);
    take(part(SAME_REF_B, 2), 1);
    // Another message of the first sender: same reference, another part count.
    sms_deliver other = part(PLAIN_3, 1);
    snprintf(other.sender, sizeof other.sender, "%s", CONCAT_MESSAGES[SAME_REF_A].sender);
    other.reference = part(SAME_REF_A, 1).reference;
    take(other, 2);
    EXPECT_EQ(assembly_count(*store), 3u);
    EXPECT_TRUE(r.got.empty());
    take(part(SAME_REF_A, 2), 3);
    take(part(SAME_REF_B, 1), 4);
    EXPECT_EQ(r.take(), (std::vector<delivered>{whole(SAME_REF_A), whole(SAME_REF_B)}));
    EXPECT_EQ(assembly_count(*store), 1u);
}

TEST_F(SmsAssemblyTest, AnIncompleteMessageLeavesPartByPartWhenItsTimeRunsOut) {
    const int64_t t0 = 50000;
    take(part(EXTENDED_4, 4), t0);
    take(part(EXTENDED_4, 1), t0 + 60000);
    take(part(EXTENDED_4, 4), t0 + 61000); // a repeat
    take(part(PLAIN_3, 2), t0 + 120000);
    take(part(EXTENDED_4, 2), t0 + 180000);
    // The first part's arrival sets the time, not the latest part's.
    EXPECT_EQ(expire(t0 + ASSEMBLY_WAIT_MS - 1), t0 + ASSEMBLY_WAIT_MS);
    EXPECT_TRUE(r.got.empty());
    EXPECT_EQ(expire(t0 + ASSEMBLY_WAIT_MS), t0 + 120000 + ASSEMBLY_WAIT_MS);
    EXPECT_EQ(r.take(), each_alone(EXTENDED_4, {1, 2, 4}));
    // Its missing part, late, is a message of its own now.
    take(part(EXTENDED_4, 3), t0 + ASSEMBLY_WAIT_MS + 1);
    EXPECT_EQ(expire(t0 + 120000 + ASSEMBLY_WAIT_MS), t0 + ASSEMBLY_WAIT_MS + 1 + ASSEMBLY_WAIT_MS);
    EXPECT_EQ(r.take(), each_alone(PLAIN_3, {2}));
    EXPECT_EQ(expire(INT64_MAX / 2), NO_DEADLINE);
    EXPECT_EQ(r.take(), each_alone(EXTENDED_4, {3}));
}

TEST_F(SmsAssemblyTest, WhatCannotBeKeptOrJoinedLeavesAtOnceOrPartByPart) {
    // Seventeen parts: each leaves as it comes, and nothing is held.
    for (size_t n : {17u, 1u, 9u, 16u, 2u, 8u})
        take(part(SEVENTEEN, n), 0);
    EXPECT_EQ(r.take(), each_alone(SEVENTEEN, {17, 1, 9, 16, 2, 8}));
    EXPECT_EQ(assembly_count(*store), 0u);

    // A joined text over 999 bytes: the parts in part order, each with its own time.
    for (size_t n : {3u, 5u, 1u, 2u, 4u})
        take(part(OVER_999_5, n), 0);
    EXPECT_EQ(r.take(), each_alone(OVER_999_5, {1, 2, 3, 4, 5}));
    EXPECT_EQ(assembly_count(*store), 0u);

    // Not a part, a message of one part, a part number the header cannot have.
    sms_deliver single = part(PLAIN_3, 2), one_of_one = single, part_zero = single, past = single;
    single.concatenated = false;
    one_of_one.part_count = 1;
    one_of_one.part = 1;
    part_zero.part = 0;
    past.part = 4;
    for (const sms_deliver &d : {single, one_of_one, part_zero, past})
        take(d, 0);
    EXPECT_EQ(r.take(), std::vector<delivered>(4, alone(PLAIN_3, 2)));
    EXPECT_EQ(assembly_count(*store), 0u);
}

TEST_F(SmsAssemblyTest, ANinthMessageIsDeliveredPartByPartUntilAPlaceIsFree) {
    auto of_message = [](size_t n, uint16_t reference) {
        sms_deliver d = part(PLAIN_3, n);
        d.reference = reference;
        return d;
    };
    for (uint16_t ref = 0; ref < ASSEMBLY_MESSAGES; ++ref)
        take(of_message(1, ref), ref);
    EXPECT_EQ(assembly_count(*store), ASSEMBLY_MESSAGES);
    EXPECT_TRUE(r.got.empty());
    take(of_message(2, 100), 10);
    EXPECT_EQ(r.take(), each_alone(PLAIN_3, {2}));
    // A part of a message held still finds it.
    take(of_message(3, 5), 11);
    take(of_message(2, 5), 12);
    EXPECT_EQ(r.take(), std::vector<delivered>{whole(PLAIN_3)});
    // Its place is free: the ninth message's next part is kept.
    take(of_message(3, 100), 13);
    EXPECT_TRUE(r.got.empty());
    EXPECT_EQ(assembly_count(*store), ASSEMBLY_MESSAGES);
    // Given up together, they leave in the order they came: the ninth one's
    // part, which came last, last.
    EXPECT_EQ(expire(13 + ASSEMBLY_WAIT_MS), NO_DEADLINE);
    std::vector<delivered> left = r.take();
    ASSERT_EQ(left.size(), ASSEMBLY_MESSAGES);
    EXPECT_EQ(left.back(), alone(PLAIN_3, 3));
    EXPECT_EQ(left.front(), alone(PLAIN_3, 1));
}

// ---- records on the client's socket

std::string record_of(const delivered &d) {
    char record[SMS_RECORD_MAX];
    size_t len = sms_record_build(d.sender.c_str(), d.stamp.c_str(), d.text.data(), d.text.size(), record,
                                  sizeof record);
    return std::string(record, len);
}

// The records the client got: a 1031 as it is, 1033 frames joined. A 1033
// whose status does not count down, or that begins inside a character, fails
// the test. The first frame may take `first_ms`; the rest follow at once.
std::vector<std::string> records(client_end &client, long first_ms = 100, size_t *frames = nullptr) {
    std::vector<std::string> out;
    std::string joining;
    int expect = -1;
    reply_frame f;
    for (long wait = first_ms; client.next(&f, wait); wait = 100) {
        if (frames != nullptr)
            ++*frames;
        if (f.code == EVENT_SMS) {
            EXPECT_EQ(expect, -1) << "a 1031 inside a long record";
            out.emplace_back(f.text, f.text_len);
        } else if (f.code == EVENT_SMS_PART) {
            EXPECT_TRUE(expect == -1 || f.status == expect) << f.status;
            EXPECT_TRUE(f.text_len == 0 || (static_cast<uint8_t>(f.text[0]) & 0xC0) != 0x80)
                << "a cut inside a character";
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

TEST(SmsRecordTest, ALongRecordGoesOutIn1033FramesCountingDown) {
    fresh_state fresh;
    client_end client;
    // Every cut of a record of 999 bytes of text, by where a character ends
    // near each frame's end.
    for (size_t shift = 0; shift < 4; ++shift) {
        delivered d = whole(LONG_UCS2_4);
        d.sender += std::string(shift, '1');
        const delivered more = whole(EMOJI_3);
        d.text += more.text.substr(0, utf8_cut(more.text.data(), SMS_TEXT_MAX - d.text.size()));
        const std::string record = record_of(d);
        sms_record_report(record.data(), record.size());
        size_t frames = 0;
        EXPECT_EQ(records(client, 100, &frames), std::vector<std::string>{record}) << shift;
        EXPECT_EQ(frames, 3u) << shift;
    }
    EXPECT_EQ(stat_value("sms_in"), 4);
}

TEST(SmsRecordTest, PiecesOfBytesThatAreNotUtf8StillEnd) {
    const std::string raw(1000, '\x80');
    size_t ends[4];
    ASSERT_EQ(record_pieces(raw.data(), raw.size(), REPLY_TEXT_MAX, ends, 4), 3u);
    EXPECT_EQ(ends[0], REPLY_TEXT_MAX);
    EXPECT_EQ(ends[2], raw.size());
    EXPECT_EQ(record_pieces(raw.data(), raw.size(), 100, ends, 4), 0u); // more than the room
}

// ---- PDU lines through the parser and the common thread

// The lines of the common thread as the module sends them: header, PDU.
void cmt(common_state *st, size_t m, size_t n, int64_t now) {
    common_handle_line(st, "+CMT: ,159", now);
    common_handle_line(st, part_of(m, n).pdu, now);
}

TEST(CommonInboxTest, TheWaitForMissingPartsIsPartOfTheThreadsOneDeadline) {
    fresh_state fresh;
    client_end client;
    auto store = std::make_unique<sms_assembly>();
    common_state st;
    st.inbox = store.get();
    const int64_t t0 = 10000;
    cmt(&st, PLAIN_3, 3, t0);
    cmt(&st, EXTENDED_4, 2, t0 + 1000);
    cmt(&st, PLAIN_3, 3, t0 + 1500); // the network's repeat
    cmt(&st, PLAIN_3, 1, t0 + 2000);
    common_handle_line(&st, "RING", t0 + 3000);
    EXPECT_EQ(common_expire(&st, t0 + 3000), t0 + 3000 + RING_WINDOW_MS);
    // The ring's window is closed; the first message's five minutes are what is left.
    EXPECT_EQ(common_expire(&st, t0 + 3100), t0 + ASSEMBLY_WAIT_MS);
    reply_frame f;
    ASSERT_TRUE(client.next(&f, 1000));
    EXPECT_EQ(f.code, EVENT_CALL);
    EXPECT_TRUE(records(client).empty());
    // A line taken at the very time still finds the message waiting.
    cmt(&st, PLAIN_3, 2, t0 + ASSEMBLY_WAIT_MS);
    EXPECT_EQ(records(client), std::vector<std::string>{record_of(whole(PLAIN_3))});
    // The other one is given up part by part at its time.
    EXPECT_EQ(common_expire(&st, t0 + 1000 + ASSEMBLY_WAIT_MS - 1), t0 + 1000 + ASSEMBLY_WAIT_MS);
    EXPECT_TRUE(records(client).empty());
    EXPECT_EQ(common_expire(&st, t0 + 1000 + ASSEMBLY_WAIT_MS), NO_DEADLINE);
    EXPECT_EQ(records(client), std::vector<std::string>{record_of(alone(EXTENDED_4, 2))});
    EXPECT_EQ(stat_value("sms_in"), 2); // a joined message once
}

struct CommonThreadInboxTest : testing::Test, emulated_bench {};

// The supervisor stops the common thread when the module leaves the bus and
// starts a new one when it is back: the parts that came before still join.
TEST_F(CommonThreadInboxTest, PartsSurviveARestartOfTheThread) {
    sms_inbox = sms_assembly{}; // no thread runs: nothing of earlier tests is held
    auto part_lines = [](size_t n) { return "\r\n+CMT: ,159\r\n" + std::string(part_of(EMOJI_3, n).pdu) + "\r\n"; };
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
    EXPECT_EQ(records(client, 3000), std::vector<std::string>{record_of(whole(EMOJI_3))});
    pthread_cancel(common);
    pthread_join(common, nullptr);
    EXPECT_EQ(assembly_count(sms_inbox), 0u);
}

} // namespace
