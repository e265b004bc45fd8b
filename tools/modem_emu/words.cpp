#include "words.h"

#include <cstdio>

namespace {

int hex_value(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

bool needs_quotes(const std::string &word) {
    if (word.empty() || word[0] == '"')
        return true;
    for (char c : word) {
        auto u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u >= 0x7f)
            return true;
    }
    return false;
}

} // namespace

std::string control_quote(const std::string &word) {
    if (!needs_quotes(word))
        return word;
    std::string out = "\"";
    for (char c : word) {
        auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (u < 0x20 || u >= 0x7f) {
            char esc[5];
            std::snprintf(esc, sizeof esc, "\\x%02x", u);
            out += esc;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

bool control_split(const std::string &line, std::vector<std::string> *words) {
    words->clear();
    size_t i = 0;
    while (i < line.size()) {
        if (line[i] == ' ') {
            ++i;
            continue;
        }
        std::string word;
        if (line[i] != '"') {
            while (i < line.size() && line[i] != ' ')
                word += line[i++];
            words->push_back(word);
            continue;
        }
        ++i;
        bool closed = false;
        while (i < line.size()) {
            char c = line[i++];
            if (c == '"') {
                closed = true;
                break;
            }
            if (c != '\\') {
                word += c;
                continue;
            }
            if (i >= line.size())
                return false;
            char e = line[i++];
            if (e == '"' || e == '\\') {
                word += e;
            } else if (e == 'r') {
                word += '\r';
            } else if (e == 'n') {
                word += '\n';
            } else if (e == 'x' && i + 1 < line.size() && hex_value(line[i]) >= 0 &&
                       hex_value(line[i + 1]) >= 0) {
                word += static_cast<char>(hex_value(line[i]) * 16 + hex_value(line[i + 1]));
                i += 2;
            } else {
                return false;
            }
        }
        if (!closed)
            return false;
        words->push_back(word);
    }
    return true;
}

std::string control_hex(const std::string &bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (char c : bytes) {
        auto u = static_cast<unsigned char>(c);
        out += digits[u >> 4];
        out += digits[u & 15];
    }
    return out;
}

bool control_unhex(const std::string &hex, std::string *bytes) {
    if (hex.size() % 2 != 0)
        return false;
    bytes->clear();
    for (size_t i = 0; i < hex.size(); i += 2) {
        int hi = hex_value(hex[i]), lo = hex_value(hex[i + 1]);
        if (hi < 0 || lo < 0)
            return false;
        *bytes += static_cast<char>(hi * 16 + lo);
    }
    return true;
}
