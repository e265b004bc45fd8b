#include "core/config.h"

#include "core/daemon_state.h"
#include "core/log.h"
#include "core/text.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct text_key {
    const char *key;
    char *(*field)(daemon_state &);
    bool at_text = false; // also goes into AT command lines
};

char *field_app_name(daemon_state &s) { return s.app_name; }
char *field_apn_name(daemon_state &s) { return s.apn_name; }
char *field_apn_user(daemon_state &s) { return s.apn_user; }
char *field_apn_passwd(daemon_state &s) { return s.apn_passwd; }
char *field_ping1(daemon_state &s) { return s.ping_address[0]; }
char *field_ping2(daemon_state &s) { return s.ping_address[1]; }
char *field_ping3(daemon_state &s) { return s.ping_address[2]; }
char *field_ping4(daemon_state &s) { return s.ping_address[3]; }
char *field_ping5(daemon_state &s) { return s.ping_address[4]; }
char *field_ping6(daemon_state &s) { return s.ping_address[5]; }
char *field_down_script(daemon_state &s) { return s.down_script; }
char *field_client_group(daemon_state &s) { return s.client_group; }

const text_key TEXT_KEYS[] = {
    {"app_name", field_app_name},           {"apn_name", field_apn_name, true},
    {"apn_user", field_apn_user, true},     {"apn_passwd", field_apn_passwd, true},
    {"ping_address1", field_ping1},         {"ping_address2", field_ping2},
    {"ping_address3", field_ping3},         {"ping_address4", field_ping4},
    {"ping_address5", field_ping5},         {"ping_address6", field_ping6},
    {"down_script", field_down_script},     {"client_group", field_client_group},
};

// Debug lines of the configuration are spaced by 1 ms, as the log has always been.
void pause_if_debug() {
    if (state().debug.load(std::memory_order_acquire))
        sleep_for(0, 1000);
}

// The words of the external program's command. Without a program there are
// none; without an APN the program alone runs in the foreground. A password
// without a user is not passed, nor a user without a password's auth.
void app_words(const daemon_state &s, app_command *c) {
    c->count = 0;
    c->background = false;
    if (s.app_name[0] == '\0')
        return;
    auto add = [c](const char *word) { text_set(c->words[c->count++], word); };
    add(s.app_name);
    if (s.apn_name[0] == '\0')
        return;
    c->background = true;
    add("-s");
    add(s.apn_name);
    if (s.apn_user[0] == '\0')
        return;
    add(s.apn_user);
    if (s.apn_passwd[0] == '\0')
        return;
    add(s.apn_passwd);
    const char auth[2] = {static_cast<char>('0' + s.apn_auth.load(std::memory_order_acquire) % 10u),
                          '\0'};
    add(auth);
}

} // namespace

int config_apply(const char *key, const char *value) {
    daemon_state &s = state();
    if (strcmp(key, "debug") == 0) {
        // The file can turn debugging on, never off against the command line.
        if (atoi(value) == 1)
            s.debug.store(1, std::memory_order_release);
        log_printf("Set debug log out!\n");
        return 0;
    }
    for (const text_key &k : TEXT_KEYS) {
        if (strcmp(key, k.key) == 0) {
            if (k.at_text && !at_text_ok(value)) {
                // The module's APN command would carry it: the value so far stays.
                printf("%s: value with '\"' or a control character ignored\n", key);
                return 0;
            }
            char *field = k.field(s);
            text_copy(field, TEXT_FIELD_SIZE, value, CONFIG_VALUE_MAX);
            pause_if_debug();
            log_printf("%s=%s\n", k.key, field);
            return 0;
        }
    }
    if (strcmp(key, "apn_auth") == 0) {
        int v = atoi(value);
        pause_if_debug();
        if (v >= 0 && v <= 3) {
            s.apn_auth.store(static_cast<uint32_t>(v), std::memory_order_release);
            log_printf("apn_auth=%d\n", v);
        } else {
            log_printf("wrong apn_auth value,set default value %d\n",
                       static_cast<int>(s.apn_auth.load(std::memory_order_acquire)));
        }
        return 0;
    }
    if (strcmp(key, "auto_dial") == 0 || strcmp(key, "auto_check") == 0) {
        std::atomic<uint8_t> &flag = strcmp(key, "auto_dial") == 0 ? s.auto_dial : s.auto_check;
        flag.store(atoi(value) != 0 ? 1 : 0, std::memory_order_release);
        pause_if_debug();
        log_printf("%s=%s\n", key, value);
        return 0;
    }
    if (strcmp(key, "check_timeS") == 0) {
        s.check_timeS.store(static_cast<uint32_t>(atoi(value)), std::memory_order_release);
        pause_if_debug();
        log_printf("check_timeS=%d\n", atoi(value));
        return 0;
    }
    return 0;
}

void config_read(const char *path) {
    FILE *f = fopen(path, "r");
    if (f == nullptr) {
        printf("Could not open configuration file '%s' for reading.\n", path);
        return;
    }
    config_parse(f);
    fclose(f);
}

void config_parse(FILE *f) {
    char line[1024];
    int number = 0;
    while (fgets(line, sizeof line, f) != nullptr) {
        ++number;
        if (line[0] == '#')
            continue;
        line[strcspn(line, "\r\n")] = '\0';
        if (line[0] == '\0')
            continue;
        char *eq = strchr(line, '=');
        if (eq == nullptr) {
            printf("Line %d: invalid line '%s'\n", number, line);
            continue;
        }
        *eq = '\0';
        config_apply(line, eq + 1);
    }
}

void app_cmd_build() {
    daemon_state &s = state();
    app_command c;
    app_words(s, &c);
    char cmd[APP_WORDS_MAX * sizeof c.words[0] + 8] = "";
    int n = 0;
    for (int i = 0; i < c.count; ++i)
        n += snprintf(cmd + n, sizeof cmd - static_cast<size_t>(n), i == 0 ? "%s" : " %s",
                      c.words[i]);
    if (c.background)
        n += snprintf(cmd + n, sizeof cmd - static_cast<size_t>(n), " &");
    if (n >= CMD_FIELD_SIZE) {
        // Never run a cut command line: the program would get a wrong APN or password.
        memset(s.app_cmd, 0, sizeof s.app_cmd);
        printf("app_cmd too long (%d characters, at most %d): external program not started\n", n,
               CMD_FIELD_SIZE - 1);
        return;
    }
    text_set(s.app_cmd, cmd);
}

bool app_command_get(app_command *out) {
    daemon_state &s = state();
    settings_edit([&] {
        // An empty app_cmd with a program named is one refused as too long.
        if (s.app_cmd[0] == '\0')
            out->count = 0;
        else
            app_words(s, out);
    });
    return out->count > 0;
}

void settings_lock_take() { pthread_mutex_lock(&state().settings_lock); }

void settings_lock_give() { pthread_mutex_unlock(&state().settings_lock); }

apn_settings apn_snapshot() {
    daemon_state &s = state();
    apn_settings a;
    settings_edit([&] {
        text_set(a.name, s.apn_name);
        text_set(a.user, s.apn_user);
        text_set(a.passwd, s.apn_passwd);
        a.auth = static_cast<int32_t>(s.apn_auth.load(std::memory_order_acquire));
    });
    return a;
}

void setting_read(char *dst, size_t size, const char *field) {
    settings_edit([&] { text_copy(dst, size, field, size - 1); });
}
