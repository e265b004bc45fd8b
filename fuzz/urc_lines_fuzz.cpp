// The common thread's line handling on arbitrary module output: every line in
// a heap block of exactly its size, so a read past its end is caught, and a
// clock that moves on by the first byte of each line, so the ring and message
// windows close now and then.
#include "sms/common.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // Parts of long messages held by one input must not reach the next.
    static std::unique_ptr<sms_assembly> inbox;
    inbox = std::make_unique<sms_assembly>();
    common_state st;
    st.inbox = inbox.get();
    int64_t now = 1000;
    const uint8_t *end = data + size;
    for (const uint8_t *p = data; p < end;) {
        const auto *nl = static_cast<const uint8_t *>(memchr(p, '\n', static_cast<size_t>(end - p)));
        size_t len = static_cast<size_t>((nl != nullptr ? nl : end) - p);
        std::unique_ptr<char[]> line(new char[len + 1]);
        memcpy(line.get(), p, len);
        line[len] = '\0';
        now += len > 0 ? p[0] % 128 : 1;
        int64_t due = common_expire(&st, now);
        if (due != NO_DEADLINE && due < now)
            __builtin_trap(); // a window left open past its time
        common_handle_line(&st, line.get(), now);
        p += len + 1;
    }
    return 0;
}
