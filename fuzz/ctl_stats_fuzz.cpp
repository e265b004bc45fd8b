// The client tool's reading of a 913 text, which comes from outside the tool:
// whatever the bytes, the read must not run past them, a text it takes must
// hold every value it claims, and its words and JSON must come out of it.
#include "ctl/ctl.h"

#include "fuzz_support.h"

#include <algorithm>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    auto block = exact_copy<char>(data, size);
    const std::string text(block.get(), size);
    ctl::daemon_stats s;
    if (!ctl::parse_stats(text, &s)) {
        for (size_t i = 0; i < ctl::STATS_KEY_COUNT; ++i)
            check(!s.known[i]);
        return 0;
    }
    // Each value taken is the decimal of the one word that begins with its key.
    for (size_t i = 0; i < ctl::STATS_KEY_COUNT; ++i) {
        if (!s.known[i])
            continue;
        const std::string key = std::string(ctl::STATS_KEYS[i]) + "=";
        size_t at = text.find(key);
        while (at != std::string::npos && at != 0 && text[at - 1] != ' ')
            at = text.find(key, at + 1);
        check(at != std::string::npos);
        size_t from = at + key.size(), end = text.find(' ', from);
        std::string digits = text.substr(from, end == std::string::npos ? std::string::npos : end - from);
        digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size() - 1));
        check(digits == std::to_string(s.value[i]));
        check(i != 1 || s.value[i] <= 1); // link
    }
    ctl::stats_phrases words = ctl::stats_words(s);
    check(words.link.empty() == !s.known[1]);

    // As the status summary shows it, beside the other replies.
    std::map<uint16_t, reply_frame> replies;
    reply_frame f{913, 0, 0, {}};
    f.text_len = size < REPLY_TEXT_MAX ? size : REPLY_TEXT_MAX;
    memcpy(f.text, data, f.text_len);
    replies[913] = f;
    std::string json = ctl::format_status(replies, ctl::print_style{true});
    check(json.size() > 2 && json.front() == '{' && json.back() == '}');
    ctl::format_status(replies, ctl::print_style{});
    return 0;
}
