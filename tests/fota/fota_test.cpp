// The firmware update against the emulated module of each family, with short
// phase limits; the emulator's record shows the exact command and image bytes.
#include "at/at.h"
#include "client/client.h"
#include "fota/fota.h"
#include "support/at_port.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <unistd.h>

namespace {

const std::string FOTA = "+QIND: \"FOTA\",";
const std::string UPDATE_LINES =
    "561 5 Fota start|561 5 Fota updating 50%|561 5 Fota updating 100%|561 5 Fota end|";

class FotaTest : public testing::Test {
protected:
    // A new module of this family, and the supervisor's flags cleared.
    void use(modem_family f) {
        port.reset();
        daemon_state &s = state();
        for (auto *flag : {&s.fota_done, &s.fota_reopen, &s.fota_reopen_watch, &s.module_reset_request})
            flag->store(0);
        s.fota_port_status = 0;
        s.module_type = f == modem_family::ec20 ? MODULE_EC20
                              : f == modem_family::ec200t ? MODULE_EC200T
                                                          : MODULE_EC200S;
        port = std::make_unique<emulated_port>(f);
    }
    modem_emulator &module() { return port->module(); }
    std::string frames() { return client.frames(); }
    // The lines passed on to the common thread, as "line|".
    static std::string urc() {
        std::string got;
        for (std::string l = urc_next(0); l != "<none>"; l = urc_next(0))
            got += l + "|";
        return got;
    }
    // The image bytes the module took, or why none.
    std::string image(const std::string &command) {
        auto c = module().wait_for_command(command, 2000);
        return c ? c->body : "<no " + command + ">";
    }
    // The flags left for the supervisor: done, reopen, reopen_watch, reset.
    std::string flags() {
        daemon_state &s = state();
        std::string out;
        for (auto *flag : {&s.fota_done, &s.fota_reopen, &s.fota_reopen_watch, &s.module_reset_request})
            out += static_cast<char>('0' + flag->load());
        return out;
    }
    // Runs the update as a worker would, with the AT gate taken.
    void request(const std::vector<std::string> &fields) {
        worker_request req{};
        std::string raw = request_bytes(FOTA_CODE, fields);
        req.len = raw.size();
        memcpy(req.bytes, raw.data(), raw.size());
        state().at_mutex.lock();
        state().worker_busy = 1;
        (state().module_type == MODULE_EC20 ? request_worker_ec20 : request_worker_ec200)(&req);
    }

    fresh_state fresh;
    temp_dir dir;
    std::unique_ptr<emulated_port> port;
    client_end client;
    fota_limits quick{300, 300, 300, 300, 5};
};

// Bytes a line-based path would mangle: line ends, Ctrl-Z, Esc, NUL.
std::string image_of(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i)
        s[i] = "\r\n\x1A\x1B\0AT+x"[i % 9];
    return s;
}

std::string downloading(std::vector<int> percents) {
    std::string s;
    for (int p : percents)
        s += "561 5 File downloading " + std::to_string(p) + "%|";
    return s;
}

TEST_F(FotaTest, FileIsPushedUnchangedInChunksOfTheGivenSize) {
    const struct {
        modem_family family;
        size_t size;
        int chunk;
        std::string command, progress, flags;
    } cases[] = {
        {modem_family::ec200t, 1000, 320, "AT+QFOTADL=\"FILE:1000\"", downloading({32, 64, 96, 100}),
         "1000"},
        {modem_family::ec200s, 3000, 5000, "AT+QFOTADL=\"FILE:3000\",1", downloading({50, 100}),
         "1010"}, // cut to 1500
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.command);
        use(c.family);
        const std::string img = image_of(c.size);
        EXPECT_EQ(fota_update(0, dir.write("fw.bin", img).c_str(), c.chunk, 0, quick), 0);
        EXPECT_EQ(frames(), c.progress + "561 5 File download end|" + UPDATE_LINES);
        EXPECT_EQ(image(c.command), img);
        EXPECT_EQ(flags(), c.flags);
        EXPECT_EQ(state().at_state.load(), AT_IDLE);
    }
}

