// The supervisor's dial action, pass by pass, against the modem emulator:
// the pacing of retries, the limit of failed dials and the gate that keeps a
// dial and a client's worker apart. Every dial here fails (a refused
// activation), so no DHCP client and no reset action run on the test host.
#include "core/daemon_state.h"
#include "core/supervisor.h"
#include "support/at_port.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

namespace {

class SupervisorDialTest : public testing::Test {
protected:
    void SetUp() override {
        daemon_state_reset();
        daemon_state &s = state();
        s.module_restarting.store(0);
        s.auto_dial.store(1);
        s.module_type.store(MODULE_EC200T);
        port = std::make_unique<emulated_port>(modem_family::ec200t);
        port->module().set_reply("AT+QIACT=1", modem_reply::error());
    }
    void TearDown() override {
        port.reset();
        daemon_state_reset();
    }

    size_t dials() const {
        size_t n = 0;
        for (const modem_command &c : port->module().commands())
            n += c.text == "AT+QIDEACT=1";
        return n;
    }

    std::unique_ptr<emulated_port> port;
    supervisor sv;
};

TEST_F(SupervisorDialTest, DialsEvery51PassesAndTheTenthFailureRaisesOneReset) {
    std::vector<int> dial_passes;
    int pass = 0;
    for (; pass < 11 * 51 && !state().module_reset_request.load(); ++pass) {
        size_t dials_before = dials();
        size_t commands_before = port->module().command_count();
        ASSERT_TRUE(supervisor_pass(sv));
        if (dials() != dials_before)
            dial_passes.push_back(pass);
        else
            EXPECT_EQ(port->module().command_count(), commands_before) << "pass " << pass;
    }
    std::vector<int> expected;
    for (int i = 0; i < 10; ++i)
        expected.push_back(i * 51);
    EXPECT_EQ(dial_passes, expected);
    // Raised by the tenth failure itself, with the count started afresh.
    EXPECT_EQ(pass - 1, 9 * 51);
    EXPECT_EQ(state().module_reset_request.load(), 1);
    EXPECT_EQ(sv.dial_failures, 0);
    EXPECT_EQ(state().connected.load(), 0);
    EXPECT_EQ(state().dial_in_progress.load(), 0);
}

TEST_F(SupervisorDialTest, DueDialWaitsForTheWorkerAndMarksItselfInProgress) {
    daemon_state &s = state();
    // A worker found busy under the gate: put off without advancing the pacer
    // and without the pass's sleep.
    s.worker_busy.store(1);
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(supervisor_pass(sv));
    EXPECT_EQ(sv.dial_pacer, 0);
    EXPECT_EQ(port->module().command_count(), 0u);
    s.worker_busy.store(0);

    // A worker holds the gate for its whole run: the dial waits for it.
    s.at_mutex.lock();
    port->module().set_reply("AT+QIACT=1", modem_reply::error().after(300));
    std::atomic<bool> done{false};
    std::thread main_thread([&] {
        supervisor_pass(sv);
        done.store(true);
    });
    EXPECT_FALSE(wait_until([&] { return port->module().command_count() > 0; }, 300));
    s.at_mutex.unlock();

    // While the dial runs, the interface thread must see it and answer busy.
    EXPECT_TRUE(port->module().wait_for_command("AT+QIACT=1", 3000).has_value());
    EXPECT_EQ(s.dial_in_progress.load(), 1);
    EXPECT_TRUE(wait_until([&] { return done.load(); }, 3000));
    main_thread.join();
    EXPECT_EQ(s.dial_in_progress.load(), 0);
    EXPECT_EQ(dials(), 1u);
    EXPECT_EQ(sv.dial_pacer, 1);
    EXPECT_EQ(sv.dial_failures, 1);
    // The gate is free again for the next worker.
    EXPECT_TRUE(s.at_mutex.try_lock());
    s.at_mutex.unlock();
}

} // namespace
