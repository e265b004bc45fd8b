#include "fota/fota.h"

#include "at/at.h"
#include "check/check.h"
#include "core/daemon_state.h"
#include "core/shell.h"
#include "core/text.h"
#include "core/wait.h"

#include <cerrno>
#include <cstring>
#include <iterator>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// What differs between the module families.
using fota_variant = family_fota;

// The module may leave the bus after its update without an END line.
bool watches_port(const fota_variant &v) {
    return v.after_download == fota_after_download::reopen_watch;
}

using step = fota_step;

// The tags of the update's own lines; the download ends index DOWNLOAD_ENDS.
enum fota_tag : int { FILE_END, HTTP_END, FTP_END, STARTED, UPDATE_START, UPDATING, UPDATE_END };

struct download_end {
    size_t result_at; // the result's position; the error text runs from there
    const char *done;
    const char *error_name;
};
const download_end DOWNLOAD_ENDS[] = {
    {24, "File download end", "file_err"},
    {24, "Http download end", "http_err"},
    {23, "Ftp download end", "ftp_err"},
};

const char *end_result(const char *line, int tag) {
    size_t at = DOWNLOAD_ENDS[tag].result_at;
    return strlen(line) > at ? line + at : "";
}
template <int TAG> bool end_ok(const char *line) { return end_result(line, TAG)[0] == '0'; }

constexpr size_t UPDATING_PERCENT_AT = 25;

constexpr at_row COMMAND_OK = {"OK", nullptr, at_verdict::passed_over};
// A family that takes no file reads these rows without the last.
constexpr at_row START_ROWS[] = {
    COMMAND_OK,
    {"+QIND: \"FOTA\",\"HTTPSTART\"", nullptr, at_verdict::success, STARTED},
    {"+QIND: \"FOTA\",\"FTPSTART\"", nullptr, at_verdict::success, STARTED},
    {"+QIND: \"FOTA\",\"FILESTART\"", nullptr, at_verdict::success, STARTED},
};
constexpr at_row DOWNLOAD_ROWS[] = {
    COMMAND_OK,
    {"+QIND: \"FOTA\",\"FILEEND\"", end_ok<FILE_END>, at_verdict::success, FILE_END},
    {"+QIND: \"FOTA\",\"FILEEND\"", nullptr, at_verdict::failure, FILE_END},
    {"+QIND: \"FOTA\",\"HTTPEND\"", end_ok<HTTP_END>, at_verdict::success, HTTP_END},
    {"+QIND: \"FOTA\",\"HTTPEND\"", nullptr, at_verdict::failure, HTTP_END},
    {"+QIND: \"FOTA\",\"FTPEND\"", end_ok<FTP_END>, at_verdict::success, FTP_END},
    {"+QIND: \"FOTA\",\"FTPEND\"", nullptr, at_verdict::failure, FTP_END},
};
// Progress lines are information: they restart the phase's timer.
constexpr at_row UPDATE_ROWS[] = {
    COMMAND_OK,
    {"+QIND: \"FOTA\",\"START\"", nullptr, at_verdict::info, UPDATE_START},
    {"+QIND: \"FOTA\",\"UPDATING\"", nullptr, at_verdict::info, UPDATING},
    {"+QIND: \"FOTA\",\"END\",0", nullptr, at_verdict::success, UPDATE_END},
};

// Every phase ends on any error line: the module gave the update up.
at_rules phase_rules(fota_phase phase, const fota_variant &v) {
    switch (phase) {
    case fota_phase::start:
        return {START_ROWS, v.takes_file ? 4u : 3u, AT_ERRORS_ALL};
    case fota_phase::download:
        return {DOWNLOAD_ROWS, std::size(DOWNLOAD_ROWS), AT_ERRORS_ALL};
    default:
        return {UPDATE_ROWS, std::size(UPDATE_ROWS), AT_ERRORS_ALL};
    }
}

// Where the update's frames go, each as it happens: the requester's stream.
struct update_reply {
    reply_sink replies;
};

void report(update_reply &r, int status, const char *text) {
    r.replies(outcome(CODE_FOTA, status, text));
}

