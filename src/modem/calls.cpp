#include "modem/member.h"
#include "modem/modem.h"

#include "core/text.h"

namespace {

// "NO CARRIER" to ATA: the call was gone before it could be answered. The
// common thread must see the line too, to tell the client the call ended. An
// error answer is just another line, and ATA then ends by its time-out.
constexpr at_member ATA_ROW =
    at_setter(CODE_ANSWER_CALL, 1100).with_errors(AT_ERRORS_NONE).also_ending_on("NO CARRIER");
// ATH has no error rule: an error answer waits the whole 90 s.
constexpr at_member ATH_ROW = at_setter(CODE_HANG_UP, 90000).with_errors(AT_ERRORS_NONE);
constexpr at_member COLP_ROW = at_setter(CODE_SET_COLP, 15000);
constexpr at_member CLIP_ROW = at_setter(CODE_SET_CLIP, 15000);

void answered(const char *line, op_outcome *out, void *) {
    if (!has_prefix(line, "NO CARRIER"))
        return;
    call_active_set(0);
    out->status = STATUS_FAIL;
    out->set_text("NO CARRIER");
}

void hung_up(const char *, op_outcome *, void *) {
    call_active_set(0);
}

} // namespace

op_outcome answer_call() { return at_transaction(ATA_ROW, "ATA\r\n", answered); }

op_outcome hang_up() { return at_transaction(ATH_ROW, "ATH\r\n", hung_up); }

op_outcome set_colp(int32_t on) {
    return at_transaction(COLP_ROW, on != 0 ? "AT+COLP=1\r\n" : "AT+COLP=0\r\n");
}

op_outcome set_clip(int32_t on) {
    return at_transaction(CLIP_ROW, on != 0 ? "AT+CLIP=1\r\n" : "AT+CLIP=0\r\n");
}
