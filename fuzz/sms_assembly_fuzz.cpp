// The joining of long messages on a stream of parts whose fields come from
// the input, six bytes a part: sender, reference, part count (0: not a part),
// part number, text length, clock step. Before each part the store is expired
// at the new time, as the common thread does; at the end, far in the future.
//
// Each part's text carries a number of its own ("<17:aaaa>"), so every
// delivered record can be read back into the parts it holds. Checked against
// a model of what the store holds:
//  - every record is within its bounds (text at most 999 bytes, one part or
//    a whole message of 2 to 16 parts, its sender one that was sent);
//  - a whole message is its parts in part order, with part 1's time stamp, and
//    leaves when its last part comes;
//  - a part leaves once, or never when it repeats a part held: nothing else
//    is dropped, nothing duplicated;
//  - a part that cannot be kept (not a part, more than 16 parts, no place)
//    leaves at once; nothing is held past its five minutes, and the deadline
//    returned is the earliest one held.
#include "sms/reassembly.h"

#include "core/wait.h"
#include "fuzz_support.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace {

const char *const SENDERS[] = {"+8613912345678", "10086", "InfoSMS",
                               "\xE4\xBD\xA0\xE5\xA5\xBD-a-sender-of-many-bytes-in-utf8-xyz"};

struct out_record {
    std::string sender, stamp, text;
    size_t parts;
};

struct sent_part {
    size_t sender;
    uint16_t reference;
    uint8_t count, part;
    std::string stamp;
    int64_t at;
};

using message_key = std::tuple<size_t, uint16_t, uint8_t>;
using part_key = std::tuple<size_t, uint16_t, uint8_t, uint8_t>;

struct model {
    std::vector<sent_part> sent;
    std::vector<bool> left;                     // by id: has left the store
    std::map<part_key, size_t> held;            // part -> id
    std::map<message_key, int64_t> first_ms;    // messages held -> when their first part came
    std::vector<out_record> got;

    static message_key key_of(const sent_part &p) { return {p.sender, p.reference, p.count}; }
    static part_key part_of(const sent_part &p) { return {p.sender, p.reference, p.count, p.part}; }

    // The ids a record holds, in order.
    static std::vector<size_t> ids(const std::string &text) {
        std::vector<size_t> out;
        for (size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at + 1))
            out.push_back(std::stoul(text.substr(at + 1)));
        return out;
    }

    // Checks the records delivered by one call and updates what is held.
    // Returns the ids that left.
    std::set<size_t> settle() {
        std::set<size_t> gone;
        for (const out_record &r : got) {
            check(r.text.size() <= SMS_TEXT_MAX);
            const std::vector<size_t> in = ids(r.text);
            check(!in.empty() && (r.parts == 1 ? in.size() == 1 : in.size() == r.parts));
            check(r.parts >= 1 && r.parts <= ASSEMBLY_PARTS);
            const sent_part &first = sent.at(in[0]);
            check(r.sender == SENDERS[first.sender] && r.stamp == first.stamp);
            for (size_t i = 0; i < in.size(); ++i) {
                const sent_part &p = sent.at(in[i]);
                check(!left.at(in[i]));
                left[in[i]] = true;
                gone.insert(in[i]);
                if (r.parts > 1)
                    check(key_of(p) == key_of(first) && p.part == i + 1 && p.count == r.parts);
                auto h = held.find(part_of(p));
                if (h != held.end() && h->second == in[i])
                    held.erase(h);
            }
        }
        got.clear();
        // A message leaves whole: none of its parts stays behind.
        for (auto it = first_ms.begin(); it != first_ms.end();) {
            bool any = false;
            for (const auto &[k, id] : held)
                any |= message_key{std::get<0>(k), std::get<1>(k), std::get<2>(k)} == it->first;
            it = any ? std::next(it) : first_ms.erase(it);
        }
        return gone;
    }

    int64_t earliest() const {
        int64_t next = NO_DEADLINE;
        for (const auto &[k, at] : first_ms)
            if (next == NO_DEADLINE || at + ASSEMBLY_WAIT_MS < next)
                next = at + ASSEMBLY_WAIT_MS;
        return next;
    }
};

void record_into(void *ctx, const char *sender, const char *stamp, const char *text, size_t len, size_t parts) {
    static_cast<model *>(ctx)->got.push_back({sender, stamp, std::string(text, len), parts});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static std::unique_ptr<sms_assembly> store;
    store = std::make_unique<sms_assembly>();
    model m;
    const assembly_sink sink{record_into, &m};
    int64_t now = 1000;
    auto expire = [&](int64_t at) {
        const int64_t next = assembly_expire(store.get(), at, sink);
        m.settle();
        for (const auto &[k, first] : m.first_ms)
            check(first + ASSEMBLY_WAIT_MS > at);
        check(next == m.earliest());
    };
    for (size_t at = 0; at + 6 <= size; at += 6) {
        const uint8_t *f = data + at;
        now += static_cast<int64_t>(f[5]) * 5000;
        expire(now);

        sent_part p{f[0] % 4u, static_cast<uint16_t>(f[1] % 4 + (f[1] & 0x80 ? 0x1200 : 0)),
                    static_cast<uint8_t>(f[2] % 20), static_cast<uint8_t>(f[3] % 22), "", now};
        const size_t id = m.sent.size();
        char stamp[15];
        snprintf(stamp, sizeof stamp, "2025%010zu", id % 10000000000u);
        p.stamp = stamp;
        sms_deliver d{};
        snprintf(d.sender, sizeof d.sender, "%s", SENDERS[p.sender]);
        snprintf(d.stamp, sizeof d.stamp, "%s", stamp);
        std::string text = "<" + std::to_string(id) + ":" + std::string(f[4] * 2u, 'a') + ">";
        text.resize(std::min(text.size(), SMS_PART_TEXT_MAX - 1));
        text.back() = '>';
        memcpy(d.text, text.data(), text.size());
        d.text_len = text.size();
        d.concatenated = p.count != 0;
        d.reference = p.reference;
        d.part_count = p.count;
        d.part = p.part;
        m.sent.push_back(p);
        m.left.push_back(false);

        const bool keepable = p.count >= 2 && p.count <= ASSEMBLY_PARTS && p.part >= 1 && p.part <= p.count;
        const bool repeat = keepable && m.held.count(model::part_of(p)) != 0;
        const bool has_place = m.first_ms.count(model::key_of(p)) != 0 || m.first_ms.size() < ASSEMBLY_MESSAGES;
        assembly_take(store.get(), d, now, sink);
        const std::set<size_t> gone = m.settle();
        if (repeat) {
            check(gone.empty());
            m.left[id] = true; // dropped, as the rules allow
            continue;
        }
        if (!keepable || !has_place) {
            check(gone.size() == 1 && gone.count(id) == 1);
            continue;
        }
        if (gone.count(id) == 0) {
            m.held[model::part_of(p)] = id;
            m.first_ms.emplace(model::key_of(p), now);
        }
        // A message with all its parts held would have left.
        std::map<message_key, size_t> parts_held;
        for (const auto &[k, held_id] : m.held)
            ++parts_held[{std::get<0>(k), std::get<1>(k), std::get<2>(k)}];
        for (const auto &[k, n] : parts_held)
            check(n < std::get<2>(k));
        check(assembly_count(*store) == m.first_ms.size());
    }
    expire(now + 2 * ASSEMBLY_WAIT_MS);
    check(m.held.empty() && m.first_ms.empty() && assembly_count(*store) == 0);
    for (bool l : m.left)
        check(l);
    return 0;
}
