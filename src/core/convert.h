// The converters from the client's text to the module's: hexadecimal,
// semi-octet numbers and UCS-2, shared by SMS sending and text-to-speech (the
// GSM alphabet, UTF-16 and septet packing are in sms/alphabet.h). Pure; every
// one is told the room of its destination and never writes past it.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t HEX_BYTES_MAX = 1024; // bytes one bytes_to_hex call converts
constexpr size_t SEMI_OCTET_DIGITS_MAX = 14; // digits number_to_semi_octets takes

// Each byte as two upper-case hexadecimal digits, high nibble first, with no
// terminator. Converts at most HEX_BYTES_MAX bytes and never more than
// `dst_size` holds; returns the number of characters written.
size_t bytes_to_hex(char *dst, size_t dst_size, const uint8_t *src, size_t count);

// A telephone number as semi-octets: one leading '+' dropped, 'F' appended to
// an odd count, the characters of each pair swapped, then a terminator.
// Returns the characters written, or -1 (nothing written) when the number has
// more than SEMI_OCTET_DIGITS_MAX characters or does not fit `dst_size`.
int number_to_semi_octets(const char *number, char *dst, size_t dst_size);

// UTF-8 characters of one to three bytes to big-endian UCS-2 units, while a
// whole unit still fits `*capacity`. The first byte that does not begin a
// complete sequence (a stray continuation byte, a four-byte character, a
// sequence cut short) ends the conversion. Reduces `*capacity` by the bytes
// written and returns their number.
size_t utf8_to_ucs2(const uint8_t *src, size_t src_len, uint8_t *dst, size_t *capacity);

