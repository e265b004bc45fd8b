#include "modem/member.h"
#include "modem/modem.h"

namespace {

constexpr at_member QTONEDET_ROW = at_setter(CODE_SET_QTONEDET, 350);
constexpr at_member QWTTS_ROW = at_setter(CODE_PLAY_TTS, 1000);

} // namespace

op_outcome set_qtonedet(int32_t on) {
    return at_transaction(QTONEDET_ROW, on != 0 ? "AT+QTONEDET=1\r\n" : "AT+QTONEDET=0\r\n");
}

op_outcome play_tts(int32_t start, const char *text) {
    if (start == 0)
        return at_transaction(QWTTS_ROW, "AT+QWTTS=0,0,0\r\n");
    // The speaking form ends in a carriage return alone.
    char cmd[TTS_COMMAND_SIZE];
    tts_command(text != nullptr ? text : "", cmd);
    return at_transaction(QWTTS_ROW, cmd);
}
