// Firmware updates on the simulated board: the module takes the image or
// fetches it, reboots off the bus where its family does, and the daemon
// follows it back and reports the end to the client.

#include "e2e/board.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

namespace {

// The 561 frames up to the final one (status 0 or 1) or up to `count`, as "status/text".
std::vector<std::string> fota_frames(client_conn &c, milliseconds timeout, size_t count = 100) {
    std::vector<std::string> out;
    while (out.size() < count) {
        std::optional<reply_frame> f = c.reply(561, timeout);
        if (!f)
            return out;
        out.push_back(std::to_string(f->status) + "/" + std::string(f->text, f->text_len));
        if (f->status != 5)
            return out;
    }
    return out;
}

size_t power_offs(sim_board &board) {
    std::vector<std::string> all = texts(board.lines());
    return static_cast<size_t>(std::count(all.begin(), all.end(), "pwr0"));
}

const std::vector<std::string> UPDATE = {"5/Fota start", "5/Fota updating 50%", "5/Fota updating 100%",
                                         "5/Fota end"};

// The board's events from the first "fota reboot" on.
std::vector<std::string> after_reboot(sim_board &board) {
    std::vector<std::string> all = texts(board.events()), out;
    for (const std::string &e : all) {
        if (!out.empty() || e == "fota reboot")
            out.push_back(e.substr(0, e.find(' ', 8)));
    }
    return out;
}

TEST(FotaTest, AFileOnTheEc200tReachesTheModuleInItsChunksAndTheModuleComesBack) {
    SKIP_WITHOUT_BOARD();
    ready_board b(board_config("ec200t"));
    ASSERT_TRUE(b.start());
    std::string image;
    for (int i = 0; i < 1000; ++i)
        image += static_cast<char>(i * 7 % 256);
    std::ofstream(b.board.path("image.bin"), std::ios::binary) << image;
    size_t from = next_index(b.emu);
    ASSERT_TRUE(b.client->send(561, {"0", b.board.path("image.bin"), "320", "5"}));
    std::vector<std::string> want = {"5/File downloading 32%", "5/File downloading 64%",
                                     "5/File downloading 96%", "5/File downloading 100%",
                                     "5/File download end"};
    want.insert(want.end(), UPDATE.begin(), UPDATE.end());
    want.push_back("0/"); // after the module's reboot and the 20 s settle
    EXPECT_EQ(fota_frames(*b.client, milliseconds(40000)), want);
    std::optional<std::vector<modem_command>> got = b.emu.commands(from);
    ASSERT_TRUE(got && !got->empty());
    EXPECT_EQ(got->front().text, "AT+QFOTADL=\"FILE:1000\"");
    EXPECT_TRUE(got->front().body == image);
    EXPECT_EQ(after_reboot(b.board), (std::vector<std::string>{"fota reboot", "unplugged", "plugged ec200t"}));
    EXPECT_EQ(b.client->ask_settled(52), "52/0/861234567890123");
}

// The EC200S reboots after the download, updates on the re-opened port, and
// reboots again into the new firmware, which the watch sees.
TEST(FotaTest, AUrlOnTheEc200sFollowsTheModuleThroughBothReboots) {
    SKIP_WITHOUT_BOARD();
    board_config config("ec200s");
    config.fota_return = "1500";
    ready_board b(config);
    ASSERT_TRUE(b.start());
    ASSERT_TRUE(b.client->send(561, {"1", "http://fw.example.net/ec200s.bin"}));
    std::vector<std::string> want = {"5/Http download end"};
    want.insert(want.end(), UPDATE.begin(), UPDATE.end());
    want.push_back("0/");
    EXPECT_EQ(fota_frames(*b.client, milliseconds(40000)), want);
    EXPECT_EQ(after_reboot(b.board), (std::vector<std::string>{"fota reboot", "unplugged", "plugged ec200s",
                                                                "fota reboot", "unplugged", "plugged ec200s"}));
    EXPECT_EQ(power_offs(b.board), 0u);
    EXPECT_EQ(b.client->ask_settled(52), "52/0/861234567890123");
}

// The EC20 takes 60 s to settle after its update.
TEST(FotaSlowTest, AUrlOnTheEc20ReopensThePortAndEndsAfterTheLongerReboot) {
    SKIP_WITHOUT_BOARD();
    ready_board b(board_config("ec20"));
    ASSERT_TRUE(b.start());
    ASSERT_TRUE(b.client->send(561, {"1", "ftp://fw.example.net/ec20.bin"}));
    std::vector<std::string> want = {"5/Ftp download end"};
    want.insert(want.end(), UPDATE.begin(), UPDATE.end());
    ASSERT_EQ(fota_frames(*b.client, milliseconds(15000), want.size()), want);
    auto ended = std::chrono::steady_clock::now();
    EXPECT_EQ(fota_frames(*b.client, milliseconds(80000)), std::vector<std::string>{"0/"});
    EXPECT_GE(std::chrono::steady_clock::now() - ended, milliseconds(59000));
    EXPECT_EQ(b.client->ask_settled(52), "52/0/861234567890123");
}

// The module never returns from its reboot after the download: after the
// 60 s of tries the update fails to the client and the module is reset.
TEST(FotaSlowTest, AModuleThatNeverComesBackFailsTheUpdateAndIsReset) {
    SKIP_WITHOUT_BOARD();
    board_config config("ec200s");
    config.fota_return = "never";
    ready_board b(config);
    ASSERT_TRUE(b.start());
    ASSERT_TRUE(b.client->send(561, {"1", "http://fw.example.net/ec200s.bin"}));
    EXPECT_EQ(fota_frames(*b.client, milliseconds(15000), 1), std::vector<std::string>{"5/Http download end"});
    auto left = std::chrono::steady_clock::now();
    EXPECT_EQ(fota_frames(*b.client, milliseconds(75000)), std::vector<std::string>{"1/"});
    EXPECT_GE(std::chrono::steady_clock::now() - left, milliseconds(59000));
    EXPECT_TRUE(eventually([&] { return power_offs(b.board) == 1; }));
}

} // namespace