// What the update makes of a line as the engine judged it.
step reading(const at_judgement &j, const char *line, const fota_variant &v, fota_line *out) {
    if (j.verdict == at_verdict::unsolicited || j.verdict == at_verdict::passed_over) {
        out->unsolicited = j.verdict == at_verdict::unsolicited;
        return step::waiting;
    }
    if (j.row == nullptr) {
        // "ERROR", or a module error, which the common thread reports as well.
        out->status = STATUS_FAIL;
        out->unsolicited = j.pass_on;
        return step::failed;
    }
    const int tag = j.row->tag;
    switch (tag) {
    case STARTED:
        return step::next_phase;
    case UPDATE_START:
        out->status = STATUS_PROGRESS;
        text_set(out->text, "Fota start");
        return step::next_phase;
    case UPDATING: {
        const char *percent = strlen(line) > UPDATING_PERCENT_AT ? line + UPDATING_PERCENT_AT : "";
        out->status = STATUS_PROGRESS;
        text_format(out->text, sizeof out->text, "Fota updating %s%%", percent);
        return step::next_phase;
    }
    case UPDATE_END:
        out->status = STATUS_PROGRESS;
        text_set(out->text, "Fota end");
        return step::done;
    default: // a download end
        if (j.verdict == at_verdict::failure) {
            out->status = STATUS_FAIL;
            text_format(out->text, sizeof out->text, "%s = %s", DOWNLOAD_ENDS[tag].error_name,
                        end_result(line, tag));
            return step::failed;
        }
        out->status = STATUS_PROGRESS;
        text_set(out->text, DOWNLOAD_ENDS[tag].done);
        out->download_told = v.after_download != fota_after_download::nothing;
        return step::next_phase;
    }
}

// Carries out what a line of the phase asks for.
step take_line(const at_heard &h, const fota_variant &v, update_reply &r) {
    fota_line out;
    step s = reading(h, h.line, v, &out);
    if (out.status >= 0)
        report(r, out.status, out.text);
    if (out.unsolicited)
        urc_push(h.line);
    if (out.download_told) {
        // The supervisor re-opens the port, and watches it when asked to.
        daemon_state &ds = state();
        supervisor_request(watches_port(v) ? ds.fota_reopen_watch : ds.fota_reopen, 1);
    }
    return s;
}

// The start and download phases end on their first line that is not passed
// over or unsolicited; `waiting` when the deadline came first.
step phase_wait(fota_phase phase, const fota_variant &v, int64_t deadline_ms, update_reply &r) {
    at_heard h;
    if (at_wait(phase_rules(phase, v), deadline_ms, &h) == at_verdict::timed_out)
        return step::waiting;
    return take_line(h, v, r);
}

step timed_out(update_reply &r) {
    report(r, STATUS_FAIL, "time out!");
    return step::failed;
}

// The image file, open for reading, with the size announced to the module.
struct image_file {
    int fd = -1;
    long long size = 0;
    ~image_file() {
        if (fd >= 0)
            close(fd);
    }
};

// Whether the file's mode bits let `peer` read it, the first class it belongs
// to deciding (owner, then group, then others), as the kernel would.
bool peer_may_read(const struct stat &st, const client_peer &peer) {
    if (peer.uid == 0)
        return true;
    if (peer.uid == st.st_uid)
        return (st.st_mode & S_IRUSR) != 0;
    bool member = peer.gid == st.st_gid;
    for (size_t i = 0; i < peer.group_count && i < CLIENT_GROUPS_MAX && !member; ++i)
        member = peer.groups[i] == st.st_gid;
    if (member)
        return (st.st_mode & S_IRGRP) != 0;
    return (st.st_mode & S_IROTH) != 0;
}

// Reports why the file cannot be sent; false then. The daemon opens it as
// root: a link put in the client's way is not followed, a FIFO or device does
// not hold the worker or act on its opening, and the client learns nothing of
// a file it could not read itself.
bool image_open(const char *path, const client_peer &peer, image_file *f, update_reply &r) {
    f->fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat st;
    if (f->fd < 0 || fstat(f->fd, &st) != 0 || !S_ISREG(st.st_mode) || !peer_may_read(st, peer)) {
        report(r, STATUS_FAIL, "file not found!");
        return false;
    }
    f->size = static_cast<long long>(st.st_size);
    if (f->size < 2) {
        report(r, STATUS_FAIL, "file is too small!");
        return false;
    }
    return true;
}

// Pushes the image at the paced rate, taking the module's lines meanwhile.
step push_file(image_file &f, const fota_variant &v, size_t chunk_size, int64_t pause_ms,
               int64_t end_limit_ms, update_reply &r) {
    char buf[FOTA_CHUNK_MAX];
    long long sent = 0;
    long long last_percent = 0;
    while (sent < f.size) {
        ssize_t n = read(f.fd, buf, chunk_size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            // The module still waits for the bytes it was promised.
            report(r, STATUS_FAIL, n < 0 ? "file read error!" : "file shorter than its size!");
            return step::failed;
        }
        if (at_send(buf, static_cast<size_t>(n)) == -1) {
            r.replies(at_send_failure(CODE_FOTA));
            return step::failed;
        }
        sent += n;
        long long percent = sent * 100 / f.size;
        if (percent > last_percent) {
            last_percent = percent;
            char text[32];
            text_format(text, sizeof text, "File downloading %lld%%", percent);
            report(r, STATUS_PROGRESS, text);
        }
        // The pause is the wait for the module's lines: one deadline, however
        // many lines come meanwhile.
        step s = phase_wait(fota_phase::download, v, monotonic_ms() + pause_ms, r);
        if (s != step::waiting)
            return s;
    }
    step s = phase_wait(fota_phase::download, v, monotonic_ms() + end_limit_ms, r);
    return s == step::waiting ? timed_out(r) : s;
}

