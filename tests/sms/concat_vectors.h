// The parts of long messages as gammu builds them, and what gammu decodes
// from each (scripts/make_concat_vectors.py).
#pragma once

#include <cstddef>

struct concat_part {
    int message;
    const char *pdu;
    const char *stamp;
    const char *text;
    size_t text_len;
    unsigned reference, count, part;
};
struct concat_message {
    const char *what;
    const char *sender;
    size_t first, count;
    const char *stamp; // part 1's
    const char *text;  // the parts' texts joined
    size_t text_len;
};
#include "concat_vectors.inc"

// The messages of the table by what the tests need of them.
enum : size_t { PLAIN_3, EXTENDED_4, EMOJI_3, LONG_UCS2_4, OVER_999_5, SEVENTEEN, SAME_REF_A, SAME_REF_B };
