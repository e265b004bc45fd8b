#include "core/convert.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

// Converts into a buffer one byte larger than `capacity`; that byte must stay untouched.
bytes to_ucs2(const bytes &in, size_t capacity) {
    bytes out(capacity + 1, 0xEE);
    size_t cap = capacity;
    size_t n = utf8_to_ucs2(in.data(), in.size(), out.data(), &cap);
    EXPECT_EQ(cap, capacity - n);
    EXPECT_EQ(out[capacity], 0xEE);
    out.resize(n);
    return out;
}

TEST(Utf8ToUcs2Test, ConvertsUpToTheFirstInvalidByteOrFullCapacity) {
    EXPECT_EQ(to_ucs2({0x41, 0xC3, 0xA9}, 255), (bytes{0x00, 0x41, 0x00, 0xE9}));
    // Four-byte character, stray continuation, sequence cut by the input's end.
    EXPECT_EQ(to_ucs2({0x41, 0xF0, 0x9F, 0x98, 0x80}, 255), (bytes{0x00, 0x41}));
    EXPECT_EQ(to_ucs2({0x41, 0x80, 0x42}, 255), (bytes{0x00, 0x41}));
    EXPECT_EQ(to_ucs2({0x41, 0xE4, 0xBD}, 255), (bytes{0x00, 0x41}));
    // Whole units only.
    EXPECT_EQ(to_ucs2({0x41, 0x42}, 3), (bytes{0x00, 0x41}));
    EXPECT_EQ(to_ucs2({0xE4, 0xBD, 0xA0}, 1), bytes{});
}

TEST(BytesToHexTest, UpperCaseAndBoundedByRoomAndMaximum) {
    const uint8_t in[] = {0x00, 0x9A, 0xFF};
    std::string out(8, '#');
    EXPECT_EQ(bytes_to_hex(&out[0], 5, in, sizeof in), 4u);
    EXPECT_EQ(out, "009A####");

    bytes big(2000, 0xAB);
    std::string wide(5000, '#');
    EXPECT_EQ(bytes_to_hex(&wide[0], wide.size(), big.data(), big.size()), 2 * HEX_BYTES_MAX);
    EXPECT_EQ(wide.substr(2 * HEX_BYTES_MAX - 2, 3), "AB#");
}

} // namespace
