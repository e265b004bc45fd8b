// The configuration of zolvin_4g_mqtt: key=value lines as the daemon reads
// its own ('#' starts a comment line, CR and LF end a line), every value
// checked, since a board that reports nowhere is noticed only when it is
// needed.
#pragma once

#include <string>

namespace mqtt {

constexpr const char *CONFIG_PATH = "/etc/zolvin_4g_mqtt.conf";
constexpr int EXIT_CONFIG = 2; // a bad value, or a file that cannot be read

struct config {
    std::string broker;         // host name or address; required
    int port = 0;               // 0: 1883, or 8883 with TLS
    std::string tls_ca;         // set: TLS, the broker's certificate checked against this CA
    std::string tls_cert;       // a client certificate and its key, both or neither
    std::string tls_key;
    std::string username;
    std::string password_file;  // its first line is the password
    std::string client_id;      // empty: the host name
    std::string topic_prefix;   // empty: zolvin/<client_id>
    int state_interval_s = 60;
    int queue = 256;            // events kept while the broker is away

    bool tls() const { return !tls_ca.empty(); }
    int broker_port() const { return port != 0 ? port : tls() ? 8883 : 1883; }
};

// The text of a configuration file. False with a message that names the key
// (or the line) at fault.
bool parse_config(const std::string &text, config *out, std::string *error);

// Reads and parses `path`, checks that the files it names can be read, and
// fills in the defaults that need the machine (the host name). `password`
// gets the password file's first line.
bool load_config(const std::string &path, config *out, std::string *password, std::string *error);

} // namespace mqtt
