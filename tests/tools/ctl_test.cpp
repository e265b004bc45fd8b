#include "ctl/ctl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using bytes = std::vector<uint8_t>;

bytes b(const std::string &s) { return bytes(s.begin(), s.end()); }

ctl::command parsed(const std::vector<std::string> &words) {
    ctl::command c;
    std::string error;
    EXPECT_TRUE(ctl::parse_command(words, &c, &error)) << error;
    return c;
}

bytes frame_of(const ctl::request &r) {
    std::string error;
    return ctl::encode(r, &error);
}

reply_frame reply(uint16_t code, uint16_t status, const std::string &text = "") {
    reply_frame f{};
    f.code = code;
    f.status = status;
    f.text_len = text.size();
    memcpy(f.text, text.data(), text.size());
    return f;
}

bytes reply_bytes(uint16_t code, uint16_t status, const std::string &text = "") {
    uint8_t out[REPLY_MAX];
    size_t n = reply_build(out, code, status, text.c_str());
    return bytes(out, out + n);
}

TEST(CtlCommandTest, WordsBecomeTheRequestBytes) {
    // Reading the check period: the 10-byte request of the protocol's own example.
    ctl::command period = parsed({"period"});
    ASSERT_EQ(period.steps.size(), 1u);
    EXPECT_EQ(frame_of(period.steps[0]), b(std::string("ZVS\x02\x0C\x00\x01"
                                                        "0\x00\x00",
                                                        10)));
    EXPECT_EQ(frame_of(parsed({"period", "300"}).steps[0]),
              b(std::string("ZVS\x02\x0C\x00\x01"
                            "1\x00\x03"
                            "300\x00\x00",
                            15)));
    EXPECT_EQ(frame_of(parsed({"version"}).steps[0]), b(std::string("ZVS\x03\x8F\x00\x00", 7)));

    struct {
        std::vector<std::string> words;
        uint16_t code;
        std::vector<std::string> fields;
    } cases[] = {
        {{"dial", "on"}, 501, {"1"}},
        {{"dial", "off"}, 501, {"0"}},
        {{"apn", "get", "1"}, 521, {"0", "1"}},
        {{"apn", "set", "1", "internet"}, 521, {"1", "1", "internet"}},
        // An empty value leaves the third field out, which clears the setting.
        {{"apn", "set", "2", ""}, 521, {"1", "2"}},
        {{"ping", "set", "1", "8.8.8.8"}, 523, {"1", "1", "8.8.8.8"}},
        {{"check"}, 522, {"0"}},
        {{"check", "off"}, 522, {"1", "0"}},
        {{"down-script", ""}, 525, {"1"}},
        {{"down-script", "/bin/down now"}, 525, {"1", "/bin/down now"}},
        {{"passthrough", "on"}, 401, {"1"}},
        {{"call", "123"}, 304, {"123"}},
        {{"tts", "hello"}, 310, {"1", "hello"}},
        {{"tts-stop"}, 310, {"0"}},
        {{"lbs", "set", "token", "ABC"}, 451, {"1", "token", "ABC"}},
        {{"raw", "561", "1", "http://x/fw.bin"}, 561, {"1", "http://x/fw.bin"}},
        {{"raw", "0"}, 0, {}},
    };
    for (auto &c : cases) {
        ctl::command cmd = parsed(c.words);
        ASSERT_EQ(cmd.steps.size(), 1u) << c.words[0];
        request_frame f;
        bytes raw = frame_of(cmd.steps[0]);
        ASSERT_EQ(request_parse(raw.data(), raw.size(), &f), 0) << c.words[0];
        EXPECT_EQ(f.code, c.code) << c.words[0];
        std::vector<std::string> fields;
        for (int i = 0; i < f.field_count; ++i)
            fields.emplace_back(f.fields[i], f.field_len[i]);
        EXPECT_EQ(fields, c.fields) << c.words[0];
    }
}

