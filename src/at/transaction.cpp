#include "at/at.h"

#include "core/log.h"
#include "core/text.h"

#include <cstring>

namespace {

constexpr size_t COLLECT_KEEP = 98; // characters of collected text, before the separators

bool is_digit_line(const char *line) { return line[0] >= '0' && line[0] <= '9'; }

void report_if(uint8_t report, const at_member &m, int status, const char *text) {
    if (report)
        client_report(m.report_code, status, text);
}

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

// Parses the ending line and reports the outcome; the caller finishes.
int settle(const at_member &m, const char *line, uint8_t report, at_parse parse, void *ctx) {
    at_outcome out;
    out.result = 0;
    out.status = STATUS_OK;
    out.has_text = false;
    out.always_report = false;
    out.text[0] = '\0';
    if (parse != nullptr)
        parse(line, &out, ctx);
    if (report || out.always_report)
        client_report(m.report_code, out.status, out.has_text ? out.text : nullptr);
    return out.result;
}

int succeed(const at_member &m, const char *line, uint8_t report, at_parse parse, void *ctx) {
    int result = settle(m, line, report, parse, ctx);
    at_txn_finish();
    return result;
}

int fail(const at_member &m, uint8_t report, const char *text) {
    report_if(report, m, STATUS_FAIL, text);
    at_txn_finish();
    return -1;
}

} // namespace

void at_txn_finish() {
    daemon_state &s = state();
    s.at_state.store(AT_CLOSING, std::memory_order_release);
    // Let a line the receive thread is already pushing into resp_ring complete.
    sleep_for(0, 1000);
    resp_drain_to_urc();
    s.at_state.store(AT_IDLE, std::memory_order_release);
}

int at_transaction(const at_member &m, const char *cmd, uint8_t report, at_parse parse,
                   void *ctx) {
    daemon_state &s = state();
    s.resp_write_index.store(0, std::memory_order_relaxed);
    s.resp_ready_index.store(0, std::memory_order_release);
    s.resp_read_index.store(0, std::memory_order_relaxed);
    s.at_state.store(AT_COLLECTING, std::memory_order_release);
    s.at_passthrough.store(0, std::memory_order_release);

    char collected[100] = {};
    size_t collected_len = 0;

    if (at_send(cmd, strlen(cmd)) == -1) {
        s.at_state.store(AT_IDLE, std::memory_order_release);
        report_if(report || m.send_error_always_reported, m, STATUS_FAIL, "at send error!");
        return -1;
    }
    timeval start;
    gettimeofday(&start, nullptr);

    char line[RING_LINE_SIZE];
    for (;;) {
        memset(line, 0, sizeof line);
        if (ring_pop(resp_ring_view(), line, sizeof line)) {
            if (has_prefix(line, "OK")) {
                if (m.success == at_end::ok)
                    return succeed(m, line, report, parse, ctx);
                if (m.success == at_end::collect_ok)
                    return succeed(m, collected, report, parse, ctx);
                // Queries end on their result line; the OK after it is left for urc_ring.
            } else if ((m.success == at_end::prefix && m.prefix != nullptr &&
                        has_prefix(line, m.prefix)) ||
                       (m.success == at_end::digit_line && is_digit_line(line))) {
                return succeed(m, line, report, parse, ctx);
            } else if (m.event_end != nullptr && has_prefix(line, m.event_end)) {
                int result = settle(m, line, report, parse, ctx);
                urc_push(line);
                at_txn_finish();
                return result;
            } else if (m.info_prefix != nullptr && has_prefix(line, m.info_prefix)) {
                if (m.info != nullptr)
                    m.info(line, ctx);
            } else if (m.module_errors &&
                       (has_prefix(line, "+CME ERROR:") || has_prefix(line, "+CMS ERROR:"))) {
                report_if(report, m, STATUS_FAIL, nullptr);
                urc_push(line);
                at_txn_finish();
                return -1;
            } else if (m.plain_error && has_prefix(line, "ERROR")) {
                return fail(m, report, nullptr);
            } else if (has_prefix(line, "AT")) {
                // The module's echo of the command.
            } else if (m.success == at_end::collect_ok) {
                collect(collected, collected_len, line);
            } else {
                urc_push(line);
            }
        }
        if (elapsed_reached(start.tv_sec, start.tv_usec, m.timeout_ms))
            return fail(m, report, "time out!");
        sleep_for(0, 1000);
    }
}
