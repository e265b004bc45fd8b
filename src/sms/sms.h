// SMS: the converters between the module's hexadecimal PDU text and the
// client's text, shared by SMS sending and text-to-speech.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t HEX_BYTES_MAX = 1024; // bytes one bytes_to_hex call converts

// Each byte as two upper-case hexadecimal digits, high nibble first, with no
// terminator. Converts at most HEX_BYTES_MAX bytes and never more than
// `dst_size` holds; returns the number of characters written.
size_t bytes_to_hex(char *dst, size_t dst_size, const uint8_t *src, size_t count);

// UTF-8 characters of one to three bytes to big-endian UCS-2 units, while a
// whole unit still fits `*capacity`. The first byte that does not begin a
// complete sequence (a stray continuation byte, a four-byte character, a
// sequence cut short) ends the conversion. Reduces `*capacity` by the bytes
// written and returns their number.
size_t utf8_to_ucs2(const uint8_t *src, size_t src_len, uint8_t *dst, size_t *capacity);
