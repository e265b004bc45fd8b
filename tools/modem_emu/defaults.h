// Each family's own answers: one table row per command, a small function
// where the answer depends on what the module was told before.
#pragma once

#include "modem_emu/modem_emu.h"

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

// What the module remembers between commands, until it reboots.
struct module_session {
    module_session();

    bool echo = true;
    bool text_mode = false; // AT+CMGF
    int creg_mode = 0;
    bool data_call = false;
    int next_message_ref = 1;
    std::map<std::string, std::string> lbs; // location setting -> value as printed
};

// Pause between the firmware download and update progress lines.
constexpr int FOTA_STEP_MS = 20;
// In a plan's `later` lines: here the module reboots and leaves the bus; the
// lines after it come once it is back. Ignored where nothing plays the bus.
constexpr const char *FOTA_REBOOT = "\x01reboot";
// From a module's return on the bus to its first line.
constexpr int FOTA_BOOT_MS = 2000;
// Playback of a spoken text takes this long before "+QWTTS: 0".
constexpr int TTS_PLAY_MS = 100;

struct answer_plan {
    std::vector<std::string> lines;
    // Unsolicited lines after the answer, each delay counted from the line
    // before; they do not hold up the answers to later commands.
    std::vector<std::pair<int, std::string>> later;
    enum class then { command, message_body, upload };
    then next = then::command; // message_body: the prompt follows the lines
    size_t upload_size = 0;
};

answer_plan standard_answer(modem_family family, const std::string &command,
                            module_session &session);

// The answer once the message body or the firmware image of `command` is in.
answer_plan standard_body_answer(modem_family family, const std::string &command, bool aborted,
                                 module_session &session);
