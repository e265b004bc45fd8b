// zolvin_4g_ctl's own rules: the words of a command become request frames,
// the frames that come back end the request or not, and each is printed on
// one line. Its runs against the daemon are in the end-to-end tests.

#include "ctl/ctl.h"
#include "support/test_support.h"

#include <cstring>
#include <cstddef>
#include <filesystem>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

ctl::command parsed(const std::vector<std::string> &words) {
    ctl::command c;
    std::string error;
    EXPECT_TRUE(ctl::parse_command(words, &c, &error)) << error;
    return c;
}

reply_frame reply(uint16_t code, uint16_t status, const std::string &text = "") {
    reply_frame f{code, status, text.size(), {}};
    memcpy(f.text, text.data(), text.size());
    return f;
}

TEST(CtlTest, WordsBecomeTheRequestFrames) {
    std::string error;
    // Reading the check period: the 10-byte request of the protocol's own example.
    std::vector<uint8_t> period = ctl::encode(parsed({"check", "period"}).steps.at(0), &error);
    EXPECT_EQ(std::string(period.begin(), period.end()), std::string("ZVS\x02\x0C\x00\x01" "0\x00\x00", 10));
    const struct {
        std::vector<std::string> words;
        uint16_t code;
        std::vector<std::string> fields;
    } cases[] = {
        {{"apn", "set", "1", "internet"}, 521, {"1", "1", "internet"}},
        {{"apn", "set", "2", ""}, 521, {"1", "2"}}, // no third field clears the setting
        {{"ping", "set", "2", "10.64.0.1"}, 523, {"1", "2", "10.64.0.1"}},
        {{"check", "period", "60"}, 524, {"1", "60"}},
        {{"sms", "send", "10086", "hi"}, 251, {"0", "DEFAULT", "10086", "hi", "167", "0"}},
        {{"sms", "send", "--report", "--validity", "0", "+86", "\xE4\xBD\xA0"}, 251,
         {"1", "DEFAULT", "+86", "\xE4\xBD\xA0", "0", "1"}},
        {{"sms", "send", "--text-mode", "10086", "--hi"}, 252, {"10086", "--hi"}},
        {{"fota", "a.bin", "--pause", "20", "--chunk", "500"}, 561, {"0", std::filesystem::current_path().string() + "/a.bin", "500", "20"}},
        {{"fota", "ftp://h/a.bin", "--chunk", "1000"}, 561, {"1", "ftp://h/a.bin", "1000", "8"}},
    };
    for (const auto &c : cases) {
        ctl::command cmd = parsed(c.words);
        ASSERT_EQ(cmd.steps.size(), 1u) << c.words[0];
        std::vector<uint8_t> bytes = ctl::encode(cmd.steps[0], &error);
        request_frame f;
        ASSERT_EQ(request_parse(bytes.data(), bytes.size(), &f), 0) << c.words[0];
        std::vector<std::string> fields;
        for (int i = 0; i < f.field_count; ++i)
            fields.emplace_back(f.fields[i], f.field_len[i]);
        EXPECT_EQ(f.code, c.code) << c.words[0];
        EXPECT_EQ(fields, c.fields) << c.words[0];
    }
    // The daemon reads one target per request: the list is six reads in slot order.
    std::vector<ctl::request> list = parsed({"ping", "list"}).steps;
    ASSERT_EQ(list.size(), 6u);
    EXPECT_EQ(list[5].code, 523);
    EXPECT_EQ(list[0].fields[1] + list[5].fields[0] + list[5].fields[1], "106");
    for (const std::vector<std::string> &bad : std::vector<std::vector<std::string>>{
             {}, {"frobnicate"}, {"dial", "maybe"}, {"ping", "set", "1"}, {"raw", "65536"}, {"at", std::string(999, 'A')},
             {"sms", "send", "--validity", "256", "1", "x"}, {"sms", "send", "--text-mode", "--report", "1", "x"},
             {"fota", "/f", "--pause", "5"}, {"fota", "/f", "--chunk", "0"}, {"fota", "/f", "--chunk"},
             {"status", "--yaml"}}) {
        ctl::command c;
        EXPECT_FALSE(ctl::parse_command(bad, &c, &error)) << (bad.empty() ? "" : bad[0]);
    }
}

