// The configuration file: key=value lines read once at start-up into
// daemon_state, and the external connection program's command line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

constexpr const char *CONFIG_PATH = "/etc/zolvin_4g.conf";
constexpr int CONFIG_VALUE_MAX = 50; // characters kept of a text value

void config_read(const char *path);
// The lines of an open configuration file, as config_read takes them.
void config_parse(FILE *f);
int config_apply(const char *key, const char *value);

// Fills `app_cmd` from app_name, apn_name, apn_user, apn_passwd and apn_auth.
void app_cmd_build();

// The external program's command as it is run: the words of app_cmd, each
// one argument whatever it holds, and whether app_cmd puts it in the
// background (" &"). app_cmd itself is for the log; no shell reads it.
constexpr int APP_WORDS_MAX = 6; // program, "-s", APN, user, password, authentication
struct app_command {
    char words[APP_WORDS_MAX][52];
    int count;
    bool background;
};
// The command for the settings of now; false when none is to be run (no
// app_name, or an app_cmd refused as too long).
bool app_command_get(app_command *out);

// Run-time changes by clients meet readers on other threads: the texts of the
// data call, the ping addresses and the down script are written inside
// settings_edit() and read through these copies.
struct apn_settings {
    char name[52];
    char user[52];
    char passwd[52];
    int32_t auth;
};
apn_settings apn_snapshot();
// Copies one setting text (a field of daemon_state) under the lock.
void setting_read(char *dst, size_t size, const char *field);

void settings_lock_take();
void settings_lock_give();

// Runs `edit` with the settings locked. `edit` must not block.
template <typename F> void settings_edit(F edit) {
    settings_lock_take();
    edit();
    settings_lock_give();
}
