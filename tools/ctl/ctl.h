// zolvin_4g_ctl: a command-line client of the daemon's "@phone_server".
//
// The pure part (command words to requests, what each received frame means to
// the request in progress, how frames are printed) is kept apart from the
// socket loop so that tests can drive it frame by frame.
#pragma once

#include "core/frames.h"

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace ctl {

// Exit statuses of the tool.
enum : int {
    EXIT_OK = 0,
    EXIT_FAILED = 1,      // the daemon answered with a failure status (1, 10 .. 20)
    EXIT_USAGE = 2,       // the command line is wrong
    EXIT_NO_ANSWER = 3,   // no connection, no reply in time, or the daemon went away
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
// How `listen` shows an event: "call incoming 13912345678", "sms from ... at
// 2026-11-23 10:15:42: Hello", or with JSON {"event":"sms","from":...}.
// Empty for other frames and for events whose text does not add up (a record
// whose lengths run past its end), which are printed as frames.
std::string format_event(const reply_frame &f, const print_style &style);

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
