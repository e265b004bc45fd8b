// Long messages joined from their parts: the parts and the texts they carry
// are gammu's (concat_vectors.inc), put into the decoded form by hand, so the
// joining is tested apart from the PDU parser. Records longer than one frame
// are cut into 1033 frames.
#include "sms/alphabet.h"
#include "concat_vectors.h"
#include "sms/inbox.h"
#include "sms/reassembly.h"
#include "support/test_support.h"

#include <algorithm>
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

// The store is large; each test has its own, zeroed as a static one is.
std::unique_ptr<sms_assembly> fresh_store() { return std::make_unique<sms_assembly>(); }

sms_deliver decoded(const concat_part &p, const char *sender) {
    sms_deliver d{};
    snprintf(d.sender, sizeof d.sender, "%s", sender);
    snprintf(d.stamp, sizeof d.stamp, "%s", p.stamp);
    memcpy(d.text, p.text, p.text_len);
    d.text_len = p.text_len;
    d.concatenated = true;
    d.reference = static_cast<uint16_t>(p.reference);
    d.part_count = static_cast<uint8_t>(p.count);
    d.part = static_cast<uint8_t>(p.part);
    return d;
}

// Part n (from 1) of message m, as the parser gives it.
sms_deliver part(size_t m, size_t n) {
    const concat_message &msg = CONCAT_MESSAGES[m];
    return decoded(CONCAT_PARTS[msg.first + n - 1], msg.sender);
}

delivered whole(size_t m) {
    const concat_message &msg = CONCAT_MESSAGES[m];
    return {msg.sender, msg.stamp, std::string(msg.text, msg.text_len), msg.count};
}
delivered alone(size_t m, size_t n) {
    const concat_part &p = CONCAT_PARTS[CONCAT_MESSAGES[m].first + n - 1];
    return {CONCAT_MESSAGES[m].sender, p.stamp, std::string(p.text, p.text_len), 1};
}

TEST(SmsAssemblyTest, TheVectorsAreWhatTheTestsNeed) {
    EXPECT_EQ(CONCAT_MESSAGES[SEVENTEEN].count, 17u);
    EXPECT_EQ(CONCAT_MESSAGES[LONG_UCS2_4].count, 4u);
    EXPECT_GT(CONCAT_MESSAGES[LONG_UCS2_4].text_len, REPLY_TEXT_MAX);
    EXPECT_GT(CONCAT_MESSAGES[OVER_999_5].text_len, SMS_TEXT_MAX);
    EXPECT_EQ(CONCAT_PARTS[CONCAT_MESSAGES[SAME_REF_A].first].reference,
              CONCAT_PARTS[CONCAT_MESSAGES[SAME_REF_B].first].reference);
    EXPECT_GT(CONCAT_PARTS[CONCAT_MESSAGES[EXTENDED_4].first].reference, 255u); // 16-bit
}

TEST(SmsAssemblyTest, PartsInAnyOrderAndAgainGiveTheWholeMessageOnce) {
    for (size_t m : {PLAIN_3, EXTENDED_4, EMOJI_3, LONG_UCS2_4}) {
        SCOPED_TRACE(CONCAT_MESSAGES[m].what);
        const size_t count = CONCAT_MESSAGES[m].count;
        std::vector<size_t> in_order, reversed;
        for (size_t n = 1; n <= count; ++n)
            in_order.push_back(n);
        reversed.assign(in_order.rbegin(), in_order.rend());
        // The network's repeats, all before the message is complete: after
        // that a repeat could not be told from a new message.
        std::vector<size_t> with_repeats = {2, 1, 2, 1};
        with_repeats.insert(with_repeats.end(), reversed.begin(), reversed.end() - 2);
        for (const std::vector<size_t> &order : {in_order, reversed, with_repeats}) {
            auto store = fresh_store();
            recorder r;
            int64_t now = 1000;
            for (size_t i = 0; i < order.size(); ++i) {
                EXPECT_TRUE(r.got.empty()) << "before part " << order[i];
                assembly_take(store.get(), part(m, order[i]), now += 1000, r.sink());
            }
            EXPECT_EQ(r.take(), std::vector<delivered>{whole(m)});
            EXPECT_EQ(assembly_count(*store), 0u);
            EXPECT_EQ(assembly_expire(store.get(), now + ASSEMBLY_WAIT_MS, r.sink()), NO_DEADLINE);
            EXPECT_TRUE(r.got.empty());
        }
    }
}

