// The request workers, run on the test thread as the server starts them, with
// the module's side of the port a pty read by the test, so the bytes it
// receives are seen exactly; then the server's own codes and who may be a client.
#include "at/at.h"
#include "client/client.h"
#include "core/config.h"
#include "modem/modem.h"
#include "sms/common.h"
#include "sms/send.h"
#include "support/test_support.h"

#include <algorithm>
#include <thread>

namespace {

enum family : unsigned { EC200 = 1, EC20 = 2, BOTH = 3 };
const client_peer ROOT{};

class WorkerTest : public port_test {
protected:
    // Runs one request as the server would: with the AT gate taken and worker_busy set.
    void run(family f, const std::string &raw) {
        run_worker(raw, f == EC20 ? modem_family::ec20 : modem_family::ec200t);
        EXPECT_EQ(state().worker_busy.load(), 0); // the gate is free again on every path
        EXPECT_TRUE(state().at_mutex.try_lock());
        state().at_mutex.unlock();
    }
};

// Every row is answered by the worker itself, before or without any AT exchange.
TEST_F(WorkerTest, ParameterChecksAndCodesWithoutAnExchange) {
    struct row {
        unsigned families;
        std::string request;
        std::string reports;
        std::string module = ""; // all the module receives
    };
    const std::string n43(43, '5'), line988 = "AT+" + std::string(985, 'Q');
    std::vector<row> rows = {
        {BOTH, request_bytes(451, {"0"}), "451 10 |"}, // two fields needed
        // A field length of 1000 or more ends the request without a reply.
        {BOTH, "ZVS\x01\x30\x03\xE8" + std::string(100, '1'), ""},
        // A dial command fills the 50-byte line exactly at 43 characters.
        {BOTH, request_bytes(304, {n43 + "5"}), "304 10 |"},
        {BOTH, request_bytes(304, {n43}), "304 0 |", "ATD" + n43 + ";\r\n"},
        // Raw lines only in pass-through mode, which any other code ends.
        {BOTH, request_bytes(401, {"1"}), "401 0 |"},
        {BOTH, request_bytes(402, {"0", line988}), "", line988 + "\r\n"}, // the longest there is
        {BOTH, request_bytes(999), "999 20 |"}, // a code nobody knows
        {BOTH, request_bytes(402, {"0", "AT"}), "402 11 |"},
        // Firmware update: the EC20 takes no file; the client's chunk size reaches the checks.
        {BOTH, request_bytes(561, {"1"}), "561 10 |"},
        {EC20, request_bytes(561, {"0", "/fw"}), "561 10 |"},
        {EC200, request_bytes(561, {"1", "http://x", "0", "8"}), "561 10 |"},
        // A field missing where it is used, and each family's own codes on the other.
        {BOTH, request_bytes(110), "110 10 |"}, {EC20, request_bytes(190), "190 10 |"},
        {EC200, request_bytes(190, {"1"}), "190 20 |"}, {EC200, request_bytes(360), "360 10 |"},
        {EC20, request_bytes(360, {"1"}), "360 20 |"},
    };
    // SMS refused before any module traffic, even with no centre stored: a number
    // of 15 digits or with other characters, a 7-bit text with a character in
    // neither GSM table, a validity that is no octet.
    const std::vector<std::string> sms = {"0", "DEFAULT", "10086", "hi", "167", "0"};
    const std::pair<size_t, const char *> bad_sms[] = {
        {2, "+861391234567890"}, {1, "123456789012345"}, {2, "1008#"}, {2, "+"}, {1, "+86 138"},
        {3, "caf\xE4\xB8\xAD"},     {4, "256"},             {4, "1x"}};
    for (const auto &[field, value] : bad_sms) {
        std::vector<std::string> f = sms;
        f[field] = value;
        rows.push_back({BOTH, request_bytes(251, f), "251 10 |"});
    }
    rows.push_back({BOTH, request_bytes(251, {sms.begin(), sms.end() - 1}), "251 10 |"});
    rows.push_back({BOTH, request_bytes(252, {std::string(50, '1'), "hi"}), "252 10 |"});
    // Client text that would end or leave its place in the command line: a
    // quote or any control byte, and a ';' where the text stands bare. A
    // message text is a body: only Ctrl-Z and ESC would end or cancel it.
    for (char b : {'"', '\r', '\n', '\x1A', '\x1B', '\x01', ';'}) {
        const std::string x = std::string("1") + b + "AT+QPOWD";
        const bool bare_only = b == ';';
        std::vector<std::pair<uint16_t, std::vector<std::string>>> refused = {
            {304, {x}}, {451, {"1", "timeout", x}}};
        if (!bare_only)
            refused.insert(refused.end(), {{252, {x, "hi"}},
                                           {237, {x}},
                                           {451, {"1", "server" + x, "a"}},
                                           {451, {"0", "server" + x}},
                                           {451, {"1", "server", x}},
                                           {561, {"1", "http://" + x}}});
        if (b == '\x1A' || b == '\x1B')
            refused.push_back({252, {"10086", "hi" + x}});
        for (const auto &[code, fields] : refused)
            rows.push_back({BOTH, request_bytes(code, fields), std::to_string(code) + " 10 |"});
    }
    for (const row &c : rows) {
        for (family f : {EC200, EC20}) {
            if ((c.families & f) == 0)
                continue;
            SCOPED_TRACE(c.request.substr(0, 12) + (f == EC20 ? " on EC20" : " on EC200"));
            run(f, c.request);
            EXPECT_EQ(client.frames(), c.reports);
            EXPECT_EQ(module_got(), c.module);
        }
    }
}

// The client learns how its request ended before the event that the
// exchange's last line makes: "NO CARRIER" to ATA, a module error to a setting.
TEST_F(WorkerTest, TheReplyComesBeforeTheEventOfTheExchangesLastLine) {
    pthread_t common;
    ASSERT_EQ(pthread_create(&common, nullptr, common_thread, nullptr), 0);
    const std::pair<uint16_t, const char *> cases[] = {{302, "NO CARRIER"}, {238, "+CME ERROR: 3"}};
    for (const auto &[code, line] : cases) {
        std::thread worker([&, code = code] { run(EC200, request_bytes(code, {"1"})); });
        EXPECT_FALSE(port.module_reads("\r\n", 3000).empty());
        port.module_says(std::string(line) + "\r\n");
        worker.join();
        EXPECT_EQ(client.frames(2, 3000), code == 302 ? "302 1 NO CARRIER|1001 2 1|"
                                                      : "238 1 |1201 1 +CME ERROR: 3|");
    }
    pthread_cancel(common);
    pthread_join(common, nullptr);
}

TEST_F(WorkerTest, VoiceDialMarksTheCallAndADeadPortFailsAtOnce) {
    run(EC20, request_bytes(304, {"123"}));
    EXPECT_EQ(client.frames(), "304 0 |");
    EXPECT_EQ(state().call_active.load(), 1);
    port.stop_rx();
    port.close_port(); // the device went away
    run(EC200, request_bytes(304, {"123"}));
    EXPECT_EQ(client.frames(), "304 1 at send error!|");
    EXPECT_EQ(state().call_active.load(), 0);
    state().at_passthrough = 1;
    run(EC200, request_bytes(402, {"0", "AT"}));
    EXPECT_EQ(client.frames(), "402 1 at send error!|");
    // Operations of more than one step answer under their own code.
    EXPECT_EQ(shown(get_creg()), "111 1 |");
    EXPECT_EQ(shown(sms_send_pdu(0, "1", "2", "x", 0, 0)), "251 1 at send error!|");
    EXPECT_EQ(shown(sms_send_text("2", "x")), "252 1 set_cmgf|");
    EXPECT_EQ(client.frames(), "");
    EXPECT_EQ(state().at_state.load(), AT_IDLE);
}

// A root client's requests through the server, the emulated EC200T answering.
class ServedTest : public testing::Test {
protected:
    ServedTest() { state().family = &family_of(modem_family::ec200t); }
    void send(uint16_t code) {
        std::string raw = request_bytes(code);
        handle_request(reinterpret_cast<const uint8_t *>(raw.data()), raw.size(), ROOT);
    }
    emulated_bench b;
};

// A restart cancels a client's dial half-way: nothing of the dial stays
// behind, so the next request is served instead of being told busy for ever.
TEST_F(ServedTest, ARestartDuringAClientsDialLeavesThePortFree) {
    daemon_state &s = state();
    b.port.module().set_reply("AT+QIACT=1", modem_reply::standard().until_released());
    send(370);
    ASSERT_TRUE(b.port.module().wait_for_command("AT+QIACT=1", 5000).has_value());
    EXPECT_EQ(s.dial_in_progress.load(), 1);
    send(901); // returns once the worker has ended
    EXPECT_EQ(s.dial_in_progress.load(), 0);
    EXPECT_EQ(s.worker_busy.load(), 0);
    b.port.module().release();
    s.module_restarting = 0; // as the supervisor's reset leaves it
    send(102);
    EXPECT_EQ(b.client.frames(1, 5000), "102 0 20|");
}

// Local codes are answered by handle_request itself, before it returns.
class LocalCodeTest : public port_test {
protected:
    void send(const std::string &raw) {
        handle_request(reinterpret_cast<const uint8_t *>(raw.data()), raw.size(), from);
    }
    // Every frame the request brought, as "code status text|".
    std::string ask(uint16_t code, const std::vector<std::string> &fields = {}) {
        send(request_bytes(code, fields));
        return client.frames();
    }
    client_peer from; // root
};

// Not ready while the module starts, is reset or is away, and as soon as a
// request for one of these is raised, before the supervisor takes it up.
TEST_F(LocalCodeTest, NotReadyComesBeforeBusy) {
    daemon_state &s = state();
    s.worker_busy = 1;
    EXPECT_EQ(ask(912), "912 12 Disconnected|");
    EXPECT_EQ(ask(102), "102 12 |");
    for (auto *flag : {&s.module_restarting, &s.module_reset_request, &s.fota_done, &s.module_lost}) {
        *flag = 1;
        EXPECT_EQ(ask(912), "912 13 |");
        EXPECT_EQ(ask(102), "102 13 |");
        EXPECT_EQ(ask(911), "911 0 ZOLVIN 4G SERVER V1.23|"); // answered whatever the state
        EXPECT_EQ(ask(913).substr(0, 9), "913 0 up=");
        *flag = 0;
    }
    for (module_phase p : {module_phase::starting, module_phase::resetting, module_phase::gone}) {
        s.phase = p;
        EXPECT_EQ(ask(912), "912 13 |");
        EXPECT_EQ(ask(102), "102 13 |");
    }
    s.worker_busy = 0;
    s.phase = module_phase::connected;
    EXPECT_EQ(ask(912), "912 0 Connected|");
}

// What a write leaves is read back through the protocol; 912 shows the dial switch.
TEST_F(LocalCodeTest, SettingsReadAndWritten) {
    const std::string sixty(60, 'p'), fifty(50, 'p'), limit = "10 Value between 1-30000";
    const struct {
        uint16_t code;
        std::vector<std::string> fields;
        std::string reply;             // "status text"
        const char *app_cmd = nullptr; // the external program's command afterwards
    } rows[] = {
        {501, {"1"}, "0 "}, {912, {}, "0 Connecting"}, {501, {"0x"}, "0 "}, {501, {"2"}, "10 "},
        {501, {}, "10 "}, {912, {}, "0 Disconnected"},
        // APN slots: 1 name, 2 user, 3 password, 4 authentication.
        {521, {"1", "1", "internet"}, "0 1:internet", "dialer -s internet &"},
        {521, {"1", "2", "user"}, "0 2:user"},
        {521, {"1", "3", "pw"}, "0 3:pw", "dialer -s internet user pw 1 &"},
        {521, {"1", "4", "7"}, "0 "}, {521, {"1", "4"}, "0 "}, {521, {"0", "4"}, "0 4:1"},
        {521, {"1", "4", "2"}, "0 4:2", "dialer -s internet user pw 2 &"},
        {521, {"1", "1"}, "0 1:", "dialer"}, {521, {"0", "1"}, "0 1:"}, // no value clears it
        {521, {"0", "0"}, "10 "}, {521, {"0", "5"}, "10 "}, {521, {"0", "x"}, "10 "},
        {521, {"2", "1"}, "10 "}, {521, {"1"}, "10 "},
        // Ping addresses: six slots of 50 characters.
        {523, {"1", "6", sixty}, "0 6:" + fifty}, {523, {"0", "6"}, "0 6:" + fifty},
        {523, {"1", "1", "10.0.0.1"}, "0 1:10.0.0.1"}, {523, {"0", "7"}, "10 "},
        {522, {"0"}, "0 0"}, {522, {"1", "1"}, "0 1"}, {522, {"1", "x"}, "0 1"},
        {522, {"1"}, "10 "}, {522, {}, "10 "},
        {524, {"0"}, "0 600"}, {524, {"1", "0"}, limit}, {524, {"1", "30001"}, limit},
        {524, {"1", "30000"}, "0 30000"}, {524, {"1", " 45s"}, "0 45"}, {524, {"0"}, "0 45"},
        {524, {"1"}, "10 "}, {524, {}, "10 "},
        {525, {"1", "/bin/down.sh now"}, "0 /bin/down.sh now"}, {525, {"0"}, "0 /bin/down.sh now"},
        {525, {"1"}, "0 "}, {525, {"0"}, "0 "}, {525, {"3"}, "10 "}, {525, {}, "10 "},
    };
    config_apply("app_name", "dialer");
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::Message() << "row " << (&r - rows));
        EXPECT_EQ(ask(r.code, r.fields), std::to_string(r.code) + " " + r.reply + "|");
        EXPECT_TRUE(r.app_cmd == nullptr || std::string(r.app_cmd) == state().app_cmd)
            << state().app_cmd;
    }
}

