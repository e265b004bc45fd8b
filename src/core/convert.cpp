#include "core/convert.h"

#include <cstring>

namespace {

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