TEST(CtlTest, SmsTextsOfAnyLengthGoInTheirCodingWithTimeForEveryPart) {
    const std::string euro = "\xE2\x82\xAC", cjk = "\xE4\xB8\xAD";
    auto times = [](const std::string &s, size_t n) {
        std::string out;
        while (n-- > 0)
            out += s;
        return out;
    };
    const struct {
        std::string text;
        const char *coding;
        int parts; // of the time a message may take
    } cases[] = {
        {"caf\xC3\xA9 [ok] " + euro, "0", 1}, // accents and extension characters are GSM
        {"`", "1", 1},                          // ASCII, but in neither GSM table
        {"\t", "1", 1},
        {std::string(160, 'a'), "0", 1},
        {std::string(400, 'a'), "0", 3},
        {std::string(900, 'a'), "0", 6},
        {times(euro, 300), "0", 4},             // 600 septets
        {times(cjk, 300), "1", 5},              // 900 bytes, 300 units
    };
    for (const auto &c : cases) {
        ctl::command cmd = parsed({"sms", "send", "10086", c.text});
        ASSERT_EQ(cmd.steps.size(), 1u);
        EXPECT_EQ(cmd.steps[0].fields.at(0), c.coding) << c.text.size();
        EXPECT_EQ(cmd.steps[0].fields.at(3), c.text);
        EXPECT_EQ(cmd.steps[0].timeout_ms, c.parts * ctl::default_timeout_ms(251)) << c.text.size();
    }
    // Only the frame bounds a text: 1000 bytes with the other fields.
    ctl::command too_long;
    std::string error;
    EXPECT_FALSE(ctl::parse_command({"sms", "send", "10086", std::string(990, 'a')}, &too_long, &error));
}

TEST(CtlTest, RepliesEndTheRequestAndArePrintedOnOneLine) {
    ctl::request query;
    query.code = 561;
    ctl::exchange fota(query);
    EXPECT_EQ(fota.take(reply(1001, 1, "123")), ctl::verdict::unrelated);
    EXPECT_EQ(fota.take(reply(561, 5, "50")), ctl::verdict::progress);
    EXPECT_EQ(fota.take(reply(561, 12)), ctl::verdict::done);
    EXPECT_EQ(fota.exit_status(), ctl::EXIT_FAILED);

    // A raw AT line the module refuses fails the run (its "OK" path is in ClientToolTest).
    ctl::exchange refused(parsed({"at", "AT+CSQ"}).steps.at(1));
    EXPECT_EQ(refused.take(reply(402, 0, "+CME ERROR: 10")), ctl::verdict::done);
    EXPECT_EQ(refused.exit_status(), ctl::EXIT_FAILED);

    // A terminal redraws the update's bar in place; the label's control bytes
    // (a fuzzing find: "\b 0%") are escaped like a frame's.
    std::string label;
    int percent = -1;
    EXPECT_TRUE(ctl::progress_percent(reply(561, 5, "File downloading 32%"), &label, &percent));
    EXPECT_EQ(ctl::progress_bar(label, percent), "File downloading     [#########.....................]  32%");
    EXPECT_TRUE(ctl::progress_percent(reply(561, 5, "\b 0%"), &label, &percent));
    EXPECT_EQ(ctl::progress_bar(label, percent), "\\x08                 [..............................]   0%");
    EXPECT_TRUE(ctl::progress_percent(reply(561, 5, "Fota updating \x1b[2J 100%"), &label, &percent));
    EXPECT_EQ(ctl::progress_bar(label, percent), "Fota updating \\x1B[2J [##############################] 100%");
    for (const char *text : {"Fota updating 101%", "Fota updating x%", "50%", "Fota updating 50"})
        EXPECT_FALSE(ctl::progress_percent(reply(561, 5, text), &label, &percent)) << text;

    ctl::print_style plain, json;
    json.json = true;
    EXPECT_EQ(ctl::format_frame(reply(1001, 2, "1"), plain, true), "event 1001 call-state(2) 1");
    EXPECT_EQ(ctl::format_frame(reply(402, 0, "a\r\nb\\c\x01"), plain, false), "402 ok(0) a\\r\\nb\\\\c\\x01");
    EXPECT_EQ(ctl::format_frame(reply(1031, 0, "say \"hi\"\xFF"), json, false),
              "{\"code\":1031,\"status\":0,\"status_name\":\"ok\",\"text\":\"say \\\"hi\\\"\\ufffd\"}");
}