// The down script is a command run as root: only a root client sets it; any
// client reads it, and the other settings stay open.
TEST_F(LocalCodeTest, OnlyARootClientSetsTheDownScript) {
    EXPECT_EQ(ask(525, {"1", "echo by root"}), "525 0 echo by root|");
    from.uid = 1000;
    EXPECT_EQ(ask(525, {"1", "touch /x"}), "525 14 |");
    EXPECT_EQ(ask(525, {"1"}), "525 14 |");
    EXPECT_EQ(ask(525, {"0"}), "525 0 echo by root|");
    EXPECT_EQ(ask(524, {"1", "45"}), "524 0 45|");
}

// The APN texts go into the module's APN command: one that would leave its
// quotes or its line is refused and changes nothing. Blanks and ';' are text
// there, and arguments like any other to the external program.
TEST_F(LocalCodeTest, ApnTextsThatWouldLeaveTheirCommandAreRefused) {
    config_apply("app_name", "dialer");
    for (const std::string slot : {"1", "2", "3"})
        EXPECT_EQ(ask(521, {"1", slot, "v"}), "521 0 " + slot + ":v|");
    for (char b : {'"', '\r', '\n', '\x1A', '\x1B', '\x01'}) {
        for (const std::string slot : {"1", "2", "3"}) {
            SCOPED_TRACE(testing::Message() << "slot " << slot << " byte " << int(b));
            EXPECT_EQ(ask(521, {"1", slot, std::string("a") + b + "b"}), "521 10 |");
            EXPECT_EQ(ask(521, {"0", slot}), "521 0 " + slot + ":v|");
        }
    }
    EXPECT_STREQ(state().app_cmd, "dialer -s v v v 1 &");
    EXPECT_EQ(ask(521, {"1", "1", "my apn;x"}), "521 0 1:my apn;x|");
}

