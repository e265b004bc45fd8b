#include "fota/fota.h"

#include "at/at.h"
#include "check/check.h"
#include "core/daemon_state.h"
#include "core/shell.h"
#include "core/text.h"
#include "core/wait.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// What differs between the module families.
struct fota_variant {
    bool takes_file; // and so accepts FILESTART
    const char *file_suffix; // after the announced size
    std::atomic<uint8_t> daemon_state::*after_download; // nullptr: nothing to tell
    bool watches_port; // may leave the bus without its END line
};

const fota_variant &variant_of(int32_t module_type) {
    static const fota_variant EC20 = {false, "", &daemon_state::fota_reopen, false};
    static const fota_variant EC200T = {true, "", nullptr, false};
    static const fota_variant EC200S = {true, ",1",
                                        &daemon_state::fota_reopen_watch, true};
    return module_type == MODULE_EC200T ? EC200T : module_type == MODULE_EC200S ? EC200S : EC20;
}

constexpr const char *FILE_START = "+QIND: \"FOTA\",\"FILESTART\"";
constexpr const char *URL_STARTS[] = {"+QIND: \"FOTA\",\"HTTPSTART\"", "+QIND: \"FOTA\",\"FTPSTART\""};

struct download_end {
    const char *prefix;
    size_t result_at; // the result's position; the error text runs from there
    const char *done;
    const char *error_name;
};
const download_end DOWNLOAD_ENDS[] = {
    {"+QIND: \"FOTA\",\"FILEEND\"", 24, "File download end", "file_err"},
    {"+QIND: \"FOTA\",\"HTTPEND\"", 24, "Http download end", "http_err"},
    {"+QIND: \"FOTA\",\"FTPEND\"", 23, "Ftp download end", "ftp_err"},
};

constexpr const char *UPDATE_START = "+QIND: \"FOTA\",\"START\"";
constexpr const char *UPDATING = "+QIND: \"FOTA\",\"UPDATING\"";
constexpr size_t UPDATING_PERCENT_AT = 25;
constexpr const char *UPDATE_END = "+QIND: \"FOTA\",\"END\",0";

void report(int status, const char *text) { client_report(FOTA_CODE, status, text); }

using step = fota_step;

// Lines every phase treats alike; false when the phase must look at the line.
bool common_line(const char *line, step *s, fota_line *out) {
    if (has_prefix(line, "OK") || has_prefix(line, "AT")) {
        *s = step::waiting; // the answer to the command, and its echo
    } else if (has_prefix(line, "ERROR")) {
        out->status = STATUS_FAIL;
        *s = step::failed;
    } else {
        return false;
    }
    return true;
}

step start_line(const char *line, const fota_variant &v, fota_line *out) {
    step s;
    if (common_line(line, &s, out))
        return s;
    bool accepted = v.takes_file && has_prefix(line, FILE_START);
    for (const char *start : URL_STARTS)
        accepted = accepted || has_prefix(line, start);
    if (accepted)
        return step::next_phase;
    out->unsolicited = true;
    return step::waiting;
}

step download_line(const char *line, const fota_variant &v, fota_line *out) {
    step s;
    if (common_line(line, &s, out))
        return s;
    for (const download_end &end : DOWNLOAD_ENDS) {
        if (!has_prefix(line, end.prefix))
            continue;
        const char *result = strlen(line) > end.result_at ? line + end.result_at : "";
        if (result[0] != '0') {
            out->status = STATUS_FAIL;
            text_format(out->text, sizeof out->text, "%s = %s", end.error_name, result);
            return step::failed;
        }
        out->status = STATUS_PROGRESS;
        text_set(out->text, end.done);
        out->download_told = v.after_download != nullptr;
        return step::next_phase;
    }
    out->unsolicited = true;
    return step::waiting;
}

