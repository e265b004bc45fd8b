#include "at/at.h"

#include "core/text.h"
#include "core/wait.h"

#include <cstring>

namespace {

constexpr size_t COLLECT_KEEP = 98; // characters of collected text, before the separators

bool is_digit_line(const char *line) { return line[0] >= '0' && line[0] <= '9'; }

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

int fail(const at_member &m, uint8_t report, const char *text) {
    if (report)
        client_report(m.report_code, STATUS_FAIL, text);
    at_finish();
    return -1;
}

// What one collected line does to the exchange, in the order of the tests.
enum class line_verdict {
    success,
    success_passed_on, // ends the wait and still reaches the common thread
    info,
    module_error,
    error,
    echo,        // the module repeating the command
    passed_over, // an "OK" before a query's result line
    collected,
    unsolicited,
};

line_verdict classify(const at_member &m, const char *line) {
    if (has_prefix(line, "OK"))
        // Queries end on their result line; the OK after it is left for urc_ring.
        return m.success == at_end::ok || m.success == at_end::collect_ok
                   ? line_verdict::success
                   : line_verdict::passed_over;
    if ((m.success == at_end::prefix && m.result_prefix != nullptr &&
         has_prefix(line, m.result_prefix)) ||
        (m.success == at_end::digit_line && is_digit_line(line)))
        return line_verdict::success;
    if (m.also_ends != nullptr && has_prefix(line, m.also_ends))
        return line_verdict::success_passed_on;
    if (m.info_prefix != nullptr && has_prefix(line, m.info_prefix))
        return line_verdict::info;
    if ((m.errors & AT_ERROR_MODULE) && at_module_error(line))
        return line_verdict::module_error;
    if ((m.errors & AT_ERROR_PLAIN) && has_prefix(line, "ERROR"))
        return line_verdict::error;
    if (has_prefix(line, "AT"))
        return line_verdict::echo;
    return m.success == at_end::collect_ok ? line_verdict::collected : line_verdict::unsolicited;
}

} // namespace

bool at_module_error(const char *line) {
    return has_prefix(line, "+CME ERROR:") || has_prefix(line, "+CMS ERROR:");
}

int at_transaction(const at_member &m, const char *cmd, uint8_t report, at_parse parse,
                   void *ctx) {
    at_begin();
    if (at_send(cmd, strlen(cmd)) == -1) {
        at_abort();
        if (report || m.send_error_always_reported)
            at_report_send_failure(m.report_code);
        return -1;
    }
    const int64_t deadline = monotonic_ms() + m.timeout_ms;
    char collected[100] = {};
    size_t collected_len = 0;
    char line[RING_LINE_SIZE];
    while (at_next_line(line, sizeof line, deadline)) {
        switch (classify(m, line)) {
        case line_verdict::success: {
            int result = settle(m, m.success == at_end::collect_ok ? collected : line, report,
                                parse, ctx);
            at_finish();
            return result;
        }
        case line_verdict::success_passed_on: {
            int result = settle(m, line, report, parse, ctx);
            urc_push(line);
            at_finish();
            return result;
        }
        case line_verdict::module_error:
            if (report)
                client_report(m.report_code, STATUS_FAIL, nullptr);
            // The common thread reports the module's error line itself.
            urc_push(line);
            at_finish();
            return -1;
        case line_verdict::error:
            return fail(m, report, nullptr);
        case line_verdict::info:
            if (m.info != nullptr)
                m.info(line, ctx);
            break;
        case line_verdict::echo:
        case line_verdict::passed_over:
            break;
        case line_verdict::collected:
            collect(collected, collected_len, line);
            break;
        case line_verdict::unsolicited:
            urc_push(line);
            break;
        }
    }
    return fail(m, report, "time out!");
}