TEST(SmsAssemblyTest, TheSameReferenceFromTwoSendersMakesTwoMessages) {
    auto store = fresh_store();
    recorder r;
    assembly_take(store.get(), part(SAME_REF_A, 1), 0, r.sink());
    assembly_take(store.get(), part(SAME_REF_B, 2), 1, r.sink());
    // Another message of the first sender: same reference, another part count.
    sms_deliver other = part(PLAIN_3, 1);
    snprintf(other.sender, sizeof other.sender, "%s", CONCAT_MESSAGES[SAME_REF_A].sender);
    other.reference = part(SAME_REF_A, 1).reference;
    assembly_take(store.get(), other, 2, r.sink());
    EXPECT_EQ(assembly_count(*store), 3u);
    EXPECT_TRUE(r.got.empty());
    assembly_take(store.get(), part(SAME_REF_A, 2), 3, r.sink());
    assembly_take(store.get(), part(SAME_REF_B, 1), 4, r.sink());
    EXPECT_EQ(r.take(), (std::vector<delivered>{whole(SAME_REF_A), whole(SAME_REF_B)}));
    EXPECT_EQ(assembly_count(*store), 1u);
}

TEST(SmsAssemblyTest, AnIncompleteMessageLeavesPartByPartWhenItsTimeRunsOut) {
    auto store = fresh_store();
    recorder r;
    const int64_t t0 = 50000;
    assembly_take(store.get(), part(EXTENDED_4, 4), t0, r.sink());
    assembly_take(store.get(), part(EXTENDED_4, 1), t0 + 60000, r.sink());
    assembly_take(store.get(), part(EXTENDED_4, 4), t0 + 61000, r.sink()); // a repeat
    assembly_take(store.get(), part(PLAIN_3, 2), t0 + 120000, r.sink());
    assembly_take(store.get(), part(EXTENDED_4, 2), t0 + 180000, r.sink());
    // The first part's arrival sets the time, not the latest part's.
    EXPECT_EQ(assembly_expire(store.get(), t0 + ASSEMBLY_WAIT_MS - 1, r.sink()), t0 + ASSEMBLY_WAIT_MS);
    EXPECT_TRUE(r.got.empty());
    EXPECT_EQ(assembly_expire(store.get(), t0 + ASSEMBLY_WAIT_MS, r.sink()), t0 + 120000 + ASSEMBLY_WAIT_MS);
    EXPECT_EQ(r.take(), (std::vector<delivered>{alone(EXTENDED_4, 1), alone(EXTENDED_4, 2), alone(EXTENDED_4, 4)}));
    // Its missing part, late, is a message of its own now.
    assembly_take(store.get(), part(EXTENDED_4, 3), t0 + ASSEMBLY_WAIT_MS + 1, r.sink());
    EXPECT_EQ(assembly_expire(store.get(), t0 + 120000 + ASSEMBLY_WAIT_MS, r.sink()),
              t0 + ASSEMBLY_WAIT_MS + 1 + ASSEMBLY_WAIT_MS);
    EXPECT_EQ(r.take(), std::vector<delivered>{alone(PLAIN_3, 2)});
    EXPECT_EQ(assembly_expire(store.get(), INT64_MAX / 2, r.sink()), NO_DEADLINE);
    EXPECT_EQ(r.take(), std::vector<delivered>{alone(EXTENDED_4, 3)});
}

TEST(SmsAssemblyTest, WhatCannotBeKeptOrJoinedLeavesAtOnceOrPartByPart) {
    auto store = fresh_store();
    recorder r;
    // Seventeen parts: each leaves as it comes, and nothing is held.
    std::vector<delivered> want;
    for (size_t n : {17u, 1u, 9u, 16u, 2u, 8u}) {
        assembly_take(store.get(), part(SEVENTEEN, n), 0, r.sink());
        want.push_back(alone(SEVENTEEN, n));
    }
    EXPECT_EQ(r.take(), want);
    EXPECT_EQ(assembly_count(*store), 0u);

    // A joined text over 999 bytes: the parts in part order, each with its own time.
    for (size_t n : {3u, 5u, 1u, 2u, 4u})
        assembly_take(store.get(), part(OVER_999_5, n), 0, r.sink());
    want.clear();
    for (size_t n = 1; n <= 5; ++n)
        want.push_back(alone(OVER_999_5, n));
    EXPECT_EQ(r.take(), want);
    EXPECT_EQ(assembly_count(*store), 0u);

    // Not a part, a message of one part, a part number the header cannot have.
    sms_deliver single = part(PLAIN_3, 2), one_of_one = single, part_zero = single, past = single;
    single.concatenated = false;
    one_of_one.part_count = 1;
    one_of_one.part = 1;
    part_zero.part = 0;
    past.part = 4;
    for (const sms_deliver &d : {single, one_of_one, part_zero, past})
        assembly_take(store.get(), d, 0, r.sink());
    EXPECT_EQ(r.take(), std::vector<delivered>(4, alone(PLAIN_3, 2)));
    EXPECT_EQ(assembly_count(*store), 0u);
}

