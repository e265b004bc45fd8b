// The common thread: unsolicited lines to client events, the ring and message
// windows on a test clock, and a burst through the receive and common threads.

#include "modem/modem.h"
#include "sms/common.h"
#include "support/at_port.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

const char *const EXPIRE = nullptr; // the thread's wake-up for its deadline
const char *const CMT = "+CMT: ,25";
const char *const DELIVER =
    "0891683108200105F0040D91683119325476F800006211320151240005C8329BFD06";
// Message reference 5, status 0.
const char *const REPORT = "0006050D91683119325476F8621132015124006211320151340000";

// What each step gave the client; after a wake-up "next N|", the deadline it
// returned (-1: none). Times count from an arbitrary origin.
std::string run(client_end &client, const std::vector<std::pair<int64_t, const char *>> &steps) {
    const int64_t origin = 5000;
    common_state st;
    std::string got;
    for (const auto &[ms, line] : steps) {
        int64_t next = line == EXPIRE ? common_expire(&st, origin + ms) : 0;
        if (line != EXPIRE)
            common_handle_line(&st, line, origin + ms);
        got += client.frames();
        if (line == EXPIRE)
            got += "next " + std::to_string(next == NO_DEADLINE ? -1 : next - origin) + "|";
    }
    return got;
}

TEST(CommonLineTest, LinesBecomeEventsWithinTheirWindows) {
    fresh_state fresh;
    client_end client;
    const char *clip = "+CLIP: \"13912345678\",129";
    const struct {
        std::vector<std::pair<int64_t, const char *>> steps;
        std::string events;
    } cases[] = {
        {{{0, "RING"}, {60, clip}, {100, EXPIRE}}, "1001 1 13912345678|next -1|"},
        {{{0, "RING"}, {99, EXPIRE}, {100, EXPIRE}}, "next 100|1001 0 |next -1|"},
        // One digit; the closing quote past index 29.
        {{{0, "RING"}, {10, "+CLIP: \"1\",129"}, {20, "+CLIP: \"12345678901234567890123\""},
          {100, EXPIRE}},
         "1001 0 |next -1|"},
        {{{0, "RING"}, {101, clip}}, "1001 0 |1001 1 13912345678|"}, // its window closed first
        {{{0, "RING"}, {1, "NO CARRIER"}, {2, "BUSY"}, {3, "NO DIALTONE"}, {4, "+COLP: 0"},
          {100, EXPIRE}},
         "1001 2 1|1001 2 2|1001 2 3|1001 2 0|next -1|"},
        {{{0, "+QWTTS: 1"}, {0, "+QWTTS: 0"}, {0, "+QTONEDET: 49"}, {0, "+QTONEDET: 4"},
          {0, "+QTONEDET:"}},
         "1011 0 |1021 1 49|1021 1 4|1021 1 |"},
        {{{0, "+CMS ERROR: 500"}, {0, "+CME ERROR: 10"}, {0, "ERROR"}},
         "1201 1 +CMS ERROR: 500|1201 1 +CME ERROR: 10|"},
        {{{0, CMT}, {10, "OK"}, {500, DELIVER}},
         "1031 0 14+86139123456781420261123101542005Hello|"},
        {{{0, CMT}, {499, EXPIRE}, {500, EXPIRE}, {501, DELIVER}}, "next 500|next -1|"},
        // A stray digit line; a PDU line starting with a letter; a PDU too late.
        {{{0, "861234567890123"}, {1, CMT}, {2, "A891683108"}, {3, EXPIRE}, {502, DELIVER}},
         "next 501|"},
        // A second header restarts the window and decides the kind.
        {{{0, CMT}, {400, "+CDS: 6"}, {899, REPORT}}, "1032 0 5|"},
        // A failed delivery's status rides in the frame; a PDU cut short gives no event.
        {{{0, "+CDS: 6"}, {1, "0891683108200505F006110D91683117358313F0525070613415235250706134952341"}},
         "1032 65 17|"},
        {{{0, CMT}, {1, "0891683108200505F0040D9168"}}, ""},
        {{{0, CMT}, {10, "RING"}, {20, EXPIRE}, {110, EXPIRE}}, "next 110|1001 0 |next 500|"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(run(client, c.steps), c.events) << c.steps[0].second;

    common_state st;
    for (const char *line : {"RING", "BUSY", "+CLIP: 1", "NO DIAL", "+COLP: 0", "NO CARRIER"}) {
        common_handle_line(&st, line, 0);
        EXPECT_EQ(state().call_active.load(), line[0] == 'R' || line[0] == '+') << line;
    }
}

TEST(CommonThreadTest, ABurstOfFortyLinesInOneWriteGivesFortyEventsInOrder) {
    fresh_state fresh;
    emulated_port port;
    client_end client;
    pthread_t common;
    ASSERT_EQ(pthread_create(&common, nullptr, common_thread, nullptr), 0);
    // Twice the rings' room; a module error does not end the data-call
    // release that collects in the second round.
    std::string burst, events;
    for (int i = 0; i < 40; ++i) {
        std::string n = std::to_string(50 + i);
        std::string line = i % 3 == 0 ? "+CME ERROR: " + n : "+QTONEDET: " + n;
        burst += "\r\n" + line + "\r\n";
        events += i % 3 == 0 ? "1201 1 " + line + "|" : "1021 1 " + n + "|";
    }
    port.module().inject_raw(burst);
    EXPECT_EQ(client.frames(40, 3000), events);

    port.module().set_reply("AT+QIDEACT=1", modem_reply::standard().until_released());
    std::thread release([] { set_qideact(1, 1); });
    EXPECT_TRUE(port.module().wait_for_command("AT+QIDEACT=1", 3000));
    port.module().inject_raw(burst);
    port.module().release();
    release.join();
    // The reply and the events come from two threads: only the events keep an order.
    std::string got = client.frames(41, 3000);
    size_t reply = got.find("352 0 |");
    EXPECT_NE(reply, std::string::npos) << got;
    EXPECT_EQ(got.erase(reply == std::string::npos ? got.size() : reply, 7), events);
    pthread_cancel(common);
    pthread_join(common, nullptr);
}

} // namespace