TEST(CtlCommandTest, WordsThatMakeNoRequestAreRefused) {
    std::vector<std::vector<std::string>> bad = {
        {},
        {"frobnicate"},
        {"signal", "now"},
        {"dial"},
        {"dial", "maybe"},
        {"apn", "put", "1"},
        {"apn", "get"},
        {"lbs", "set", "token"},
        {"raw"},
        {"raw", "65536"},
        {"raw", "-1"},
        {"raw", "12x"},
        {"raw", "102", ""},                               // an empty field cannot be sent
        {"raw", "102", "1", "2", "3", "4", "5", "6", "7"}, // seven fields
        {"at", std::string(999, 'A')},                    // fits a field, not the frame
        {"call", std::string(1000, '1')},
    };
    for (auto &words : bad) {
        ctl::command c;
        std::string error;
        EXPECT_FALSE(ctl::parse_command(words, &c, &error)) << (words.empty() ? "" : words[0]);
        EXPECT_FALSE(error.empty());
    }
}

TEST(CtlOptionsTest, OptionsGoBeforeTheCommand) {
    ctl::options o;
    std::string error;
    ASSERT_TRUE(ctl::parse_options({"--json", "--timeout", "2.5", "--events", "apn", "set", "1", "--x"}, &o, &error));
    EXPECT_TRUE(o.json);
    EXPECT_TRUE(o.events);
    EXPECT_EQ(o.timeout_ms, 2500);
    EXPECT_EQ(o.words, (std::vector<std::string>{"apn", "set", "1", "--x"}));
    ASSERT_TRUE(ctl::parse_options({"listen", "passthrough", "on"}, &o, &error));
    EXPECT_TRUE(o.listen);
    EXPECT_EQ(o.words, (std::vector<std::string>{"passthrough", "on"}));
    ASSERT_TRUE(ctl::parse_options({"listen"}, &o, &error));
    EXPECT_TRUE(o.words.empty());
    for (std::vector<std::string> bad : {std::vector<std::string>{}, {"--timeout"}, {"--timeout", "0", "signal"},
                                         {"--timeout", "soon", "signal"}, {"--verbose", "signal"}})
        EXPECT_FALSE(ctl::parse_options(bad, &o, &error)) << error;
}

TEST(CtlExchangeTest, ReplyIsTheFirstFrameWithTheRequestCodeAfterProgress) {
    ctl::request fota;
    fota.code = 561;
    ctl::exchange ex(fota);
    EXPECT_EQ(ex.take(reply(1001, 1, "123")), ctl::verdict::unrelated);
    EXPECT_EQ(ex.take(reply(561, 5, "+QIND: \"FOTA\",\"UPDATING\",50")), ctl::verdict::progress);
    EXPECT_EQ(ex.take(reply(561, 0)), ctl::verdict::done);
    EXPECT_EQ(ex.exit_status(), ctl::EXIT_OK);

    ctl::request query;
    query.code = 102;
    for (uint16_t status : std::vector<uint16_t>{1, 10, 11, 12, 13, 20}) {
        ctl::exchange e(query);
        EXPECT_EQ(e.take(reply(102, status)), ctl::verdict::done);
        EXPECT_EQ(e.exit_status(), ctl::EXIT_FAILED) << status;
    }
    for (uint16_t status : std::vector<uint16_t>{0, 2}) {
        ctl::exchange e(query);
        EXPECT_EQ(e.take(reply(102, status)), ctl::verdict::done);
        EXPECT_EQ(e.exit_status(), ctl::EXIT_OK) << status;
    }
}

