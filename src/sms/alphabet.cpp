#include "sms/alphabet.h"

#include <cstring>

namespace {

// TS 23.038 6.2.1, code 0 to 127. The escape's own place holds 0: it is never
// a character by itself.
constexpr uint16_t DEFAULT_ALPHABET[128] = {
    0x0040, 0x00A3, 0x0024, 0x00A5, 0x00E8, 0x00E9, 0x00F9, 0x00EC, // @ £ $ ¥ è é ù ì
    0x00F2, 0x00C7, 0x000A, 0x00D8, 0x00F8, 0x000D, 0x00C5, 0x00E5, // ò Ç LF Ø ø CR Å å
    0x0394, 0x005F, 0x03A6, 0x0393, 0x039B, 0x03A9, 0x03A0, 0x03A8, // Δ _ Φ Γ Λ Ω Π Ψ
    0x03A3, 0x0398, 0x039E, 0x0000, 0x00C6, 0x00E6, 0x00DF, 0x00C9, // Σ Θ Ξ ESC Æ æ ß É
    0x0020, 0x0021, 0x0022, 0x0023, 0x00A4, 0x0025, 0x0026, 0x0027, //   ! " # ¤ % & '
    0x0028, 0x0029, 0x002A, 0x002B, 0x002C, 0x002D, 0x002E, 0x002F, // ( ) * + , - . /
    0x0030, 0x0031, 0x0032, 0x0033, 0x0034, 0x0035, 0x0036, 0x0037, // 0 - 7
    0x0038, 0x0039, 0x003A, 0x003B, 0x003C, 0x003D, 0x003E, 0x003F, // 8 9 : ; < = > ?
    0x00A1, 0x0041, 0x0042, 0x0043, 0x0044, 0x0045, 0x0046, 0x0047, // ¡ A - G
    0x0048, 0x0049, 0x004A, 0x004B, 0x004C, 0x004D, 0x004E, 0x004F, // H - O
    0x0050, 0x0051, 0x0052, 0x0053, 0x0054, 0x0055, 0x0056, 0x0057, // P - W
    0x0058, 0x0059, 0x005A, 0x00C4, 0x00D6, 0x00D1, 0x00DC, 0x00A7, // X Y Z Ä Ö Ñ Ü §
    0x00BF, 0x0061, 0x0062, 0x0063, 0x0064, 0x0065, 0x0066, 0x0067, // ¿ a - g
    0x0068, 0x0069, 0x006A, 0x006B, 0x006C, 0x006D, 0x006E, 0x006F, // h - o
    0x0070, 0x0071, 0x0072, 0x0073, 0x0074, 0x0075, 0x0076, 0x0077, // p - w
    0x0078, 0x0079, 0x007A, 0x00E4, 0x00F6, 0x00F1, 0x00FC, 0x00E0, // x y z ä ö ñ ü à
};

// TS 23.038 6.2.1.1: the characters of the default extension table.
struct extension {
    uint8_t code;
    uint16_t ch;
};
constexpr extension EXTENSION_TABLE[] = {
    {0x0A, 0x000C}, // form feed
    {0x14, 0x005E}, // ^
    {0x28, 0x007B}, // {
    {0x29, 0x007D}, // }
    {0x2F, 0x005C}, // backslash
    {0x3C, 0x005B}, // [
    {0x3D, 0x007E}, // ~
    {0x3E, 0x005D}, // ]
    {0x40, 0x007C}, // |
    {0x65, 0x20AC}, // €
};

bool is_continuation(uint8_t b) { return (b & 0xC0) == 0x80; }

bool is_surrogate(uint32_t ch) { return ch >= 0xD800 && ch <= 0xDFFF; }

// One character as big-endian UTF-16: a surrogate pair above U+FFFF.
size_t utf16_encode_char(uint32_t ch, uint8_t out[4]) {
    uint16_t units[2] = {static_cast<uint16_t>(ch), 0};
    size_t k = 1;
    if (ch >= 0x10000) {
        units[0] = static_cast<uint16_t>(0xD800 + ((ch - 0x10000) >> 10));
        units[1] = static_cast<uint16_t>(0xDC00 + ((ch - 0x10000) & 0x3FF));
        k = 2;
    }
    for (size_t i = 0; i < k; ++i) {
        out[2 * i] = static_cast<uint8_t>(units[i] >> 8);
        out[2 * i + 1] = static_cast<uint8_t>(units[i] & 0xFF);
    }
    return 2 * k;
}

// UTF-8 character by character through `encode_char` (its bytes, 0 for a
// character it has none for); -1 when a sequence is malformed, a character
// has no encoding or the result does not fit `cap`.
template <typename F>
int encode_utf8(const char *src, size_t len, uint8_t *dst, size_t cap, F encode_char) {
    size_t in = 0;
    size_t out = 0;
    while (in < len) {
        uint32_t ch;
        size_t n = utf8_next(src + in, len - in, &ch);
        uint8_t bytes[4];
        size_t k = n == 0 ? 0 : encode_char(ch, bytes);
        if (k == 0 || k > cap - out)
            return -1;
        memcpy(dst + out, bytes, k);
        out += k;
        in += n;
    }
    return static_cast<int>(out);
}

} // namespace