// Progress lines restart the phase's timer (`next_phase`); END finishes it.
step update_line(const char *line, fota_line *out) {
    step s;
    if (common_line(line, &s, out))
        return s;
    if (has_prefix(line, UPDATE_START)) {
        out->status = STATUS_PROGRESS;
        text_set(out->text, "Fota start");
        return step::next_phase;
    }
    if (has_prefix(line, UPDATING)) {
        const char *percent = strlen(line) > UPDATING_PERCENT_AT ? line + UPDATING_PERCENT_AT : "";
        out->status = STATUS_PROGRESS;
        text_format(out->text, sizeof out->text, "Fota updating %s%%", percent);
        return step::next_phase;
    }
    if (has_prefix(line, UPDATE_END)) {
        out->status = STATUS_PROGRESS;
        text_set(out->text, "Fota end");
        return step::done;
    }
    out->unsolicited = true;
    return step::waiting;
}

step line_step(fota_phase phase, const char *line, const fota_variant &v, fota_line *out) {
    switch (phase) {
    case fota_phase::start:
        return start_line(line, v, out);
    case fota_phase::download:
        return download_line(line, v, out);
    default:
        return update_line(line, out);
    }
}

// Carries out what a line of the phase asks for.
step take_line(fota_phase phase, const char *line, const fota_variant &v) {
    fota_line out;
    step s = line_step(phase, line, v, &out);
    if (out.status >= 0)
        report(out.status, out.text);
    if (out.unsolicited)
        urc_push(line);
    if (out.download_told)
        supervisor_request(state().*v.after_download, 1);
    return s;
}

// Takes lines until the deadline, or until one ends the phase.
template <typename F> step lines_until(int64_t deadline_ms, F on_line) {
    char line[RING_LINE_SIZE];
    while (at_next_line(line, sizeof line, deadline_ms)) {
        step s = on_line(line);
        if (s != step::waiting)
            return s;
    }
    return step::waiting;
}

step timed_out() {
    report(STATUS_FAIL, "time out!");
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
bool image_open(const char *path, const client_peer &peer, image_file *f) {
    f->fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat st;
    if (f->fd < 0 || fstat(f->fd, &st) != 0 || !S_ISREG(st.st_mode) || !peer_may_read(st, peer)) {
        report(STATUS_FAIL, "file not found!");
        return false;
    }
    f->size = static_cast<long long>(st.st_size);
    if (f->size < 2) {
        report(STATUS_FAIL, "file is too small!");
        return false;
    }
    return true;
}

// Pushes the image at the paced rate, taking the module's lines meanwhile.
step push_file(image_file &f, const fota_variant &v, size_t chunk_size, int64_t pause_ms,
               int64_t end_limit_ms) {
    char buf[FOTA_CHUNK_MAX];
    long long sent = 0;
    long long last_percent = 0;
    while (sent < f.size) {
        ssize_t n = read(f.fd, buf, chunk_size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            // The module still waits for the bytes it was promised.
            report(STATUS_FAIL, n < 0 ? "file read error!" : "file shorter than its size!");
            return step::failed;
        }
        if (at_send(buf, static_cast<size_t>(n)) == -1) {
            at_report_send_failure(FOTA_CODE);
            return step::failed;
        }
        sent += n;
        long long percent = sent * 100 / f.size;
        if (percent > last_percent) {
            last_percent = percent;
            char text[32];
            text_format(text, sizeof text, "File downloading %lld%%", percent);
            report(STATUS_PROGRESS, text);
        }
        // The pause is the wait for the module's lines: one deadline, however
        // many lines come meanwhile.
        step s = lines_until(monotonic_ms() + pause_ms,
                             [&](const char *line) { return take_line(fota_phase::download, line, v); });
        if (s != step::waiting)
            return s;
    }
    step s = lines_until(monotonic_ms() + end_limit_ms,
                         [&](const char *line) { return take_line(fota_phase::download, line, v); });
    return s == step::waiting ? timed_out() : s;
}

step update_phase(const fota_variant &v, int64_t limit_ms, int64_t port_watch_ms) {
    daemon_state &s = state();
    int64_t deadline = monotonic_ms() + limit_ms;
    for (;;) {
        // The EC200S can only be watched through the supervisor's word.
        int64_t wait_until = v.watches_port ? monotonic_ms() + port_watch_ms : deadline;
        char line[RING_LINE_SIZE];
        if (at_next_line(line, sizeof line, wait_until < deadline ? wait_until : deadline)) {
            step st = take_line(fota_phase::update, line, v);
            if (st == step::next_phase)
                deadline = monotonic_ms() + limit_ms;
            else if (st != step::waiting)
                return st;
        }
        if (v.watches_port) {
            int32_t port = s.fota_port_status.load(std::memory_order_acquire);
            if (port > 0) {
                report(STATUS_PROGRESS, "Fota end");
                return step::done;
            }
            if (port < 0) {
                report(STATUS_FAIL, nullptr);
                return step::failed;
            }
        }
        if (monotonic_ms() >= deadline)
            return timed_out();
    }
}

// The phases after the command went out; the transaction is open.
step run_phases(image_file *file, const fota_variant &v, size_t chunk_size, int64_t pause_ms,
                const fota_limits &limits, int64_t update_limit_ms) {
    const bool file_mode = file != nullptr;
    const int64_t sent_at = monotonic_ms();
    step st = lines_until(sent_at + limits.start_ms,
                          [&](const char *line) { return take_line(fota_phase::start, line, v); });
    if (st == step::waiting)
        return timed_out();
    if (st == step::failed)
        return st;
    if (file_mode) {
        st = push_file(*file, v, chunk_size, pause_ms, limits.file_end_ms);
    } else {
        st = lines_until(sent_at + limits.url_end_ms,
                         [&](const char *line) { return take_line(fota_phase::download, line, v); });
        if (st == step::waiting)
            st = timed_out();
    }
    if (st != step::next_phase)
        return st;
    if (v.watches_port)
        state().fota_port_status.store(0, std::memory_order_release);
    return update_phase(v, update_limit_ms, limits.port_watch_ms);
}

} // namespace

