#include "modem/modem.h"

#include "core/text.h"
#include "core/convert.h"

#include <cstdio>
#include <cstring>

namespace {

// Answers name a value by its quotes only when this many characters (the
// closing quote's index minus the opening one's) set them apart.
constexpr size_t MIN_QUOTE_GAP = 3;   // two or more characters between
constexpr size_t LBS_MIN_QUOTE_GAP = 2; // one or more
constexpr size_t QUOTE_SCAN_LAST = 29;
constexpr size_t CREG_CELL_SCAN_LAST = 39;
constexpr size_t QLBSCFG_SCAN_LAST = 59;
constexpr size_t QLBSCFG_NAME_AT = 11; // just after "+QLBSCFG: \""
constexpr size_t LBS_BARE_VALUE_MAX = 80;

constexpr lbs_key LBS_KEYS[] = {
    {"asynch", false}, {"timeout", false},    {"server", true},
    {"token", true},   {"timeUpdate", false}, {"withTime", false},
};

// The quoted text of `line`, when its gap is wide enough.
bool quoted(const char *line, size_t from, size_t last, size_t min_gap, quote_span *q) {
    return find_quotes(line, from, last, q) && q->close - q->open >= min_gap;
}

int precision(size_t n) { return static_cast<int>(n); }

} // namespace

bool find_quotes(const char *line, size_t from, size_t last, quote_span *q) {
    size_t len = strnlen(line, last + 1);
    bool opened = false;
    for (size_t i = from; i < len; ++i) {
        if (line[i] != '"')
            continue;
        if (!opened) {
            q->open = i;
            opened = true;
        } else {
            q->close = i;
            return true;
        }
    }
    return false;
}

void csq_value(const char *line, char (&value)[CSQ_VALUE_SIZE]) {
    constexpr size_t from = 6; // after "+CSQ:" and its blank
    size_t len = strnlen(line, from + CSQ_VALUE_SIZE);
    size_t n = 0;
    for (size_t i = from; i < len && n < CSQ_VALUE_SIZE - 1 && line[i] != ','; ++i)
        value[n++] = line[i];
    value[n] = '\0';
    // 99 is the standard's "not known"; some firmware says 199 for the same.
    if (has_prefix(value, "99") || has_prefix(value, "199"))
        text_set(value, "-1");
}

bool cops_operator(const char *line, char *out, size_t size) {
    quote_span q;
    if (!quoted(line, 6, QUOTE_SCAN_LAST, MIN_QUOTE_GAP, &q))
        return false;
    text_copy(out, size, line + q.open + 1, q.close - q.open - 1);
    return true;
}

bool csca_number(const char *line, char *out, size_t size) {
    quote_span q;
    if (!quoted(line, 6, QUOTE_SCAN_LAST, MIN_QUOTE_GAP, &q))
        return false;
    size_t start = q.open + 1;
    if (line[start] == '+')
        ++start;
    size_t n = q.close - start;
    if (n + 1 > size)
        return false;
    text_copy(out, size, line + start, n);
    return true;
}

bool creg_location(const char *line, char *out, size_t size) {
    quote_span area;
    if (!quoted(line, 6, QUOTE_SCAN_LAST, MIN_QUOTE_GAP, &area))
        return false;
    quote_span cell;
    if (!quoted(line, area.close + 2, CREG_CELL_SCAN_LAST, MIN_QUOTE_GAP, &cell))
        return false;
    snprintf(out, size, "%.*s,%.*s", precision(area.close - area.open - 1), line + area.open + 1,
             precision(cell.close - cell.open - 1), line + cell.open + 1);
    return true;
}

int qnetdevstatus_parse(const char *line, const char **text) {
    constexpr size_t text_at = 16;  // after "+QNETDEVSTATUS:" and its blank
    constexpr size_t state_at = 18; // the second number: 1 or 2 means up
    size_t len = strnlen(line, state_at + 1);
    *text = line + (len < text_at ? len : text_at);
    return len > state_at && (line[state_at] == '1' || line[state_at] == '2') ? 1 : 0;
}

const lbs_key *lbs_key_find(const char *key) {
    for (const lbs_key &k : LBS_KEYS)
        if (has_prefix(key, k.name))
            return &k;
    return nullptr;
}

bool qlbscfg_answer(const char *line, char *out, size_t size) {
    if (strnlen(line, QLBSCFG_NAME_AT) < QLBSCFG_NAME_AT)
        return false;
    const lbs_key *k = lbs_key_find(line + QLBSCFG_NAME_AT);
    if (k == nullptr)
        return false;
    // The name, its closing quote and a comma come before the value.
    size_t value_at = QLBSCFG_NAME_AT + strlen(k->name) + 2;
    size_t len = strlen(line);
    if (k->quoted) {
        quote_span q;
        if (!quoted(line, value_at, QLBSCFG_SCAN_LAST, LBS_MIN_QUOTE_GAP, &q))
            return false;
        snprintf(out, size, "%s: %.*s", k->name, precision(q.close - q.open - 1),
                 line + q.open + 1);
    } else {
        const char *value = value_at <= len ? line + value_at : "";
        snprintf(out, size, "%s: %.*s", k->name, precision(LBS_BARE_VALUE_MAX), value);
    }
    return true;
}

bool qlbs_answer(const char *line, char *out, size_t size) {
    constexpr size_t code_at = 7;     // after "+QLBS: "
    constexpr size_t position_at = 9; // after "0,"
    size_t len = strlen(line);
    if (len >= position_at && line[code_at] == '0' && line[code_at + 1] == ',') {
        text_copy(out, size, line + position_at, size - 1);
        return true;
    }
    snprintf(out, size, "errCode:%s", len > code_at ? line + code_at : "");
    return false;
}

size_t tts_command(const char *text, char (&cmd)[TTS_COMMAND_SIZE]) {
    // 255 bytes hold 127 characters; the rest of a longer text is not spoken.
    uint8_t ucs2[255];
    size_t capacity = sizeof ucs2;
    size_t n = utf8_to_ucs2(reinterpret_cast<const uint8_t *>(text), strlen(text), ucs2, &capacity);
    char hex[2 * sizeof ucs2 + 1];
    size_t digits = bytes_to_hex(hex, sizeof hex - 1, ucs2, n);
    hex[digits] = '\0';
    int len = snprintf(cmd, sizeof cmd, "AT+QWTTS=1,1,1,\"%s\"\r", hex);
    return len > 0 ? static_cast<size_t>(len) : 0;
}
