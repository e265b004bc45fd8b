#include "mqtt/config.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace mqtt {

namespace {

// Room for a host name, a path or a client id; a longer value is a mistake.
constexpr size_t VALUE_MAX = 1000;

bool whole_number(const std::string &v, long min, long max, int *out) {
    if (v.empty() || v.size() > 9)
        return false;
    long n = 0;
    for (char c : v) {
        if (c < '0' || c > '9')
            return false;
        n = n * 10 + (c - '0');
    }
    if (n < min || n > max)
        return false;
    *out = static_cast<int>(n);
    return true;
}

// A topic level may not hold the wildcards; a prefix may hold levels but no
// empty one at either end.
bool topic_text_ok(const std::string &v) {
    if (v.empty() || v.front() == '/' || v.back() == '/')
        return false;
    for (char c : v) {
        auto u = static_cast<unsigned char>(c);
        if (c == '+' || c == '#' || u < 0x20 || u == 0x7F)
            return false;
    }
    return true;
}

bool printable(const std::string &v) {
    for (char c : v) {
        auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7F)
            return false;
    }
    return true;
}

bool bad(std::string *error, const std::string &key, const std::string &why) {
    *error = "configuration key " + key + ": " + why;
    return false;
}

bool readable(const std::string &key, const std::string &path, std::string *error) {
    if (path.empty() || access(path.c_str(), R_OK) == 0)
        return true;
    return bad(error, key, "cannot read " + path + ": " + strerror(errno));
}

} // namespace

bool parse_config(const std::string &text, config *out, std::string *error) {
    config c;
    std::string seen = " ";
    size_t pos = 0;
    for (int number = 1; pos < text.size(); ++number) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(pos, end - pos);
        pos = end + 1;
        if (!line.empty() && line[0] == '#')
            continue;
        line = line.substr(0, line.find('\r'));
        if (line.empty())
            continue;
        size_t eq = line.find('=');
        if (eq == std::string::npos) {
            *error = "configuration line " + std::to_string(number) + ": no key=value";
            return false;
        }
        const std::string key = line.substr(0, eq), value = line.substr(eq + 1);
        if (!printable(key) || key.size() > 40)
            return bad(error, "on line " + std::to_string(number), "not a key name");
        if (seen.find(" " + key + " ") != std::string::npos)
            return bad(error, key, "given twice");
        seen += key + " ";
        if (value.size() > VALUE_MAX || !printable(value))
            return bad(error, key, "longer than 1000 bytes or holds control bytes");
        std::string *text_value = key == "broker" ? &c.broker
                                  : key == "tls_ca" ? &c.tls_ca
                                  : key == "tls_cert" ? &c.tls_cert
                                  : key == "tls_key" ? &c.tls_key
                                  : key == "username" ? &c.username
                                  : key == "password_file" ? &c.password_file
                                  : key == "client_id" ? &c.client_id
                                  : key == "topic_prefix" ? &c.topic_prefix
                                                          : nullptr;
        if (text_value != nullptr) {
            *text_value = value;
        } else if (key == "port") {
            if (!whole_number(value, 1, 65535, &c.port))
                return bad(error, key, "'" + value + "' is not a port from 1 to 65535");
        } else if (key == "state_interval_s") {
            if (!whole_number(value, 1, 86400, &c.state_interval_s))
                return bad(error, key, "'" + value + "' is not a number of seconds from 1 to 86400");
        } else if (key == "queue") {
            if (!whole_number(value, 1, 100000, &c.queue))
                return bad(error, key, "'" + value + "' is not a number of messages from 1 to 100000");
        } else {
            return bad(error, key, "not a key of zolvin_4g_mqtt");
        }
    }
    if (c.broker.empty())
        return bad(error, "broker", "required (the broker's host name or address)");
    // The client id is part of the default prefix and of what the broker
    // tells sessions apart by.
    if (!c.client_id.empty() && (!topic_text_ok(c.client_id) || c.client_id.find('/') != std::string::npos ||
                                 c.client_id.size() > 128))
        return bad(error, "client_id", "'" + c.client_id + "' must be 1 to 128 characters without '/', '+' or '#'");
    if (!c.topic_prefix.empty() && !topic_text_ok(c.topic_prefix))
        return bad(error, "topic_prefix", "'" + c.topic_prefix + "' must not hold '+' or '#' nor begin or end with '/'");
    if (c.tls_cert.empty() != c.tls_key.empty())
        return bad(error, c.tls_cert.empty() ? "tls_cert" : "tls_key", "tls_cert and tls_key go together");
    if (!c.tls_cert.empty() && c.tls_ca.empty())
        return bad(error, "tls_ca", "required with tls_cert (a client certificate needs TLS)");
    *out = c;
    return true;
}

bool load_config(const std::string &path, config *out, std::string *password, std::string *error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = "cannot read the configuration file " + path + ": " + strerror(errno);
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        *error = "cannot read the configuration file " + path;
        return false;
    }
    config c;
    if (!parse_config(text.str(), &c, error)) {
        *error = path + ": " + *error;
        return false;
    }
    if (!readable("tls_ca", c.tls_ca, error) || !readable("tls_cert", c.tls_cert, error) ||
        !readable("tls_key", c.tls_key, error) || !readable("password_file", c.password_file, error)) {
        *error = path + ": " + *error;
        return false;
    }
    password->clear();
    if (!c.password_file.empty()) {
        std::ifstream p(c.password_file, std::ios::binary);
        std::getline(p, *password);
        if (!password->empty() && password->back() == '\r')
            password->pop_back();
    }
    if (c.client_id.empty()) {
        char host[256] = "";
        if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0') {
            *error = path + ": configuration key client_id: not set, and the host name is unknown";
            return false;
        }
        c.client_id = host;
    }
    if (c.topic_prefix.empty())
        c.topic_prefix = "zolvin/" + c.client_id;
    *out = c;
    return true;
}

} // namespace mqtt