// A socket listening on the abstract name `name` ("@..."), as a daemon's; -1 on failure.
int listening_on(const std::string &name) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + 1, name.data() + 1, name.size() - 1);
    const socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && (bind(fd, reinterpret_cast<sockaddr *>(&addr), len) != 0 || listen(fd, 2) != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

// Anyone may bind the daemon's name while it is not running: the tool sends
// nothing to a socket of another user than the daemon's.
TEST(CtlTest, SendsNothingToASocketOfAnotherUserThanTheDaemons) {
    const std::string name = "@zolvin_ctl_test." + std::to_string(getpid());
    int listener = listening_on(name);
    ASSERT_GE(listener, 0);
    const std::string self = std::to_string(getuid());
    ctl::options opts;
    std::string error;
    ASSERT_TRUE(ctl::parse_options({"--socket", name, "--server-uid", std::to_string(getuid() + 1), "version"},
                                   &opts, &error)) << error;
    std::ostringstream out, err;
    EXPECT_EQ(ctl::run(opts, out, err), ctl::EXIT_UNTRUSTED);
    EXPECT_NE(err.str().find("belongs to uid " + self + " "), std::string::npos) << err.str();
    int squatter = accept(listener, nullptr, nullptr);
    char byte;
    EXPECT_EQ(recv(squatter, &byte, 1, 0), 0); // the tool left without a byte
    close(squatter);
    close(listener);
    for (const char *bad : {"", "x", "-1", "4294967295", "12x"})
        EXPECT_FALSE(ctl::parse_options({"--server-uid", bad, "version"}, &opts, &error)) << bad;
}

TEST(CtlTest, ListenShowsEventsDecodedAndRecordsThatDoNotAddUpRaw) {
    ctl::print_style plain, json;
    json.json = true;
    const std::string sms = "14+86139123456781420261123101542005Hello";
    const struct {
        reply_frame f;
        std::string plain, json;
    } cases[] = {
        {reply(1001, 1, "13912345678"), "call incoming 13912345678",
         R"({"event":"call","state":"incoming","number":"13912345678"})"},
        {reply(1001, 2, "1"), "call ended (no carrier)", R"({"event":"call","state":"ended","reason":"no carrier"})"},
        {reply(1031, 0, sms), "sms from +8613912345678 at 2026-11-23 10:15:42: Hello",
         R"({"event":"sms","from":"+8613912345678","time":"2026-11-23T10:15:42","text":"Hello"})"},
        // A 7-bit text of 7 characters ends in a 0 that the frame's end cuts off.
        {reply(1031, 0, "0212142026112310154200812\"\n\x01" "56"), "sms from 12 at 2026-11-23 10:15:42: 12\"\\n\\x0156",
         R"({"event":"sms","from":"12","time":"2026-11-23T10:15:42","text":"12\"\n\u000156"})"},
        {reply(1032, 0x41, "255"), "sms report ref 255 status 65 (failed)",
         R"({"event":"sms_report","reference":255,"status":65,"outcome":"failed"})"},
        {reply(1101, 1, ""), "module left the bus", R"({"event":"module","state":"left"})"},
        {reply(1101, 0, ""), "module back", R"({"event":"module","state":"back"})"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(ctl::format_event(c.f, plain), c.plain);
        EXPECT_EQ(ctl::format_event(c.f, json), c.json);
    }
    // Lengths that run past the end, a text longer than announced, no "14",
    // unknown call states and references: printed as frames.
    for (const reply_frame &f : {reply(1031, 0, "99+86"), reply(1031, 0, sms + "!"), reply(1031, 0, "0212152026112310154200"),
                                 reply(1001, 2, "9"), reply(1032, 0, "x"),
                                 // A fuzzing find: 20 digits overflowed the reading of a reference.
                                 reply(1032, 0, "99999929999299992992"), reply(1101, 2, ""),
                                 reply(1101, 1, "x"), reply(102, 0, "20")})
        EXPECT_EQ(ctl::format_event(f, plain), "") << std::string(f.text, f.text_len);
}

// A fake daemon on an abstract socket of this user: sends `frames`, then
// closes. What `listen` (with `extra` options) printed.
std::string listened(const std::vector<reply_frame> &frames, const std::vector<std::string> &extra = {}) {
    const std::string name = "@zolvin_ctl_listen." + std::to_string(getpid());
    int listener = listening_on(name);
    EXPECT_GE(listener, 0);
    std::thread daemon([&] {
        int c = accept(listener, nullptr, nullptr);
        for (const reply_frame &f : frames) {
            uint8_t frame[REPLY_MAX];
            send(c, frame, reply_build(frame, f.code, f.status, std::string(f.text, f.text_len).c_str()),
                 MSG_NOSIGNAL);
        }
        close(c);
    });
    std::vector<std::string> args = {"--socket", name, "--server-uid", std::to_string(getuid())};
    args.insert(args.end(), extra.begin(), extra.end());
    args.push_back("listen");
    ctl::options opts;
    std::string error;
    EXPECT_TRUE(ctl::parse_options(args, &opts, &error)) << error;
    std::ostringstream out, err;
    EXPECT_EQ(ctl::run(opts, out, err), ctl::EXIT_NO_ANSWER); // the daemon went away
    daemon.join();
    close(listener);
    return out.str();
}

TEST(CtlTest, ListenJoinsTheFramesOfALongMessage) {
    std::string text;
    for (int i = 0; i < 200; ++i)
        text += "\xE9\x95\xBF"; // 600 bytes of UTF-8
    const std::string record = "07InfoSMS1420261123101542600" + text;
    const size_t cut = 7 + 21 + 300; // between two characters
    const std::vector<reply_frame> frames = {
        reply(1033, 1, record.substr(0, cut)),
        reply(1001, 2, "1"), // another event between the pieces
        reply(1033, 0, record.substr(cut)),
        // A piece went missing (status 1 never came): what came is shown as it is.
        reply(1033, 2, "0212"),
        reply(1033, 0, record.substr(cut)),
        // More than any record of the daemon takes: not kept.
        reply(1033, 64, "x"),
        // A record that does not read, and one cut off by the end of the connection.
        reply(1033, 1, "99"), reply(1033, 0, "+86"),
        reply(1033, 3, "07"),
    };
    const std::string from_at = "sms from InfoSMS at 2026-11-23 10:15:42: ";
    EXPECT_EQ(listened(frames), "call ended (no carrier)\n" + from_at + text +
                                    "\n1033 ok(0) 0212\n1033 ok(0) " + record.substr(cut) +
                                    "\n1033 ok(0) x\n1033 ok(0) 99+86\n1033 ok(0) 07\n");
    EXPECT_EQ(listened({frames[0], frames[2]}, {"--json"}), R"({"event":"sms","from":"InfoSMS","time":"2026-11-23T10:15:42","text":")" + text + "\"}\n");
}

} // namespace
