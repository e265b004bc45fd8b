// How soon a transaction's caller has the module's answer: from the moment the
// module's final line is written to the pty until at_transaction returns.
#include "at/at.h"
#include "support/test_support.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <thread>

namespace {

const at_member QUERY = at_query(102, 350, "+CSQ:");
const at_member SETTER = at_setter(110, 300);

void run(benchmark::State &st, const at_member &m, const char *cmd, const char *answer) {
    fresh_state fresh;
    at_port port;
    port.start_rx();
    for (auto _ : st) {
        bool ok = false;
        std::thread caller([&] { ok = at_transaction(m, cmd).ok(); });
        port.module_reads("\n", 1000);
        auto sent = std::chrono::steady_clock::now();
        port.module_says(answer);
        caller.join();
        auto done = std::chrono::steady_clock::now();
        if (!ok) {
            st.SkipWithError("transaction failed");
            break;
        }
        st.SetIterationTime(std::chrono::duration<double>(done - sent).count());
        // Whatever the finish moved to the unsolicited ring is not part of the next round.
        while (urc_next(0) != "<none>") {
        }
    }
    port.stop_rx();
}

void BM_QueryAnswer(benchmark::State &st) { run(st, QUERY, "AT+CSQ\r\n", "\r\n+CSQ: 20,99\r\n"); }
void BM_SetterAnswer(benchmark::State &st) { run(st, SETTER, "AT+CREG=2\r\n", "\r\nOK\r\n"); }

BENCHMARK(BM_QueryAnswer)->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly();
BENCHMARK(BM_SetterAnswer)->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly();

} // namespace

BENCHMARK_MAIN();
