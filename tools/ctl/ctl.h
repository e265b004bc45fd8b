// zolvin_4g_ctl: a command-line client of the daemon's "@phone_server".
//
// The pure part (command words to requests, what each received frame means to
// the request in progress, how frames are printed) is kept apart from the
// socket loop so that tests can drive it frame by frame.
#pragma once

#include "core/frames.h"

#include <cstdint>
#include <sys/types.h>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ctl {

// Exit statuses of the tool.
enum : int {
    EXIT_OK = 0,
    EXIT_FAILED = 1,      // the daemon answered with a failure status (1, 10 .. 20)
    EXIT_USAGE = 2,       // the command line is wrong
    EXIT_NO_ANSWER = 3,   // no connection, no reply in time, or the daemon went away
    EXIT_UNTRUSTED = 4,   // the socket reached belongs to another user than the daemon's
};

// How the replies to a request are recognised.
enum class reply_kind {
    single,   // one frame with the request's code (progress frames, status 5, go before it)
    at_lines, // module lines as 402 frames until a final result line, or a 402 refusal
};

struct request {
    uint16_t code = 0;
    std::vector<std::string> fields;
    reply_kind kind = reply_kind::single;
    int timeout_ms = 0;
    // Its reply is not printed when it succeeds: a preparatory step of a command.
    bool quiet = false;
    // Sent again for this long while the answer is busy: the worker of the step
    // before replies before it frees the module port.
    int busy_retry_ms = 0;
};

// Requests are sent one at a time: the daemon takes one read of its socket as
// one frame, so a second frame sent before the first is answered may be lost.
struct command {
    std::vector<request> steps;
    // The replies are gathered and printed as one summary (`status`).
    bool summary = false;
    bool json = false; // asked for by the command's own words (`status --json`)
};

// The words of a command ("signal", "apn set 1 internet", "raw 102") as
// requests; false with a reason in *error when the words make no command.
bool parse_command(const std::vector<std::string> &words, command *out, std::string *error);

// The request frame's bytes; empty with a reason when it cannot be encoded
// (an empty field, a field of 1000 bytes or more, a frame over 1000 bytes).
std::vector<uint8_t> encode(const request &r, std::string *error);

// How long to wait for the reply to `code` when no --timeout is given.
int default_timeout_ms(uint16_t code);

// "ok", "busy", ...; the event 1032 carries a message status octet instead.
std::string status_name(uint16_t code, uint16_t status);
bool is_failure_status(uint16_t status);
// A firmware update progress text that ends in a percentage ("File downloading
// 32%", "Fota updating 50%"): its words before the number, and the number.
bool progress_percent(const reply_frame &f, std::string *label, int *percent);
// The line a terminal shows for it: "File downloading     [#########.....]  32%".
std::string progress_bar(const std::string &label, int percent);
// A module line that ends the module's answer to a raw AT command.
bool is_final_at_line(const std::string &line);

enum class verdict {
    unrelated, // an event (or another code) that arrived meanwhile
    progress,  // belongs to the request; the reply is still to come
    done,      // the request's reply has arrived
};

// What the frames arriving after a request mean to it.
class exchange {
public:
    explicit exchange(const request &r) : request_(r) {}
    verdict take(const reply_frame &f);
    // Meaningful once take() said done.
    int exit_status() const { return exit_status_; }

private:
    request request_;
    int exit_status_ = EXIT_OK;
};

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

// ---- status: the daemon at a glance

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
// "42 s", "5 min 12 s", "2 h 13 min", "3 d 4 h": the two largest units, a zero
// second one left out.
std::string duration_words(uint64_t seconds);
// The statistics in words, each phrase only when its keys are known.
struct stats_phrases {
    std::string up;      // "up 5 h 2 min"
    std::string link;    // "link up for 2 h 13 min", "link down"
    std::string dials;   // "3 dials, 1 failed"
    std::string lost;    // "1 module loss"
    std::string resets;  // "0 resets"
    std::string probes;  // "120 probes, 2 failed"
    std::string sms;     // "SMS 4 in, 1 out"
    std::string dropped; // "0 frames dropped"
};
stats_phrases stats_words(const daemon_stats &s);
// The requests of `status`: 911, 912 and 913, answered by the daemon itself,
// then 51, 103 and 102, which need the module.
bool status_code_is_local(uint16_t code);
// The summary of the replies gathered by code (a code without a reply is
// missing from the map). Plain: a few lines; JSON: one object with version,
// state, the statistics' keys, model, operator and signal, null when not known.
// `on_events`: the command socket served another client, so only the daemon's
// own codes were asked, on the events socket; the module's lines say "not
// asked" and JSON adds "asked_on":"events" and the keys in "not_asked".
std::string format_status(const std::map<uint16_t, reply_frame> &replies, const print_style &style,
                          bool on_events = false);
// 0 when the statistics came and could be read, else EXIT_FAILED.
int status_exit(const std::map<uint16_t, reply_frame> &replies);

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

struct options {
    bool json = false;
    bool events = false;     // print unrelated frames met while waiting for a reply
    int timeout_ms = -1;     // -1: the command's own default
    std::string socket_name; // "@name" abstract, else a path; empty: the daemon's
    // Where `listen` subscribes and `status` asks when the command socket is
    // taken; empty: the daemon's "@phone_events".
    std::string events_socket_name;
    // Whose socket the daemon's is (checked before anything is sent): root
    // unless --server-uid names another user.
    uid_t server_uid = 0;
    bool listen = false;
    bool tty = false;        // standard output is a terminal: progress as a bar
    bool help = false;
    std::vector<std::string> words; // the command (after "listen": optional)
};

// Parses the whole command line (without the program name).
bool parse_options(const std::vector<std::string> &args, options *out, std::string *error);
std::string usage();

// Runs the tool: connects, sends, prints to `out`, errors to `err`; returns
// the exit status. `stop_fd`, when not -1, ends listening once it is readable
// (the program's signal descriptor).
int run(const options &opts, std::ostream &out, std::ostream &err, int stop_fd = -1);

} // namespace ctl
