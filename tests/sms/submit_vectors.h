// SMS-SUBMIT PDUs built by an independent codec (scripts/make_submit_vectors.py),
// shared by the unit and end-to-end tests of sending.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct submit_vector {
    const char *what;
    uint8_t ucs2;
    const char *smsc, *destination, *text;
    int validity;
    uint8_t status_report, reference;
    size_t parts; // 0: refused
    std::vector<size_t> sizes; // septets or UTF-16 units of each part
    std::vector<int> tpdu_octets;
    std::vector<std::string> pdus; // without their Ctrl-Z
};

#include "sms/submit_vectors.inc"

// The first row whose description begins with `prefix`, or nullptr.
inline const submit_vector *submit_vector_named(const std::string &prefix) {
    for (const submit_vector &v : SUBMIT_VECTORS) {
        if (std::string(v.what).rfind(prefix, 0) == 0)
            return &v;
    }
    return nullptr;
}
