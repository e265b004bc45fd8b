// Status-report lines, and the sending converters on the same bytes with
// destinations of every size. Buffers are heap blocks of exactly their size:
// AddressSanitizer is the guard; a result that claims more than its room traps.
#include "core/convert.h"
#include "sms/pdu.h"

#include "fuzz_support.h"

#include <cstring>
#include <memory>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    auto line = exact_copy(data, size);
    const char *pdu = reinterpret_cast<const char *>(line.get());
    size_t room = size > 0 ? data[0] % 64 : 0;

    int status = -1;
    int reference = -1;
    if (sms_status_parse(pdu, size, &status, &reference))
        check(status >= 0 && status <= 255 && reference >= 0 && reference <= 255);

    // The number comes from the client as a terminated string.
    const std::string number(pdu, strnlen(pdu, size));
    std::unique_ptr<char[]> semi(new char[room]);
    int written = number_to_semi_octets(number.c_str(), semi.get(), room);
    size_t end = static_cast<size_t>(written);
    check(written == -1 || (end < room && semi[end] == '\0'));

    std::unique_ptr<uint8_t[]> out(new uint8_t[room]);
    size_t capacity = room;
    size_t n = utf8_to_ucs2(line.get(), size, out.get(), &capacity);
    check(n <= room && n % 2 == 0 && capacity == room - n);

    std::unique_ptr<char[]> hex(new char[room]);
    check(bytes_to_hex(hex.get(), room, line.get(), size) <= room);
    return 0;
}