step update_phase(const fota_variant &v, int64_t limit_ms, int64_t port_watch_ms, update_reply &r) {
    daemon_state &s = state();
    const at_rules rules = phase_rules(fota_phase::update, v);
    int64_t deadline = monotonic_ms() + limit_ms;
    for (;;) {
        // A module that is watched can only be followed through the supervisor's word.
        int64_t wait_until = watches_port(v) ? monotonic_ms() + port_watch_ms : deadline;
        at_heard h;
        if (at_wait(rules, wait_until < deadline ? wait_until : deadline, &h) != at_verdict::timed_out) {
            step st = take_line(h, v, r);
            if (st == step::next_phase)
                deadline = monotonic_ms() + limit_ms;
            else if (st != step::waiting)
                return st;
        }
        if (watches_port(v)) {
            int32_t port = s.fota_port_status.load(std::memory_order_acquire);
            if (port > 0) {
                report(r, STATUS_PROGRESS, "Fota end");
                return step::done;
            }
            if (port < 0) {
                report(r, STATUS_FAIL, nullptr);
                return step::failed;
            }
        }
        if (monotonic_ms() >= deadline)
            return timed_out(r);
    }
}

// The phases after the command went out; the transaction is open.
step run_phases(image_file *file, const fota_variant &v, size_t chunk_size, int64_t pause_ms,
                const fota_limits &limits, int64_t update_limit_ms, update_reply &r) {
    const bool file_mode = file != nullptr;
    const int64_t sent_at = monotonic_ms();
    step st = phase_wait(fota_phase::start, v, sent_at + limits.start_ms, r);
    if (st == step::waiting)
        return timed_out(r);
    if (st == step::failed)
        return st;
    if (file_mode) {
        st = push_file(*file, v, chunk_size, pause_ms, limits.file_end_ms, r);
    } else {
        st = phase_wait(fota_phase::download, v, sent_at + limits.url_end_ms, r);
        if (st == step::waiting)
            st = timed_out(r);
    }
    if (st != step::next_phase)
        return st;
    if (watches_port(v))
        state().fota_port_status.store(0, std::memory_order_release);
    return update_phase(v, update_limit_ms, limits.port_watch_ms, r);
}

} // namespace

fota_step fota_line_step(fota_phase phase, const char *line, const module_family &family,
                         fota_line *out) {
    *out = fota_line{};
    return reading(at_judge(phase_rules(phase, family.fota), line), line, family.fota, out);
}

op_outcome fota_update(int mode, const char *source, int chunk_size, int64_t chunk_delay_us,
                       const client_peer &peer, const reply_sink &replies,
                       const fota_limits &limits) {
    daemon_state &s = state();
    const fota_variant &v = current_family().fota;
    const bool file_mode = mode == 0;
    // A URL goes into the command line.
    if (chunk_size < 1 || chunk_delay_us < 0 || (file_mode && !v.takes_file) ||
        (!file_mode && !at_text_ok(source)))
        return outcome(CODE_FOTA, STATUS_BAD_PARAM);
    update_reply r{replies};
    image_file file;
    if (file_mode && !image_open(source, peer, &file, r))
        return outcome(CODE_FOTA, STATUS_NONE);

    // The link check must not touch the module while it takes its new firmware.
    check_thread_stop();
    run_shell(s.ifdown_cmd);

    // A URL can be as long as a request field.
    char cmd[FIELD_SIZE + 32];
    if (file_mode)
        text_format(cmd, sizeof cmd, "AT+QFOTADL=\"FILE:%lld\"%s\r\n", file.size, v.file_suffix);
    else
        text_format(cmd, sizeof cmd, "AT+QFOTADL=\"%s\"\r\n", source);
    if (!at_start(cmd, strlen(cmd)))
        return at_send_failure(CODE_FOTA);
    // From here the module may reboot at any time; every end below hands it
    // to the supervisor, whose reset or re-open clears the mark.
    s.fota_active.store(1, std::memory_order_release);
    const size_t chunk = static_cast<size_t>(chunk_size < FOTA_CHUNK_MAX ? chunk_size : FOTA_CHUNK_MAX);
    const int64_t update_limit = limits.update_ms >= 0 ? limits.update_ms : v.update_silence_ms;
    // Whole milliseconds, but a pause that was asked for is never dropped.
    const int64_t pause_ms = (chunk_delay_us + 999) / 1000;
    step st = run_phases(file_mode ? &file : nullptr, v, chunk, pause_ms, limits, update_limit, r);
    at_finish();
    if (st == step::done) {
        // The supervisor's 561 event follows "Fota end".
        supervisor_request(s.fota_done, 1);
        return outcome(CODE_FOTA, STATUS_NONE);
    }
    // The module is somewhere in its update: only a power cycle brings it back for sure.
    supervisor_request(s.module_reset_request, 1);
    return outcome(CODE_FOTA, STATUS_NONE);
}
