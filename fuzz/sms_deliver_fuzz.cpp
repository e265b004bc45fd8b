// SMS-DELIVER lines as the module might garble them, and the decoding
// converters on the same bytes with destinations of every size. Each buffer is
// a heap block of exactly its size, so one byte read or written past it is an
// AddressSanitizer finding; a result that claims more than its room, or fields
// that contradict each other, trap.
#include "sms/alphabet.h"
#include "sms/pdu.h"

#include "fuzz_support.h"

#include <cstring>
#include <memory>
#include <string>

namespace {

std::string fields(const sms_deliver &sms) {
    return std::string(sms.sender) + "|" + sms.stamp + "|" + std::string(sms.text, sms.text_len) +
           "|" + std::to_string(sms.concatenated) + " " + std::to_string(sms.reference) + " " +
           std::to_string(sms.part) + "/" + std::to_string(sms.part_count);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    auto line = exact_copy(data, size);
    const char *pdu = reinterpret_cast<const char *>(line.get());
    // The first byte picks a destination size, small ones included.
    size_t room = size > 0 ? data[0] % 64 : 0;

    std::unique_ptr<sms_deliver> sms(new sms_deliver);
    size_t n = 0;
    if (sms_deliver_parse(pdu, size, sms.get())) {
        check(sms->text_len <= sizeof sms->text);
        const size_t sender_len = strnlen(sms->sender, sizeof sms->sender);
        check(sender_len < sizeof sms->sender);
        // Digits or GSM characters: always whole UTF-8.
        check(utf8_valid(sms->sender, sender_len));
        check(strnlen(sms->stamp, sizeof sms->stamp) == 14);
        if (sms->concatenated)
            check(sms->part >= 1 && sms->part <= sms->part_count);
        else
            check(sms->reference == 0 && sms->part == 1 && sms->part_count == 1);
        std::unique_ptr<char[]> record(new char[SMS_RECORD_MAX]);
        n = sms_record_build(sms->sender, sms->stamp, sms->text, sms->text_len, record.get(),
                             SMS_RECORD_MAX);
        check(n > 0 && n < SMS_RECORD_MAX && record[n] == '\0');
        std::unique_ptr<char[]> small(new char[room + 1]);
        n = sms_record_build(sms->sender, sms->stamp, sms->text, sms->text_len, small.get(),
                             room + 1);
        check(n == 0 || (n <= room && small[n] == '\0'));

        // A stray quote after the line changes nothing.
        std::unique_ptr<char[]> longer(new char[size + 1]);
        memcpy(longer.get(), pdu, size);
        longer[size] = '"';
        std::unique_ptr<sms_deliver> again(new sms_deliver);
        check(sms_deliver_parse(longer.get(), size + 1, again.get()));
        check(fields(*again) == fields(*sms));
    }
    return 0;
}