fota_step fota_line_step(fota_phase phase, const char *line, int32_t module_type, fota_line *out) {
    *out = fota_line{};
    return line_step(phase, line, variant_of(module_type), out);
}

int64_t fota_update_limit_ms(int32_t module_type) {
    switch (module_type) {
    case MODULE_EC200T:
        return 10000;
    case MODULE_EC200S:
        return 1200000;
    default:
        return 120000;
    }
}

int fota_update(int mode, const char *source, int chunk_size, int64_t chunk_delay_us,
                const client_peer &peer, const fota_limits &limits) {
    daemon_state &s = state();
    const int32_t type = s.module_type.load(std::memory_order_acquire);
    const fota_variant &v = variant_of(type);
    const bool file_mode = mode == 0;
    // A URL goes into the command line.
    if (chunk_size < 1 || chunk_delay_us < 0 || (file_mode && !v.takes_file) ||
        (!file_mode && !at_text_ok(source))) {
        client_report(FOTA_CODE, STATUS_BAD_PARAM, nullptr);
        return -1;
    }
    image_file file;
    if (file_mode && !image_open(source, peer, &file))
        return -1;

    // The link check must not touch the module while it takes its new firmware.
    check_thread_stop();
    run_shell(s.ifdown_cmd);

    // A URL can be as long as a request field.
    char cmd[FIELD_SIZE + 32];
    if (file_mode)
        text_format(cmd, sizeof cmd, "AT+QFOTADL=\"FILE:%lld\"%s\r\n", file.size, v.file_suffix);
    else
        text_format(cmd, sizeof cmd, "AT+QFOTADL=\"%s\"\r\n", source);
    at_begin();
    if (at_send(cmd, strlen(cmd)) == -1) {
        at_abort();
        at_report_send_failure(FOTA_CODE);
        return -1;
    }
    // From here the module may reboot at any time; every end below hands it
    // to the supervisor, whose reset or re-open clears the mark.
    s.fota_active.store(1, std::memory_order_release);
    const size_t chunk = static_cast<size_t>(chunk_size < FOTA_CHUNK_MAX ? chunk_size : FOTA_CHUNK_MAX);
    const int64_t update_limit = limits.update_ms >= 0 ? limits.update_ms : fota_update_limit_ms(type);
    // Whole milliseconds, but a pause that was asked for is never dropped.
    const int64_t pause_ms = (chunk_delay_us + 999) / 1000;
    step st = run_phases(file_mode ? &file : nullptr, v, chunk, pause_ms, limits, update_limit);
    at_finish();
    if (st == step::done) {
        supervisor_request(s.fota_done, 1);
        return 0;
    }
    // The module is somewhere in its update: only a power cycle brings it back for sure.
    supervisor_request(s.module_reset_request, 1);
    return -1;
}
