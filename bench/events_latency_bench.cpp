// How long an event takes from the module's line to the eighth subscriber of
// "@phone_events", against the time to the client on "@phone_server", in the
// same rounds: the real daemon on the simulated board (EC200T), a client and
// 8 subscribers connected, each read by a thread of its own that notes when
// the frame arrived. Each round the emulator is told to send "RING" and
// "+CLIP: ..." (event 1001 status 1, measured) and "NO CARRIER" (1001 status
// 2, which ends the round). Times run from just before the line is handed to
// the emulator's control socket. Run by hand as root, not in CI:
//
//   build/gcc/bench/events_latency_bench [ROUNDS]     (default 300)
#include "e2e/board.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using steady = std::chrono::steady_clock;
constexpr int SUBSCRIBERS = 8;

struct reader_state {
    std::mutex m;
    std::condition_variable cv;
    int finished = 0; // readers that have the current round's last frame
    bool failed = false;
};

// Reads `rounds` rounds from `c`: when each round's 1001/1 arrived, into `at`.
void read_rounds(client_conn &c, int rounds, std::vector<steady::time_point> &at, reader_state &st) {
    for (int r = 0; r < rounds; ++r) {
        bool measured = false;
        for (;;) {
            std::optional<reply_frame> f = c.next(WAIT);
            if (!f) {
                std::lock_guard<std::mutex> lock(st.m);
                st.failed = true;
                st.cv.notify_all();
                return;
            }
            if (f->code != 1001)
                continue;
            if (f->status == 1 && !measured) {
                at[static_cast<size_t>(r)] = steady::now();
                measured = true;
            } else if (f->status == 2 && measured) {
                break;
            }
        }
        std::lock_guard<std::mutex> lock(st.m);
        ++st.finished;
        st.cv.notify_all();
    }
}

double percentile(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    size_t i = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
    return v[std::min(i, v.size() - 1)];
}

void report(const char *what, const std::vector<double> &ms) {
    printf("%-36s median %.3f ms  p95 %.3f ms  max %.3f ms\n", what, percentile(ms, 0.5), percentile(ms, 0.95),
           percentile(ms, 1.0));
}

} // namespace

int main(int argc, char **argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 300;
    if (rounds < 1) {
        fprintf(stderr, "usage: events_latency_bench [ROUNDS]\n");
        return 2;
    }
    std::string reason = sim_board::skip_reason();
    if (!reason.empty()) {
        printf("skipped: %s\n", reason.c_str());
        return 0;
    }
    ready_board b;
    if (!b.start()) {
        fprintf(stderr, "the daemon did not come up with a client on the board\n");
        return 1;
    }
    std::vector<std::unique_ptr<client_conn>> subs;
    for (int i = 0; i < SUBSCRIBERS; ++i) {
        subs.push_back(std::make_unique<client_conn>(b.board.connect_subscriber(WAIT)));
        // Answered: it holds its slot and is subscribed.
        if (!subs.back()->valid() || subs.back()->ask(911) != VERSION) {
            fprintf(stderr, "subscriber %d was not served\n", i + 1);
            return 1;
        }
    }

    // Index 0 the client, 1..8 the subscribers in the order they connected.
    std::vector<std::vector<steady::time_point>> at(SUBSCRIBERS + 1,
                                                    std::vector<steady::time_point>(static_cast<size_t>(rounds)));
    std::vector<steady::time_point> injected(static_cast<size_t>(rounds));
    reader_state st;
    std::vector<std::thread> readers;
    readers.emplace_back(read_rounds, std::ref(*b.client), rounds, std::ref(at[0]), std::ref(st));
    for (int i = 0; i < SUBSCRIBERS; ++i)
        readers.emplace_back(read_rounds, std::ref(*subs[static_cast<size_t>(i)]), rounds,
                             std::ref(at[static_cast<size_t>(i) + 1]), std::ref(st));

    const std::vector<std::string> lines = {"RING", "+CLIP: \"13912345678\",129", "NO CARRIER"};
    int done = 0;
    for (; done < rounds; ++done) {
        injected[static_cast<size_t>(done)] = steady::now();
        if (!b.emu.inject_lines(lines)) {
            fprintf(stderr, "round %d: the emulator took no lines\n", done + 1);
            break;
        }
        std::unique_lock<std::mutex> lock(st.m);
        const int want = (done + 1) * (SUBSCRIBERS + 1);
        if (!st.cv.wait_for(lock, WAIT, [&] { return st.failed || st.finished >= want; }) || st.failed) {
            fprintf(stderr, "round %d: not every reader got its events in time\n", done + 1);
            break;
        }
    }
    // A reader still waiting ends with its connection.
    b.client->close();
    for (auto &s : subs)
        s->close();
    for (std::thread &t : readers)
        t.join();
    if (done < rounds)
        return 1;

    auto ms = [](steady::time_point from, steady::time_point to) {
        return std::chrono::duration<double, std::milli>(to - from).count();
    };
    std::vector<double> client, eighth, slowest, gap;
    for (size_t r = 0; r < static_cast<size_t>(rounds); ++r) {
        client.push_back(ms(injected[r], at[0][r]));
        eighth.push_back(ms(injected[r], at[SUBSCRIBERS][r]));
        steady::time_point last = at[1][r];
        for (int i = 2; i <= SUBSCRIBERS; ++i)
            last = std::max(last, at[static_cast<size_t>(i)][r]);
        slowest.push_back(ms(injected[r], last));
        gap.push_back(ms(at[0][r], at[SUBSCRIBERS][r]));
    }
    printf("%d rounds: module line (RING, +CLIP) -> event 1001 arrived\n", rounds);
    report("client (@phone_server)", client);
    report("eighth subscriber (@phone_events)", eighth);
    report("last of the 8 subscribers", slowest);
    report("eighth subscriber after the client", gap);
    return 0;
}
