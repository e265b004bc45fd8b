#include "client/client.h"
#include "core/config.h"
#include "core/daemon_state.h"
#include "support/at_port.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Local codes are answered by handle_request itself, before it returns.
class LocalCodeTest : public port_test {
protected:
    LocalCodeTest() { state().module_restarting = 0; }
    void send(const std::string &raw) {
        handle_request(reinterpret_cast<const uint8_t *>(raw.data()), raw.size());
    }
    // Every frame the request brought, as "code status text|".
    std::string ask(uint16_t code, const std::vector<std::string> &fields = {}) {
        send(request_bytes(code, fields));
        return frames();
    }
};

TEST_F(LocalCodeTest, NotReadyComesBeforeBusy) {
    daemon_state &s = state();
    s.worker_busy = 1;
    s.fota_done = 1; // only 912 looks at it
    EXPECT_EQ(ask(912), "912 13 |");
    EXPECT_EQ(ask(102), "102 12 |");
    s.fota_done = 0;
    for (auto *flag : {&s.module_restarting, &s.module_reset_request}) {
        *flag = 1;
        EXPECT_EQ(ask(912), "912 13 |");
        EXPECT_EQ(ask(102), "102 13 |");
        EXPECT_EQ(ask(911), "911 0 ZOLVIN 4G SERVER V1.23|"); // answered whatever the state
        *flag = 0;
    }
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

TEST_F(LocalCodeTest, OneReadIsOneFrame) {
    // A frame split over two reads is not joined: neither half is a request.
    send(std::string("ZVS\x03", 4));
    send(std::string("\x8F\0\0", 3));
    send(std::string("ZVR\x03\x8F\0\0", 7));
    EXPECT_EQ(frames(), "");
    // Two frames in one read: the bytes after the first are not a request.
    send(std::string("ZVS\x03\x8F\0\0ZVS\x03\x90\0\0", 14));
    EXPECT_EQ(frames(), "911 0 ZOLVIN 4G SERVER V1.23|");
}

TEST(ClientCredentialsTest, RootTheDaemonsUserAndMembersOfTheGroupOnly) {
    const uid_t self = 1000;
    const gid_t group = 100, extra[] = {20, 100};
    const struct {
        client_identity peer;
        bool with_group, allowed;
    } rows[] = {
        {{0, 5, nullptr, 0}, false, true},          {{self, 5, nullptr, 0}, false, true},
        {{2000, 100, nullptr, 0}, false, false},    {{2000, 100, nullptr, 0}, true, true},
        {{2000, 5, extra, 2}, true, true},          {{2000, 5, extra, 1}, true, false},
        {{2000, 5, nullptr, 0}, true, false},
    };
    for (const auto &r : rows)
        EXPECT_EQ(client_allowed(r.peer, self, r.with_group ? &group : nullptr), r.allowed)
            << "uid " << r.peer.uid << " gid " << r.peer.gid << " groups " << r.peer.group_count;
    gid_t gid = 7;
    EXPECT_TRUE(client_group_resolve("root", &gid) && gid == 0);
    EXPECT_TRUE(client_group_resolve("4242", &gid) && gid == 4242);
    for (const char *bad : {"", "no such group here", "4294967295", "99999999999", "12x"})
        EXPECT_FALSE(client_group_resolve(bad, &gid)) << bad;
}

} // namespace
