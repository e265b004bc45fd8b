// Received datagrams through the echo reply filter, and echo requests built
// into rooms of every size. Each datagram is a heap block of exactly its size:
// AddressSanitizer is the guard against a read past a short datagram.
#include "check/check.h"

#include "fuzz_support.h"

#include <cstring>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    auto datagram = exact_copy<unsigned char>(data, size);
    // The identifier looked for comes from the input too, so matches happen.
    uint16_t ident = size >= 2 ? static_cast<uint16_t>(data[size - 2] | data[size - 1] << 8) : 0;
    if (icmp_check_reply(datagram.get(), size, ident) == 0) {
        size_t ip = static_cast<size_t>(data[0] & 0x0f) * 4;
        check(size >= ip + ICMP_HEADER_SIZE && data[ip] == 0);
    }

    size_t room = size > 0 ? data[0] : 0;
    uint32_t data_len = size > 1 ? data[1] : 0;
    std::unique_ptr<unsigned char[]> request(new unsigned char[room]);
    size_t len = icmp_build_echo(request.get(), room, ident, ident, data_len);
    check(len == 0 || (len == data_len + ICMP_HEADER_SIZE && len <= room &&
                       icmp_checksum(request.get(), len) == 0));
    return 0;
}