TEST(CtlExchangeTest, RawAtLinesEndAtTheModulesFinalLine) {
    ctl::command at = parsed({"at", "AT+CSQ"});
    ASSERT_EQ(at.steps.size(), 2u);
    const ctl::request &line = at.steps[1];
    {
        ctl::exchange ex(line);
        EXPECT_EQ(ex.take(reply(402, 0, "AT+CSQ")), ctl::verdict::progress); // the echo
        EXPECT_EQ(ex.take(reply(1001, 0)), ctl::verdict::unrelated);
        EXPECT_EQ(ex.take(reply(402, 0, "+CSQ: 20,99")), ctl::verdict::progress);
        EXPECT_EQ(ex.take(reply(402, 0, "OK")), ctl::verdict::done);
        EXPECT_EQ(ex.exit_status(), ctl::EXIT_OK);
    }
    for (const char *final_line : {"ERROR", "+CME ERROR: 10", "+CMS ERROR: 500", "NO CARRIER"}) {
        ctl::exchange ex(line);
        EXPECT_EQ(ex.take(reply(402, 0, final_line)), ctl::verdict::done) << final_line;
        EXPECT_EQ(ex.exit_status(), ctl::EXIT_FAILED) << final_line;
    }
    // The daemon's refusal (pass-through off, busy) ends it too.
    ctl::exchange refused(line);
    EXPECT_EQ(refused.take(reply(402, 11)), ctl::verdict::done);
    EXPECT_EQ(refused.exit_status(), ctl::EXIT_FAILED);
}

TEST(CtlPrintTest, PlainAndJsonKeepEveryFrameOnOneLine) {
    ctl::print_style plain, json;
    json.json = true;
    EXPECT_EQ(ctl::format_frame(reply(911, 0, "ZOLVIN 4G SERVER V1.23"), plain, false),
              "911 ok(0) ZOLVIN 4G SERVER V1.23");
    EXPECT_EQ(ctl::format_frame(reply(102, 12), plain, false), "102 busy(12)");
    EXPECT_EQ(ctl::format_frame(reply(1001, 2, "1"), plain, true), "event 1001 call-state(2) 1");
    EXPECT_EQ(ctl::format_frame(reply(1032, 48, "7"), plain, false), "1032 sms-report(48) 7");
    EXPECT_EQ(ctl::format_frame(reply(9, 77), plain, false), "9 status-77(77)");
    EXPECT_EQ(ctl::format_frame(reply(402, 0, "a\r\nb\\c\x01\x7f"), plain, false), "402 ok(0) a\\r\\nb\\\\c\\x01\\x7F");

    EXPECT_EQ(ctl::format_frame(reply(1031, 0, "say \"hi\"\n"), json, true),
              "{\"event\":true,\"code\":1031,\"status\":0,\"status_name\":\"ok\",\"text\":\"say \\\"hi\\\"\\n\"}");
    EXPECT_EQ(ctl::format_frame(reply(102, 10), json, false),
              "{\"code\":102,\"status\":10,\"status_name\":\"bad-parameter\",\"text\":\"\"}");
    // Valid UTF-8 passes; what is not UTF-8 becomes U+FFFD, so the line stays valid JSON.
    EXPECT_EQ(ctl::json_escape("\xE4\xBD\xA0 \xF0\x9F\x98\x80"), "\xE4\xBD\xA0 \xF0\x9F\x98\x80");
    EXPECT_EQ(ctl::json_escape("a\xFF" "b"), "a\\ufffdb");
    EXPECT_EQ(ctl::json_escape("\xC0\xAF"), "\\ufffd\\ufffd");       // overlong
    EXPECT_EQ(ctl::json_escape("\xED\xA0\x80"), "\\ufffd\\ufffd\\ufffd"); // surrogate
    EXPECT_EQ(ctl::json_escape("\xE4\xBD"), "\\ufffd\\ufffd");        // cut short
    EXPECT_EQ(ctl::json_escape(std::string("\x00\x1f\\", 3)), "\\u0000\\u001f\\\\");
}