uint32_t gsm7_default_char(uint8_t code) { return DEFAULT_ALPHABET[code & 0x7F]; }

uint32_t gsm7_extension_char(uint8_t code) {
    for (const extension &e : EXTENSION_TABLE) {
        if (e.code == (code & 0x7F))
            return e.ch;
    }
    return 0;
}

size_t gsm7_encode_char(uint32_t ch, uint8_t out[2]) {
    // The escape's place holds 0, which no character searched for here is:
    // U+0000 has no GSM character.
    if (ch == 0)
        return 0;
    for (uint8_t code = 0; code < 128; ++code) {
        if (DEFAULT_ALPHABET[code] == ch) {
            out[0] = code;
            return 1;
        }
    }
    for (const extension &e : EXTENSION_TABLE) {
        if (e.ch == ch) {
            out[0] = GSM7_ESCAPE;
            out[1] = e.code;
            return 2;
        }
    }
    return 0;
}

size_t gsm7_to_utf8(const uint8_t *septets, size_t count, char *dst, size_t dst_size,
                    size_t *used) {
    size_t in = 0;
    size_t out = 0;
    while (in < count) {
        uint8_t code = septets[in] & 0x7F;
        size_t take = 1;
        uint32_t ch;
        if (code != GSM7_ESCAPE) {
            ch = gsm7_default_char(code);
        } else if (in + 1 == count) {
            // An escape with nothing after it to extend: shown as a space.
            ch = ' ';
        } else {
            uint8_t next = septets[in + 1] & 0x7F;
            uint32_t ext = gsm7_extension_char(next);
            // Escape-escape is the extension table's own code for a further
            // table, which no receiver knows: one space for the pair.
            ch = next == GSM7_ESCAPE ? ' ' : ext != 0 ? ext : gsm7_default_char(next);
            take = 2;
        }
        size_t n = utf8_put(ch, dst + out, dst_size - out);
        if (n == 0)
            break;
        out += n;
        in += take;
    }
    if (used != nullptr)
        *used = in;
    return out;
}

int utf8_to_gsm7(const char *src, size_t len, uint8_t *septets, size_t cap) {
    return encode_utf8(src, len, septets, cap, gsm7_encode_char);
}

size_t utf8_next(const char *src, size_t left, uint32_t *ch) {
    if (left == 0)
        return 0;
    const auto *s = reinterpret_cast<const uint8_t *>(src);
    uint8_t lead = s[0];
    size_t n;
    uint32_t v;
    uint32_t min;
    if (lead < 0x80) {
        *ch = lead;
        return 1;
    } else if ((lead & 0xE0) == 0xC0) {
        n = 2;
        v = lead & 0x1F;
        min = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        n = 3;
        v = lead & 0x0F;
        min = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        n = 4;
        v = lead & 0x07;
        min = 0x10000;
    } else {
        return 0;
    }
    if (left < n)
        return 0;
    for (size_t i = 1; i < n; ++i) {
        if (!is_continuation(s[i]))
            return 0;
        v = v << 6 | (s[i] & 0x3F);
    }
    if (v < min || v > 0x10FFFF || is_surrogate(v))
        return 0;
    *ch = v;
    return n;
}

bool utf8_valid(const char *src, size_t len) {
    for (size_t at = 0; at < len;) {
        uint32_t ch;
        size_t n = utf8_next(src + at, len - at, &ch);
        if (n == 0)
            return false;
        at += n;
    }
    return true;
}

