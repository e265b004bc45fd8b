// A client's SMS text encoded and cut into parts, and each part built into its
// PDU. The first three bytes choose the coding and status report, the
// validity and the reference; the rest is the text. What the split accepts
// must decode back to the text, keep its parts within one message each and
// never part an escape from its code or the halves of a surrogate pair; every
// PDU must be upper-case hexadecimal ended by Ctrl-Z, within its buffer.
#include "sms/alphabet.h"
#include "sms/send.h"

#include "fuzz_support.h"

#include <cstring>
#include <memory>
#include <string>

namespace {

void check_split(const sms_text_parts &t, const char *text, size_t len) {
    check(t.count >= 1 && t.count <= SMS_PARTS_MAX && t.start[0] == 0);
    const size_t unit = t.ucs2 ? 2 : 1;
    const size_t room = t.count == 1 ? (t.ucs2 ? SMS_UNITS_MAX : SMS_SEPTETS_MAX)
                                     : (t.ucs2 ? SMS_PART_UNITS : SMS_PART_SEPTETS);
    for (size_t i = 0; i < t.count; ++i) {
        size_t first = t.start[i], end = t.start[i + 1];
        check(end >= first && (end - first) % unit == 0 && (end - first) / unit <= room);
        check(end <= sizeof t.data);
        if (t.count > 1)
            check(end > first);
        if (i + 1 < t.count && end > first) {
            if (t.ucs2)
                check(!(t.data[end - 2] >= 0xD8 && t.data[end - 2] <= 0xDB));
            else
                check(t.data[end - 1] != GSM7_ESCAPE);
        }
    }
    // Decoded whole, the parts give the text back byte for byte.
    const size_t total = t.start[t.count];
    std::unique_ptr<char[]> back(new char[len + 1]);
    size_t n = t.ucs2 ? utf16_to_utf8(t.data, total, back.get(), len + 1)
                      : gsm7_to_utf8(t.data, total, back.get(), len + 1);
    check(n == len && memcmp(back.get(), text, len) == 0);
}

void check_pdu(const sms_submit_pdu &p) {
    check(p.len >= 2 && p.len < SMS_PDU_SIZE && p.text[p.len - 1] == 0x1A && p.text[p.len] == '\0');
    for (size_t i = 0; i + 1 < p.len; ++i) {
        char c = p.text[i];
        check((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'));
    }
    check(p.tpdu_octets > 0 && static_cast<size_t>(p.tpdu_octets) * 2 < p.len);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 3)
        return 0;
    const uint8_t ucs2 = data[0] & 1;
    const uint8_t report = (data[0] >> 1) & 1;
    const int validity = data[1];
    const uint8_t reference = data[2];
    auto copy = exact_copy<char>(data + 3, size - 3);
    const char *text = copy.get();
    const size_t len = size - 3;

    sms_text_parts t;
    if (sms_text_split(ucs2, text, len, &t))
        check_split(t, text, len);

    // The daemon hands the text over as a terminated string.
    const std::string terminated(text, strnlen(text, len));
    sms_text_parts whole;
    bool fits = sms_text_split(ucs2, terminated.data(), terminated.size(), &whole);
    sms_submit m;
    bool built = sms_submit_build(ucs2, "+8613800100500", "+8613912345678", terminated.c_str(),
                                  validity, report, reference, &m);
    check(built == fits);
    if (built) {
        check(m.count == whole.count);
        for (size_t i = 0; i < m.count; ++i)
            check_pdu(m.parts[i]);
    }
    return 0;
}
