// The configuration file read from memory through the same parse as the file
// on disk, then the external program's command built from what it set. Every
// text setting and the command must stay terminated within their fields, the
// APN texts fit for an AT command line, and the words run be those the
// command shows.
#include "core/config.h"
#include "core/daemon_state.h"
#include "core/text.h"

#include "fuzz_support.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace {

constexpr size_t READ_PIECE = 1023; // what one read of a line takes at most

// A "debug" line would turn on a 1 ms pause after every later line and print
// each value: its key is changed, wherever a read of a line would start.
void without_debug(std::vector<char> &file) {
    static const char KEY[] = "debug=";
    size_t piece = 0;
    for (size_t i = 0; i < file.size(); ++i) {
        if (piece == 0 && file.size() - i >= sizeof KEY - 1 &&
            memcmp(&file[i], KEY, sizeof KEY - 1) == 0)
            file[i] = 'D';
        piece = file[i] == '\n' || piece + 1 == READ_PIECE ? 0 : piece + 1;
    }
}

bool within(const char *field, size_t size, size_t max_chars) {
    return strnlen(field, size) <= max_chars;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // Bad lines are named on standard output; libFuzzer reports on standard error.
    if (freopen("/dev/null", "w", stdout) == nullptr)
        __builtin_trap();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0; // fmemopen takes no empty buffer
    std::vector<char> file(data, data + size);
    without_debug(file);
    FILE *f = fmemopen(file.data(), size, "r");
    if (f == nullptr)
        __builtin_trap();
    daemon_state_reset();
    config_parse(f);
    fclose(f);
    app_cmd_build();

    const daemon_state &s = state();
    check(s.debug.load() == 0);
    for (const char *field :
         {s.app_name, s.apn_name, s.apn_user, s.apn_passwd, s.down_script, s.client_group})
        check(within(field, TEXT_FIELD_SIZE, CONFIG_VALUE_MAX));
    for (const char *ping : s.ping_address)
        check(within(ping, TEXT_FIELD_SIZE, CONFIG_VALUE_MAX));
    check(within(s.app_cmd, CMD_FIELD_SIZE, CMD_FIELD_SIZE - 1));
    check(s.apn_auth.load() <= 3);
    // The command names the program whenever it is run at all.
    check(s.app_cmd[0] == '\0' || strncmp(s.app_cmd, s.app_name, strlen(s.app_name)) == 0);
    for (const char *apn : {s.apn_name, s.apn_user, s.apn_passwd})
        check(at_text_ok(apn));
    app_command c;
    std::string shown;
    if (app_command_get(&c)) {
        for (int i = 0; i < c.count; ++i)
            shown += (i == 0 ? "" : " ") + std::string(c.words[i]);
        shown += c.background ? " &" : "";
    }
    check(shown == s.app_cmd);
    return 0;
}
