// The message reference of an SMS being sent, read from the module's lines
// after the body: the input is those lines, cut at '\n' (a line from the rings
// holds none), each a heap block of exactly its size. The reference must end
// as the last "+CMGS: " line that carries one gave it, within its 10
// characters, and no other line may touch it.
#include "sms/send.h"

#include "fuzz_support.h"

#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char ref[SMS_MESSAGE_REF_SIZE];
    // The byte after the terminator shows a write past the reference's end.
    memset(ref, 0x5A, sizeof ref);
    ref[0] = '\0';
    std::string want;
    const char *bytes = reinterpret_cast<const char *>(data);
    for (size_t at = 0; at <= size;) {
        const void *nl = memchr(bytes + at, '\n', size - at);
        const size_t end =
            nl != nullptr ? static_cast<size_t>(static_cast<const char *>(nl) - bytes) : size;
        // Lines end at the first NUL, as the rings hand them over.
        const std::string line(bytes + at, strnlen(bytes + at, end - at));
        auto block =
            exact_copy<char>(reinterpret_cast<const uint8_t *>(line.c_str()), line.size() + 1);
        char before[SMS_MESSAGE_REF_SIZE];
        memcpy(before, ref, sizeof ref);

        const bool taken = cmgs_reference(block.get(), ref);
        check(taken == (line.compare(0, 6, "+CMGS:") == 0));
        if (taken && line.size() > 7)
            want = line.substr(7, SMS_MESSAGE_REF_SIZE - 1);
        else
            check(memcmp(before, ref, sizeof ref) == 0);
        check(strnlen(ref, sizeof ref) < sizeof ref && ref == want);
        at = end + 1;
    }
    return 0;
}
