// The supervisor's passes against the modem emulator, on a clock the test
// moves. Every dial here fails (a refused activation), so no DHCP client and
// no reset action run on the test host. The re-opens after a firmware download
// run on a scratch bus and /dev, the emulator's pty the port that comes and goes.
#include "at/at.h"
#include "core/daemon_state.h"
#include "daemon/supervisor.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <unistd.h>

namespace {

int64_t g_now = 0;
int64_t test_clock() { return g_now; }

class SupervisorTest : public testing::Test {
protected:
    void SetUp() override {
        daemon_state &s = state();
        s.module_restarting.store(0);
        s.auto_dial.store(1);
        s.module_type.store(MODULE_EC200T);
        port = std::make_unique<emulated_port>(modem_family::ec200t);
        port->module().set_reply("AT+QIACT=1", modem_reply::error());
        g_now = 1000;
        sv.clock = test_clock;
    }
    size_t sent(const std::string &command) const {
        size_t n = 0;
        for (const modem_command &c : port->module().commands())
            n += c.text == command;
        return n;
    }

    fresh_state fresh; // the port goes before the state is reset
    std::unique_ptr<emulated_port> port;
    supervisor sv;
};

TEST_F(SupervisorTest, FailedDialsComeEvery5100MsAndTheTenthRaisesOneReset) {
    daemon_state &s = state();
    for (int dial = 1; dial <= DIAL_FAILURES_BEFORE_RESET; ++dial) {
        int64_t due = supervisor_pass(sv);
        ASSERT_EQ(sent("AT+QIDEACT=1"), static_cast<size_t>(dial));
        EXPECT_EQ(s.dial_in_progress.load(), 0);
        if (dial == DIAL_FAILURES_BEFORE_RESET) {
            EXPECT_EQ(due, g_now + PASS_MS); // the reset comes at the next pass
            break;
        }
        EXPECT_EQ(due, g_now + DIAL_RETRY_MS);
        EXPECT_EQ(s.module_reset_request.load(), 0);
        // A pass woken early by news does not dial before its time.
        size_t before = port->module().command_count();
        g_now = due - 1;
        EXPECT_EQ(supervisor_pass(sv), due);
        EXPECT_EQ(port->module().command_count(), before);
        g_now = due;
    }
    EXPECT_EQ(s.module_reset_request.load(), 1);
    EXPECT_EQ(sv.dial_failures, 0);
    EXPECT_EQ(s.connected.load(), 0);

    // Dialling switched off while down: the pacing starts afresh.
    s.module_reset_request.store(0);
    s.auto_dial.store(0);
    EXPECT_EQ(supervisor_pass(sv), NO_DEADLINE);
    EXPECT_EQ(sv.next_dial_ms, 0);
}

TEST_F(SupervisorTest, ADueDialWaitsForTheRunningWorkerAndMarksItselfInProgress) {
    daemon_state &s = state();
    s.at_mutex.lock(); // a worker runs
    s.worker_busy.store(1);
    port->module().set_reply("AT+QIACT=1", modem_reply::error().until_released());
    std::atomic<bool> done{false};
    std::thread main_thread([&] {
        supervisor_pass(sv);
        done = true;
    });
    EXPECT_FALSE(wait_until([&] { return port->module().command_count() > 0; }, 100));
    s.worker_busy.store(0); // as worker_finished() does, in its order
    s.at_mutex.unlock();

    // While the dial runs, the interface thread must see it and answer busy.
    ASSERT_TRUE(port->module().wait_for_command("AT+QIACT=1", 5000).has_value());
    EXPECT_EQ(s.dial_in_progress.load(), 1);
    port->module().release();
    main_thread.join();
    EXPECT_TRUE(done.load());
    EXPECT_EQ(s.dial_in_progress.load(), 0);
    EXPECT_EQ(sent("AT+QIDEACT=1"), 1u);
    EXPECT_EQ(sv.dial_failures, 1);
    EXPECT_TRUE(s.at_mutex.try_lock()); // free again for the next worker
    s.at_mutex.unlock();
}

TEST_F(SupervisorTest, DisconnectSkipsTheTearDownWhileAWorkerOwnsThePort) {
    daemon_state &s = state();
    for (bool worker : {true, false}) {
        s.auto_dial.store(0);
        s.connected.store(1);
        if (worker) {
            s.at_mutex.lock();
            s.worker_busy.store(1);
        }
        EXPECT_EQ(supervisor_pass(sv), g_now + PASS_MS);
        EXPECT_EQ(s.connected.load(), 0);
        EXPECT_EQ(sent("AT+QNETDEVCTL=0,1"), worker ? 0u : 1u) << worker;
        if (worker) {
            s.worker_busy.store(0);
            s.at_mutex.unlock();
        }
        EXPECT_EQ(s.worker_busy.load(), 0);
    }
}

TEST_F(SupervisorTest, ADialThatConnectsStartsOneCheckThreadAndTheResetPathStopsIt) {
    daemon_state &s = state();
    // The EC20 with an external program: the dial starts it and runs no DHCP client.
    s.module_type.store(MODULE_EC20);
    strcpy(s.app_name, "conn_app");
    strcpy(s.app_cmd, "true");
    s.auto_check.store(1);
    supervisor_pass(sv);
    ASSERT_EQ(s.connected.load(), 1);
    EXPECT_EQ(stat_value("dials"), 1); // the program started is the dial
    EXPECT_EQ(stat_value("link"), 1);
    pthread_t check = s.check_tid.load();
    ASSERT_NE(check, pthread_t{0});
    char name[16] = "";
    auto named = [&] { return pthread_getname_np(check, name, 16) == 0 && !strcmp(name, "zolvin_check"); };
    EXPECT_TRUE(wait_until(named, 2000)) << name;
    supervisor_pass(sv); // already connected: no second thread
    EXPECT_EQ(s.check_tid.load(), check);
    supervisor_stop_threads(sv);
    EXPECT_EQ(s.check_tid.load(), pthread_t{0});
}

class ReopenTest : public testing::Test {
protected:
    void SetUp() override {
        state().module_restarting.store(0);
        master = open_modem_pty(&slave);
        emu.start(master);
        sv.paths.usb_devices = sys.path().c_str();
        sv.paths.dev_dir = dev.path().c_str();
        sv.clock = test_clock;
        g_now = 1000;
        node = dev.path() + "/ttyUSB1";
        plug();
        daemon_state &s = state();
        ASSERT_EQ(serial_open(&s.at_fd, node.c_str()), 0);
        strcpy(s.at_port_path, node.c_str());
        supervisor_start_threads(sv);
        // The update keeps collecting lines across the module's reboot.
        s.at_state.store(AT_COLLECTING);
    }
    void TearDown() override {
        supervisor_stop_threads(sv);
        serial_close(state().at_fd.load());
        if (sv.port_events >= 0)
            close(sv.port_events);
        emu.stop();
        close(master);
    }
    // The EC200S on the bus with its AT port's node.
    void plug() {
        sys.write("1-1/idVendor", "2c7c\n");
        sys.write("1-1/idProduct", "6002\n");
        sys.mkdir("1-1/1-1:1.3/ttyUSB1");
        ASSERT_EQ(symlink(slave.c_str(), node.c_str()), 0);
    }
    void unplug() {
        ASSERT_EQ(unlink(node.c_str()), 0);
        ASSERT_EQ(rmdir((sys.path() + "/1-1/1-1:1.3/ttyUSB1").c_str()), 0);
    }
    // The module's line reaches the collecting update through the new threads.
    void expect_port_serves() {
        // The emulator drops what it says until it notices the port open again.
        EXPECT_TRUE(wait_until([&] { return emu.peer_present(); }, 2000));
        emu.inject_line("+QIND: \"FOTA\",\"START\"");
        char line[RING_LINE_SIZE] = "";
        EXPECT_TRUE(at_next_line(line, sizeof line, monotonic_ms() + 2000));
        EXPECT_STREQ(line, "+QIND: \"FOTA\",\"START\"");
    }

