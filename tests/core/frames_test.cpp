#include "core/frames.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

std::string bytes(std::initializer_list<int> b) {
    std::string s;
    for (int c : b)
        s.push_back(static_cast<char>(c));
    return s;
}

TEST(RequestFrameTest, ParsesOnlyWhatTheReadHolds) {
    const std::string y999(999, 'y'), nul("a\0b", 3);
    const struct {
        std::string raw;
        int result;
        uint16_t code;
        std::vector<std::string> fields;
        bool oversize;
    } cases[] = {
        {"ZVS" + bytes({0x02, 0x0C, 0, 1}) + "0" + bytes({0, 0}), 0, 524, {"0"}, false},
        {"ZVS" + bytes({0xFF, 0xFE}), 0, 0xFFFE, {}, false},
        {"ZVS" + bytes({0, 1, 0, 0, 0, 3}) + "abc", 0, 1, {}, false}, // a zero length ends the list
        {"ZVS" + bytes({1, 0x92, 0, 3}) + nul + bytes({0, 0}), 0, 402, {nul}, false},
        {"ZVS" + bytes({1, 0x91, 3, 0xE7}) + y999, 0, 401, {y999}, false},
        // 1000 and more: not taken, not counted.
        {"ZVS" + bytes({1, 0x91, 0, 1}) + "a" + bytes({3, 0xE8}) + std::string(1000, 'x'), 0, 401,
         {"a"}, true},
        {"ZVS" + bytes({1, 0x91, 0, 1}) + "a" + bytes({0, 5}) + "abc", 0, 401, {"a"}, false},
        {"ZVS" + bytes({1, 0x91, 0}), 0, 401, {}, false}, // a length cut by the end of the read
        {"ZVS" + bytes({3}), -1, 0, {}, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.raw.substr(0, 12));
        request_frame f;
        memset(&f, 0x55, sizeof f); // no field may keep stale bytes
        ASSERT_EQ(request_parse(reinterpret_cast<const uint8_t *>(c.raw.data()), c.raw.size(), &f),
                  c.result);
        if (c.result != 0)
            continue;
        EXPECT_EQ(f.code, c.code);
        EXPECT_EQ(f.oversize_field, c.oversize);
        ASSERT_EQ(f.field_count, static_cast<int>(c.fields.size()));
        for (int i = 0; i < REQUEST_FIELDS_MAX; ++i) {
            std::string want = i < f.field_count ? c.fields[static_cast<size_t>(i)] : "";
            EXPECT_EQ(std::string(f.fields[i], f.field_len[i]), want);
            EXPECT_STREQ(f.fields[i], want.c_str()); // text up to the first NUL
        }
    }
}

} // namespace
