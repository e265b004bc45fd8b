// The firmware update's reading of the module's lines in its start, download
// and update phases. The first byte picks the phase and the module family;
// the rest is the line, a heap block of exactly its size. The step must agree with what is reported
// and handed on, and a report must come from the line it was made of.
#include "fota/fota.h"

#include "core/daemon_state.h"

#include "fuzz_support.h"

#include <cstring>
#include <string>

namespace {

bool starts(const std::string &s, const std::string &prefix) {
    return s.compare(0, prefix.size(), prefix) == 0;
}

const std::string FOTA = "+QIND: \"FOTA\",\"";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1)
        return 0;
    const auto phase = static_cast<fota_phase>(data[0] % 3);
    const module_family &family = MODULE_FAMILIES[data[0] / 3 % MODULE_FAMILY_COUNT];
    const size_t len = strnlen(reinterpret_cast<const char *>(data) + 1, size - 1);
    std::unique_ptr<char[]> block(new char[len + 1]);
    memcpy(block.get(), data + 1, len);
    block[len] = '\0';
    const std::string line(block.get(), len);

    fota_line out;
    const fota_step step = fota_line_step(phase, block.get(), family, &out);

    // Pure: the same line gives the same answer, whatever the answer held before.
    fota_line again;
    memset(&again, 0x5A, sizeof again);
    check(fota_line_step(phase, block.get(), family, &again) == step &&
          again.status == out.status && memcmp(again.text, out.text, sizeof out.text) == 0 &&
          again.unsolicited == out.unsolicited && again.download_told == out.download_told);

    check(strnlen(out.text, sizeof out.text) < sizeof out.text);
    const std::string text(out.text);
    check(out.status == -1 || out.status == STATUS_FAIL || out.status == STATUS_PROGRESS);
    check(out.status != -1 || text.empty());
    const bool command_answer = starts(line, "OK") || starts(line, "AT");
    const bool module_error = starts(line, "+CME ERROR:") || starts(line, "+CMS ERROR:");
    // Only the update's own lines and the module's error lines end a phase.
    check(step == fota_step::waiting || starts(line, "ERROR") || module_error || starts(line, FOTA));
    check(!out.download_told || (phase == fota_phase::download && step == fota_step::next_phase));

    switch (step) {
    case fota_step::waiting:
        check(out.status == -1 && out.unsolicited == !command_answer);
        break;
    case fota_step::failed:
        // A module error is the common thread's to report as well.
        check(out.status == STATUS_FAIL && out.unsolicited == module_error);
        if (starts(line, "ERROR") || module_error) {
            check(text.empty());
        } else {
            // The module's result goes to the client after the error's name.
            check(phase == fota_phase::download);
            const size_t eq = text.find(" = ");
            check(eq != std::string::npos &&
                  starts(text, starts(line, FOTA + "FILEEND")   ? "file_err"
                               : starts(line, FOTA + "HTTPEND") ? "http_err"
                                                                : "ftp_err"));
            const std::string result = text.substr(eq + 3);
            check(result.empty() || (result[0] != '0' && line.find(result) != std::string::npos));
        }
        break;
    case fota_step::next_phase:
        check(!out.unsolicited);
        if (phase == fota_phase::start) {
            check(out.status == -1 &&
                  (starts(line, FOTA + "HTTPSTART") || starts(line, FOTA + "FTPSTART") ||
                   (family.fota.takes_file && starts(line, FOTA + "FILESTART"))));
        } else if (phase == fota_phase::download) {
            check(out.status == STATUS_PROGRESS &&
                  (text == "File download end" || text == "Http download end" ||
                   text == "Ftp download end"));
            // The supervisor hears of the download when the family reboots after it.
            check(out.download_told ==
                  (family.fota.after_download != fota_after_download::nothing));
        } else {
            check(
                out.status == STATUS_PROGRESS &&
                (text == "Fota start" || (starts(text, "Fota updating ") &&
                                          (text.back() == '%' || text.size() == REPLY_TEXT_MAX))));
        }
        break;
    case fota_step::done:
        check(phase == fota_phase::update && out.status == STATUS_PROGRESS && text == "Fota end" &&
              !out.unsolicited);
        break;
    }
    return 0;
}
