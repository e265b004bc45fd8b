#include "core/convert.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

bytes convert(decltype(&utf8_to_ucs2) fn, const bytes &in, size_t capacity) {
    bytes out(capacity);
    out.resize(fn(in.data(), in.size(), out.data(), &capacity));
    return out;
}

TEST(Ucs2Test, FromUtf8UpToTheFirstInvalidByteAndBackInWholeCharacters) {
    EXPECT_EQ(convert(utf8_to_ucs2, {0x41, 0xC3, 0xA9}, 255), (bytes{0x00, 0x41, 0x00, 0xE9}));
    // Four-byte character, stray continuation, sequence cut by the input's end.
    EXPECT_EQ(convert(utf8_to_ucs2, {0x41, 0xF0, 0x9F, 0x98, 0x80}, 255), (bytes{0x00, 0x41}));
    EXPECT_EQ(convert(utf8_to_ucs2, {0x41, 0x80, 0x42}, 255), (bytes{0x00, 0x41}));
    EXPECT_EQ(convert(utf8_to_ucs2, {0x41, 0xE4, 0xBD}, 255), (bytes{0x00, 0x41}));
    EXPECT_EQ(convert(utf8_to_ucs2, {0x41, 0x42}, 3), (bytes{0x00, 0x41})); // whole units only

    EXPECT_EQ(convert(ucs2_to_utf8, {0x00, 0x41, 0x00, 0xE9, 0x4F, 0x60}, 16),
              (bytes{0x41, 0xC3, 0xA9, 0xE4, 0xBD, 0xA0}));
    // A surrogate alone like any unit; an odd last byte ignored.
    EXPECT_EQ(convert(ucs2_to_utf8, {0xD8, 0x3D, 0x00}, 16), (bytes{0xED, 0xA0, 0xBD}));
    EXPECT_EQ(convert(ucs2_to_utf8, {0x00, 0x41, 0x4F, 0x60}, 3), bytes{0x41});
    EXPECT_EQ(convert(ucs2_to_utf8, {0x07, 0xFF}, 1), bytes{});
}

TEST(HexTest, UpperCaseBoundedByRoomAndMaximumAndBack) {
    const uint8_t in[] = {0x00, 0x9A, 0xFF};
    std::string out(8, '#');
    EXPECT_EQ(bytes_to_hex(&out[0], 5, in, sizeof in), 4u);
    EXPECT_EQ(out, "009A####");

    bytes big(2000, 0xAB);
    std::string wide(5000, '#');
    EXPECT_EQ(bytes_to_hex(&wide[0], wide.size(), big.data(), big.size()), 2 * HEX_BYTES_MAX);
    EXPECT_EQ(wide.substr(2 * HEX_BYTES_MAX - 2, 3), "AB#");

    // Back: pairs only, unknown characters zero, bounded by the room.
    EXPECT_EQ(hex_byte_value("A9"), 0xA9);
    EXPECT_EQ(hex_byte_value("0F"), 0x0F);
    bytes back(6, 0xEE);
    EXPECT_EQ(hex_to_bytes(back.data(), 5, "00FFa9G1C", 9), 4u); // odd last character ignored
    EXPECT_EQ(back, (bytes{0x00, 0xFF, 0x09, 0x01, 0xEE, 0xEE}));
}

TEST(SemiOctetTest, SwappedPairsWithFillerUpToFourteenDigits) {
    const struct {
        const char *number, *semi;
    } cases[] = {{"+8613800138000", "683108108300F0"}, {"10086", "0180F6"}, {"", ""},
                 {"+12345678901234", "21436587092143"}, {"++1", "1+"}};
    for (const auto &c : cases) {
        char out[17];
        EXPECT_EQ(number_to_semi_octets(c.number, out, sizeof out),
                  static_cast<int>(strlen(c.semi)));
        EXPECT_STREQ(out, c.semi) << c.number;
    }
    char out[8] = "guard";
    EXPECT_EQ(number_to_semi_octets("123456789012345", out, sizeof out), -1);
    EXPECT_STREQ(out, "guard");
}

TEST(Gsm7Test, PacksToSevenEighthsAndUnpacksBack) {
    // The packed bytes themselves are checked in the SMS PDUs built and parsed.
    const std::string text = "The quick brown fox";
    const auto *chars_in = reinterpret_cast<const uint8_t *>(text.data());
    for (size_t n = 0; n <= text.size(); ++n) {
        bytes octets(32, 0xEE);
        size_t m = gsm7_pack(octets.data(), octets.size(), chars_in, n);
        ASSERT_EQ(m, (7 * n + 7) / 8);
        EXPECT_EQ(octets[m], 0xEE);
        char chars[40];
        size_t k = gsm7_unpack(chars, sizeof chars, octets.data(), m);
        // Seven octets hold eight characters: a text of 8k - 1 gains one of value 0.
        ASSERT_EQ(k, m + m / 7);
        EXPECT_EQ(std::string(chars, k), text.substr(0, n) + std::string(k - n, '\0'));
        EXPECT_EQ(chars[k], '\0');
    }
}

} // namespace
