// The firmware update against the emulated module of each family, with short
// phase limits; the emulator's record shows the exact command and image bytes.
#include "at/at.h"
#include "check/check.h"
#include "client/client.h"
#include "core/report.h"
#include "fota/fota.h"
#include "support/test_support.h"

#include <fcntl.h>
#include <functional>
#include <future>
#include <memory>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using mf = modem_family;
const std::string FOTA = "+QIND: \"FOTA\",", STARTED = FOTA + "\"HTTPSTART\"", ENDED = FOTA + "\"HTTPEND\",0";
const std::string UPDATED = "561 5 Fota start|561 5 Fota updating 50%|561 5 Fota updating 100%|561 5 Fota end|";

std::string downloading(std::vector<int> percents) {
    std::string s;
    for (int p : percents)
        s += "561 5 File downloading " + std::to_string(p) + "%|";
    return s;
}

// Bytes a line-based path would mangle: line ends, Ctrl-Z, Esc, NUL.
std::string image_of(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i)
        s[i] = "\r\n\x1A\x1B\0AT+x"[i % 9];
    return s;
}

class FotaTest : public testing::Test {
protected:
    // A new module of this family, the supervisor's flags cleared, a link check running.
    void use(mf f) {
        port.reset();
        check_thread_stop();
        daemon_state &s = state();
        for (auto *flag : {&s.fota_done, &s.fota_reopen, &s.fota_reopen_watch, &s.module_reset_request})
            flag->store(0);
        s.fota_port_status = 0;
        s.family = &family_of(f);
        port = std::make_unique<emulated_port>(f);
        pthread_t check;
        ASSERT_EQ(pthread_create(&check, nullptr, [](void *) -> void * { for (;;) pause(); }, nullptr), 0);
        s.check_tid = check;
    }
    // done, reopen, reopen_watch, reset; and whether the check thread still runs.
    std::string flags() {
        daemon_state &s = state();
        std::string out;
        for (auto *flag : {&s.fota_done, &s.fota_reopen, &s.fota_reopen_watch, &s.module_reset_request})
            out += static_cast<char>('0' + flag->load());
        EXPECT_EQ(s.at_state.load(), AT_IDLE);
        return out + (s.check_tid != 0 ? " checking" : "");
    }
    // The update as the worker runs it: its frames and its outcome to the client.
    void update(int mode, const std::string &source, int chunk, int64_t pause_us, const client_peer &peer) {
        const reply_sink to_client{[](const op_outcome &o, void *) {
                                       client_report(o.code, o.status, o.reply_text());
                                   },
                                   nullptr};
        op_outcome o = fota_update(mode, source.c_str(), chunk, pause_us, peer, to_client, quick);
        if (o.status != STATUS_NONE)
            client_report(o.code, o.status, o.reply_text());
    }
    // The lines in urc_ring, `want` waited for: the module's last line may
    // still be on its way when the update has ended on the one before it.
    static std::string urc(const std::string &want) {
        std::string got;
        for (std::string l; got.size() < want.size() && (l = urc_next(3000)) != "<none>";)
            got += l + "|";
        for (std::string l = urc_next(0); l != "<none>"; l = urc_next(0))
            got += l + "|";
        return got;
    }

    fresh_state fresh;
    temp_dir dir;
    std::unique_ptr<emulated_port> port;
    client_end client;
    fota_limits quick{300, 300, 300, 300, 5};
    const client_peer root{};
};

// Files go unchanged in chunks of the given size (the family's own through the
// dispatcher), URLs in every family; the flags tell the supervisor what comes.
TEST_F(FotaTest, UpdatesThatSucceed) {
    const struct {
        mf family;
        std::vector<std::string> fields; // a file's field 2 is its size
        std::string command, frames, flags;
    } cases[] = {
        {mf::ec200s, {"0", "3000", "5000", "0"}, "AT+QFOTADL=\"FILE:3000\",1", downloading({50, 100}) + "561 5 File", "1010"},
        {mf::ec200s, {"0", "960"}, "AT+QFOTADL=\"FILE:960\",1", downloading({25, 50, 75, 100}) + "561 5 File", "1010"},
        {mf::ec20, {"1", "http://fw.example/a.bin"}, "AT+QFOTADL=\"http://fw.example/a.bin\"", "561 5 Http", "1100"},
        {mf::ec200t, {"2", "ftp://fw.example/t.bin"}, "AT+QFOTADL=\"ftp://fw.example/t.bin\"", "561 5 Ftp", "1000"},
    };
    for (auto c : cases) {
        SCOPED_TRACE(c.command);
        use(c.family);
        std::string img = c.fields[0] == "0" ? image_of(std::stoul(c.fields[1])) : "";
        if (c.fields[0] == "0")
            c.fields[1] = dir.write("fw.bin", img);
        run_worker(request_bytes(CODE_FOTA, c.fields), c.family);
        EXPECT_EQ(client.frames(), c.frames + " download end|" + UPDATED);
        auto record = port->module().wait_for_command(c.command, 1000);
        EXPECT_EQ(record ? record->body : "<none>", img);
        EXPECT_EQ(flags(), c.flags);
    }
}

