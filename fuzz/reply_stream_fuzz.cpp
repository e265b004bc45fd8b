// The daemon's byte stream as the client tool takes it: frames cut off the
// front of what has arrived, the stream arriving whole or in pieces. Both must
// give the same frames, and a frame must be the bytes it came from. Then a
// frame built from the same bytes must parse back to what went in.
#include "core/frames.h"

#include "fuzz_support.h"

#include <cstring>
#include <vector>

namespace {

struct frames_seen {
    std::vector<reply_frame> frames;
    bool bad = false; // the stream stopped being frames
};

// Takes every whole frame off the front of `pending`, as the tool does after each read.
void take_frames(std::vector<uint8_t> &pending, frames_seen *seen) {
    while (!seen->bad && !pending.empty()) {
        // Each look sees only the bytes arrived so far, in a block of that size.
        auto block = exact_copy(pending.data(), pending.size());
        reply_frame f;
        long used = reply_parse(block.get(), pending.size(), &f);
        if (used < 0) {
            seen->bad = true;
            return;
        }
        if (used == 0)
            return;
        size_t n = static_cast<size_t>(used);
        check(n >= 8 && n <= pending.size() && n <= REPLY_MAX && f.text_len == n - 8);
        check(memcmp(f.text, pending.data() + 7, f.text_len) == 0 && f.text[f.text_len] == '\0' &&
              strlen(f.text) == f.text_len);
        check(f.code == (pending[3] << 8 | pending[4]) && f.status == (pending[5] << 8 | pending[6]));
        seen->frames.push_back(f);
        pending.erase(pending.begin(), pending.begin() + used);
    }
}

bool same(const reply_frame &a, const reply_frame &b) {
    return a.code == b.code && a.status == b.status && a.text_len == b.text_len &&
           memcmp(a.text, b.text, a.text_len) == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    frames_seen whole;
    std::vector<uint8_t> pending(data, data + size);
    take_frames(pending, &whole);
    const std::vector<uint8_t> whole_left = pending;

    // The same stream in reads of 1 to 64 bytes, the first byte setting their size.
    frames_seen pieces;
    pending.clear();
    size_t piece = size > 0 ? data[0] % 64 + 1 : 1;
    for (size_t at = 0; at < size; at += piece) {
        size_t n = size - at < piece ? size - at : piece;
        pending.insert(pending.end(), data + at, data + at + n);
        take_frames(pending, &pieces);
    }
    check(pieces.bad == whole.bad && pieces.frames.size() == whole.frames.size() &&
          pending == whole_left);
    for (size_t i = 0; i < whole.frames.size(); ++i)
        check(same(whole.frames[i], pieces.frames[i]));

    // A frame built from the input's bytes reads back as it was built.
    if (size >= 4) {
        std::vector<char> terminated(data + 4, data + size);
        terminated.push_back('\0');
        int code = data[0] << 8 | data[1];
        int status = data[2] << 8 | data[3];
        uint8_t frame[REPLY_MAX];
        size_t len = reply_build(frame, code, status, terminated.data());
        reply_frame back;
        check(len <= REPLY_MAX && reply_parse(frame, len, &back) == static_cast<long>(len));
        size_t kept = strnlen(terminated.data(), REPLY_TEXT_MAX);
        check(back.code == code && back.status == status && back.text_len == kept &&
              memcmp(back.text, terminated.data(), kept) == 0);
    }
    return 0;
}