TEST(CtlFrameReaderTest, FramesSplitAndJoinedOnTheStream) {
    bytes stream;
    for (const bytes &f : {reply_bytes(911, 0, "ZOLVIN 4G SERVER V1.23"), reply_bytes(102, 12),
                           reply_bytes(0, 0), reply_bytes(402, 0, "OK")})
        stream.insert(stream.end(), f.begin(), f.end());
    // Byte by byte, then all at once: the same four frames.
    for (size_t step : {size_t(1), stream.size()}) {
        ctl::frame_reader r;
        std::vector<std::string> got;
        for (size_t i = 0; i < stream.size(); i += step) {
            r.feed(stream.data() + i, std::min(step, stream.size() - i));
            reply_frame f;
            while (r.next(&f))
                got.push_back(std::to_string(f.code) + "/" + std::to_string(f.status) + "/" + f.text);
        }
        EXPECT_EQ(got, (std::vector<std::string>{"911/0/ZOLVIN 4G SERVER V1.23", "102/12/", "0/0/", "402/0/OK"}));
        EXPECT_FALSE(r.bad());
    }
    ctl::frame_reader r;
    r.feed(reinterpret_cast<const uint8_t *>("ZVX\0\0\0\0\0"), 8);
    reply_frame f;
    EXPECT_FALSE(r.next(&f));
    EXPECT_TRUE(r.bad());
}

// A stand-in for the daemon on an abstract socket of its own.
class FakeDaemon {
public:
    FakeDaemon() {
        static int count = 0;
        name = "@zolvin_ctl_test_" + std::to_string(getpid()) + "_" + std::to_string(++count);
        listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        memcpy(addr.sun_path + 1, name.c_str() + 1, name.size() - 1);
        socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&addr), len), 0);
        EXPECT_EQ(listen(listener, 1), 0);
    }
    ~FakeDaemon() {
        if (client >= 0)
            close(client);
        close(listener);
    }
    bool accept_client() {
        pollfd p{listener, POLLIN, 0};
        if (poll(&p, 1, 5000) != 1)
            return false;
        client = accept(listener, nullptr, nullptr);
        return client >= 0;
    }
    // The next request, or code -1 when none came within `ms`.
    int next_request(request_frame *f, int ms = 5000) {
        pollfd p{client, POLLIN, 0};
        if (poll(&p, 1, ms) != 1)
            return -1;
        uint8_t buf[REQUEST_MAX];
        ssize_t n = read(client, buf, sizeof buf);
        if (n <= 0 || request_parse(buf, static_cast<size_t>(n), f) != 0)
            return -1;
        return f->code;
    }
    void say(const bytes &frame) { ASSERT_EQ(send(client, frame.data(), frame.size(), MSG_NOSIGNAL), static_cast<ssize_t>(frame.size())); }
    void hang_up() {
        close(client);
        client = -1;
    }

    std::string name;
    int listener = -1;
    int client = -1;
};

struct tool_result {
    int status = -1;
    std::string out, err;
};

// The tool's standard output, which the test may watch while the tool runs.
class watched_output : public std::streambuf {
public:
    bool wait_lines(size_t n, int timeout_ms) {
        std::unique_lock<std::mutex> lock(mu_);
        return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
            return static_cast<size_t>(std::count(text_.begin(), text_.end(), '\n')) >= n;
        });
    }
    std::string text() {
        std::lock_guard<std::mutex> lock(mu_);
        return text_;
    }

protected:
    int overflow(int c) override {
        if (c != EOF) {
            char ch = static_cast<char>(c);
            xsputn(&ch, 1);
        }
        return c;
    }
    std::streamsize xsputn(const char *s, std::streamsize n) override {
        std::lock_guard<std::mutex> lock(mu_);
        text_.append(s, static_cast<size_t>(n));
        changed_.notify_all();
        return n;
    }

private:
    std::mutex mu_;
    std::condition_variable changed_;
    std::string text_;
};

