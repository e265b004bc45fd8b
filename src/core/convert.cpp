#include "core/convert.h"

#include <cstring>

namespace {

// The nibble of one hexadecimal digit; anything else counts as 0, so a
// damaged PDU gives wrong octets but never a fault.
uint8_t nibble(char c) {
    if (c >= '0' && c <= '9')
        return static_cast<uint8_t>(c - '0');
    if (c >= 'A' && c <= 'F')
        return static_cast<uint8_t>(c - 'A' + 10);
    return 0;
}

// The permissive rule of hex_byte_value: above '9' a character is taken as a
// letter. Unsigned arithmetic keeps any byte defined.
unsigned loose_nibble(char c) {
    unsigned u = static_cast<unsigned char>(c);
    return u > '9' ? u - 55 : u - 48;
}

bool is_continuation(uint8_t b) { return (b & 0xC0) == 0x80; }

// The character starting at src[0] as one UCS-2 unit; *used is its byte count,
// 0 when no valid one- to three-byte sequence starts there.
uint16_t decode_one(const uint8_t *src, size_t left, size_t *used) {
    uint8_t lead = src[0];
    if (lead < 0x80) {
        *used = 1;
        return lead;
    }
    if ((lead & 0xE0) == 0xC0 && left >= 2 && is_continuation(src[1])) {
        *used = 2;
        return static_cast<uint16_t>(((lead & 0x1F) << 6) | (src[1] & 0x3F));
    }
    if ((lead & 0xF0) == 0xE0 && left >= 3 && is_continuation(src[1]) &&
        is_continuation(src[2])) {
        *used = 3;
        return static_cast<uint16_t>(((lead & 0x0F) << 12) | ((src[1] & 0x3F) << 6) |
                                     (src[2] & 0x3F));
    }
    *used = 0;
    return 0;
}

} // namespace

int hex_byte_value(const char *hex) {
    return static_cast<int>((loose_nibble(hex[0]) * 16 + loose_nibble(hex[1])) & 0xFFu);
}

size_t hex_to_bytes(uint8_t *dst, size_t dst_size, const char *hex, size_t len) {
    size_t count = len / 2;
    if (count > dst_size)
        count = dst_size;
    for (size_t i = 0; i < count; ++i)
        dst[i] = static_cast<uint8_t>(nibble(hex[2 * i]) << 4 | nibble(hex[2 * i + 1]));
    return count;
}

size_t bytes_to_hex(char *dst, size_t dst_size, const uint8_t *src, size_t count) {
    static const char digits[] = "0123456789ABCDEF";
    if (count > HEX_BYTES_MAX)
        count = HEX_BYTES_MAX;
    if (count > dst_size / 2)
        count = dst_size / 2;
    for (size_t i = 0; i < count; ++i) {
        dst[2 * i] = digits[src[i] >> 4];
        dst[2 * i + 1] = digits[src[i] & 0x0F];
    }
    return 2 * count;
}

size_t utf8_to_ucs2(const uint8_t *src, size_t src_len, uint8_t *dst, size_t *capacity) {
    size_t in = 0;
    size_t out = 0;
    while (in < src_len && *capacity - out >= 2) {
        size_t used;
        uint16_t unit = decode_one(src + in, src_len - in, &used);
        if (used == 0)
            break;
        dst[out++] = static_cast<uint8_t>(unit >> 8);
        dst[out++] = static_cast<uint8_t>(unit & 0xFF);
        in += used;
    }
    *capacity -= out;
    return out;
}

int number_to_semi_octets(const char *number, char *dst, size_t dst_size) {
    if (*number == '+')
        ++number;
    size_t len = strnlen(number, SEMI_OCTET_DIGITS_MAX + 1);
    size_t padded = len + (len & 1);
    if (len > SEMI_OCTET_DIGITS_MAX || padded + 1 > dst_size)
        return -1;
    for (size_t i = 0; i < padded; i += 2) {
        dst[i] = i + 1 < len ? number[i + 1] : 'F';
        dst[i + 1] = number[i];
    }
    dst[padded] = '\0';
    return static_cast<int>(padded);
}

size_t gsm7_pack(uint8_t *dst, size_t dst_size, const uint8_t *chars, size_t count) {
    size_t out = 0;
    unsigned carry = 0;
    for (size_t i = 0; i < count && out < dst_size; ++i) {
        unsigned shift = i % 8;
        unsigned c = chars[i];
        if (shift == 0) {
            carry = c;
            continue;
        }
        dst[out++] = static_cast<uint8_t>(((c << (8 - shift)) | carry) & 0xFFu);
        carry = c >> shift;
    }
    // The eighth character of a group fills its octet; any other leaves a carry to write.
    if (count % 8 != 0 && out < dst_size)
        dst[out++] = static_cast<uint8_t>(carry);
    return out;
}

size_t gsm7_unpack(char *dst, size_t dst_size, const uint8_t *octets, size_t count) {
    if (dst_size == 0)
        return 0;
    size_t room = dst_size - 1;
    size_t out = 0;
    unsigned shift = 0;
    unsigned carry = 0;
    for (size_t i = 0; i < count && out < room; ++i) {
        unsigned octet = octets[i];
        dst[out++] = static_cast<char>(((octet << shift) | carry) & 0x7Fu);
        carry = octet >> (7 - shift);
        if (++shift == 7) {
            if (out < room)
                dst[out++] = static_cast<char>(carry);
            shift = 0;
            carry = 0;
        }
    }
    dst[out] = '\0';
    return out;
}

size_t ucs2_to_utf8(const uint8_t *src, size_t src_len, uint8_t *dst, size_t *capacity) {
    size_t out = 0;
    for (size_t in = 0; in + 1 < src_len; in += 2) {
        unsigned unit = static_cast<unsigned>(src[in] << 8 | src[in + 1]);
        size_t need = unit < 0x80 ? 1 : unit < 0x800 ? 2 : 3;
        if (need > *capacity - out)
            break;
        if (need == 1) {
            dst[out++] = static_cast<uint8_t>(unit);
        } else if (need == 2) {
            dst[out++] = static_cast<uint8_t>(0xC0 | unit >> 6);
            dst[out++] = static_cast<uint8_t>(0x80 | (unit & 0x3F));
        } else {
            dst[out++] = static_cast<uint8_t>(0xE0 | unit >> 12);
            dst[out++] = static_cast<uint8_t>(0x80 | ((unit >> 6) & 0x3F));
            dst[out++] = static_cast<uint8_t>(0x80 | (unit & 0x3F));
        }
    }
    *capacity -= out;
    return out;
}