    fresh_state fresh;
    temp_dir sys, dev;
    std::string slave, node;
    int master = -1;
    modem_emulator emu{modem_family::ec200s};
    supervisor sv;
};

TEST_F(ReopenTest, TheModuleLeavesAndComesBackAndThePortIsOpenedAgain) {
    daemon_state &s = state();
    for (bool watch : {false, true}) {
        SCOPED_TRACE(watch ? "watch" : "re-open");
        (watch ? s.fota_reopen_watch : s.fota_reopen).store(1);
        EXPECT_EQ(supervisor_pass(sv), g_now + sv.port_gone_ms); // the node's removal wakes it
        EXPECT_EQ(sv.rx_tid, pthread_t{0});
        EXPECT_EQ(s.fota_reopen.load() + s.fota_reopen_watch.load(), 0);
        s.module_reset_request.store(1); // served only once the re-open is over
        unplug();
        g_now += 700;
        EXPECT_EQ(supervisor_pass(sv), g_now + 1000); // sysfs has no events: 1 s tries
        plug();
        g_now += 1000;
        int64_t due = supervisor_pass(sv);
        EXPECT_NE(sv.rx_tid, pthread_t{0});
        EXPECT_STREQ(s.at_port_path, node.c_str());
        EXPECT_EQ(s.at_state.load(), AT_COLLECTING);
        expect_port_serves();
        if (watch) {
            EXPECT_EQ(due, g_now + 1198000);
            g_now += 1197999;
            EXPECT_EQ(supervisor_pass(sv), due);
            EXPECT_EQ(s.fota_port_status.load(), 0);
            // The module reboots into its new firmware: the sleep ends at once.
            uint64_t seen = s.supervisor_wake.count();
            unplug();
            int64_t before = monotonic_ms();
            supervisor_sleep(sv, seen, before + 5000);
            EXPECT_LT(monotonic_ms() - before, 1000);
            supervisor_pass(sv);
            EXPECT_EQ(s.fota_port_status.load(), 1);
            plug();
        }
        EXPECT_EQ(sv.reopen, reopen_step::none);
        EXPECT_EQ(sv.port_events, -1);
        EXPECT_EQ(s.module_reset_request.load(), 1);
        s.module_reset_request.store(0);
    }
}

// The old port stays, the module stays away, or (EC200S) it does not reboot
// after updating: the plain re-open asks for a reset, the EC200S action tells
// the update through fota_port_status instead.
TEST_F(ReopenTest, APortThatStaysOrAModuleThatStaysAwayEndsTheWait) {
    daemon_state &s = state();
    for (int stuck : {0, 1, 2}) {
        for (bool watch : {false, true}) {
            SCOPED_TRACE(testing::Message() << "stuck " << stuck << (watch ? " watch" : ""));
            s.fota_port_status.store(0);
            (watch ? s.fota_reopen_watch : s.fota_reopen).store(1);
            supervisor_pass(sv);
            if (stuck >= 1) {
                unplug();
                supervisor_pass(sv);
            }
            if (stuck == 2) {
                plug();
                supervisor_pass(sv);
                if (!watch)
                    continue; // re-opened; the plain action watches nothing
            }
            g_now += (stuck == 0 ? sv.port_gone_ms : stuck == 1 ? sv.port_back_ms : sv.watch_ms) - 1;
            supervisor_pass(sv);
            EXPECT_NE(sv.reopen, reopen_step::none);
            g_now += 1;
            supervisor_pass(sv);
            EXPECT_EQ(sv.reopen, reopen_step::none);
            EXPECT_EQ(s.module_reset_request.exchange(0), watch ? 0 : 1);
            EXPECT_EQ(s.fota_port_status.load(), watch ? -1 : 0);
            if (stuck == 1)
                plug();
        }
    }
}

} // namespace
