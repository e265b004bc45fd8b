// The configuration file: key=value lines read once at start-up into
// daemon_state, and the external connection program's command line.
#pragma once

constexpr const char *CONFIG_PATH = "/etc/zolvin_4g.conf";
constexpr int CONFIG_VALUE_MAX = 50; // characters kept of a text value

void config_read(const char *path);
int config_apply(const char *key, const char *value);

// Fills `app_cmd` from app_name, apn_name, apn_user, apn_passwd and apn_auth.
void app_cmd_build();
