// The parts of long received messages joined back into one message. Parts are
// kept by sender, reference and part count in a fixed store; a message leaves
// it whole when its last part is in, or part by part when it cannot be joined
// (too many parts, no room, too long a text, or its parts stop coming). A
// duplicate of a part held is the only thing ever dropped.
//
// Pure: the clock is an argument and what leaves goes to a sink, so tests and
// the fuzzer drive it without a thread or a client.
#pragma once

#include "sms/pdu.h"

#include <cstddef>
#include <cstdint>

constexpr size_t ASSEMBLY_MESSAGES = 8; // messages in assembly at once
constexpr size_t ASSEMBLY_PARTS = 16;   // parts of a message that can be kept
// A message still incomplete this long after its first part came is given up
// as its parts.
constexpr int64_t ASSEMBLY_WAIT_MS = 5 * 60 * 1000;

// Receives each message that leaves the store: `parts` is how many parts its
// text joins (1 for a message delivered alone or part by part).
struct assembly_sink {
    void (*deliver)(void *ctx, const char *sender, const char *stamp, const char *text,
                    size_t text_len, size_t parts);
    void *ctx;
};

struct assembly_part {
    char stamp[15];
    uint16_t text_len;
    char text[SMS_PART_TEXT_MAX];
};

struct assembly_message {
    bool used;
    char sender[SMS_SENDER_SIZE];
    uint16_t reference;
    uint8_t part_count;
    uint16_t held;   // bit n-1: part n is in
    int64_t first_ms; // when its first part came
    assembly_part parts[ASSEMBLY_PARTS];
};

// Zero-initialised is empty, so a store with static duration needs no set-up.
struct sms_assembly {
    assembly_message messages[ASSEMBLY_MESSAGES];
    char joined[SMS_TEXT_MAX];
};

// Takes one received message at `now_ms`: one that is not a part (or a
// message of one part) leaves at once; a part is kept, or leaves at once when
// it cannot be kept; the last part of a message makes it leave.
void assembly_take(sms_assembly *a, const sms_deliver &sms, int64_t now_ms, const assembly_sink &sink);
// Gives up the messages whose time ran out by `now_ms` (their parts leave in
// part order) and returns when the next one runs out, or NO_DEADLINE.
int64_t assembly_expire(sms_assembly *a, int64_t now_ms, const assembly_sink &sink);
// Messages in assembly now.
size_t assembly_count(const sms_assembly &a);
