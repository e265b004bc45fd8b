// The supervisor's passes against the modem emulator, on a clock the test
// moves. Every dial here fails (a refused activation), so no DHCP client and
// no reset action run on the test host. The re-opens after a firmware download
// run on a scratch bus and /dev, the emulator's pty the port that comes and goes.
#include "at/at.h"
#include "daemon/supervisor.h"
#include "modem/modem.h"
#include "support/test_support.h"

#include <fcntl.h>
#include <functional>
#include <cstring>
#include <memory>
#include <unistd.h>

namespace {

int64_t g_now = 0;
int64_t test_clock() { return g_now; }

// A worker takes the port (its AT gate and worker_busy), or gives it back.
void worker_holds(bool holds) {
    daemon_state &s = state();
    holds ? s.at_mutex.lock() : s.at_mutex.unlock();
    s.worker_busy.store(holds);
}

class SupervisorTest : public testing::Test {
protected:
    void SetUp() override {
        daemon_state &s = state();
        s.module_restarting.store(0);
        s.auto_dial.store(1);
        s.family.store(&family_of(modem_family::ec200t));
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

    // The EC20 with an external program: the dial starts it, runs no DHCP
    // client, and connects.
    void dial_through_external_program() {
        daemon_state &s = state();
        s.family.store(&family_of(modem_family::ec20));
        strcpy(s.app_name, "conn_app");
        supervisor_pass(sv);
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

// The supervisor never waits behind a worker: it comes back when the port is
// given back, and until then serves whatever else is asked of it.
TEST_F(SupervisorTest, ADueDialIsPutOffWhileAWorkerHoldsThePortAndRunsOnItsRelease) {
    daemon_state &s = state();
    worker_holds(true);
    EXPECT_EQ(supervisor_pass(sv), NO_DEADLINE);
    EXPECT_EQ(port->module().command_count(), 0u);
    EXPECT_EQ(s.dial_in_progress.load(), 0);
    EXPECT_EQ(s.phase.load(), module_phase::dialling);

    uint64_t seen = s.supervisor_wake.count();
    worker_finished(); // the worker's last act wakes the supervisor
    EXPECT_NE(s.supervisor_wake.count(), seen);
    supervisor_pass(sv);
    EXPECT_EQ(sent("AT+QIDEACT=1"), 1u);
    EXPECT_EQ(sv.dial_failures, 1);
    EXPECT_EQ(s.dial_in_progress.load(), 0);
}

TEST_F(SupervisorTest, DisconnectSkipsTheTearDownWhileAWorkerOwnsThePort) {
    daemon_state &s = state();
    for (bool worker : {true, false}) {
        s.auto_dial.store(0);
        s.connected.store(1);
        if (worker)
            worker_holds(true);
        EXPECT_EQ(supervisor_pass(sv), g_now + PASS_MS);
        EXPECT_EQ(s.connected.load(), 0);
        EXPECT_EQ(sent("AT+QNETDEVCTL=0,1"), worker ? 0u : 1u) << worker;
        EXPECT_EQ(s.worker_busy.load(), worker);
        if (worker)
            worker_holds(false);
    }
}

// The check switch takes effect at once while the link is up, and never
// while a firmware update has the module.
TEST_F(SupervisorTest, TheCheckSwitchStartsAndStopsTheCheckWhileTheLinkIsUp) {
    daemon_state &s = state();
    dial_through_external_program();
    ASSERT_EQ(s.phase.load(), module_phase::connected);
    EXPECT_EQ(s.check_tid.load(), pthread_t{0});
    const struct {
        uint8_t check, fota;
        bool running;
    } rows[] = {{1, 1, false}, {1, 0, true}, {1, 0, true}, {0, 0, false}, {1, 0, true}};
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::Message() << int(r.check) << int(r.fota));
        s.fota_active.store(r.fota);
        uint64_t seen = s.supervisor_wake.count();
        supervisor_request(s.auto_check, r.check);
        EXPECT_NE(s.supervisor_wake.count(), seen);
        EXPECT_EQ(supervisor_pass(sv), NO_DEADLINE);
        EXPECT_EQ(s.check_tid.load() != pthread_t{0}, r.running);
    }
    supervisor_stop_threads(sv);
}

TEST_F(SupervisorTest, ADialThatConnectsStartsOneCheckThreadAndTheResetPathStopsIt) {
    daemon_state &s = state();
    s.auto_check.store(1);
    dial_through_external_program();
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

// The module on a scratch bus and /dev, its AT port the emulator's pty, the
// control lines pipes the test reads, and a connected client.
class ModuleTest : public testing::Test {
protected:
    void SetUp() override {
        state().module_restarting.store(0);
        master = open_modem_pty(&slave);
        emu.start(master);
        sv.paths.usb_devices = sys.path().c_str();
        sv.paths.dev_dir = dev.path().c_str();
        sv.clock = test_clock;
        g_now = 1000;
        for (int *line : {power, reset}) {
            ASSERT_EQ(pipe2(line, O_NONBLOCK | O_CLOEXEC), 0);
        }
        sv.power_line = power[1];
        sv.reset_line = reset[1];
        node = dev.path() + "/ttyUSB1";
        sys.mkdir("1-1/1-1:1.0/net/usb0");
        plug();
        daemon_state &s = state();
        ASSERT_EQ(serial_open(&s.at_fd, node.c_str()), 0);
        strcpy(s.at_port_path, node.c_str());
        s.family.store(&family_of(modem_family::ec200s));
        supervisor_start_threads(sv);
        s.phase.store(module_phase::idle);
    }
    void TearDown() override {
        supervisor_stop_threads(sv);
        serial_close(state().at_fd.load());
        if (sv.port_events >= 0)
            close(sv.port_events);
        emu.stop();
        close(master);
        for (int fd : {power[0], power[1], reset[0], reset[1]})
            close(fd);
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
    // The writes to the control lines since the last look, as "p0 r1 ";
    // the supervisor writes at most one byte a pass, so the order is exact.
    std::string writes() {
        std::string seen;
        for (auto [fd, name] : {std::pair{reset[0], 'r'}, std::pair{power[0], 'p'}}) {
            char c;
            while (read(fd, &c, 1) == 1)
                seen += std::string{name, c, ' '};
        }
        return seen;
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
    int power[2] = {-1, -1}, reset[2] = {-1, -1};
    modem_emulator emu{modem_family::ec200s};
    supervisor sv;
    client_end client;
};

// One step of the supervisor's life: what happens, how much later the pass
// runs, and what it leaves: the phase, the pass's next deadline (from the
// clock after the step), the frames the client got and the control-line writes.
struct step_row {
    const char *event;
    std::function<void()> happen;
    int64_t later_ms;
    module_phase phase;
    int64_t due_in_ms; // NO_DEADLINE or from the clock
    const char *frames;
    const char *writes;
};

class ReopenTest : public ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        // The update keeps collecting lines across the module's reboot.
        state().at_state.store(AT_COLLECTING);
    }
};

class ModuleAwayTest : public ModuleTest {
protected:
    void run(const std::vector<step_row> &rows) {
        for (const step_row &r : rows) {
            SCOPED_TRACE(r.event);
            if (r.happen)
                r.happen();
            g_now += r.later_ms;
            int64_t due = supervisor_pass(sv);
            EXPECT_EQ(state().phase.load(), r.phase);
            EXPECT_EQ(due, r.due_in_ms == NO_DEADLINE ? NO_DEADLINE : g_now + r.due_in_ms);
            EXPECT_EQ(client.frames(), r.frames);
            EXPECT_EQ(writes(), r.writes);
        }
    }
    // The receive thread's report of a port that hung up, with the module gone.
    std::function<void()> leaves() {
        return [this] {
            unplug();
            at_port_hung_up();
            // At once, before the supervisor has done anything.
            EXPECT_FALSE(module_ready());
        };
    }
    std::function<void()> returns() { return [this] { plug(); }; }
};

using P = module_phase;

// A restart asked while the module is away ends the search with its own
// reset; the client hears the module back and the restart done.
TEST_F(ModuleAwayTest, ARestartWhileTheModuleIsAwayPowerCyclesIt) {
    daemon_state &s = state();
    run({
        {"idle, the port hangs up", leaves(), 0, P::gone, 1000, "1101 1 |", ""},
        {"gone, 901", [&] { supervisor_request(s.module_restarting, 1); }, 10, P::resetting, 1000,
         "", "r1 "},
        {"resetting, power off", returns(), 1000, P::resetting, 5000, "", "p0 "},
        {"resetting, reset released", nullptr, 5000, P::resetting, 0, "", "r0 "},
        {"resetting, power on", nullptr, 0, P::resetting, 20000, "", "p1 "},
        {"resetting, settled and found", nullptr, 20000, P::resetting, 2000, "", ""},
        {"resetting, 2 s later", nullptr, 2000, P::idle, PASS_MS, "1101 0 |901 0 |", ""},
    });
    EXPECT_EQ(stat_value("lost"), 1);
    EXPECT_EQ(stat_value("resets"), 1);
}

// The reset's waits are deadlines of the loop: a restart asked during the
// settle of a firmware end is answered when the reset ends, with no second one.
TEST_F(ModuleAwayTest, AFirmwareEndReopensWithoutAPowerCycleAndARestartMeanwhileIsAnswered) {
    daemon_state &s = state();
    run({
        {"idle, the update ends", [&] { supervisor_request(s.fota_done, 1); }, 0, P::resetting,
         20000, "", ""},
        {"resetting, 901", [&] { supervisor_request(s.module_restarting, 1); }, 10000,
         P::resetting, 10000, "", ""},
        {"resetting, settled and found", nullptr, 10000, P::resetting, 2000, "", ""},
        {"resetting, 2 s later", nullptr, 2000, P::idle, PASS_MS, "901 0 |", ""},
        {"idle", nullptr, PASS_MS, P::idle, NO_DEADLINE, "", ""},
    });
}

// Departures the daemon causes are not losses: the update's reboots, and a
// loss told while the supervisor already takes the module down for a reset.
TEST_F(ModuleAwayTest, TheDaemonsOwnDeparturesAreNotLosses) {
    daemon_state &s = state();
    s.fota_active.store(1);
    at_port_hung_up();
    EXPECT_EQ(s.module_lost.load(), 0);
    EXPECT_TRUE(module_ready());
    EXPECT_EQ(client.frames(), "");
    s.fota_active.store(0);
    at_port_hung_up();
    at_port_hung_up(); // told once per absence
    EXPECT_EQ(client.frames(), "1101 1 |");
}

// A dial put off behind the update's worker does not keep the update's
// re-open waiting: the update holds the port for its whole run.
TEST_F(ReopenTest, AReopenIsServedWhileADialWaitsForTheUpdatesWorker) {
    daemon_state &s = state();
    s.auto_dial.store(1);
    worker_holds(true);
    EXPECT_EQ(supervisor_pass(sv), NO_DEADLINE);
    EXPECT_EQ(s.phase.load(), module_phase::dialling);
    supervisor_request(s.fota_reopen, 1);
    supervisor_pass(sv);
    EXPECT_EQ(s.phase.load(), module_phase::reopening);
    EXPECT_EQ(sv.step, sv_step::port_gone);
    worker_holds(false);
}

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
        EXPECT_EQ(sv.step, sv_step::none);
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
            EXPECT_NE(sv.step, sv_step::none);
            g_now += 1;
            supervisor_pass(sv);
            EXPECT_EQ(sv.step, sv_step::none);
            EXPECT_EQ(s.module_reset_request.exchange(0), watch ? 0 : 1);
            EXPECT_EQ(s.fota_port_status.load(), watch ? -1 : 0);
            if (stuck == 1)
                plug();
        }
    }
}

} // namespace
