#include "at/at.h"

#include "core/text.h"
#include "core/wait.h"

#include <cstring>

namespace {

constexpr size_t COLLECT_KEEP = 98; // characters of collected text, before the separators

// Appends one line to the collected text; it never exceeds 99 characters.
void collect(char (&text)[100], size_t &used, const char *line) {
    size_t len = strlen(line);
    size_t room = used < COLLECT_KEEP ? COLLECT_KEEP - used : 0;
    size_t n = len < room ? len : room;
    if (n == 0)
        return;
    if (used > 0)
        text[used++] = ',';
    memcpy(text + used, line, n);
    used += n;
    text[used] = '\0';
}

// A request worker's exchange whose ending line is the common thread's as well
// (a "NO CARRIER" to ATA, a module error), held open until the reply is out.
thread_local bool t_hold_passed_on = false;
thread_local bool t_held = false;
thread_local at_heard t_held_end;

// Parses the ending line into the outcome; the caller finishes.
op_outcome settle(const at_member &m, const char *line, at_parse parse, void *ctx) {
    op_outcome out = outcome(m.report_code, STATUS_OK);
    if (parse != nullptr)
        parse(line, &out, ctx);
    return out;
}

} // namespace

bool at_module_error(const char *line) {
    return has_prefix(line, "+CME ERROR:") || has_prefix(line, "+CMS ERROR:");
}

bool at_digit_first(const char *line) { return line[0] >= '0' && line[0] <= '9'; }

bool at_start(const char *cmd, size_t len) {
    at_begin();
    if (at_send(cmd, len) != -1)
        return true;
    at_abort();
    return false;
}

at_judgement at_judge(const at_rules &r, const char *line) {
    for (size_t i = 0; i < r.row_count; ++i) {
        const at_row &row = r.rows[i];
        if ((row.prefix == nullptr || has_prefix(line, row.prefix)) &&
            (row.test == nullptr || row.test(line)))
            return {row.verdict, row.pass_on, &row};
    }
    if ((r.errors & AT_ERROR_MODULE) && at_module_error(line))
        return {at_verdict::failure, true, nullptr};
    if ((r.errors & AT_ERROR_PLAIN) && has_prefix(line, "ERROR"))
        return {at_verdict::failure, false, nullptr};
    bool echo = r.echo == nullptr ? has_prefix(line, "AT") : strncmp(line, r.echo, r.echo_len) == 0;
    return {echo ? at_verdict::passed_over : r.otherwise, false, nullptr};
}

at_verdict at_wait(const at_rules &r, int64_t deadline_ms, at_heard *h) {
    while (at_next_line(h->line, sizeof h->line, deadline_ms)) {
        static_cast<at_judgement &>(*h) = at_judge(r, h->line);
        if (h->verdict == at_verdict::unsolicited)
            urc_push(h->line);
        else if (h->verdict != at_verdict::passed_over)
            return h->verdict;
    }
    static_cast<at_judgement &>(*h) = {at_verdict::timed_out, false, nullptr};
    return at_verdict::timed_out;
}

void at_end(const at_heard &h) {
    if (h.pass_on && t_hold_passed_on) {
        // Still collecting meanwhile: no later line can overtake this one.
        t_held_end = h;
        t_held = true;
        return;
    }
    if (h.pass_on)
        urc_push(h.line);
    at_finish();
}

void at_hold_passed_on(bool on) { t_hold_passed_on = on; }

void at_settle() {
    if (!t_held)
        return;
    t_held = false;
    const bool hold = t_hold_passed_on;
    t_hold_passed_on = false;
    at_end(t_held_end);
    t_hold_passed_on = hold;
}

op_outcome at_transaction(const at_member &m, const char *cmd, at_parse parse, void *ctx) {
    if (!at_start(cmd, strlen(cmd)))
        return at_send_failure(m.report_code);
    const at_rules rules = m.rules();
    const int64_t deadline = monotonic_ms() + m.timeout_ms;
    char collected[100] = {};
    size_t collected_len = 0;
    at_heard h;
    for (;;) {
        switch (at_wait(rules, deadline, &h)) {
        case at_verdict::info:
            // A line of no row is one of a collecting member's answer.
            if (h.row == nullptr)
                collect(collected, collected_len, h.line);
            else if (m.info != nullptr)
                m.info(h.line, ctx);
            break;
        case at_verdict::success: {
            op_outcome out = settle(m, m.collects ? collected : h.line, parse, ctx);
            at_end(h);
            return out;
        }
        case at_verdict::failure:
            at_end(h);
            return outcome(m.report_code, STATUS_FAIL);
        default:
            at_finish();
            return outcome(m.report_code, STATUS_FAIL, "time out!");
        }
    }
}
