// The GSM 7-bit default alphabet and its extension table, UTF-8 and UTF-16
// with surrogate pairs, and septet packing at any bit offset (a user-data
// header pushes the text off an octet boundary). Pure and bounded: every
// function is told the room of its destination and never writes past it.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint8_t GSM7_ESCAPE = 0x1B;
constexpr uint32_t REPLACEMENT_CHAR = 0xFFFD;

// The character of a default-alphabet code (its low 7 bits).
uint32_t gsm7_default_char(uint8_t code);
// The character an escape turns `code` into, or 0 when the extension table
// has none there.
uint32_t gsm7_extension_char(uint8_t code);

// Septets `ch` takes: 1 in the default alphabet, 2 through the escape, 0 when
// it is in neither. `out` (room for 2) gets the codes.
size_t gsm7_encode_char(uint32_t ch, uint8_t out[2]);

// Septet values (one a byte) to UTF-8, no terminator. An escape before a code
// without an extension character gives that code's default character; an
// escape at the end gives a space, and so does an escape pair. Stops before a
// character that does not fit; returns the bytes written, and in `*used` (if
// given) the septets taken.
size_t gsm7_to_utf8(const uint8_t *septets, size_t count, char *dst, size_t dst_size,
                    size_t *used = nullptr);

// UTF-8 to septet values; -1 when a sequence is malformed, a character is in
// neither table, or the septets do not fit `cap`.
int utf8_to_gsm7(const char *src, size_t len, uint8_t *septets, size_t cap);

// One UTF-8 character at `src`: its byte count (0 when malformed: a stray
// continuation, an overlong form, a surrogate, a value past U+10FFFF or a
// sequence cut short) and its value in `*ch`.
size_t utf8_next(const char *src, size_t left, uint32_t *ch);
// Whether all `len` bytes are well-formed UTF-8.
bool utf8_valid(const char *src, size_t len);
// Writes `ch` as UTF-8 when it fits `room` (a surrogate or a value past
// U+10FFFF as U+FFFD); returns the bytes written or 0.
size_t utf8_put(uint32_t ch, char *dst, size_t room);
// Bytes of the longest prefix of `len` that does not end inside a character
// (a cut there keeps every character whole).
size_t utf8_cut(const char *src, size_t len);

// Big-endian UTF-16 to UTF-8: a surrogate pair is one 4-byte character, a lone
// surrogate gives U+FFFD, an odd last byte is ignored. Stops before a
// character that does not fit; returns the bytes written (no terminator).
size_t utf16_to_utf8(const uint8_t *src, size_t src_len, char *dst, size_t dst_size);
// UTF-8 to big-endian UTF-16 (surrogate pairs above U+FFFF); the octets
// written, or -1 when a sequence is malformed or does not fit `cap`.
int utf8_to_utf16(const char *src, size_t len, uint8_t *dst, size_t cap);

// Packs `count` septets after `fill_bits` zero bits (0 to 6) into octets as
// TS 23.038 packs them; returns the octets written, or 0 when they would not
// fit `dst_size`.
size_t gsm7_pack_at(uint8_t *dst, size_t dst_size, const uint8_t *septets, size_t count,
                    unsigned fill_bits);
// Takes `count` septets that start `fill_bits` bits into `octets` (n octets);
// returns the septets written, no more than the octets hold or `dst_size`.
size_t gsm7_unpack_at(uint8_t *dst, size_t dst_size, const uint8_t *octets, size_t n,
                      unsigned fill_bits, size_t count);