size_t utf8_put(uint32_t ch, char *dst, size_t room) {
    auto *d = reinterpret_cast<uint8_t *>(dst);
    // No UTF-8 exists for these: written as U+FFFD rather than as bytes no
    // reader could take.
    if (ch > 0x10FFFF || is_surrogate(ch))
        ch = REPLACEMENT_CHAR;
    if (ch < 0x80) {
        if (room < 1)
            return 0;
        d[0] = static_cast<uint8_t>(ch);
        return 1;
    }
    if (ch < 0x800) {
        if (room < 2)
            return 0;
        d[0] = static_cast<uint8_t>(0xC0 | ch >> 6);
        d[1] = static_cast<uint8_t>(0x80 | (ch & 0x3F));
        return 2;
    }
    if (ch < 0x10000) {
        if (room < 3)
            return 0;
        d[0] = static_cast<uint8_t>(0xE0 | ch >> 12);
        d[1] = static_cast<uint8_t>(0x80 | ((ch >> 6) & 0x3F));
        d[2] = static_cast<uint8_t>(0x80 | (ch & 0x3F));
        return 3;
    }
    if (room < 4)
        return 0;
    d[0] = static_cast<uint8_t>(0xF0 | ch >> 18);
    d[1] = static_cast<uint8_t>(0x80 | ((ch >> 12) & 0x3F));
    d[2] = static_cast<uint8_t>(0x80 | ((ch >> 6) & 0x3F));
    d[3] = static_cast<uint8_t>(0x80 | (ch & 0x3F));
    return 4;
}

size_t utf8_cut(const char *src, size_t len) {
    const auto *s = reinterpret_cast<const uint8_t *>(src);
    // Back over at most three continuation bytes to the lead of the last
    // character, then keep it only if it is complete.
    size_t lead = len;
    for (size_t back = 0; back < 4 && lead > 0; ++back) {
        --lead;
        if (!is_continuation(s[lead]))
            break;
    }
    if (lead == len)
        return len;
    uint8_t b = s[lead];
    size_t need = b < 0x80 ? 1 : (b & 0xE0) == 0xC0 ? 2 : (b & 0xF0) == 0xE0 ? 3 : (b & 0xF8) == 0xF0 ? 4 : 1;
    return len - lead >= need ? len : lead;
}

size_t utf16_to_utf8(const uint8_t *src, size_t src_len, char *dst, size_t dst_size) {
    size_t out = 0;
    size_t in = 0;
    while (in + 1 < src_len) {
        uint32_t unit = static_cast<uint32_t>(src[in] << 8 | src[in + 1]);
        size_t take = 2;
        uint32_t ch = unit;
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            uint32_t low = in + 3 < src_len ? static_cast<uint32_t>(src[in + 2] << 8 | src[in + 3]) : 0;
            if (low >= 0xDC00 && low <= 0xDFFF) {
                ch = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                take = 4;
            } else {
                ch = REPLACEMENT_CHAR;
            }
        } else if (is_surrogate(unit)) {
            ch = REPLACEMENT_CHAR;
        }
        size_t n = utf8_put(ch, dst + out, dst_size - out);
        if (n == 0)
            break;
        out += n;
        in += take;
    }
    return out;
}

int utf8_to_utf16(const char *src, size_t len, uint8_t *dst, size_t cap) {
    return encode_utf8(src, len, dst, cap, utf16_encode_char);
}

size_t gsm7_pack_at(uint8_t *dst, size_t dst_size, const uint8_t *septets, size_t count,
                    unsigned fill_bits) {
    if (fill_bits > 6)
        return 0;
    size_t bits = fill_bits + 7 * count;
    size_t octets = (bits + 7) / 8;
    if (octets > dst_size)
        return 0;
    for (size_t i = 0; i < octets; ++i)
        dst[i] = 0;
    for (size_t i = 0; i < count; ++i) {
        size_t at = fill_bits + 7 * i;
        unsigned v = static_cast<unsigned>(septets[i] & 0x7F) << (at % 8);
        dst[at / 8] = static_cast<uint8_t>(dst[at / 8] | (v & 0xFF));
        if (v > 0xFF)
            dst[at / 8 + 1] = static_cast<uint8_t>(dst[at / 8 + 1] | (v >> 8));
    }
    return octets;
}

size_t gsm7_unpack_at(uint8_t *dst, size_t dst_size, const uint8_t *octets, size_t n,
                      unsigned fill_bits, size_t count) {
    size_t out = 0;
    for (size_t i = 0; i < count && out < dst_size; ++i) {
        size_t at = fill_bits + 7 * i;
        if (at + 7 > 8 * n)
            break;
        unsigned v = octets[at / 8];
        if (at / 8 + 1 < n)
            v |= static_cast<unsigned>(octets[at / 8 + 1]) << 8;
        dst[out++] = static_cast<uint8_t>((v >> (at % 8)) & 0x7F);
    }
    return out;
}
