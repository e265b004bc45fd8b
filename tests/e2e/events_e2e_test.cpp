// Unsolicited module lines of the real daemon reaching its client as events.

#include "e2e/board.h"

#include <gtest/gtest.h>

namespace {

TEST(EventsTest, CallsMessagesAndStatusReportsReachTheClient) {
    SKIP_WITHOUT_BOARD();
    ready_board b;
    ASSERT_TRUE(b.start());
    client_conn &c = *b.client;
    ASSERT_TRUE(b.emu.inject_lines({"RING", "+CLIP: \"13912345678\",129"}));
    EXPECT_EQ(show(c.reply(1001)), "1001/1/13912345678");
    ASSERT_TRUE(b.emu.inject_line("NO CARRIER"));
    EXPECT_EQ(show(c.reply(1001)), "1001/2/1");

    ASSERT_TRUE(b.emu.inject_lines({"+CMT: ,25", "0891683108200105F0040D91683119325476F800006211320151240005C8329BFD06"}));
    EXPECT_EQ(show(c.reply(1031)), "1031/0/14+86139123456781420261123101542005Hello");
    ASSERT_TRUE(b.emu.inject_lines({"+CDS: 6", "0006050D91683119325476F8621132015124006211320151340000"}));
    EXPECT_EQ(show(c.reply(1032)), "1032/0/5");
    EXPECT_TRUE(c.others.empty()) << show(c.others.front());
}

} // namespace