// Through the dispatcher: each EC200 family's own chunk size when none is given.
TEST_F(FotaTest, DispatchUsesTheFamilysChunkSize) {
    for (auto [family, progress] : {std::pair{modem_family::ec200t, downloading({33, 66, 100})},
                                    std::pair{modem_family::ec200s, downloading({25, 50, 75, 100})}}) {
        use(family);
        request({"0", dir.write("fw.bin", image_of(960))});
        EXPECT_EQ(frames(), progress + "561 5 File download end|" + UPDATE_LINES);
        EXPECT_EQ(state().worker_busy.load(), 0);
    }
}

TEST_F(FotaTest, UrlModeInEachFamily) {
    const struct {
        modem_family family;
        std::string url, end, flags;
    } cases[] = {
        {modem_family::ec20, "http://fw.example/ec20.bin", "Http", "1100"},
        {modem_family::ec200t, "ftp://fw.example/t.bin", "Ftp", "1000"},
        {modem_family::ec200s, "https://fw.example/s.bin", "Http", "1010"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.url);
        use(c.family);
        // A link check that would run forever: the update stops it first.
        pthread_t check;
        ASSERT_EQ(pthread_create(&check, nullptr, [](void *) -> void * { for (;;) pause(); }, nullptr), 0);
        state().check_tid = check;
        EXPECT_EQ(fota_update(1, c.url.c_str(), 320, 8000, quick), 0);
        EXPECT_EQ(state().check_tid.load(), 0u);
        EXPECT_EQ(frames(), "561 5 " + c.end + " download end|" + UPDATE_LINES);
        EXPECT_TRUE(module().wait_for_command("AT+QFOTADL=\"" + c.url + "\"", 0));
        EXPECT_EQ(flags(), c.flags);
    }
}

// Every failure after the command went out ends the transaction and asks for a reset.
TEST_F(FotaTest, FailureLinesAndSilenceRequestAReset) {
    const std::string started = FOTA + "\"HTTPSTART\"", ended = FOTA + "\"HTTPEND\",0";
    const struct {
        modem_family family;
        std::vector<std::string> lines;
        std::string frames;
        std::string urc = "";
        bool file_body = false;
    } cases[] = {
        {modem_family::ec20, {"ERROR"}, "561 1 |"},
        {modem_family::ec20, {"OK"}, "561 1 time out!|"},
        // The EC20 takes no file upload, so FILESTART does not start anything.
        {modem_family::ec20, {"OK", FOTA + "\"FILESTART\""}, "561 1 time out!|",
         FOTA + "\"FILESTART\"|"},
        {modem_family::ec20, {"OK", started, "+CSQ: 9,99", FOTA + "\"HTTPEND\",701"},
         "561 1 http_err = 701|", "+CSQ: 9,99|"},
        {modem_family::ec200t, {"OK", FOTA + "\"FTPSTART\"", FOTA + "\"FTPEND\",601"},
         "561 1 ftp_err = 601|"},
        {modem_family::ec200s, {"OK", FOTA + "\"FTPSTART\""}, "561 1 time out!|"},
        {modem_family::ec200t, {"OK", started, ended, FOTA + "\"START\"", "ERROR"},
         "561 5 Http download end|561 5 Fota start|561 1 |"},
        // No progress line within the update limit.
        {modem_family::ec200t, {"OK", started, ended, FOTA + "\"UPDATING\",7"},
         "561 5 Http download end|561 5 Fota updating 7%|561 1 time out!|"},
        {modem_family::ec200t, {FOTA + "\"FILEEND\",504"}, downloading({100}) + "561 1 file_err = 504|",
         "", true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.frames);
        use(c.family);
        modem_reply reply = modem_reply::with_lines(c.lines);
        module().set_reply("AT+QFOTADL=", c.file_body ? reply.for_body() : reply, modem_match::prefix);
        int result = c.file_body ? fota_update(0, dir.write("fw", "ab").c_str(), 320, 0, quick)
                                 : fota_update(1, "http://x/y", 320, 0, quick);
        EXPECT_EQ(result, -1);
        EXPECT_EQ(frames(), c.frames);
        EXPECT_EQ(flags(), "0001");
        EXPECT_EQ(urc(), c.urc);
        EXPECT_EQ(state().at_state.load(), AT_IDLE);
    }
}

