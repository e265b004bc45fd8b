#include "core/frames.h"

#include <cstring>

namespace {
uint16_t be16(const uint8_t *p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

void put_be16(uint8_t *p, unsigned v) {
    p[0] = static_cast<uint8_t>((v >> 8) & 0xFF);
    p[1] = static_cast<uint8_t>(v & 0xFF);
}
} // namespace

int request_parse(const uint8_t *buf, size_t len, request_frame *out) {
    if (len < 5 || memcmp(buf, "ZVS", 3) != 0)
        return -1;
    out->code = be16(buf + 3);
    out->field_count = 0;
    out->oversize_field = false;
    size_t pos = 5;
    while (out->field_count < REQUEST_FIELDS_MAX && pos + 2 <= len) {
        size_t flen = be16(buf + pos);
        pos += 2;
        if (flen >= FIELD_SIZE)
            out->oversize_field = true;
        if (flen == 0 || flen >= FIELD_SIZE || flen > len - pos)
            break;
        int i = out->field_count;
        memset(out->fields[i], 0, FIELD_SIZE);
        memcpy(out->fields[i], buf + pos, flen);
        out->field_len[i] = flen;
        out->field_count = i + 1;
        pos += flen;
    }
    for (int i = out->field_count; i < REQUEST_FIELDS_MAX; ++i) {
        out->fields[i][0] = '\0';
        out->field_len[i] = 0;
    }
    return 0;
}

size_t request_build(uint8_t *out, size_t cap, uint16_t code, const char *const *fields,
                     const size_t *lens, int count) {
    if (count < 0 || count > REQUEST_FIELDS_MAX || cap < 7)
        return 0;
    memcpy(out, "ZVS", 3);
    put_be16(out + 3, code);
    size_t pos = 5;
    for (int i = 0; i < count; ++i) {
        if (lens[i] == 0 || lens[i] >= FIELD_SIZE || pos + 2 + lens[i] > cap)
            return 0;
        put_be16(out + pos, static_cast<unsigned>(lens[i]));
        memcpy(out + pos + 2, fields[i], lens[i]);
        pos += 2 + lens[i];
    }
    if (count < REQUEST_FIELDS_MAX) {
        if (pos + 2 > cap)
            return 0;
        put_be16(out + pos, 0);
        pos += 2;
    }
    return pos;
}

size_t reply_build(uint8_t (&out)[REPLY_MAX], int code, int status, const char *text) {
    memcpy(out, "ZVR", 3);
    put_be16(out + 3, static_cast<unsigned>(code) & 0xFFFF);
    put_be16(out + 5, static_cast<unsigned>(status) & 0xFFFF);
    size_t n = text != nullptr ? strnlen(text, REPLY_TEXT_MAX) : 0;
    if (n > 0)
        memcpy(out + 7, text, n);
    out[7 + n] = 0;
    return 8 + n;
}

long reply_parse(const uint8_t *buf, size_t len, reply_frame *out) {
    size_t check = len < 3 ? len : 3;
    if (memcmp(buf, "ZVR", check) != 0)
        return -1;
    if (len < 8)
        return 0;
    const void *nul = memchr(buf + 7, 0, len - 7);
    if (nul == nullptr)
        return len >= REPLY_MAX ? -1 : 0;
    size_t n = static_cast<size_t>(static_cast<const uint8_t *>(nul) - (buf + 7));
    if (n > REPLY_TEXT_MAX)
        return -1;
    out->code = be16(buf + 3);
    out->status = be16(buf + 5);
    out->text_len = n;
    memcpy(out->text, buf + 7, n);
    out->text[n] = '\0';
    return static_cast<long>(8 + n);
}

namespace {
// The name's bytes without a terminator, its '@' made the abstract marker.
socklen_t abstract_address(sockaddr_un *addr, const char *name) {
    memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    memcpy(addr->sun_path, name, strlen(name) + 1);
    addr->sun_path[0] = '\0'; // the abstract namespace
    return static_cast<socklen_t>(sizeof addr->sun_family + strlen(name));
}
} // namespace

socklen_t server_address(sockaddr_un *addr) { return abstract_address(addr, SERVER_SOCKET_NAME); }

socklen_t events_address(sockaddr_un *addr) { return abstract_address(addr, EVENTS_SOCKET_NAME); }