// Refusals leave the module and the link check alone; every failure after the
// command went out ends the transaction and asks for a reset.
TEST_F(FotaTest, RefusalsAndFailures) {
    const struct {
        mf family;
        std::vector<std::string> lines; // the module's answer, to the image when a file is sent
        std::string source;
        int chunk;
        int64_t pause_us;
        std::string frames, flags, urc = "";
    } cases[] = {
        {mf::ec200t, {}, "a", 320, -1000, "561 10 |", "0000 checking"},
        {mf::ec20, {}, "a", 320, 0, "561 10 |", "0000 checking"},
        {mf::ec200t, {}, "missing", 320, 0, "561 1 file not found!|", "0000 checking"},
        {mf::ec200t, {}, "one", 320, 0, "561 1 file is too small!|", "0000 checking"},
        {mf::ec200t, {FOTA + "\"FILEEND\",504"}, "a", 320, 0, downloading({100}) + "561 1 file_err = 504|", "0001"},
        {mf::ec20, {"ERROR"}, "http://x", 320, 0, "561 1 |", "0001"},
        {mf::ec20, {"OK"}, "http://x", 320, 0, "561 1 time out!|", "0001"},
        // The EC20 takes no file upload, so FILESTART starts nothing.
        {mf::ec20, {"OK", FOTA + "\"FILESTART\""}, "http://x", 320, 0, "561 1 time out!|", "0001", FOTA + "\"FILESTART\"|"},
        {mf::ec20, {"OK", STARTED, "+CSQ: 9,99", FOTA + "\"HTTPEND\",701"}, "http://x", 320, 0,
         "561 1 http_err = 701|", "0001", "+CSQ: 9,99|"},
        {mf::ec200t, {"OK", FOTA + "\"FTPSTART\"", FOTA + "\"FTPEND\",601"}, "ftp://x", 320, 0, "561 1 ftp_err = 601|", "0001"},
        {mf::ec200s, {"OK", FOTA + "\"FTPSTART\""}, "ftp://x", 320, 0, "561 1 time out!|", "0001"},
        {mf::ec200t, {"OK", STARTED, ENDED, FOTA + "\"START\"", "ERROR"}, "http://x", 320, 0,
         "561 5 Http download end|561 5 Fota start|561 1 |", "0001"},
        // A module error ends any phase like "ERROR" and still reaches the common
        // thread, ahead of what followed it.
        {mf::ec20, {"+CME ERROR: 3", "RING"}, "http://x", 320, 0, "561 1 |", "0001", "+CME ERROR: 3|RING|"},
        {mf::ec200t, {"+CME ERROR: 4"}, "a", 320, 0, downloading({100}) + "561 1 |", "0001", "+CME ERROR: 4|"},
        {mf::ec200s, {"OK", FOTA + "\"FTPSTART\"", "+CMS ERROR: 302"}, "ftp://x", 320, 0, "561 1 |", "0001",
         "+CMS ERROR: 302|"},
        {mf::ec200t, {"OK", STARTED, ENDED, FOTA + "\"START\"", "+CME ERROR: 100"}, "http://x", 320, 0,
         "561 5 Http download end|561 5 Fota start|561 1 |", "0001", "+CME ERROR: 100|"},
        // No progress line within the update limit.
        {mf::ec200t, {"OK", STARTED, ENDED, FOTA + "\"UPDATING\",7"}, "http://x", 320, 0,
         "561 5 Http download end|561 5 Fota updating 7%|561 1 time out!|", "0001"},
    };
    dir.write("a", "ab");
    dir.write("one", "x");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.frames);
        use(c.family);
        const bool file = c.source.find("://") == std::string::npos;
        if (!c.lines.empty())
            port->module().set_reply("AT+QFOTADL=", file ? modem_reply::with_lines(c.lines).for_body()
                                                         : modem_reply::with_lines(c.lines), modem_match::prefix);
        std::string source = file ? dir.path() + "/" + c.source : c.source;
        update(file ? 0 : 1, source, c.chunk, c.pause_us, root);
        EXPECT_EQ(client.frames(), c.frames);
        EXPECT_EQ(flags(), c.flags);
        EXPECT_EQ(urc(c.urc), c.urc);
        EXPECT_EQ(port->module().command_count() == 0, c.flags == "0000 checking");
    }
}