// Runs the tool in a thread of its own while the test plays the daemon.
class ToolRun {
public:
    ToolRun(const FakeDaemon &daemon, std::vector<std::string> args, int stop_fd = -1) {
        args.insert(args.begin(), {"--socket", daemon.name});
        thread_ = std::thread([this, args, stop_fd] {
            ctl::options o;
            std::string error;
            if (!ctl::parse_options(args, &o, &error)) {
                result_.err = error;
                return;
            }
            std::ostream out(&out_);
            std::ostringstream err;
            result_.status = ctl::run(o, out, err, stop_fd);
            result_.err = err.str();
        });
    }
    ~ToolRun() {
        if (thread_.joinable())
            thread_.join();
    }
    bool wait_lines(size_t n) { return out_.wait_lines(n, 5000); }
    tool_result finish() {
        thread_.join();
        result_.out = out_.text();
        return result_;
    }

private:
    watched_output out_;
    std::thread thread_;
    tool_result result_;
};

TEST(CtlRunTest, EventsBeforeTheReplyArePrintedOnlyWhenAsked) {
    for (bool events : {false, true}) {
        FakeDaemon daemon;
        std::vector<std::string> args = {"signal"};
        if (events)
            args.insert(args.begin(), "--events");
        ToolRun tool(daemon, args);
        ASSERT_TRUE(daemon.accept_client());
        request_frame f;
        ASSERT_EQ(daemon.next_request(&f), 102);
        daemon.say(reply_bytes(1001, 1, "12345"));
        daemon.say(reply_bytes(102, 0, "23"));
        tool_result r = tool.finish();
        EXPECT_EQ(r.status, ctl::EXIT_OK);
        EXPECT_EQ(r.out, events ? "event 1001 failed(1) 12345\n102 ok(0) 23\n" : "102 ok(0) 23\n");
        EXPECT_EQ(r.err, "");
    }
}

TEST(CtlRunTest, FailureStatusTimeOutAndAVanishedDaemon) {
    {
        FakeDaemon daemon;
        ToolRun tool(daemon, {"--json", "raw", "190"});
        ASSERT_TRUE(daemon.accept_client());
        request_frame f;
        ASSERT_EQ(daemon.next_request(&f), 190);
        daemon.say(reply_bytes(190, 20));
        tool_result r = tool.finish();
        EXPECT_EQ(r.status, ctl::EXIT_FAILED);
        EXPECT_EQ(r.out, "{\"code\":190,\"status\":20,\"status_name\":\"unknown-code\",\"text\":\"\"}\n");
    }
    {
        FakeDaemon daemon;
        ToolRun tool(daemon, {"--timeout", "0.2", "operator"});
        ASSERT_TRUE(daemon.accept_client());
        request_frame f;
        ASSERT_EQ(daemon.next_request(&f), 103);
        daemon.say(reply_bytes(102, 0, "23")); // not the awaited code
        tool_result r = tool.finish();
        EXPECT_EQ(r.status, ctl::EXIT_NO_ANSWER);
        EXPECT_EQ(r.out, "");
        EXPECT_NE(r.err.find("no reply to 103 within 0.2 s"), std::string::npos) << r.err;
    }
    {
        FakeDaemon daemon;
        ToolRun tool(daemon, {"model"});
        ASSERT_TRUE(daemon.accept_client());
        request_frame f;
        ASSERT_EQ(daemon.next_request(&f), 51);
        daemon.hang_up();
        tool_result r = tool.finish();
        EXPECT_EQ(r.status, ctl::EXIT_NO_ANSWER);
        EXPECT_NE(r.err.find("closed the connection"), std::string::npos) << r.err;
    }
    {
        FakeDaemon daemon;
        std::string name = daemon.name + "_nobody";
        ctl::options o;
        o.socket_name = name;
        o.words = {"version"};
        std::ostringstream out, err;
        EXPECT_EQ(ctl::run(o, out, err), ctl::EXIT_NO_ANSWER);
        EXPECT_NE(err.str().find("cannot connect to " + name), std::string::npos) << err.str();
    }
}

