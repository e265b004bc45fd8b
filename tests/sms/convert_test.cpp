#include "sms/sms.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

// Converts into a buffer one byte larger than `capacity`, checking that the
// byte past the capacity is never written.
bytes to_ucs2(const bytes &in, size_t capacity, size_t *left = nullptr) {
    bytes out(capacity + 1, 0xEE);
    size_t cap = capacity;
    size_t n = utf8_to_ucs2(in.data(), in.size(), out.data(), &cap);
    EXPECT_EQ(cap, capacity - n);
    EXPECT_EQ(out[capacity], 0xEE);
    if (left != nullptr)
        *left = cap;
    out.resize(n);
    return out;
}

TEST(Utf8ToUcs2Test, OneTwoAndThreeByteCharacters) {
    EXPECT_EQ(to_ucs2({0x41, 0xC3, 0xA9}, 255), (bytes{0x00, 0x41, 0x00, 0xE9}));
    EXPECT_EQ(to_ucs2({0xE4, 0xBD, 0xA0}, 255), (bytes{0x4F, 0x60}));
    EXPECT_EQ(to_ucs2({0xEF, 0xBF, 0xBF, 0x7F}, 255), (bytes{0xFF, 0xFF, 0x00, 0x7F}));
    EXPECT_EQ(to_ucs2({}, 255), bytes{});
}

TEST(Utf8ToUcs2Test, StopsAtTheFirstInvalidByte) {
    // Four-byte character, stray continuation, lead without enough bytes
    // before the input ends, lead followed by a non-continuation.
    EXPECT_EQ(to_ucs2({0x41, 0xF0, 0x9F, 0x98, 0x80, 0x42}, 255), (bytes{0x00, 0x41}));
    EXPECT_EQ(to_ucs2({0x41, 0x80, 0x42}, 255), (bytes{0x00, 0x41}));
    EXPECT_EQ(to_ucs2({0x41, 0xE4, 0xBD}, 255), (bytes{0x00, 0x41}));
    EXPECT_EQ(to_ucs2({0x41, 0xC3}, 255), (bytes{0x00, 0x41}));
    EXPECT_EQ(to_ucs2({0xC3, 0x41}, 255), bytes{});
}

TEST(Utf8ToUcs2Test, WholeUnitsOnlyWithinTheCapacity) {
    size_t left = 0;
    EXPECT_EQ(to_ucs2({0x41, 0x42, 0x43}, 3, &left), (bytes{0x00, 0x41}));
    EXPECT_EQ(left, 1u);
    EXPECT_EQ(to_ucs2({0x41}, 1, &left), bytes{});
    EXPECT_EQ(to_ucs2(bytes(300, 0x61), 255, &left).size(), 254u);
    EXPECT_EQ(left, 1u);
}

TEST(BytesToHexTest, UpperCaseAndBounded) {
    const uint8_t in[] = {0x00, 0x9A, 0xFF, 0x4F};
    char out[16];
    std::string(sizeof out, '#').copy(out, sizeof out);
    EXPECT_EQ(bytes_to_hex(out, sizeof out, in, sizeof in), 8u);
    EXPECT_EQ(std::string(out, 9), "009AFF4F#");
    // An odd room holds whole bytes only.
    std::string(sizeof out, '#').copy(out, sizeof out);
    EXPECT_EQ(bytes_to_hex(out, 5, in, sizeof in), 4u);
    EXPECT_EQ(std::string(out, 5), "009A#");

    bytes big(2000, 0xAB);
    std::string wide(5000, '#');
    EXPECT_EQ(bytes_to_hex(&wide[0], wide.size(), big.data(), big.size()), 2 * HEX_BYTES_MAX);
    EXPECT_EQ(wide[2 * HEX_BYTES_MAX], '#');
    EXPECT_EQ(wide.substr(2 * HEX_BYTES_MAX - 2, 2), "AB");
}

} // namespace
