// The GSM alphabet, UTF-8, UTF-16 and septet packing against tables made with
// an independent codec (scripts/make_alphabet_vectors.py) and, for UTF-8's
// malformed forms, against the rules of UTF-8 itself. Destinations are heap
// blocks of exactly the room given, so a write past them is a fault under
// AddressSanitizer.
#include "sms/alphabet.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace {

struct alphabet_vector {
    uint8_t code;
    const char *utf8;
};
struct septets_vector {
    const char *what, *septets;
    size_t count;
    const char *utf8;
    size_t utf8_len;
};
struct text_vector {
    const char *utf8;
    size_t len;
};
struct packing_vector {
    size_t header; // octets of the user-data header before the septets
    const char *septets;
    size_t count;
    const char *octets;
    size_t octet_count;
};
struct utf16_vector {
    const char *what, *utf16;
    size_t utf16_len;
    const char *utf8;
    size_t utf8_len;
};
#include "sms/alphabet_vectors.inc"

const uint8_t *bytes(const char *s) {
    return reinterpret_cast<const uint8_t *>(s);
}

std::string put(uint32_t ch) {
    char out[4];
    return std::string(out, utf8_put(ch, out, sizeof out));
}

// Where a character begins: a byte that is no continuation byte.
bool starts_char(const std::string &s, size_t at) {
    return at == s.size() || (static_cast<uint8_t>(s[at]) & 0xC0) != 0x80;
}

// What a converter wrote into `room` bytes of `want`: whole characters from
// the start, as many as fit.
void expect_whole_prefix(const std::string &want, const std::string &got, size_t room) {
    ASSERT_EQ(got, want.substr(0, got.size())) << room;
    if (got.size() == want.size())
        return;
    size_t next = got.size() + 1;
    while (!starts_char(want, next))
        ++next;
    ASSERT_TRUE(starts_char(want, got.size()) && next > room) << room;
}

std::string to_utf8_in(const uint8_t *septets, size_t count, size_t room, size_t *used) {
    std::unique_ptr<char[]> dst(new char[room]);
    return std::string(dst.get(), gsm7_to_utf8(septets, count, dst.get(), room, used));
}

// Both tables both ways are in the septet vectors below; here, that no other
// code extends, and that characters in neither table are refused.
TEST(SmsAlphabetTest, OnlyTheExtensionTableExtendsAndOtherCharactersAreRefused) {
    for (unsigned code = 0; code < 128; ++code) {
        bool listed = false;
        for (const auto &v : EXTENSION_VECTORS)
            listed = listed || v.code == code;
        EXPECT_EQ(gsm7_extension_char(static_cast<uint8_t>(code)) != 0, listed) << code;
    }
    uint8_t septets[4];
    for (const auto &v : NOT_GSM) {
        EXPECT_EQ(utf8_to_gsm7(v.utf8, v.len, septets, sizeof septets), -1) << v.utf8;
        uint32_t ch;
        if (utf8_next(v.utf8, v.len, &ch) == v.len) {
            EXPECT_EQ(gsm7_encode_char(ch, septets), 0u) << v.utf8;
        }
    }
}

TEST(SmsAlphabetTest, SeptetsToUtf8StopBeforeACharacterThatDoesNotFit) {
    for (const auto &v : SEPTETS_VECTORS) {
        SCOPED_TRACE(v.what);
        const std::string want(v.utf8, v.utf8_len);
        size_t used = 0;
        EXPECT_EQ(to_utf8_in(bytes(v.septets), v.count, v.utf8_len, &used), want);
        EXPECT_EQ(used, v.count);
        for (size_t room = 0; room < v.utf8_len; ++room)
            expect_whole_prefix(want, to_utf8_in(bytes(v.septets), v.count, room, &used), room);
    }
    // Back to septets where the text has one encoding.
    for (size_t i = 0; i < 2; ++i) {
        const auto &v = SEPTETS_VECTORS[i];
        std::unique_ptr<uint8_t[]> septets(new uint8_t[v.count]);
        EXPECT_EQ(utf8_to_gsm7(v.utf8, v.utf8_len, septets.get(), v.count),
                  static_cast<int>(v.count));
        EXPECT_EQ(memcmp(septets.get(), v.septets, v.count), 0) << v.what;
    }
}

TEST(SmsAlphabetTest, PacksAndUnpacksAfterHeadersOfEveryLength) {
    for (const auto &v : PACKING_VECTORS) {
        SCOPED_TRACE(v.header);
        const unsigned fill = static_cast<unsigned>((v.header * 8 + 6) / 7 * 7 - v.header * 8);
        std::unique_ptr<uint8_t[]> packed(new uint8_t[v.octet_count]);
        ASSERT_EQ(gsm7_pack_at(packed.get(), v.octet_count, bytes(v.septets), v.count, fill),
                  v.octet_count);
        EXPECT_EQ(memcmp(packed.get(), v.octets, v.octet_count), 0);
        std::unique_ptr<uint8_t[]> septets(new uint8_t[v.count]);
        ASSERT_EQ(gsm7_unpack_at(septets.get(), v.count, bytes(v.octets), v.octet_count, fill, v.count),
                  v.count);
        EXPECT_EQ(memcmp(septets.get(), v.septets, v.count), 0);
    }
}

