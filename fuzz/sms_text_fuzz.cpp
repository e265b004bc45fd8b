// The GSM alphabet, UTF-8 and UTF-16 converters and septet packing on
// arbitrary bytes, each with a destination of the size the first byte picks
// (small ones and zero included) and with one just big enough. Every buffer is
// a heap block of exactly its size: a byte read or written past it is an
// AddressSanitizer finding. A result past its room, output that is not whole
// UTF-8, or a round trip that does not come back traps.
#include "sms/alphabet.h"

#include "fuzz_support.h"

#include <cstring>
#include <memory>

namespace {

// Septets to UTF-8 into `room` bytes; the result is whole UTF-8, and the
// septets it says it took give the same bytes again.
size_t septets_to_utf8(const uint8_t *septets, size_t count, size_t room) {
    std::unique_ptr<char[]> dst(new char[room]);
    size_t used = 0;
    size_t n = gsm7_to_utf8(septets, count, dst.get(), room, &used);
    check(n <= room && used <= count && utf8_valid(dst.get(), n));
    std::unique_ptr<char[]> again(new char[n]);
    check(gsm7_to_utf8(septets, used, again.get(), n) == n && memcmp(again.get(), dst.get(), n) == 0);
    return n;
}

size_t utf16_to_utf8_in(const uint8_t *src, size_t len, size_t room) {
    std::unique_ptr<char[]> dst(new char[room]);
    size_t n = utf16_to_utf8(src, len, dst.get(), room);
    check(n <= room && utf8_valid(dst.get(), n));
    return n;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    auto input = exact_copy(data, size);
    const uint8_t *bytes = input.get();
    const char *text = reinterpret_cast<const char *>(bytes);
    const size_t room = size > 0 ? data[0] % 64 : 0;
    const unsigned fill = size > 0 ? data[0] % 8 : 0; // 7 is out of range: refused or taken

    // The tables: every code, with or without its high bit.
    for (size_t i = 0; i < size && i < 8; ++i) {
        uint8_t codes[2];
        uint32_t ch = gsm7_default_char(bytes[i]);
        check(ch != 0 || (bytes[i] & 0x7F) == GSM7_ESCAPE);
        size_t k = gsm7_encode_char(ch, codes);
        check(ch == 0 ? k == 0 : k == 1 && codes[0] == (bytes[i] & 0x7F));
        ch = gsm7_extension_char(bytes[i]);
        k = gsm7_encode_char(ch, codes);
        check(ch == 0 ? k == 0 : k == 2 && codes[0] == GSM7_ESCAPE && codes[1] == (bytes[i] & 0x7F));
    }

    // The input as septets (the high bit ignored), in any room and in room enough.
    septets_to_utf8(bytes, size, room);
    check(septets_to_utf8(bytes, size, 3 * size) <= 3 * size);

    // The input as UTF-8 text to septets; back again it is the same text.
    {
        std::unique_ptr<uint8_t[]> septets(new uint8_t[room]);
        int k = utf8_to_gsm7(text, size, septets.get(), room);
        check(k >= -1 && k <= static_cast<int>(room));
        std::unique_ptr<uint8_t[]> all(new uint8_t[2 * size]);
        int m = utf8_to_gsm7(text, size, all.get(), 2 * size);
        check(m >= -1 && m <= static_cast<int>(2 * size));
        check(k == -1 || k == m);
        if (m >= 0) {
            const size_t count = static_cast<size_t>(m);
            std::unique_ptr<char[]> back(new char[size]);
            for (size_t i = 0; i < count; ++i)
                check(all[i] < 128);
            check(gsm7_to_utf8(all.get(), count, back.get(), size) == size &&
                  memcmp(back.get(), text, size) == 0);
        }
    }

    // UTF-8 reading and writing, character by character.
    for (size_t at = 0; at < size;) {
        uint32_t ch;
        size_t n = utf8_next(text + at, size - at, &ch);
        if (n == 0) {
            ++at;
            continue;
        }
        check(n <= 4 && ch <= 0x10FFFF && (ch < 0xD800 || ch > 0xDFFF));
        std::unique_ptr<char[]> out(new char[room < 4 ? room : 4]);
        size_t w = utf8_put(ch, out.get(), room < 4 ? room : 4);
        check(w == 0 ? room < n : w == n && memcmp(out.get(), text + at, n) == 0);
        at += n;
    }
    const size_t cut = utf8_cut(text, size);
    check(cut <= size && size - cut <= 3);

    // The input as UTF-16, and UTF-8 text to UTF-16 and back.
    utf16_to_utf8_in(bytes, size, room);
    check(utf16_to_utf8_in(bytes, size, 2 * size) <= 2 * size);
    {
        std::unique_ptr<uint8_t[]> units(new uint8_t[room]);
        int k = utf8_to_utf16(text, size, units.get(), room);
        check(k == -1 || (k % 2 == 0 && k <= static_cast<int>(room)));
        std::unique_ptr<uint8_t[]> all(new uint8_t[2 * size]);
        int m = utf8_to_utf16(text, size, all.get(), 2 * size);
        check(m == -1 || (m % 2 == 0 && m <= static_cast<int>(2 * size)));
        check((m == -1) == !utf8_valid(text, size));
        if (m >= 0) {
            std::unique_ptr<char[]> back(new char[size]);
            check(utf16_to_utf8(all.get(), static_cast<size_t>(m), back.get(), size) == size &&
                  memcmp(back.get(), text, size) == 0);
        }
    }

    // Septets packed after `fill` bits, and unpacked again.
    {
        std::unique_ptr<uint8_t[]> packed(new uint8_t[room]);
        size_t n = gsm7_pack_at(packed.get(), room, bytes, size, fill);
        const size_t need = (fill + 7 * size + 7) / 8;
        check(fill > 6 ? n == 0 : (need <= room ? n == need : n == 0));
        if (n > 0) {
            std::unique_ptr<uint8_t[]> septets(new uint8_t[size]);
            check(gsm7_unpack_at(septets.get(), size, packed.get(), n, fill, size) == size);
            for (size_t i = 0; i < size; ++i)
                check(septets[i] == (bytes[i] & 0x7F));
        }
        std::unique_ptr<uint8_t[]> septets(new uint8_t[room]);
        const size_t count = size > 1 ? data[1] : 0;
        size_t m = gsm7_unpack_at(septets.get(), room, bytes, size, fill, count);
        check(m <= room && m <= count && fill + 7 * m <= 8 * size);
        for (size_t i = 0; i < m; ++i)
            check(septets[i] < 128);
    }
    return 0;
}