TEST(CtlRunTest, RawAtSendsTheLineAfterThePassThroughReplyAgainWhileBusy) {
    FakeDaemon daemon;
    ToolRun tool(daemon, {"at", "AT"});
    ASSERT_TRUE(daemon.accept_client());
    request_frame f;
    ASSERT_EQ(daemon.next_request(&f), 401);
    // Sent together, the two frames could land in one read and the second be lost.
    EXPECT_EQ(daemon.next_request(&f, 200), -1);
    daemon.say(reply_bytes(401, 0));
    ASSERT_EQ(daemon.next_request(&f), 402);
    // The pass-through worker may not have freed the port yet: the line goes again.
    daemon.say(reply_bytes(402, 12));
    ASSERT_EQ(daemon.next_request(&f), 402);
    EXPECT_EQ(std::string(f.fields[1]), "AT");
    daemon.say(reply_bytes(402, 0, "AT"));
    daemon.say(reply_bytes(402, 0, "OK"));
    tool_result r = tool.finish();
    EXPECT_EQ(r.status, ctl::EXIT_OK);
    EXPECT_EQ(r.out, "402 ok(0) AT\n402 ok(0) OK\n");

    // Refused pass-through: the line is never sent.
    FakeDaemon busy;
    ToolRun refused(busy, {"at", "AT"});
    ASSERT_TRUE(busy.accept_client());
    ASSERT_EQ(busy.next_request(&f), 401);
    busy.say(reply_bytes(401, 13));
    tool_result r2 = refused.finish();
    EXPECT_EQ(r2.status, ctl::EXIT_FAILED);
    EXPECT_EQ(r2.out, "401 not-ready(13)\n");
    EXPECT_EQ(busy.next_request(&f, 100), -1);

    // A plain request takes busy for its answer.
    FakeDaemon plain;
    ToolRun query(plain, {"signal"});
    ASSERT_TRUE(plain.accept_client());
    ASSERT_EQ(plain.next_request(&f), 102);
    plain.say(reply_bytes(102, 12));
    tool_result r3 = query.finish();
    EXPECT_EQ(r3.status, ctl::EXIT_FAILED);
    EXPECT_EQ(r3.out, "102 busy(12)\n");
}

TEST(CtlRunTest, ListenPrintsEveryFrameUntilStoppedOrTheDaemonLeaves) {
    int stop[2];
    ASSERT_EQ(pipe(stop), 0);
    {
        FakeDaemon daemon;
        ToolRun tool(daemon, {"listen", "passthrough", "on"}, stop[0]);
        ASSERT_TRUE(daemon.accept_client());
        request_frame f;
        ASSERT_EQ(daemon.next_request(&f), 401);
        daemon.say(reply_bytes(1001, 0)); // arrives before the reply: printed like any frame
        daemon.say(reply_bytes(401, 0));
        daemon.say(reply_bytes(402, 0, "RING"));
        daemon.say(reply_bytes(1032, 0, "5"));
        ASSERT_TRUE(tool.wait_lines(4));
        ASSERT_EQ(write(stop[1], "x", 1), 1);
        tool_result r = tool.finish();
        EXPECT_EQ(r.status, ctl::EXIT_OK);
        EXPECT_EQ(r.out, "1001 ok(0)\n401 ok(0)\n402 ok(0) RING\n1032 sms-report(0) 5\n");
        EXPECT_EQ(r.err, "");
    }
    char drain;
    ASSERT_EQ(read(stop[0], &drain, 1), 1);
    {
        FakeDaemon daemon;
        ToolRun tool(daemon, {"--json", "listen"}, stop[0]);
        ASSERT_TRUE(daemon.accept_client());
        daemon.say(reply_bytes(402, 0, "OK"));
        daemon.hang_up();
        tool_result r = tool.finish();
        EXPECT_EQ(r.status, ctl::EXIT_NO_ANSWER);
        EXPECT_EQ(r.out, "{\"code\":402,\"status\":0,\"status_name\":\"ok\",\"text\":\"OK\"}\n");
    }
    close(stop[0]);
    close(stop[1]);
}

} // namespace
