// zolvin_4g_ctl: a command-line client of the daemon's "@phone_server".
//
// The pure part (command words to requests, what each received frame means to
// the request in progress, how frames are printed) is kept apart from the
// socket loop so that tests can drive it frame by frame.
#pragma once

#include "core/frames.h"
#include "ctl/events.h"

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

// ---- status: the daemon at a glance

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