TEST(SmsAlphabetTest, Utf16AgreesWithIndependentCodecAndLoneSurrogatesGiveReplacement) {
    for (const auto &v : UTF16_VECTORS) {
        SCOPED_TRACE(v.what);
        const std::string want(v.utf8, v.utf8_len);
        for (size_t room = 0; room <= v.utf8_len; ++room) {
            std::unique_ptr<char[]> dst(new char[room]);
            const size_t n = utf16_to_utf8(bytes(v.utf16), v.utf16_len, dst.get(), room);
            expect_whole_prefix(want, std::string(dst.get(), n), room);
            // A cut at `room` bytes keeps the characters a converter writes there.
            EXPECT_EQ(utf8_cut(want.data(), room), n) << room;
        }
        // An odd last octet is no unit.
        std::unique_ptr<uint8_t[]> odd(new uint8_t[v.utf16_len + 1]);
        memcpy(odd.get(), v.utf16, v.utf16_len);
        odd[v.utf16_len] = 0x41;
        char out[32];
        EXPECT_EQ(std::string(out, utf16_to_utf8(odd.get(), v.utf16_len + 1, out, sizeof out)),
                  want);

        if (want.find("\xEF\xBF\xBD") != std::string::npos)
            continue; // U+FFFD does not encode back to a lone surrogate
        std::unique_ptr<uint8_t[]> utf16(new uint8_t[v.utf16_len]);
        EXPECT_EQ(utf8_to_utf16(v.utf8, v.utf8_len, utf16.get(), v.utf16_len),
                  static_cast<int>(v.utf16_len));
        EXPECT_EQ(memcmp(utf16.get(), v.utf16, v.utf16_len), 0);
        EXPECT_EQ(utf8_to_utf16(v.utf8, v.utf8_len, utf16.get(), v.utf16_len - 1), -1);
    }
}

// The forms UTF-8 itself rules out (RFC 3629): each is refused, by itself and
// by the converters that read UTF-8.
TEST(SmsAlphabetTest, Utf8ReadsWholeCharactersAndRefusesMalformedOnes) {
    const struct {
        std::string s;
        size_t len; // 0: malformed
        uint32_t ch;
    } cases[] = {
        {"A", 1, 0x41},
        {"\xC3\xA9", 2, 0xE9},
        {"\xEF\xBF\xBF", 3, 0xFFFF},
        {"\xF0\x9F\x98\x80", 4, 0x1F600},
        {"\xF4\x8F\xBF\xBF", 4, 0x10FFFF},
        {"\x80", 0, 0},                 // a continuation byte first
        {"\xC0\x80", 0, 0},             // overlong NUL
        {"\xC1\xBF", 0, 0},             // overlong DEL
        {"\xE0\x9F\xBF", 0, 0},         // overlong U+07FF
        {"\xF0\x8F\xBF\xBF", 0, 0},     // overlong U+FFFF
        {"\xED\xA0\xBD", 0, 0},         // a surrogate
        {"\xF4\x90\x80\x80", 0, 0},     // past U+10FFFF
        {"\xF8\x88\x80\x80\x80", 0, 0}, // five bytes
        {"\xFF", 0, 0},
        {"\xE4\xBD", 0, 0},     // cut short
        {"\xE4\x41\xA0", 0, 0}, // a letter where a continuation belongs
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.s));
        std::unique_ptr<char[]> src(new char[c.s.size()]);
        memcpy(src.get(), c.s.data(), c.s.size());
        uint32_t ch = 0xDEAD;
        ASSERT_EQ(utf8_next(src.get(), c.s.size(), &ch), c.len);
        if (c.len > 0) {
            EXPECT_EQ(ch, c.ch);
            continue;
        }
        uint8_t out[16];
        EXPECT_EQ(utf8_to_utf16(src.get(), c.s.size(), out, sizeof out), -1);
        EXPECT_EQ(utf8_to_gsm7(src.get(), c.s.size(), out, sizeof out), -1);
    }
    // Nothing UTF-8 cannot hold is written as such.
    EXPECT_EQ(put(0xD800), "\xEF\xBF\xBD");
    EXPECT_EQ(put(0xDFFF), "\xEF\xBF\xBD");
    EXPECT_EQ(put(0x110000), "\xEF\xBF\xBD");
}

} // namespace
