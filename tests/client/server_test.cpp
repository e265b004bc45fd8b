#include "client/client.h"
#include "core/config.h"
#include "core/daemon_state.h"
#include "support/at_port.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

// Local codes answered by the server itself, through handle_request.
class LocalCodeTest : public testing::Test {
protected:
    void SetUp() override {
        daemon_state_reset();
        state().module_restarting = 0;
        client.emplace();
    }
    void TearDown() override {
        client.reset();
        daemon_state_reset();
    }

    reply_frame ask(uint16_t code, std::vector<std::string> fields = {}) {
        uint8_t buf[REQUEST_MAX + 16];
        std::vector<const char *> ptrs;
        std::vector<size_t> lens;
        for (const std::string &f : fields) {
            ptrs.push_back(f.c_str());
            lens.push_back(f.size());
        }
        size_t n = request_build(buf, sizeof buf, code, ptrs.data(), lens.data(),
                                 static_cast<int>(fields.size()));
        EXPECT_GT(n, 0u);
        handle_request(buf, n);
        reply_frame r{};
        EXPECT_TRUE(client->next(&r, 1000)) << "no reply to " << code;
        return r;
    }

    std::optional<client_end> client;
};

#define EXPECT_REPLY(r, c, st, txt)                                                                \
    do {                                                                                           \
        reply_frame rr = (r);                                                                      \
        EXPECT_EQ(rr.code, c);                                                                     \
        EXPECT_EQ(rr.status, st);                                                                  \
        EXPECT_STREQ(rr.text, txt);                                                                \
    } while (0)

TEST_F(LocalCodeTest, VersionAndConnectionState) {
    EXPECT_REPLY(ask(911), 911, 0, "ZOLVIN 4G SERVER V1.23");
    EXPECT_REPLY(ask(912), 912, 0, "Disconnected");
    state().auto_dial = 1;
    EXPECT_REPLY(ask(912), 912, 0, "Connecting");
    state().connected = 1;
    EXPECT_REPLY(ask(912), 912, 0, "Connected");
    state().worker_busy = 1;
    EXPECT_REPLY(ask(912), 912, 12, "Connected");
    state().dial_in_progress = 1; // not looked at by 912
    state().worker_busy = 0;
    EXPECT_REPLY(ask(912), 912, 0, "Connected");
    for (auto *flag : {&state().module_restarting, &state().module_reset_request, &state().fota_done}) {
        *flag = 1;
        EXPECT_REPLY(ask(912), 912, 13, "");
        EXPECT_REPLY(ask(911), 911, 0, "ZOLVIN 4G SERVER V1.23"); // answered whatever the state
        *flag = 0;
    }
}

TEST_F(LocalCodeTest, AutoDialSwitch) {
    EXPECT_REPLY(ask(501, {"1"}), 501, 0, "");
    EXPECT_EQ(state().auto_dial, 1);
    EXPECT_REPLY(ask(501, {"0x"}), 501, 0, "");
    EXPECT_EQ(state().auto_dial, 0);
    EXPECT_REPLY(ask(501), 501, 10, "");
    EXPECT_REPLY(ask(501, {"2"}), 501, 10, "");
    EXPECT_EQ(state().auto_dial, 0);
}

TEST_F(LocalCodeTest, ApnSlots) {
    config_apply("app_name", "dialer");
    EXPECT_REPLY(ask(521, {"1", "1", "internet"}), 521, 0, "1:internet");
    EXPECT_STREQ(state().app_cmd, "dialer -s internet &"); // rebuilt after the write
    EXPECT_REPLY(ask(521, {"0", "1"}), 521, 0, "1:internet");
    EXPECT_REPLY(ask(521, {"1", "2", "user"}), 521, 0, "2:user");
    EXPECT_REPLY(ask(521, {"1", "3", "pw"}), 521, 0, "3:pw");
    EXPECT_STREQ(state().app_cmd, "dialer -s internet user pw 1 &");
    EXPECT_REPLY(ask(521, {"1", "4", "7"}), 521, 0, "");
    EXPECT_EQ(state().apn_auth, 1u);
    EXPECT_REPLY(ask(521, {"1", "4"}), 521, 0, "");
    EXPECT_REPLY(ask(521, {"1", "4", "2"}), 521, 0, "4:2");
    EXPECT_REPLY(ask(521, {"0", "4"}), 521, 0, "4:2");
    EXPECT_STREQ(state().app_cmd, "dialer -s internet user pw 2 &");
    EXPECT_REPLY(ask(521, {"1", "1"}), 521, 0, "1:"); // no value clears the slot
    EXPECT_STREQ(state().apn_name, "");
    for (const char *slot : {"0", "5", "x"})
        EXPECT_REPLY(ask(521, {"0", slot}), 521, 10, "");
    EXPECT_REPLY(ask(521, {"2", "1"}), 521, 10, "");
    EXPECT_REPLY(ask(521, {"1"}), 521, 10, "");
}

TEST_F(LocalCodeTest, PingSlotsKeepFiftyCharacters) {
    std::string sixty(60, 'p');
    EXPECT_REPLY(ask(523, {"1", "6", sixty}), 523, 0, ("6:" + sixty.substr(0, 50)).c_str());
    EXPECT_EQ(std::string(state().ping_address[5]), sixty.substr(0, 50));
    EXPECT_REPLY(ask(523, {"0", "6"}), 523, 0, ("6:" + sixty.substr(0, 50)).c_str());
    EXPECT_REPLY(ask(523, {"0", "7"}), 523, 10, "");
    EXPECT_REPLY(ask(523, {"1", "1", "10.0.0.1"}), 523, 0, "1:10.0.0.1");
}