// The EC200S may leave the bus before its END line: the supervisor's word decides.
TEST_F(FotaTest, Ec200sEndsOnTheSupervisorsWatch) {
    for (int32_t watch : {1, -1}) {
        use(modem_family::ec200s);
        module().set_reply("AT+QFOTADL=", modem_reply::with_lines({"OK", FOTA + "\"HTTPSTART\"",
                                                                    FOTA + "\"HTTPEND\",0"}),
                           modem_match::prefix);
        fota_limits slow = quick;
        slow.update_ms = 5000;
        int result = 0;
        std::thread update([&] { result = fota_update(1, "http://x/s", 240, 8000, slow); });
        EXPECT_EQ(client.frames(1, 2000), "561 5 Http download end|");
        module().inject_line(FOTA + "\"START\"");
        // Reported after the update phase cleared the port status.
        EXPECT_EQ(client.frames(1, 2000), "561 5 Fota start|");
        state().fota_port_status = watch;
        update.join();
        EXPECT_EQ(result, watch > 0 ? 0 : -1);
        EXPECT_EQ(frames(), watch > 0 ? "561 5 Fota end|" : "561 1 |");
        EXPECT_EQ(flags(), watch > 0 ? "1010" : "0011");
    }
}

// Refused before the module hears anything, and nothing is stopped or changed.
TEST_F(FotaTest, RequestAndFileRefusalsLeaveTheModuleAlone) {
    use(modem_family::ec200t);
    const std::string dir_path = dir.mkdir("sub");
    const struct {
        int mode;
        std::string source;
        int chunk;
        int64_t pause_us;
        std::string frame;
    } cases[] = {
        {0, dir.write("a", "ab"), 0, 0, "561 10 |"},
        {1, "http://x/y", -5, 0, "561 10 |"},
        {0, dir.write("b", "ab"), 320, -1000, "561 10 |"},
        {0, dir.path() + "/missing", 320, 0, "561 1 file not found!|"},
        {0, dir_path, 320, 0, "561 1 not a regular file!|"},
        {0, dir.write("empty", ""), 320, 0, "561 1 file is too small!|"},
        {0, dir.write("one", "x"), 320, 0, "561 1 file is too small!|"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.source);
        EXPECT_EQ(fota_update(c.mode, c.source.c_str(), c.chunk, c.pause_us, quick), -1);
        EXPECT_EQ(frames(), c.frame);
    }
    state().module_type = MODULE_EC20;
    EXPECT_EQ(fota_update(0, dir.write("c", "ab").c_str(), 320, 0, quick), -1);
    EXPECT_EQ(frames(), "561 10 |");
    EXPECT_EQ(module().command_count(), 0u);
    EXPECT_EQ(flags(), "0000");
}

// The file shrinking or the module vanishing in mid-push fails the update
// with a reason, and the worker's caller goes on.
TEST_F(FotaTest, PushBrokenInTheMiddle) {
    const std::string path = dir.path() + "/fw.bin";
    const struct {
        std::function<void()> breaks;
        std::string reason;
    } cases[] = {
        {[&] { EXPECT_EQ(truncate(path.c_str(), 100), 0); }, "file shorter than its size!"},
        {[&] {
             port->stop_rx();
             port->close_port();
         },
         "at send error!"},
    };
    for (const auto &c : cases) {
        use(modem_family::ec200s);
        dir.write("fw.bin", image_of(1000));
        int result = 0;
        // The pause is long enough for the test to break the push after chunk one.
        std::thread update([&] { result = fota_update(0, path.c_str(), 100, 300000, quick); });
        EXPECT_EQ(client.frames(1, 2000), downloading({10}));
        c.breaks();
        update.join();
        EXPECT_EQ(result, -1);
        EXPECT_EQ(frames(), "561 1 " + c.reason + "|");
        EXPECT_EQ(flags(), "0001");
        EXPECT_EQ(state().at_state.load(), AT_IDLE);
    }
}

} // namespace