TEST(SmsAssemblyTest, ANinthMessageIsDeliveredPartByPartUntilAPlaceIsFree) {
    auto store = fresh_store();
    recorder r;
    auto of_message = [](size_t n, uint16_t reference) {
        sms_deliver d = part(PLAIN_3, n);
        d.reference = reference;
        return d;
    };
    for (uint16_t ref = 0; ref < ASSEMBLY_MESSAGES; ++ref)
        assembly_take(store.get(), of_message(1, ref), ref, r.sink());
    EXPECT_EQ(assembly_count(*store), ASSEMBLY_MESSAGES);
    EXPECT_TRUE(r.got.empty());
    assembly_take(store.get(), of_message(2, 100), 10, r.sink());
    EXPECT_EQ(r.take(), std::vector<delivered>{alone(PLAIN_3, 2)});
    // A part of a message held still finds it.
    assembly_take(store.get(), of_message(3, 5), 11, r.sink());
    assembly_take(store.get(), of_message(2, 5), 12, r.sink());
    EXPECT_EQ(r.take(), std::vector<delivered>{whole(PLAIN_3)});
    // Its place is free: the ninth message's next part is kept.
    assembly_take(store.get(), of_message(3, 100), 13, r.sink());
    EXPECT_TRUE(r.got.empty());
    EXPECT_EQ(assembly_count(*store), ASSEMBLY_MESSAGES);
    // Given up together, they leave in the order they came: the ninth one's
    // part, which came last, last.
    EXPECT_EQ(assembly_expire(store.get(), 13 + ASSEMBLY_WAIT_MS, r.sink()), NO_DEADLINE);
    std::vector<delivered> left = r.take();
    ASSERT_EQ(left.size(), ASSEMBLY_MESSAGES);
    EXPECT_EQ(left.back(), alone(PLAIN_3, 3));
    EXPECT_EQ(left.front(), alone(PLAIN_3, 1));
}

// ---- records on the client's socket

std::vector<reply_frame> frames_of(client_end &client) {
    std::vector<reply_frame> out;
    reply_frame f;
    while (client.next(&f, 100))
        out.push_back(f);
    return out;
}

std::string record_of(const delivered &d) {
    char record[SMS_RECORD_MAX];
    size_t len = sms_record_build(d.sender.c_str(), d.stamp.c_str(), d.text.data(), d.text.size(), record,
                                  sizeof record);
    return std::string(record, len);
}

bool inside_character(const std::string &s, size_t at) {
    return at < s.size() && (static_cast<unsigned char>(s[at]) & 0xC0) == 0x80;
}

TEST(SmsRecordTest, ALongRecordGoesOutIn1033FramesCountingDown) {
    fresh_state fresh;
    client_end client;
    const std::string fits = record_of(whole(PLAIN_3)), longer = record_of(whole(LONG_UCS2_4));
    ASSERT_LE(fits.size(), REPLY_TEXT_MAX);
    ASSERT_GT(longer.size(), REPLY_TEXT_MAX);
    sms_record_report(fits.data(), fits.size());
    std::vector<reply_frame> got = frames_of(client);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].code, EVENT_SMS);
    EXPECT_EQ(std::string(got[0].text, got[0].text_len), fits);

    // Every cut of a record of 999 bytes of text, by where a character ends
    // near each frame's end.
    for (size_t shift = 0; shift < 4; ++shift) {
        delivered d = whole(LONG_UCS2_4);
        d.sender += std::string(shift, '1');
        const delivered more = whole(EMOJI_3);
        d.text += more.text.substr(0, utf8_cut(more.text.data(), SMS_TEXT_MAX - d.text.size()));
        const std::string record = record_of(d);
        sms_record_report(record.data(), record.size());
        got = frames_of(client);
        ASSERT_EQ(got.size(), 3u) << shift;
        std::string joined;
        for (size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(got[i].code, EVENT_SMS_PART);
            EXPECT_EQ(got[i].status, got.size() - 1 - i);
            EXPECT_LE(got[i].text_len, REPLY_TEXT_MAX);
            joined.append(got[i].text, got[i].text_len);
            EXPECT_FALSE(inside_character(record, joined.size())) << shift << " cut " << i;
        }
        EXPECT_EQ(joined, record) << shift;
    }
    EXPECT_EQ(stat_value("sms_in"), 5);
}

TEST(SmsRecordTest, PiecesOfBytesThatAreNotUtf8StillEnd) {
    const std::string raw(1000, '\x80');
    size_t ends[4];
    ASSERT_EQ(record_pieces(raw.data(), raw.size(), REPLY_TEXT_MAX, ends, 4), 3u);
    EXPECT_EQ(ends[0], REPLY_TEXT_MAX);
    EXPECT_EQ(ends[2], raw.size());
    EXPECT_EQ(record_pieces(raw.data(), raw.size(), 100, ends, 4), 0u); // more than the room
    // A character cut by the last byte of a piece moves whole to the next one.
    std::string cjk = "ab";
    for (int i = 0; i < 110; ++i)
        cjk += "\xE9\x95\xBF";
    ASSERT_EQ(record_pieces(cjk.data(), cjk.size(), 10, ends, 4), 0u);
    ASSERT_EQ(record_pieces(cjk.data(), 11, 10, ends, 4), 2u);
    EXPECT_EQ(ends[0], 8u);
    EXPECT_EQ(ends[1], 11u);
}

} // namespace
