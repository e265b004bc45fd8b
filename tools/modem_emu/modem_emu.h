// The LTE module played on the master side of a pty: it echoes, answers each
// AT command with its family's reply (or with what a test set for it), gives
// the message prompt, takes firmware uploads, sends unsolicited lines on
// request, and keeps a time-stamped record of everything the daemon asked.
// `modem_control` drives an emulator from another process through its
// control socket (protocol in README.md beside this file).
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

enum class modem_family { ec20, ec200t, ec200s };

// "ec20", "ec200t", "ec200s".
const char *modem_family_name(modem_family family);
bool modem_family_parse(const std::string &name, modem_family *family);

// How an override names its commands: the whole command text (no line end),
// or its first characters.
enum class modem_match { exact, prefix };

// What the emulator says to a command instead of its family's answer.
struct modem_reply {
    enum class kind {
        lines,    // `lines`, each framed "\r\n<line>\r\n"
        raw,      // `bytes` exactly as given
        silence,  // nothing at all (the echo still comes)
        standard, // the family's own answer, only delayed
    };
    kind what = kind::standard;
    std::vector<std::string> lines;
    std::string bytes;
    int delay_ms = 0;  // before the first byte of the answer
    int gap_ms = 0;    // between two lines of the answer
    bool once = false; // used by one command, then forgotten
    // Answers what follows the prompt or the upload (the message body, the
    // firmware image) of the matching command, instead of the command itself.
    bool body = false;
    // Kept back, with every answer after it, until release(): a module that
    // works on a command for as long as the test wants.
    bool held = false;

    static modem_reply with_lines(std::vector<std::string> lines);
    static modem_reply ok();
    static modem_reply error();
    static modem_reply cme_error(int code);
    static modem_reply cms_error(int code);
    static modem_reply raw_bytes(std::string bytes);
    static modem_reply silence();
    static modem_reply standard();

    modem_reply after(int ms) const;
    modem_reply between_lines(int ms) const;
    modem_reply one_shot() const;
    modem_reply for_body() const;
    modem_reply until_released() const;
};

// One command as received: its text without the line end, and the message
// body or firmware image that followed it, if any.
struct modem_command {
    enum class body_state {
        none,     // a plain command
        awaited,  // prompt given or upload accepted, data not complete yet
        complete, // Ctrl-Z seen, or every announced byte of the upload arrived
        aborted,  // Esc ended the message, or the module was rebooted meanwhile
    };
    size_t index = 0;
    int64_t ms = 0; // CLOCK_MONOTONIC milliseconds at the command's CR
    std::string text;
    body_state state = body_state::none;
    std::string body; // without the Ctrl-Z or Esc
};

// Sent instead of every answer while the garbage switch is on.
extern const char MODEM_GARBAGE[];

struct module_session;

// Every call may come from any thread, except start(), stop() and the
// destructor, which belong to the owner.
class modem_emulator {
public:
    explicit modem_emulator(modem_family family = modem_family::ec200t);
    ~modem_emulator();
    modem_emulator(const modem_emulator &) = delete;
    modem_emulator &operator=(const modem_emulator &) = delete;

    // Serves `fd` (a pty master; not owned, and switched to non-blocking) on
    // the emulator's own thread. False when already running.
    bool start(int fd);
    // Stops the emulator thread and the control socket, and joins them all.
    // Pending answers and half-received input are dropped (a message body or
    // upload being received counts as aborted); overrides, switches, the
    // module's settings and the command record stay.
    void stop();
    // Lets go of the port only (it is about to be closed); the control socket,
    // overrides and the command record stay.
    void stop_port();
    bool running() const;

    modem_family family() const;
    void set_family(modem_family family);

    // The newest matching override decides; a one-shot one is used up.
    void set_reply(const std::string &match, const modem_reply &reply,
                   modem_match how = modem_match::exact);
    void clear_replies();
    void clear_replies(const std::string &match);

    // No echo at all, whatever ATE said.
    void set_echo_dropped(bool dropped);
    // A hung module: no echo and no answer; commands are still recorded.
    void set_silent(bool silent);
    void set_garbage(bool garbage);
    // The module's own echo setting (ATE0 / ATE1).
    bool echo_on() const;

    // Unsolicited output, sent as soon as the port can take it, between two
    // answers or two lines of one answer. Lines are framed; several lines of
    // one call stay together.
    void inject_line(const std::string &line);
    void inject_lines(const std::vector<std::string> &lines);
    void inject_raw(const std::string &bytes);
    // An incoming SMS, announced as the module's message format (AT+CMGF)
    // has it: in PDU mode "+CMT: ,<TPDU octets>" and `pdu` (hexadecimal,
    // service-centre address first), in text mode "+CMT: \"<number>\",,
    // \"<stamp>\"" and `text`. The caller gives both forms of one message.
    void deliver_sms(const std::string &pdu, const std::string &number, const std::string &stamp,
                     const std::string &text);

    // Sends the held answer and those held behind it, in order, at once.
    void release();

    // The module restarted: echo on, settings and data call back to their
    // defaults, pending output and half-received input dropped.
    void reboot();

    // Called on the emulator's thread where the module reboots during a
    // firmware update, to take it off the bus; the rest of the update follows
    // FOTA_BOOT_MS after the next start(). It must not call the emulator back
    // (stop_port() would wait for itself). Unset, the update plays on one port.
    void set_bus_leave(std::function<void()> leave);
    // A power cut: the rest of an update waiting for the module's return is gone.
    void forget_update();

    // False while the daemon's side of the pty is closed (the emulator then
    // drops what it would send and waits for the port to be opened again).
    bool peer_present() const;

