// The check thread's rounds on a clock the test moves, with the probe, the
// re-assertions and the external program played by the test; then the real
// waits and the real thread against the modem emulator.
#include "check/check.h"
#include "core/daemon_state.h"
#include "support/at_port.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <thread>

namespace {

struct world {
    int64_t now = 0;
    int64_t call_ends = 0;  // when the call in progress clears call_active
    int64_t last_sleep = 0; // length of the last period slept
    std::deque<int> probes; // results of the coming link checks (-1 when empty)
    int reassert_result = 0;
    int app_is_running = -1;
    int probed_type = MODULE_EC20;
    std::string log; // what was done to the module and the program
};
world w;

check_env fake_env() {
    check_env env{};
    env.clock = [] { return w.now; };
    env.wait_call_end = [](int64_t deadline) {
        w.log += "pause ";
        w.now = std::min(deadline, w.call_ends);
        if (w.now == w.call_ends)
            state().call_active.store(0);
    };
    env.sleep_until = [](int64_t deadline) {
        w.last_sleep = deadline - w.now;
        w.now = deadline;
    };
    env.link_check = [] {
        w.log += "probe ";
        int r = w.probes.empty() ? -1 : w.probes.front();
        if (!w.probes.empty())
            w.probes.pop_front();
        return r;
    };
    env.reassert_ec200 = [] {
        w.log += "qnetdevctl ";
        return w.reassert_result;
    };
    env.reassert_ec20 = [] {
        w.log += "qcrmcall ";
        return w.reassert_result;
    };
    env.app_running = [] { return w.app_is_running; };
    env.probe_type = [](const module_paths &) { return w.probed_type; };
    env.start_app = [] { w.log += "app "; };
    return env;
}

class CheckRoundTest : public testing::Test {
protected:
    void SetUp() override {
        w = world{};
        w.now = 1000;
        state().module_type.store(MODULE_EC200T);
        state().ping_disabled.store(0);
    }
    // Runs `n` rounds; the log of the last one.
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

TEST_F(CheckRoundTest, FailedProbesReassertAndTheTenthGivesUpUnlessOneAnswers) {
    for (int i = 1; i < CHECK_FAILURE_LIMIT; ++i) {
        ASSERT_TRUE(rounds(1));
        EXPECT_EQ(w.log, "probe qnetdevctl ");
        EXPECT_EQ(w.last_sleep, i == 1 ? 600000 : CHECK_RETRY_MS);
    }
    w.probes = {0}; // an answer after nine failures starts afresh
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(w.log, "probe ");
    EXPECT_EQ(c.probe_failures, 0);
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(w.last_sleep, 600000);
    EXPECT_TRUE(rounds(8));
    EXPECT_FALSE(rounds(1));
    EXPECT_EQ(w.log, "probe "); // the tenth gives up without touching the module
}

TEST_F(CheckRoundTest, ReassertionFailuresPerFamilyGiveUpAtTheTenth) {
    state().ping_disabled.store(1);
    state().check_timeS.store(30);
    w.reassert_result = -1;
    EXPECT_TRUE(rounds(9));
    EXPECT_EQ(w.log, "qnetdevctl ");
    EXPECT_EQ(w.last_sleep, CHECK_RETRY_MS);
    w.reassert_result = 0;
    EXPECT_TRUE(rounds(1));
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(w.last_sleep, 30000); // success returns to the configured period
    EXPECT_EQ(w.log, "qnetdevctl ");

    state().module_type.store(MODULE_EC20);
    w.reassert_result = -1;
    EXPECT_TRUE(rounds(9));
    EXPECT_EQ(w.log, "qcrmcall ");
    EXPECT_FALSE(rounds(1));

    state().module_type.store(7); // no family: nothing to re-assert
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(w.log, "");
}

TEST_F(CheckRoundTest, ExternalProgramRestartedThreeTimesThenTheModuleIsReset) {
    state().module_type.store(MODULE_EC20);
    strcpy(state().app_name, "conn_app");
    EXPECT_TRUE(rounds(3));
    EXPECT_EQ(c.app_restarts, 3);
    EXPECT_EQ(w.log, "probe app ");
    w.app_is_running = 0; // seen running: the count starts afresh
    EXPECT_TRUE(rounds(1));
    w.app_is_running = -1;
    EXPECT_TRUE(rounds(3));
    EXPECT_FALSE(rounds(1));
    EXPECT_EQ(w.log, "probe ");

    c = check_counters{};
    w.probed_type = MODULE_EC200T; // another module came up: reset at once
    EXPECT_FALSE(rounds(1));
    EXPECT_EQ(w.log, "probe ");
}

TEST_F(CheckRoundTest, PassThroughHoldsOffTheModuleFor200Periods) {
    state().ping_disabled.store(1);
    state().at_passthrough.store(1);
    EXPECT_TRUE(rounds(CHECK_PASSTHROUGH_PERIODS));
    EXPECT_EQ(state().at_passthrough.load(), 1);
    EXPECT_EQ(w.log, "");
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(state().at_passthrough.load(), 0);
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(w.log, "qnetdevctl ");
}

TEST_F(CheckRoundTest, CallsPauseTheChecksForAtMost600s) {
    state().check_timeS.store(5);
    state().call_active.store(1);
    w.call_ends = w.now + 42000;
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(w.log, "pause probe qnetdevctl ");
    EXPECT_EQ(w.now, 1000 + 42000 + 5000);

    state().call_active.store(1);
    w.call_ends = w.now + 10 * CHECK_CALL_PAUSE_MS; // a flag nobody clears
    int64_t start = w.now;
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(w.now, start + CHECK_CALL_PAUSE_MS + CHECK_RETRY_MS);
    EXPECT_EQ(state().call_active.load(), 0); // dropped after the pause

    // A call that starts during the period's sleep skips the probe.
    env.sleep_until = [](int64_t) { state().call_active.store(1); };
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(w.log, "");
}

TEST_F(CheckRoundTest, PeriodsFromZeroToTheLargest) {
    w.probes = {0, 0};
    state().check_timeS.store(0);
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(w.last_sleep, 0);
    state().check_timeS.store(UINT32_MAX);
    EXPECT_TRUE(rounds(1));
    EXPECT_EQ(w.last_sleep, int64_t{UINT32_MAX} * 1000);
}

TEST(CheckWaitTest, CallPauseEndsWithTheCallAndPeriodIsOneTimedWait) {
    fresh_state fresh;
    check_env env = check_env_real(nullptr);
    call_active_set(1);
    std::thread call([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        call_active_set(0);
    });
    int64_t start = monotonic_ms();
    env.wait_call_end(start + 10000);
    EXPECT_LT(monotonic_ms() - start, 5000);
    call.join();

    call_active_set(1);
    start = monotonic_ms();
    env.wait_call_end(start + 100); // nobody ends this call
    EXPECT_GE(monotonic_ms() - start, 100);
    env.sleep_until(start + 200);
    EXPECT_GE(monotonic_ms() - start, 200);
}

// The real thread, cancelled where it waits: in its period sleep, and in the
// middle of a re-assertion, which must give the port back.
TEST(CheckThreadTest, CancelledInItsWaitsAndMidExchangeItReleasesThePort) {
    fresh_state fresh;
    emulated_port port(modem_family::ec200t);
    daemon_state &s = state();
    s.module_type.store(MODULE_EC200T);
    module_paths paths;
    pthread_t tid;
    s.check_timeS.store(UINT32_MAX);
    ASSERT_EQ(pthread_create(&tid, nullptr, check_thread, &paths), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    pthread_cancel(tid);
    pthread_join(tid, nullptr);

    s.check_timeS.store(0);
    port.module().set_reply("AT+QNETDEVCTL=1,1", modem_reply::ok().until_released());
    ASSERT_EQ(pthread_create(&tid, nullptr, check_thread, &paths), 0);
    ASSERT_TRUE(port.module().wait_for_command("AT+QNETDEVCTL=1,1", 5000).has_value());
    EXPECT_FALSE(s.at_mutex.try_lock()); // held for the exchange
    pthread_cancel(tid);
    pthread_join(tid, nullptr);
    port.module().release();
    EXPECT_TRUE(s.at_mutex.try_lock());
    s.at_mutex.unlock();
    EXPECT_EQ(s.module_reset_request.load(), 0);
}

} // namespace
