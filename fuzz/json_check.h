// A strict reader of one JSON object of the client tool's output, written
// apart from the tool's own escaping so that each can catch the other: the
// grammar of RFC 8259, strings decoded, no raw control byte, UTF-8 only,
// no surrogate half, no key given twice. The members are kept flat: a string
// member decoded, any other member as its text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace json_check {

struct member {
    bool is_string = false;
    std::string value; // decoded for a string, else the value's own text
};
using object = std::map<std::string, member>;

// Length of the well-formed UTF-8 sequence at s[i], or 0.
inline size_t utf8_at(const std::string &s, size_t i) {
    const auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char c = b(i);
    if (c < 0x80)
        return 1;
    size_t n;
    uint32_t cp;
    if ((c & 0xE0) == 0xC0)
        n = 2, cp = c & 0x1Fu;
    else if ((c & 0xF0) == 0xE0)
        n = 3, cp = c & 0x0Fu;
    else if ((c & 0xF8) == 0xF0)
        n = 4, cp = c & 0x07u;
    else
        return 0;
    if (s.size() - i < n)
        return 0;
    for (size_t k = 1; k < n; ++k) {
        if ((b(i + k) & 0xC0) != 0x80)
            return 0;
        cp = cp << 6 | (b(i + k) & 0x3Fu);
    }
    static const uint32_t LEAST[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < LEAST[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        return 0;
    return n;
}

inline bool utf8_valid(const std::string &s) {
    for (size_t i = 0; i < s.size();) {
        size_t n = utf8_at(s, i);
        if (n == 0)
            return false;
        i += n;
    }
    return true;
}

inline void put_utf8(std::string *out, uint32_t cp) {
    if (cp < 0x80) {
        *out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        *out += static_cast<char>(0xC0 | cp >> 6);
        *out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        *out += static_cast<char>(0xE0 | cp >> 12);
        *out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
        *out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        *out += static_cast<char>(0xF0 | cp >> 18);
        *out += static_cast<char>(0x80 | (cp >> 12 & 0x3F));
        *out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
        *out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

class reader {
  public:
    explicit reader(const std::string &text) : t_(text) {}

    // The whole text as one object; false at the first fault.
    bool read_object(object *out) {
        space();
        if (!take('{'))
            return false;
        space();
        if (take('}'))
            return end();
        do {
            space();
            std::string key;
            member m;
            if (!string(&key))
                return false;
            space();
            if (!take(':'))
                return false;
            space();
            if (!value(&m) || !out->emplace(key, m).second)
                return false;
            space();
        } while (take(','));
        return take('}') && end();
    }

  private:
    bool end() {
        space();
        return at_ == t_.size();
    }
    bool take(char c) {
        if (at_ < t_.size() && t_[at_] == c) {
            ++at_;
            return true;
        }
        return false;
    }
    bool word(const char *w) {
        if (t_.compare(at_, std::char_traits<char>::length(w), w) != 0)
            return false;
        at_ += std::char_traits<char>::length(w);
        return true;
    }
    void space() {
        while (at_ < t_.size() &&
               (t_[at_] == ' ' || t_[at_] == '\t' || t_[at_] == '\n' || t_[at_] == '\r'))
            ++at_;
    }
    bool digit() const { return at_ < t_.size() && t_[at_] >= '0' && t_[at_] <= '9'; }
    bool digits() {
        if (!digit())
            return false;
        while (digit())
            ++at_;
        return true;
    }

    bool hex4(uint32_t *out) {
        if (t_.size() - at_ < 4)
            return false;
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) {
            char c = t_[at_++];
            uint32_t d = c >= '0' && c <= '9'   ? static_cast<uint32_t>(c - '0')
                         : c >= 'a' && c <= 'f' ? static_cast<uint32_t>(c - 'a' + 10)
                         : c >= 'A' && c <= 'F' ? static_cast<uint32_t>(c - 'A' + 10)
                                                : 16;
            if (d == 16)
                return false;
            v = v << 4 | d;
        }
        *out = v;
        return true;
    }

    bool string(std::string *out) {
        if (!take('"'))
            return false;
        while (at_ < t_.size()) {
            const auto c = static_cast<unsigned char>(t_[at_]);
            if (c == '"') {
                ++at_;
                return true;
            }
            if (c < 0x20)
                return false;
            if (c != '\\') {
                size_t n = utf8_at(t_, at_);
                if (n == 0)
                    return false;
                out->append(t_, at_, n);
                at_ += n;
                continue;
            }
            if (++at_ == t_.size())
                return false;
            const char e = t_[at_++];
            static const char SIMPLE[] = "\"\\/bfnrt", MEANS[] = "\"\\/\b\f\n\r\t";
            if (e == 'u') {
                uint32_t cp;
                if (!hex4(&cp) || (cp >= 0xDC00 && cp <= 0xDFFF))
                    return false;
                if (cp >= 0xD800 && cp <= 0xDBFF) {
                    uint32_t low;
                    if (!word("\\u") || !hex4(&low) || low < 0xDC00 || low > 0xDFFF)
                        return false;
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                }
                put_utf8(out, cp);
            } else {
                size_t k = 0;
                while (SIMPLE[k] != '\0' && SIMPLE[k] != e)
                    ++k;
                if (SIMPLE[k] == '\0')
                    return false;
                *out += MEANS[k];
            }
        }
        return false;
    }

    // The members' values are strings, numbers, true, false or null: the tool
    // writes no nested object or array.
    bool value(member *m) {
        if (at_ < t_.size() && t_[at_] == '"') {
            m->is_string = true;
            return string(&m->value);
        }
        const size_t from = at_;
        if (word("true") || word("false") || word("null")) {
            m->value = t_.substr(from, at_ - from);
            return true;
        }
        take('-');
        if (take('0')) {
            if (digit())
                return false;
        } else if (!digits()) {
            return false;
        }
        if (take('.') && !digits())
            return false;
        if (take('e') || take('E')) {
            if (!take('+'))
                take('-');
            if (!digits())
                return false;
        }
        m->value = t_.substr(from, at_ - from);
        return true;
    }

    const std::string &t_;
    size_t at_ = 0;
};

inline bool read(const std::string &text, object *out) {
    out->clear();
    return reader(text).read_object(out);
}

} // namespace json_check
