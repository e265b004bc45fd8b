#include "sms/reassembly.h"

#include "core/wait.h"

#include <cstring>

namespace {

void deliver_alone(const char *sender, const assembly_part &p, const assembly_sink &sink) {
    sink.deliver(sink.ctx, sender, p.stamp, p.text, p.text_len, 1);
}

void keep(assembly_message &m, const sms_deliver &sms) {
    assembly_part &p = m.parts[sms.part - 1];
    memcpy(p.stamp, sms.stamp, sizeof p.stamp);
    p.stamp[sizeof p.stamp - 1] = '\0';
    size_t len = sms.text_len < sizeof p.text ? sms.text_len : sizeof p.text;
    memcpy(p.text, sms.text, len);
    p.text_len = static_cast<uint16_t>(len);
    m.held = static_cast<uint16_t>(m.held | 1u << (sms.part - 1));
}

// The parts held, each alone in part order, and the place is free again.
void give_up(assembly_message &m, const assembly_sink &sink) {
    for (size_t i = 0; i < m.part_count; ++i)
        if (m.held & 1u << i)
            deliver_alone(m.sender, m.parts[i], sink);
    m.used = false;
}

// Every part is in: one text in part order with part 1's time stamp, unless
// the record's three-digit length could not carry it.
void complete(sms_assembly *a, assembly_message &m, const assembly_sink &sink) {
    size_t total = 0;
    for (size_t i = 0; i < m.part_count; ++i)
        total += m.parts[i].text_len;
    if (total > sizeof a->joined) {
        give_up(m, sink);
        return;
    }
    size_t at = 0;
    for (size_t i = 0; i < m.part_count; ++i) {
        memcpy(a->joined + at, m.parts[i].text, m.parts[i].text_len);
        at += m.parts[i].text_len;
    }
    sink.deliver(sink.ctx, m.sender, m.parts[0].stamp, a->joined, total, m.part_count);
    m.used = false;
}

int64_t due_at(const assembly_message &m) { return m.first_ms + ASSEMBLY_WAIT_MS; }

} // namespace

void assembly_take(sms_assembly *a, const sms_deliver &sms, int64_t now_ms, const assembly_sink &sink) {
    if (!sms.concatenated || sms.part_count <= 1 || sms.part < 1 || sms.part > sms.part_count ||
        sms.part_count > ASSEMBLY_PARTS) {
        sink.deliver(sink.ctx, sms.sender, sms.stamp, sms.text, sms.text_len, 1);
        return;
    }
    assembly_message *free_place = nullptr;
    for (assembly_message &m : a->messages) {
        if (!m.used) {
            if (free_place == nullptr)
                free_place = &m;
            continue;
        }
        if (m.reference != sms.reference || m.part_count != sms.part_count ||
            strncmp(m.sender, sms.sender, sizeof m.sender) != 0)
            continue;
        if (m.held & 1u << (sms.part - 1))
            return; // the network sent it again
        keep(m, sms);
        if (m.held == (1u << m.part_count) - 1)
            complete(a, m, sink);
        return;
    }
    if (free_place == nullptr) {
        sink.deliver(sink.ctx, sms.sender, sms.stamp, sms.text, sms.text_len, 1);
        return;
    }
    assembly_message &m = *free_place;
    memcpy(m.sender, sms.sender, sizeof m.sender);
    m.sender[sizeof m.sender - 1] = '\0';
    m.reference = sms.reference;
    m.part_count = sms.part_count;
    m.held = 0;
    m.first_ms = now_ms;
    keep(m, sms);
    // Marked used last: until then the place holds nothing that counts.
    m.used = true;
}

int64_t assembly_expire(sms_assembly *a, int64_t now_ms, const assembly_sink &sink) {
    // The earliest first, so that messages given up together leave in the
    // order they came.
    for (;;) {
        assembly_message *earliest = nullptr;
        for (assembly_message &m : a->messages)
            if (m.used && (earliest == nullptr || m.first_ms < earliest->first_ms))
                earliest = &m;
        if (earliest == nullptr)
            return NO_DEADLINE;
        if (now_ms < due_at(*earliest))
            return due_at(*earliest);
        give_up(*earliest, sink);
    }
}

size_t assembly_count(const sms_assembly &a) {
    size_t n = 0;
    for (const assembly_message &m : a.messages)
        n += m.used ? 1 : 0;
    return n;
}