TEST_F(LocalCodeTest, OneReadIsOneFrame) {
    // A frame split over two reads is not joined: neither half is a request.
    send(std::string("ZVS\x03", 4));
    send(std::string("\x8F\0\0", 3));
    send(std::string("ZVR\x03\x8F\0\0", 7));
    EXPECT_EQ(client.frames(), "");
    // Two frames in one read: the bytes after the first are not a request.
    send(std::string("ZVS\x03\x8F\0\0ZVS\x03\x90\0\0", 14));
    EXPECT_EQ(client.frames(), "911 0 ZOLVIN 4G SERVER V1.23|");
}

// Root, members by either group and strangers are the end-to-end test's
// (ClientInterfaceTest), which the daemon serves as root.
TEST(ClientCredentialsTest, RootTheDaemonsUserAndMembersOfTheGroupOnly) {
    const uid_t self = 1000;
    const gid_t group = 100, extra[] = {20, 100};
    const struct {
        client_identity peer;
        bool with_group, allowed;
    } rows[] = {
        {{self, 5, nullptr, 0}, false, true}, {{2000, 100, nullptr, 0}, false, false}, // no group named
        {{2000, 5, extra, 1}, true, false}, // only the groups counted
    };
    for (const auto &r : rows)
        EXPECT_EQ(client_allowed(r.peer, self, r.with_group ? &group : nullptr), r.allowed)
            << "uid " << r.peer.uid << " gid " << r.peer.gid << " groups " << r.peer.group_count;
    gid_t gid = 7;
    EXPECT_TRUE(client_group_resolve("4242", &gid) && gid == 4242);
    for (const char *bad : {"", "no such group here", "4294967295", "99999999999", "12x"})
        EXPECT_FALSE(client_group_resolve(bad, &gid)) << bad;
}

} // namespace
