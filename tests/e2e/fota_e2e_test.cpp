// Firmware updates on the simulated board: the module takes the image or
// fetches it, reboots off the bus where its family does, and the daemon
// follows it back and reports the end to the client and to subscribers.

#include "e2e/board.h"

#include <fstream>

namespace {

const std::vector<std::string> UPDATE = {"5/Fota start", "5/Fota updating 50%", "5/Fota updating 100%", "5/Fota end"};

// The 561 frames up to the final one (status 0 or 1) or up to `count`, as "status/text".
std::vector<std::string> fota_frames(client_conn &c, milliseconds timeout, size_t count = 100) {
    std::vector<std::string> out;
    for (std::optional<reply_frame> f; out.size() < count && (f = c.reply(561, timeout));) {
        out.push_back(std::to_string(f->status) + "/" + std::string(f->text, f->text_len));
        if (f->status != 5)
            break;
    }
    return out;
}

// A file on the EC200T (one reboot, after the update) and a URL on the EC200S
// (rebooting after the download too), each ending 20 s after "Fota end".
TEST(FotaTest, TheModuleRebootsOffTheBusAndTheDaemonFollowsItBack) {
    SKIP_WITHOUT_BOARD();
    std::string image;
    for (int i = 0; i < 1000; ++i)
        image += static_cast<char>(i * 7 % 256);
    for (const char *family : {"ec200t", "ec200s"}) {
        SCOPED_TRACE(family);
        bool file = family == std::string("ec200t");
        board_config config(family);
        config.fota_return = "1500";
        ready_board b(config);
        ASSERT_TRUE(b.start());
        client_conn listener(b.board.connect_subscriber());
        ASSERT_EQ(listener.ask(911), VERSION);
        std::ofstream(b.board.path("image.bin"), std::ios::binary) << image;
        size_t from = next_index(b.emu);
        ASSERT_TRUE(b.client->send(561, file ? std::vector<std::string>{"0", b.board.path("image.bin")}
                                             : std::vector<std::string>{"1", "https://fw.example.net/ec200s.bin"}));
        std::vector<std::string> download = {"5/Http download end"};
        if (file) // the percentages show the family's own 320-byte chunks
            download = {"5/File downloading 32%", "5/File downloading 64%", "5/File downloading 96%",
                        "5/File downloading 100%", "5/File download end"};
        EXPECT_EQ(fota_frames(*b.client, milliseconds(40000)), download + UPDATE + std::vector<std::string>{"0/"});
        std::vector<std::string> reboot = {"fota reboot", "unplugged", "plugged " + std::string(family)}, seen;
        for (const std::string &e : texts(b.board.events()))
            if (!seen.empty() || e == "fota reboot")
                seen.push_back(e.substr(0, e.find(' ', 8)));
        EXPECT_EQ(seen, file ? reboot : reboot + reboot);
        EXPECT_EQ(count(texts(b.board.lines()), "pwr0"), 0u);
        std::optional<std::vector<modem_command>> got = b.emu.commands(from);
        ASSERT_TRUE(got && !got->empty());
        if (file) {
            EXPECT_EQ(got->front().text, "AT+QFOTADL=\"FILE:1000\"");
            EXPECT_TRUE(got->front().body == image);
        }
        EXPECT_EQ(b.client->ask_settled(52), "52/0/861234567890123");
        // The progress is the client's alone; a subscriber hears only the end.
        EXPECT_EQ(frames_until(listener, "561/0/"), std::vector<std::string>{"561/0/"});
    }
}

// Both as long as the daemon's prescribed waits: the EC20 settles 60 s after
// its update; an EC200S that never returns from its reboot after the download
// is given up after 60 s of tries, the update fails and the module is power-cycled.
TEST(FotaSlowTest, TheEc20sLongerRebootAndAModuleThatNeverComesBack) {
    SKIP_WITHOUT_BOARD();
    for (bool ec20 : {true, false}) {
        SCOPED_TRACE(ec20 ? "ec20" : "never back");
        board_config config(ec20 ? "ec20" : "ec200s");
        config.fota_return = ec20 ? "1500" : "never";
        ready_board b(config);
        ASSERT_TRUE(b.start());
        ASSERT_TRUE(b.client->send(561, {"1", "ftp://fw.example.net/fw.bin"}));
        std::vector<std::string> before = {"5/Ftp download end"};
        if (ec20)
            before = before + UPDATE;
        ASSERT_EQ(fota_frames(*b.client, milliseconds(15000), before.size()), before);
        int64_t waited = monotonic_ms();
        EXPECT_EQ(fota_frames(*b.client, milliseconds(80000)), std::vector<std::string>{ec20 ? "0/" : "1/"});
        EXPECT_GE(monotonic_ms() - waited, 59000);
        if (ec20)
            EXPECT_EQ(b.client->ask_settled(52), "52/0/861234567890123");
        else
            EXPECT_TRUE(eventually([&] { return count(texts(b.board.lines()), "pwr0") == 1; }));
    }
}

} // namespace
