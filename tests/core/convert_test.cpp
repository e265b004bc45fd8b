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

TEST(Ucs2Test, FromUtf8UpToTheFirstInvalidByte) {
    EXPECT_EQ(convert(utf8_to_ucs2, {0x41, 0xC3, 0xA9}, 255), (bytes{0x00, 0x41, 0x00, 0xE9}));
    // Four-byte character, stray continuation, sequence cut by the input's end.
    EXPECT_EQ(convert(utf8_to_ucs2, {0x41, 0xF0, 0x9F, 0x98, 0x80}, 255), (bytes{0x00, 0x41}));
    EXPECT_EQ(convert(utf8_to_ucs2, {0x41, 0x80, 0x42}, 255), (bytes{0x00, 0x41}));
    EXPECT_EQ(convert(utf8_to_ucs2, {0x41, 0xE4, 0xBD}, 255), (bytes{0x00, 0x41}));
    EXPECT_EQ(convert(utf8_to_ucs2, {0x41, 0x42}, 3), (bytes{0x00, 0x41})); // whole units only
}

TEST(HexTest, UpperCaseBoundedByRoomAndMaximum) {
    const uint8_t in[] = {0x00, 0x9A, 0xFF};
    std::string out(8, '#');
    EXPECT_EQ(bytes_to_hex(&out[0], 5, in, sizeof in), 4u);
    EXPECT_EQ(out, "009A####");

    bytes big(2000, 0xAB);
    std::string wide(5000, '#');
    EXPECT_EQ(bytes_to_hex(&wide[0], wide.size(), big.data(), big.size()), 2 * HEX_BYTES_MAX);
    EXPECT_EQ(wide.substr(2 * HEX_BYTES_MAX - 2, 3), "AB#");
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

} // namespace
