// The link check's rounds on a clock the test moves, with the probe, the
// re-assertions and the external program played by the test (a call's end
// waking the real thread is LinkCheckTest's); which datagrams the reply filter
// may accept at all is the icmp_reply fuzz target's.
#include "check/check.h"
#include "core/shell.h"
#include "support/test_support.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

namespace {

struct world {
    int64_t now = 1000, call_ends = 0, slept = 0;
    int probe = -1, reassert = 0, app = -1;
    const module_family *present = &family_of(modem_family::ec20);
    std::string log; // what the last round did
} w;

check_env fake_env() {
    check_env e{};
    e.clock = [] { return w.now; };
    e.wait_call_end = [](int64_t deadline) {
        if ((w.now = std::min(deadline, w.call_ends)) == w.call_ends)
            state().call_active.store(0);
    };
    e.sleep_until = [](int64_t deadline) { w.slept = deadline - std::exchange(w.now, deadline); };
    e.link_check = [] { return w.log += "probe ", w.probe; };
    e.reassert = [](link_reassert how) {
        w.log += how == link_reassert::network_device ? "netdevctl " : "qcrmcall ";
        return w.reassert;
    };
    e.app_running = [] { return w.app; };
    static const module_paths board;
    e.probe_family = [](const module_paths &) { return w.present; };
    e.paths = &board;
    e.start_app = [] { w.log += "app "; };
    return e;
}

class CheckRoundTest : public testing::Test {
protected:
    void SetUp() override {
        w = world{};
        state().family.store(&family_of(modem_family::ec200t));
        state().ping_disabled.store(0);
    }
    bool rounds(int n) {
        bool going = true;
        for (int i = 0; i < n && going; ++i) {
            w.log.clear();
            going = check_round(c, env);
        }
        return going;
    }
    fresh_state fresh;
    check_env env = fake_env();
    check_counters c;
};

TEST_F(CheckRoundTest, ProbeAndReassertionFailuresGiveUpAtTheTenthInARow) {
    EXPECT_TRUE(rounds(9));
    EXPECT_EQ(w.log + std::to_string(w.slept), "probe netdevctl 10000");
    w.probe = 0; // an answer resets both counts and the period
    EXPECT_TRUE(rounds(1));
    w.probe = -1;
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(w.slept, 600000);
    EXPECT_TRUE(rounds(8));
    EXPECT_FALSE(rounds(1));
    EXPECT_EQ(w.log + std::to_string(w.slept), "probe 10000"); // no re-assertion at the tenth

    c = check_counters{};
    state().ping_disabled.store(1);
    state().family.store(&family_of(modem_family::ec20));
    state().check_timeS.store(UINT32_MAX); // no overflow of the deadline
    w.reassert = -1;
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(w.slept, int64_t{UINT32_MAX} * 1000);
    EXPECT_TRUE(rounds(8));
    EXPECT_FALSE(rounds(1));
    EXPECT_EQ(w.log, "qcrmcall ");
}

TEST_F(CheckRoundTest, ExternalProgramRestartedThreeTimesInARowThenReset) {
    state().family.store(&family_of(modem_family::ec20));
    strcpy(state().app_name, "conn_app");
    EXPECT_TRUE(rounds(3));
    w.app = 0; // seen running: the count starts afresh
    EXPECT_TRUE(rounds(1));
    w.app = -1;
    EXPECT_TRUE(rounds(3));
    EXPECT_EQ(w.log, "probe app ");
    EXPECT_FALSE(rounds(1));
    c = check_counters{};
    w.present = &family_of(modem_family::ec200t); // another module: no restart, reset at once
    EXPECT_FALSE(rounds(1));
    EXPECT_EQ(w.log, "probe ");
}

TEST_F(CheckRoundTest, PassThroughAndCallsHoldOffTheModule) {
    state().at_passthrough.store(1);
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(w.log, "probe "); // the probes go on
    c.probe_failures = 0;
    state().ping_disabled.store(1);
    EXPECT_TRUE(rounds(CHECK_PASSTHROUGH_PERIODS - 1));
    EXPECT_EQ(state().at_passthrough.load(), 1);
    EXPECT_EQ(w.log, "");
    EXPECT_TRUE(rounds(2)); // the 201st period drops pass-through
    EXPECT_EQ(w.log, "netdevctl ");

    state().check_timeS.store(0); // still a second between rounds
    state().call_active.store(1);
    w.call_ends = w.now + 2 * CHECK_CALL_PAUSE_MS; // a flag nobody clears
    int64_t start = w.now;
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(w.now, start + CHECK_CALL_PAUSE_MS + CHECK_MIN_PERIOD_MS);
    EXPECT_EQ(state().call_active.load(), 0);
    env.sleep_until = [](int64_t) { state().call_active.store(1); }; // a call during the sleep
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(w.log, "");
}

TEST(CheckThreadTest, CancellationInItsSleepOrMidExchangeGivesThePortBack) {
    fresh_state fresh;
    emulated_port port(modem_family::ec200t);
    daemon_state &s = state();
    s.family.store(&family_of(modem_family::ec200t));
    module_paths paths;
    pthread_t tid;
    for (uint32_t period : {UINT32_MAX, 0u}) { // cancelled in its sleep, then mid-exchange
        s.check_timeS.store(period);
        port.module().set_reply("AT+QNETDEVCTL=1,1", modem_reply::ok().until_released());
        ASSERT_EQ(pthread_create(&tid, nullptr, check_thread, &paths), 0);
        if (period == 0) {
            ASSERT_TRUE(port.module().wait_for_command("AT+QNETDEVCTL=1,1", 5000).has_value());
        }
        pthread_cancel(tid);
        pthread_join(tid, nullptr);
        ASSERT_TRUE(s.at_mutex.try_lock());
        s.at_mutex.unlock();
    }
    port.module().release();
    EXPECT_EQ(s.module_reset_request.load(), 0);
}

// The data-call re-assertion meets a port that cannot be written: the client is
// told under 191 although nobody asked, and the steps after it stay silent.
TEST(CheckThreadTest, ADeadPortAtTheStatusQueryReachesTheClient) {
    fresh_state fresh;
    state().phase.store(module_phase::connected);
    state().module_restarting.store(0);
    sink_capture to_client;
    check_frames_to(to_client.sink());
    module_paths paths;
    EXPECT_LT(check_env_real(&paths).reassert(link_reassert::data_call), 0); // no port is open
    check_frames_to({});
    EXPECT_EQ(to_client.got, "191 1 at send error!|");
}

TEST(IcmpMessageTest, EchoRequestAndReplyFilter) {
    unsigned char m[ICMP_BUFFER_SIZE];
    memset(m, 0xaa, sizeof m);
    ASSERT_EQ(icmp_build_echo(m, sizeof m, 0x1234, 0xfedc, 56), 64u);
    const uint16_t head[4] = {8, 0, 0x1234, 0xfedc}; // type 8, code 0, host-order id and sequence
    EXPECT_EQ(memcmp(m + 4, head + 2, 4), 0);
    EXPECT_EQ(m[0] * 256 + m[1], 0x800);
    EXPECT_EQ(std::count(m + 8, m + 64, 0), 56);

    // An echo reply (type 0) with identifier 0x1234 and any sequence, behind a
    // 20-byte IP header, then behind a 60-byte one.
    unsigned char d[68] = {0x45};
    memcpy(d + 24, head + 2, 4);
    EXPECT_EQ(icmp_check_reply(d, 28, 0x1234), 0);
    EXPECT_EQ(icmp_check_reply(d, 28, 0x1235), -1); // another process's reply
    d[0] = 0x4f;
    memcpy(d + 64, head + 2, 4);
    memset(d + 24, 0, 4);
    EXPECT_EQ(icmp_check_reply(d, 68, 0x1234), 0);
}

// `icmp_seq` counts the sends.
TEST(ProbeTest, LoopbackAnswersAndFailuresNeitherSendNorWait) {
    fresh_state fresh;
    daemon_state &s = state();
    s.icmp_seq = 0xffff; // the wire carries its low 16 bits
    EXPECT_EQ(icmp_ping("lo", "127.0.0.1"), 0);
    EXPECT_EQ(icmp_ping("lo", "localhost"), 0);
    EXPECT_EQ(s.icmp_seq, 0x10001u);
    int64_t start = monotonic_ms();
    EXPECT_EQ(icmp_ping("lo", "no.such.host.invalid"), -1);
    EXPECT_EQ(icmp_ping("nosuchif0", "127.0.0.1"), -1);
    EXPECT_LT(monotonic_ms() - start, ICMP_REPLY_WAIT_MS);
    EXPECT_EQ(s.icmp_seq, 0x10001u);

    strcpy(s.ping_address[0], "no.such.host.invalid");
    strcpy(s.ping_address[2], "127.0.0.1");
    strcpy(s.ping_address[4], "127.0.0.2");
    EXPECT_EQ(link_check(), -1); // no interface known
    strcpy(s.net_if_name, "lo");
    EXPECT_EQ(link_check(), 0);
    EXPECT_EQ(s.icmp_seq, 0x10002u); // the third answered, the fifth was spared
    s.ping_address[2][0] = s.ping_address[4][0] = '\0';
    EXPECT_EQ(link_check(), -1);
    // Only what was sent is a probe: a name that does not resolve or an
    // interface that is not there sends nothing.
    EXPECT_EQ(stat_value("probes"), 3);
    EXPECT_EQ(stat_value("probe_failures"), 0);
}

} // namespace
