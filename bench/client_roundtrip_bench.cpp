// A client's round trip through "@phone_server": from writing the request to
// having the whole reply frame. 911 is answered by the server thread itself;
// 102 goes through a worker, the AT port and the module emulator on a pty.
// The floor is the same command written and its answer read straight through
// a pty of its own, with the emulator answering at once: what no daemon can
// beat. Everything runs in this process; the socket lives in its network
// namespace, a private one when this runs as root.
#include "at/at.h"
#include "client/client.h"
#include "core/daemon_state.h"
#include "sms/common.h"
#include "support/test_support.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

int g_client = -1;
std::vector<uint8_t> g_pending; // reply bytes read ahead of the frame being parsed
double g_median_102 = 0;
double g_median_floor = 0;

// False when another process already serves the name here.
bool server_name_free() {
    int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr;
    socklen_t len = server_address(&addr);
    bool free = s >= 0 && bind(s, reinterpret_cast<sockaddr *>(&addr), len) == 0;
    if (s >= 0)
        close(s);
    return free;
}

// The server thread listens a moment after it starts: connect once it does.
int connect_server() {
    sockaddr_un addr;
    socklen_t len = server_address(&addr);
    int s = -1;
    wait_until([&] {
        s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(s, reinterpret_cast<sockaddr *>(&addr), len) == 0)
            return true;
        close(s);
        s = -1;
        return false;
    }, 2000);
    return s;
}

// Sends one request and reads its reply; false on a broken stream or no reply in a second.
bool round_trip(const std::string &request, reply_frame *reply) {
    return send(g_client, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size()) &&
           next_frame(g_client, g_pending, reply, 1000);
}

double median(std::vector<double> v) {
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

void run(benchmark::State &st, uint16_t code, const char *expected) {
    const std::string request = request_bytes(code);
    std::vector<double> samples;
    for (auto _ : st) {
        reply_frame reply;
        auto start = std::chrono::steady_clock::now();
        bool ok = round_trip(request, &reply);
        auto done = std::chrono::steady_clock::now();
        if (!ok || reply.code != code || reply.status != STATUS_OK || std::string(reply.text) != expected) {
            st.SkipWithError("unexpected reply");
            break;
        }
        double secs = std::chrono::duration<double>(done - start).count();
        st.SetIterationTime(secs);
        samples.push_back(secs * 1000);
        // A worker replies before it frees the port; the next round starts after that.
        if (!wait_until([] { return state().worker_busy.load(std::memory_order_acquire) == 0; }, 1000, 0)) {
            st.SkipWithError("worker still busy");
            break;
        }
    }
    st.counters["median_ms"] = median(samples);
    if (code == 102)
        g_median_102 = median(samples);
}

void BM_RawPtyFloor(benchmark::State &st) {
    modem_emulator emu(modem_family::ec200t);
    std::string slave;
    int master = open_modem_pty(&slave);
    std::atomic<int32_t> fd{-1};
    if (master < 0 || serial_open(&fd, slave.c_str()) != 0 || !emu.start(master)) {
        st.SkipWithError("no pty");
        return;
    }
    std::vector<double> samples;
    for (auto _ : st) {
        auto start = std::chrono::steady_clock::now();
        std::string got;
        if (write(fd, "AT+CSQ\r\n", 8) != 8)
            break;
        while (got.find("+CSQ: 20,99\r\n") == std::string::npos) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 1000) <= 0)
                break;
            char buf[256];
            ssize_t n = read(fd, buf, sizeof buf);
            if (n <= 0)
                break;
            got.append(buf, static_cast<size_t>(n));
        }
        auto done = std::chrono::steady_clock::now();
        double secs = std::chrono::duration<double>(done - start).count();
        st.SetIterationTime(secs);
        samples.push_back(secs * 1000);
        // The closing OK is not part of the next round.
        while (got.find("OK\r\n") == std::string::npos) {
            char buf[256];
            ssize_t n = read(fd, buf, sizeof buf);
            if (n <= 0)
                break;
            got.append(buf, static_cast<size_t>(n));
        }
    }
    g_median_floor = median(samples);
    st.counters["median_ms"] = g_median_floor;
    emu.stop();
    close(fd);
    close(master);
}

void BM_VersionRoundTrip(benchmark::State &st) { run(st, 911, "ZOLVIN 4G SERVER V1.23"); }
void BM_SignalRoundTrip(benchmark::State &st) { run(st, 102, "20"); }

BENCHMARK(BM_VersionRoundTrip)->UseManualTime()->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly();
BENCHMARK(BM_SignalRoundTrip)->UseManualTime()->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly();
BENCHMARK(BM_RawPtyFloor)->UseManualTime()->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly();

} // namespace

int main(int argc, char **argv) {
    // A private network namespace (root only) keeps the abstract name apart from a daemon here.
    if (unshare(CLONE_NEWNET) != 0 && !server_name_free()) {
        printf("skipped: @phone_server is in use in this network namespace\n");
        return 0;
    }
    daemon_state_reset();
    state().family.store(&family_of(modem_family::ec200t));
    state().module_restarting.store(0);
    emulated_port port(modem_family::ec200t);
    // As in the daemon, the common thread takes what each exchange leaves
    // behind (the "OK" after a query's answer).
    pthread_t server, common;
    if (pthread_create(&server, nullptr, interface_thread, nullptr) != 0 || pthread_detach(server) != 0 ||
        pthread_create(&common, nullptr, common_thread, nullptr) != 0 || pthread_detach(common) != 0)
        return 1;
    g_client = connect_server();
    if (g_client < 0) {
        printf("skipped: cannot connect to @phone_server\n");
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (g_median_floor > 0)
        printf("102 round trip %.3f ms, floor %.3f ms: %.1f times the floor\n", g_median_102,
               g_median_floor, g_median_102 / g_median_floor);
    close(g_client);
    return 0;
}
