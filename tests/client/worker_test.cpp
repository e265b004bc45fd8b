// The request workers run on the test thread, as the server would start them:
// the AT gate taken and worker_busy set. The module's side of the port is a
// pty read by the test, so the bytes it receives are seen exactly.
#include "at/at.h"
#include "client/client.h"
#include "core/daemon_state.h"
#include "support/at_port.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace {

enum family : unsigned { EC200 = 1, EC20 = 2, BOTH = 3 };
constexpr int MARK_CODE = 0xFFFF;

std::string request(uint16_t code, const std::vector<std::string> &fields) {
    std::vector<const char *> ptrs;
    std::vector<size_t> lens;
    for (const std::string &s : fields) {
        ptrs.push_back(s.c_str());
        lens.push_back(s.size());
    }
    uint8_t buf[REQUEST_MAX];
    size_t n = request_build(buf, sizeof buf, code, ptrs.data(), lens.data(),
                             static_cast<int>(fields.size()));
    EXPECT_GT(n, 0u);
    return std::string(reinterpret_cast<char *>(buf), n);
}

class WorkerTest : public testing::Test {
protected:
    void SetUp() override {
        daemon_state_reset();
        port.emplace();
        port->start_rx();
        client.emplace();
    }
    void TearDown() override {
        client.reset();
        port.reset();
        daemon_state_reset();
    }

    // Runs one request as the server would: with the AT gate taken and worker_busy set.
    void run(family f, const std::string &raw) {
        worker_request req;
        req.len = raw.size();
        memcpy(req.bytes, raw.data(), raw.size());
        state().at_mutex.lock();
        state().worker_busy = 1;
        (f == EC20 ? request_worker_ec20 : request_worker_ec200)(&req);
        EXPECT_EQ(state().worker_busy.load(), 0); // the gate is free again on every path
        EXPECT_TRUE(state().at_mutex.try_lock());
        state().at_mutex.unlock();
    }
    // The frames the client got since the last look, as "code status text|".
    std::string frames() {
        client_report(MARK_CODE, 0, nullptr);
        std::string got;
        reply_frame r;
        while (client->next(&r, 3000) && r.code != MARK_CODE)
            got += std::to_string(r.code) + " " + std::to_string(r.status) + " " + r.text + "|";
        return got;
    }
    // What the module received since the last look: a marker written now arrives behind it.
    std::string module_got() {
        at_send("MARK\r\n", 6);
        std::string got = port->module_reads("MARK\r\n", 3000);
        size_t end = got.rfind("MARK\r\n");
        return end == std::string::npos ? got + "<no marker>" : got.substr(0, end);
    }

    std::optional<at_port> port;
    std::optional<client_end> client;
};

// Every row is answered by the worker itself, before or without any AT exchange.
TEST_F(WorkerTest, ParameterChecksAndCodesWithoutAnExchange) {
    const std::string n43(43, '5'), line988 = "AT+" + std::string(985, 'Q');
    const struct {
        unsigned families;
        uint16_t code;
        std::vector<std::string> fields;
        std::string reports;
        std::string module = ""; // all the module receives
    } cases[] = {
        // Field 1 missing where it is used.
        {BOTH, 110, {}, "110 10 |"}, {BOTH, 231, {}, "231 10 |"}, {BOTH, 232, {}, "232 10 |"},
        {BOTH, 233, {}, "233 10 |"}, {BOTH, 234, {}, "234 10 |"}, {BOTH, 236, {}, "236 10 |"},
        {BOTH, 237, {}, "237 10 |"}, {BOTH, 238, {}, "238 10 |"}, {BOTH, 304, {}, "304 10 |"},
        {BOTH, 401, {}, "401 10 |"}, {EC20, 190, {}, "190 10 |"}, {EC20, 235, {}, "235 10 |"},
        {EC20, 310, {}, "310 10 |"}, {EC20, 362, {}, "362 10 |"}, {EC200, 360, {}, "360 10 |"},
        {EC200, 551, {}, "551 10 |"},
        // Two fields needed (three to set a location setting).
        {BOTH, 402, {"0"}, "402 10 |"}, {BOTH, 451, {"0"}, "451 10 |"},
        {BOTH, 451, {"1", "token"}, "451 10 |"}, {EC20, 310, {"1"}, "310 10 |"},
        // The other family's codes, and a code nobody knows.
        {EC200, 190, {"1"}, "190 20 |"}, {EC200, 191, {}, "191 20 |"},
        {EC200, 235, {"1"}, "235 20 |"}, {EC200, 310, {"0"}, "310 20 |"},
        {EC200, 362, {"1"}, "362 20 |"}, {EC20, 360, {"1"}, "360 20 |"},
        {EC20, 551, {"1"}, "551 20 |"}, {BOTH, 999, {}, "999 20 |"},
        // A dial command fills the 50-byte line exactly at 43 characters.
        {BOTH, 304, {n43 + "5"}, "304 10 |"},
        {BOTH, 304, {n43}, "304 0 |", "ATD" + n43 + ";\r\n"},
        // Raw lines only in pass-through mode, which any other code ends.
        {BOTH, 402, {"0", "AT"}, "402 11 |"},
        {BOTH, 401, {"1"}, "401 0 |"},
        {BOTH, 402, {"0", line988}, "", line988 + "\r\n"}, // the longest a request can carry
        {BOTH, 999, {}, "999 20 |"},
        {BOTH, 402, {"0", "AT"}, "402 11 |"},
    };
    for (const auto &c : cases) {
        for (family f : {EC200, EC20}) {
            if ((c.families & f) == 0)
                continue;
            SCOPED_TRACE(std::to_string(c.code) + (f == EC20 ? " on EC20" : " on EC200"));
            run(f, request(c.code, c.fields));
            EXPECT_EQ(frames(), c.reports);
            EXPECT_EQ(module_got(), c.module);
        }
    }
}

// A field length of 1000 or more ends the request without a reply.
TEST_F(WorkerTest, OversizeFieldEndsWithoutReply) {
    run(EC200, "ZVS\x01\x30\x03\xE8" + std::string(100, '1'));
    EXPECT_EQ(frames(), "");
    EXPECT_EQ(module_got(), "");
}

TEST_F(WorkerTest, VoiceDialMarksTheCallUntilTheSendFails) {
    run(EC20, request(304, {"123"}));
    EXPECT_EQ(frames(), "304 0 |");
    EXPECT_EQ(state().call_active.load(), 1);
    port->stop_rx();
    int fd = state().at_fd.exchange(-1); // the device went away
    run(EC200, request(304, {"123"}));
    EXPECT_EQ(frames(), "304 1 at send error!|");
    EXPECT_EQ(state().call_active.load(), 0);
    state().at_passthrough = 1;
    run(EC200, request(402, {"0", "AT"}));
    EXPECT_EQ(frames(), "402 1 at send error!|");
    state().at_fd = fd;
}

} // namespace