TEST_F(LocalCodeTest, CheckSwitchAndPeriod) {
    EXPECT_REPLY(ask(522, {"0"}), 522, 0, "0");
    EXPECT_REPLY(ask(522, {"1", "1"}), 522, 0, "1");
    EXPECT_REPLY(ask(522, {"1", "x"}), 522, 0, "1");
    EXPECT_REPLY(ask(522, {"1"}), 522, 10, "");
    EXPECT_REPLY(ask(522), 522, 10, "");

    EXPECT_REPLY(ask(524, {"0"}), 524, 0, "600");
    EXPECT_REPLY(ask(524, {"1", "0"}), 524, 10, "Value between 1-30000");
    EXPECT_REPLY(ask(524, {"1", "30001"}), 524, 10, "Value between 1-30000");
    EXPECT_REPLY(ask(524, {"1", "30000"}), 524, 0, "30000");
    EXPECT_REPLY(ask(524, {"1", " 45s"}), 524, 0, "45");
    EXPECT_REPLY(ask(524, {"1"}), 524, 10, "");
    EXPECT_REPLY(ask(524), 524, 10, "");
}

TEST_F(LocalCodeTest, DownScript) {
    EXPECT_REPLY(ask(525, {"1", "/bin/down.sh now"}), 525, 0, "/bin/down.sh now");
    EXPECT_REPLY(ask(525, {"0"}), 525, 0, "/bin/down.sh now");
    EXPECT_REPLY(ask(525, {"1"}), 525, 0, "");
    EXPECT_REPLY(ask(525, {"3"}), 525, 10, "");
    EXPECT_REPLY(ask(525), 525, 10, "");
}

TEST_F(LocalCodeTest, WorkerCodesRefusedWhileNotReadyOrBusy) {
    state().module_restarting = 1;
    EXPECT_REPLY(ask(102), 102, 13, "");
    state().module_restarting = 0;
    state().module_reset_request = 1;
    EXPECT_REPLY(ask(102), 102, 13, "");
    state().module_reset_request = 0;
    state().worker_busy = 1;
    EXPECT_REPLY(ask(102), 102, 12, "");
    state().worker_busy = 0;
    state().dial_in_progress = 1;
    EXPECT_REPLY(ask(102), 102, 12, "");
    state().fota_done = 1; // only 912 looks at it
    EXPECT_REPLY(ask(102), 102, 12, "");
}

TEST_F(LocalCodeTest, OneReadIsOneFrame) {
    const uint8_t bad[] = {'Z', 'V', 'R', 0x03, 0x8F, 0, 0};
    handle_request(bad, sizeof bad);
    // A frame split over two reads is not joined: neither half is a request.
    const uint8_t first_half[] = {'Z', 'V', 'S', 0x03};
    const uint8_t second_half[] = {0x8F, 0, 0};
    handle_request(first_half, sizeof first_half);
    handle_request(second_half, sizeof second_half);
    EXPECT_TRUE(client->silent(100));
    // Two frames in one read: the bytes after the first are not a request.
    const uint8_t two[] = {'Z', 'V', 'S', 0x03, 0x8F, 0, 0, 'Z', 'V', 'S', 0x03, 0x90, 0, 0};
    handle_request(two, sizeof two);
    reply_frame r{};
    ASSERT_TRUE(client->next(&r, 1000));
    EXPECT_EQ(r.code, 911);
    EXPECT_TRUE(client->silent(100));
}

} // namespace

namespace {

// A worker on a module that answers slowly, and a restart request meanwhile.
TEST(WorkerCancelTest, RestartCancelsTheRunningWorkerAndFreesThePort) {
    daemon_state_reset();
    state().module_restarting = 0;
    state().module_type = MODULE_EC200T;
    {
        emulated_port port;
        client_end client;
        // The worker waits for an answer that never comes.
        port.module().set_reply("AT+COPS?", modem_reply::silence());
        uint8_t frame[16];
        size_t n = request_build(frame, sizeof frame, 103, nullptr, nullptr, 0);
        handle_request(frame, n);
        ASSERT_TRUE(port.module().wait_for_command("AT+COPS?", 2000).has_value());
        EXPECT_EQ(state().worker_busy, 1);
        EXPECT_FALSE(state().at_mutex.try_lock());

        n = request_build(frame, sizeof frame, 901, nullptr, nullptr, 0);
        handle_request(frame, n);
        EXPECT_EQ(state().worker_busy, 0);
        EXPECT_EQ(state().module_restarting, 1);
        EXPECT_EQ(state().restart_report_pending, 1);
        // The gate is free again for the supervisor, the check thread and the next worker.
        ASSERT_TRUE(state().at_mutex.try_lock());
        state().at_mutex.unlock();
        // The cancelled worker never answers, and no reply is owed to the restart itself.
        EXPECT_TRUE(client.silent(200));

        // A worker that ends by itself leaves the gate free as well.
        state().module_restarting = 0; // as after the supervisor's restart
        port.module().clear_replies();
        port.module().reboot();
        n = request_build(frame, sizeof frame, 102, nullptr, nullptr, 0);
        handle_request(frame, n);
        reply_frame r{};
        ASSERT_TRUE(client.next(&r, 2000));
        EXPECT_EQ(r.code, 102);
        EXPECT_STREQ(r.text, "20");
        ASSERT_TRUE(wait_until([] { return state().worker_busy.load() == 0; }, 1000));
        ASSERT_TRUE(state().at_mutex.try_lock());
        state().at_mutex.unlock();
    }
    daemon_state_reset();
}

} // namespace
