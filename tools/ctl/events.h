// What the daemon's frames mean to a reader of its events: frames cut from the
// byte stream, long SMS records joined, events decoded and shown plain or as
// JSON, the statistics of 913 read. The client tool prints them; the fleet
// telemetry program publishes them, so both show an event the same way.
#pragma once

#include "core/frames.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace ctl {

// "ok", "busy", ...; the event 1032 carries a message status octet instead.
std::string status_name(uint16_t code, uint16_t status);

// Control bytes and backslashes escaped, so that a text stays on one line.
std::string plain_escape(const std::string &bytes);
// A JSON string of the bytes, quotes included.
std::string quoted(const std::string &s);
// 1 to 20 decimal digits whose value fits in 64 bits.
bool stats_number(const std::string &v, uint64_t *out);

struct print_style {
    bool json = false;
};
// One line (without its end) for a frame. Plain: "CODE NAME(STATUS) TEXT",
// control bytes and backslashes escaped so that every frame stays on one line.
// JSON: an object with code, status, status_name, text (and "event": true).
std::string format_frame(const reply_frame &f, const print_style &style, bool event);
std::string json_escape(const std::string &bytes);
// format_frame for a text that need not fit one frame (a joined record).
std::string format_text_frame(uint16_t code, uint16_t status, const std::string &text,
                              const print_style &style, bool event);
// How `listen` shows an event: "call incoming 13912345678", "sms from ... at
// 2026-11-23 10:15:42: Hello", or with JSON {"event":"sms","from":...}.
// Empty for other frames and for events whose text does not add up (a record
// whose lengths run past its end), which are printed as frames.
std::string format_event(const reply_frame &f, const print_style &style);
// An SMS record (of one 1031 frame, or joined from 1033 frames) as format_event
// shows it; empty when it does not add up. Lengths count bytes of UTF-8.
std::string format_sms_record(const std::string &record, const print_style &style);

// A received message's record longer than one frame comes as 1033 frames,
// each with the number of frames still to come as its status, the last with
// 0; their texts joined are the record. Frames of other codes may come
// between them.
struct joined_record {
    std::string text;
    bool whole = false; // false: a frame of it went missing, this is what came
};
class record_joiner {
public:
    // More frames than this for one record are not the daemon's: such a frame
    // is given back alone, not kept.
    static constexpr uint16_t FRAMES_MAX = 64;
    // Takes one 1033 frame; returns the records it ends, in order: what was
    // kept when this frame does not follow it (not whole), then the record
    // this frame completes.
    std::vector<joined_record> take(const reply_frame &f);
    // What is kept of an unfinished record (listening ends); none when nothing is.
    std::optional<joined_record> rest();

private:
    std::string joined_;
    int expect_ = -1; // the status the next frame must carry; -1: none kept
};


// The statistics of code 913 ("up=18120 link=1 link_s=7980 dials=3 ..."), by
// key in the daemon's order.
constexpr size_t STATS_KEY_COUNT = 12;
extern const char *const STATS_KEYS[STATS_KEY_COUNT];
struct daemon_stats {
    bool known[STATS_KEY_COUNT] = {};
    uint64_t value[STATS_KEY_COUNT] = {};
    // The value of `key`, one of STATS_KEYS; none when the text did not carry it.
    std::optional<uint64_t> get(const std::string &key) const;
};
// The text comes from outside the tool: pairs are split at blanks, unknown
// keys are skipped. False for a word without '=', a known key given twice, or
// a value that is not 1 to 20 decimal digits within 64 bits (link: 0 or 1).
bool parse_stats(const std::string &text, daemon_stats *out);

// Cuts the daemon's byte stream into frames: frames carry no length and may
// arrive split or joined.
class frame_reader {
public:
    void feed(const uint8_t *bytes, size_t n);
    // The next complete frame; false when none is complete yet. A stream that
    // does not start with a frame sets bad() and yields nothing more.
    bool next(reply_frame *out);
    bool bad() const { return bad_; }

private:
    std::vector<uint8_t> pending_;
    bool bad_ = false;
};

// ---- the daemon's sockets

// A stream connection to the socket `name` ('@' first: an abstract name),
// with `flags` (SOCK_NONBLOCK) added to the socket's; -1 with the reason.
int connect_to(const std::string &name, int flags, std::string *error);
// Any local process could have bound the name while the daemon was not
// running: a request (an APN password) or an answer (a call, a message) is
// only as trustworthy as the process on the other end. True when the peer
// runs as `expected`; else false with the reason.
bool server_trusted(int fd, uid_t expected, std::string *error);

} // namespace ctl