    std::vector<modem_command> commands() const;
    // Commands received since the emulator was made (forgetting does not
    // lower it): the index the next command gets.
    size_t command_count() const;
    void forget_commands();
    // The first command at or after index `from` whose text begins with
    // `prefix` and whose body is not still awaited; nothing after the time-out.
    std::optional<modem_command> wait_for_command(const std::string &prefix, int timeout_ms,
                                                  size_t from = 0) const;

    // Appends "<ms> <command>" for each command from now on; "" stops.
    bool set_log_file(const std::string &path);

    // Listens on a Unix stream socket at `path` (replacing a stale file) for
    // the control protocol. Stopped, and the file removed, by stop().
    bool serve_control(const std::string &path);

private:
    struct rule {
        std::string match;
        modem_match how;
        modem_reply reply;
    };
    enum class input_mode { command, message_body, upload };

    void run();
    void run_once();
    void feed(const char *data, size_t len, int64_t now);
    void drop_input();
    void complete_command(int64_t now);
    void complete_body(bool aborted, int64_t now);
    bool echo_active() const;
    void echo_byte(char c, int64_t now);
    const rule *find_rule(const std::string &text, bool body) const;
    void use_rule(const rule *r);
    void answer_with(const modem_reply &reply, int64_t now);
    // Answers with garbage or a test's override when one applies (recording
    // `record` first, when given) and returns true; otherwise leaves the delay
    // and gap that a "standard" override asks of the family's own answer.
    bool answer_override(const std::string &text, bool body, int64_t now,
                         const modem_command *record, int *delay, int *gap);
    void schedule_reply(const std::vector<std::string> &lines, const std::string &tail,
                        int delay_ms, int gap_ms, int64_t now);
    void schedule_later(const std::vector<std::pair<int, std::string>> &later);
    void release_due(int64_t now);
    void flush_output();
    void wake();
    void record_command(modem_command command);
    std::optional<modem_command> wait_impl(const std::string &prefix, int timeout_ms, size_t from,
                                           const std::atomic<bool> *cancel) const;
    void stop_control();
    void accept_loop();
    void serve_connection(int fd);
    std::string control_answer(const std::string &line);

    mutable std::mutex mu_;
    mutable std::condition_variable changed_;

    modem_family family_;
    std::vector<rule> rules_;
    bool echo_dropped_ = false;
    bool silent_ = false;
    bool garbage_ = false;

    // What the module itself holds; rebuilt by reboot().
    std::unique_ptr<module_session> session_;

    input_mode input_ = input_mode::command;
    std::string line_;
    bool skip_lf_ = false; // an LF right after a command's CR belongs to it
    bool lf_echo_ = false;
    size_t upload_left_ = 0;
    // The command that the body or upload being received belongs to.
    size_t body_record_ = 0;
    std::string body_command_;
    std::string body_;

    std::multimap<int64_t, std::string> timed_; // output by due time, stable per time
    int64_t last_reply_due_ = 0;
    bool holding_ = false;
    std::vector<std::string> held_; // answers kept back until release()
    std::string out_;
    bool peer_present_ = true;
    std::function<void()> bus_leave_;
    bool leave_due_ = false;
    std::vector<std::pair<int, std::string>> after_return_; // the update after a reboot

    std::vector<modem_command> records_;
    size_t next_index_ = 0;
    FILE *log_ = nullptr;

    int fd_ = -1;
    int wake_rd_ = -1, wake_wr_ = -1;
    std::atomic<bool> running_{false};
    std::atomic<bool> stopping_{false};
    std::thread thread_;

    std::mutex control_mu_;
    std::string control_path_;
    int control_listen_ = -1;
    int control_stop_rd_ = -1, control_stop_wr_ = -1;
    std::atomic<bool> control_closing_{false};
    std::thread control_thread_;
    std::vector<std::thread> connections_;
};

// Client of an emulator's control socket. Every call is one request and
// waits for its answer; false when the socket failed or the emulator refused
// (last_error() says why).
class modem_control {
public:
    modem_control() = default;
    ~modem_control();
    modem_control(const modem_control &) = delete;
    modem_control &operator=(const modem_control &) = delete;

    // Retries until the socket accepts or `timeout_ms` ran out.
    bool connect(const std::string &path, int timeout_ms = 2000);
    void close();
    const std::string &last_error() const { return error_; }

    bool set_reply(const std::string &match, const modem_reply &reply,
                   modem_match how = modem_match::exact);
    bool clear_replies();
    bool clear_replies(const std::string &match);
    bool inject_line(const std::string &line);
    bool inject_lines(const std::vector<std::string> &lines);
    bool inject_raw(const std::string &bytes);
    bool deliver_sms(const std::string &pdu, const std::string &number, const std::string &stamp,
                     const std::string &text);
    bool release();
    bool set_echo_dropped(bool dropped);
    bool set_silent(bool silent);
    bool set_garbage(bool garbage);
    bool set_family(modem_family family);
    bool reboot();
    bool set_log_file(const std::string &path);
    bool forget_commands();
    std::optional<std::vector<modem_command>> commands(size_t from = 0);
    std::optional<modem_command> wait_for_command(const std::string &prefix, int timeout_ms,
                                                  size_t from = 0);

private:
    // Sends one request line; collects the data lines before the final
    // "ok ..." (its words after "ok" in *result).
    bool request(const std::vector<std::string> &words, int timeout_ms,
                 std::vector<std::vector<std::string>> *data = nullptr,
                 std::vector<std::string> *result = nullptr);

    int fd_ = -1;
    std::string in_;
    std::string error_;
};

// A new pty in raw mode, so that nothing is echoed or translated before the
// daemon configures its side. Returns the master (close-on-exec) and the
// slave's path, or -1.
int open_modem_pty(std::string *slave_path);
