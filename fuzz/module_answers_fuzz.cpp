// The parsers of the module's answer lines. The first byte picks the parser,
// the second the size of its destination, 1 to 128 (the operations use 20 to
// 120); the rest is the line, terminated as the rings hand it over. The line
// and every destination are heap blocks of exactly their size, so one byte read or
// written past either is an AddressSanitizer finding. A parser that fails
// leaves its destination as it was.
#include "modem/modem.h"

#include "fuzz_support.h"

#include <cstring>
#include <memory>

namespace {

using answer_fn = bool (*)(const char *, char *, size_t);

constexpr char UNTOUCHED = 0x55;

// Runs `parse` into a destination of `size` bytes filled with a marker.
void answer(answer_fn parse, const char *line, size_t size) {
    std::unique_ptr<char[]> out(new char[size]);
    memset(out.get(), UNTOUCHED, size);
    // A position's error code is an answer too: that parser always writes.
    if (parse(line, out.get(), size) || parse == qlbs_answer) {
        check(strnlen(out.get(), size) < size);
    } else {
        for (size_t i = 0; i < size; ++i)
            check(out[i] == UNTOUCHED);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2)
        return 0;
    const uint8_t parser = data[0];
    const size_t room = 1 + data[1] % 128;
    const size_t len = size - 2;
    std::unique_ptr<char[]> line(new char[len + 1]);
    memcpy(line.get(), data + 2, len);
    line[len] = '\0';
    const char *l = line.get();
    const size_t line_len = strlen(l);

    switch (parser % 10) {
    case 0: {
        std::unique_ptr<char[]> value(new char[CSQ_VALUE_SIZE]);
        csq_value(l, *reinterpret_cast<char(*)[CSQ_VALUE_SIZE]>(value.get()));
        check(strnlen(value.get(), CSQ_VALUE_SIZE) < CSQ_VALUE_SIZE);
        break;
    }
    case 1:
        answer(cops_operator, l, room);
        break;
    case 2:
        answer(csca_number, l, room);
        break;
    case 3:
        answer(creg_location, l, room);
        break;
    case 4: {
        const char *text = nullptr;
        int up = qnetdevstatus_parse(l, &text);
        check((up == 0 || up == 1) && text >= l && text <= l + line_len);
        break;
    }
    case 5:
        answer(qlbscfg_answer, l, room);
        break;
    case 6:
        answer(qlbs_answer, l, room);
        break;
    case 7: {
        std::unique_ptr<char[]> cmd(new char[TTS_COMMAND_SIZE]);
        size_t n = tts_command(l, *reinterpret_cast<char(*)[TTS_COMMAND_SIZE]>(cmd.get()));
        check(n < TTS_COMMAND_SIZE && strlen(cmd.get()) == n);
        break;
    }
    case 8: {
        const lbs_key *k = lbs_key_find(l);
        check(k == nullptr || strncmp(l, k->name, strlen(k->name)) == 0);
        break;
    }
    default: {
        // The scan window comes from the second byte: from 0..15, last 0..63.
        size_t from = data[1] % 16;
        size_t last = data[1] / 4;
        quote_span q;
        if (find_quotes(l, from, last, &q))
            check(from <= q.open && q.open < q.close && q.close <= last && q.close < line_len &&
                  l[q.open] == '"' && l[q.close] == '"');
        break;
    }
    }
    return 0;
}
