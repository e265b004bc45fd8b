// The converters between the module's hexadecimal PDU text and the client's
// text: hexadecimal, semi-octet numbers, 7-bit packing, UCS-2 and UTF-8. Pure
// functions shared by SMS receiving, SMS sending and text-to-speech. Every one
// is told the room of its destination and never writes past it.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t HEX_BYTES_MAX = 1024; // bytes one bytes_to_hex call converts
constexpr size_t SEMI_OCTET_DIGITS_MAX = 14; // digits number_to_semi_octets takes

// Value of the two hexadecimal characters at `hex` (upper case; other
// characters give nonsense, never a fault). Reads exactly two characters.
int hex_byte_value(const char *hex);

// Each pair of the first `len` characters (an odd last one is ignored) to a
// byte; a character that is not '0'-'9' or 'A'-'F' counts as 0. Writes at most
// `dst_size` bytes; returns the number written.
size_t hex_to_bytes(uint8_t *dst, size_t dst_size, const char *hex, size_t len);

// Each byte as two upper-case hexadecimal digits, high nibble first, with no
// terminator. Converts at most HEX_BYTES_MAX bytes and never more than
// `dst_size` holds; returns the number of characters written.
size_t bytes_to_hex(char *dst, size_t dst_size, const uint8_t *src, size_t count);

// A telephone number as semi-octets: one leading '+' dropped, 'F' appended to
// an odd count, the characters of each pair swapped, then a terminator.
// Returns the characters written, or -1 (nothing written) when the number has
// more than SEMI_OCTET_DIGITS_MAX characters or does not fit `dst_size`.
int number_to_semi_octets(const char *number, char *dst, size_t dst_size);

// Packs `count` 7-bit characters into ceil(7 * count / 8) octets (at most
// `dst_size`); returns the number of octets written.
size_t gsm7_pack(uint8_t *dst, size_t dst_size, const uint8_t *chars, size_t count);

// Unpacks `count` octets into count + count / 7 characters and a terminator,
// as far as `dst_size` holds them; returns the characters written (without
// the terminator).
size_t gsm7_unpack(char *dst, size_t dst_size, const uint8_t *octets, size_t count);

// UTF-8 characters of one to three bytes to big-endian UCS-2 units, while a
// whole unit still fits `*capacity`. The first byte that does not begin a
// complete sequence (a stray continuation byte, a four-byte character, a
// sequence cut short) ends the conversion. Reduces `*capacity` by the bytes
// written and returns their number.
size_t utf8_to_ucs2(const uint8_t *src, size_t src_len, uint8_t *dst, size_t *capacity);

// Big-endian UCS-2 units (an odd last byte is ignored) to UTF-8, while the
// whole character still fits `*capacity`; no terminator. Reduces `*capacity`
// by the bytes written and returns their number.
size_t ucs2_to_utf8(const uint8_t *src, size_t src_len, uint8_t *dst, size_t *capacity);