// The image is opened as root for the client: only a regular file that the
// client could read itself is sent, at once, and anything else is not found.
TEST_F(FotaTest, OnlyARegularFileTheClientMayReadIsSent) {
    const std::string fifo = dir.path() + "/fifo", img = dir.write("img", "ab");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0666), 0);
    ASSERT_EQ(symlink(img.c_str(), (dir.path() + "/link").c_str()), 0);
    dir.mkdir("sub");
    client_peer user; // in group 50 besides its own
    user.uid = 1000;
    user.gid = 1000;
    user.group_count = 1;
    user.groups[0] = 50;
    const struct {
        std::string name;
        const client_peer &peer;
        bool sent;
        uid_t uid = 0; // the image's owner, group and mode
        gid_t gid = 0;
        mode_t mode = 0644;
    } cases[] = {
        {"fifo", root, false}, {"sub", root, false}, {"link", root, false}, // a last link only
        {"img", root, true, 0, 0, 0},
        {"img", user, false, 0, 0, 0600},   {"img", user, true, 0, 0, 0604},
        {"img", user, true, 0, 50, 0640},   {"img", user, true, 0, 1000, 0640},
        {"img", user, true, 1000, 0, 0400}, // the first class the client is in decides
        {"img", user, false, 1000, 0, 0044}, {"img", user, false, 0, 50, 0604},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.name << " uid " << c.peer.uid << " owner " << c.uid
                                        << ":" << c.gid << " mode " << std::oct << c.mode);
        use(mf::ec200t);
        ASSERT_EQ(chown(img.c_str(), c.uid, c.gid), 0);
        ASSERT_EQ(chmod(img.c_str(), c.mode), 0);
        const std::string source = dir.path() + "/" + c.name;
        auto running = std::async(std::launch::async, [&] { update(0, source, 320, 0, c.peer); });
        if (running.wait_for(std::chrono::seconds(2)) != std::future_status::ready) {
            ADD_FAILURE() << "the update is held in the opening";
            close(open(fifo.c_str(), O_WRONLY | O_NONBLOCK)); // lets it go
        }
        running.get();
        if (c.sent) {
            auto record = port->module().wait_for_command("AT+QFOTADL=\"FILE:2\"", 1000);
            EXPECT_EQ(record ? record->body : "<none>", "ab");
        } else {
            EXPECT_EQ(client.frames(), "561 1 file not found!|");
            EXPECT_EQ(flags(), "0000 checking");
            EXPECT_EQ(port->module().command_count(), 0u);
        }
        client.frames();
    }
}

// Told while the update runs: the EC200S's watch by the supervisor ends it,
// a shrinking file or a vanished module breaks the push.
TEST_F(FotaTest, EndsOnNewsFromOutside) {
    const std::string path = dir.path() + "/fw.bin";
    const struct {
        std::string source, first, then, frames, flags;
        std::function<void()> news;
    } cases[] = {
        {"http://x", "561 5 Http download end|", "561 5 Fota start|", "561 5 Fota end|", "1010",
         [] { state().fota_port_status = 1; }},
        {"http://x", "561 5 Http download end|", "561 5 Fota start|", "561 1 |", "0011",
         [] { state().fota_port_status = -1; }},
        {path, downloading({10}), "", "561 1 file shorter than its size!|", "0001",
         [&] { EXPECT_EQ(truncate(path.c_str(), 100), 0); }},
        {path, downloading({10}), "", "561 1 at send error!|", "0001", [&] {
             port->stop_rx();
             port->close_port();
         }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.frames);
        use(mf::ec200s);
        if (c.source != path)
            port->module().set_reply("AT+QFOTADL=", modem_reply::with_lines({"OK", STARTED, ENDED}),
                                     modem_match::prefix);
        dir.write("fw.bin", image_of(1000));
        // The 2 s pause after each 100-byte chunk leaves time, even on a loaded
        // machine, to break the push after the first.
        std::thread running([&] { update(c.source == path ? 0 : 1, c.source, 100, 2000000, root); });
        EXPECT_EQ(client.frames(1, 2000), c.first);
        if (!c.then.empty()) {
            port->module().inject_line(FOTA + "\"START\"");
            EXPECT_EQ(client.frames(1, 2000), c.then); // sent after the port status was cleared
        }
        c.news();
        running.join();
        EXPECT_EQ(client.frames(), c.frames);
        EXPECT_EQ(flags(), c.flags);
    }
}

} // namespace
