// zolvin_4g_mqtt between the real daemon on the simulated board and a real
// Mosquitto broker, both in the board's network namespace: the retained
// online flag and state, every event once and in order as the client tool
// shows it, the state at once on a link loss, the last will, the offline
// queue across a broker outage, TLS, and bad configurations.

#include "e2e/board.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <fstream>
#include <sys/stat.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>

#ifndef ZOLVIN_MQTT_BIN
#define ZOLVIN_MQTT_BIN ""
#endif

namespace {

const std::string MQTT_BIN = ZOLVIN_MQTT_BIN;
const std::string PREFIX = "zolvin/board7";

// A program run in the board's network namespace, its output in files.
class ns_process {
public:
    ns_process(const sim_board &board, const std::vector<std::string> &argv, const std::string &out,
               const std::string &err) {
        std::vector<char *> args;
        for (const std::string &a : argv)
            args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        board.in_network([&] {
            pid_ = fork();
            if (pid_ == 0) {
                int o = open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
                int e = open(err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
                if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0)
                    _exit(126);
                execv(args[0], args.data());
                _exit(127);
            }
        });
    }
    ~ns_process() { stop(SIGKILL); }
    ns_process(const ns_process &) = delete;
    ns_process &operator=(const ns_process &) = delete;

    // `sig`, then SIGKILL if the program has not ended within 5 s.
    void stop(int sig = SIGTERM) {
        if (pid_ <= 0 || kill(pid_, sig) != 0)
            return;
        if (!wait_until([&] { return waitpid(pid_, nullptr, WNOHANG) == pid_; }, 5000, 2)) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
};

// A broker, a subscriber to everything under "zolvin/" and the program, in
// the board's network namespace. The subscriber keeps its session (QoS 1, no
// clean session) and the broker its store, so a broker restart loses nothing
// of what the subscriber is owed.
class mqtt_rig {
public:
    explicit mqtt_rig(sim_board &board) : board_(board), dir_(board.path("mqtt")) {
        mkdir(dir_.c_str(), 0755);
        // The board has its network namespace once it serves its control
        // socket; a program started before would run outside it.
        EXPECT_TRUE(wait_until([&] { return access(board.path("control.sock").c_str(), F_OK) == 0; }, 10000, 5));
    }

    // A sanitized build's report on the program's standard error fails the
    // test; the program ends with SIGTERM, so a leak check runs too.
    ~mqtt_rig() {
        if (program_ == nullptr)
            return;
        program_->stop();
        const std::string err = program_err();
        EXPECT_TRUE(err.find("Sanitizer") == std::string::npos && err.find("runtime error") == std::string::npos) << err;
    }
    mqtt_rig(const mqtt_rig &) = delete;
    mqtt_rig &operator=(const mqtt_rig &) = delete;

    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    std::string write(const std::string &name, const std::string &content) const {
        std::ofstream(path(name), std::ios::binary) << content;
        return path(name);
    }

    bool start_broker(const std::string &more = "") {
        write("broker.conf", "user root\npersistence true\npersistence_location " + dir_ +
                                 "/\nlog_dest stderr\nallow_anonymous true\nlistener 1883 127.0.0.1\n" + more);
        size_t runs = count_in("broker.err", " running");
        broker_ = spawn("broker", {"/usr/sbin/mosquitto", "-c", path("broker.conf")});
        return wait_until([&] { return count_in("broker.err", " running") > runs; }, 10000, 5);
    }
    void stop_broker() { broker_->stop(); }
    bool start(const std::string &broker_more = "") { return start_broker(broker_more) && start_subscriber(); }

    bool start_subscriber() {
        sub_ = spawn("sub", {"/usr/bin/mosquitto_sub", "-h", "127.0.0.1", "-q", "1", "-c", "-i", "test-sub", "-t",
                             "zolvin/#", "-F", "%t %p"});
        // Subscribed once the broker has the session.
        return wait_until([&] { return count_in("broker.err", "test-sub") > 0; }, 10000, 5);
    }

    void start_program(const std::string &conf, const std::vector<std::string> &more = {}) {
        std::vector<std::string> argv = {MQTT_BIN, "--config", write("program.conf", conf)};
        argv.insert(argv.end(), more.begin(), more.end());
        program_ = spawn("program", argv);
    }
    ns_process &program() { return *program_; }
    std::string program_err() const { return read_file(path("program.err")); }

    // `zolvin_4g_ctl --json listen version` beside the program, subscribed
    // once it has printed its first line (the reply to 911).
    bool start_listener() {
        listener_ = spawn("listen", {ZOLVIN_CTL_BIN, "--json", "listen", "version"});
        return wait_for([&] { return !lines_of("listen.out").empty(); });
    }
    // The events the listener printed: its lines after the first.
    std::vector<std::string> listened() const {
        std::vector<std::string> out = lines_of("listen.out");
        return out.empty() ? out : std::vector<std::string>(out.begin() + 1, out.end());
    }

    // Everything the subscriber received, in order, as topic and payload.
    std::vector<std::pair<std::string, std::string>> received() const {
        std::vector<std::pair<std::string, std::string>> out;
        for (const std::string &line : lines_of("sub.out"))
            if (line.find(' ') != std::string::npos)
                out.emplace_back(line.substr(0, line.find(' ')), line.substr(line.find(' ') + 1));
        return out;
    }
    std::vector<std::string> payloads(const std::string &topic) const {
        std::vector<std::string> out;
        for (const auto &[t, payload] : received())
            if (t == topic)
                out.push_back(payload);
        return out;
    }
    // The events, as "kind payload", from message `from` on.
    std::vector<std::string> events(size_t from = 0) const {
        std::vector<std::string> out;
        const auto all = received();
        const std::string under = PREFIX + "/event/";
        for (size_t i = from; i < all.size(); ++i)
            if (all[i].first.rfind(under, 0) == 0)
                out.push_back(all[i].first.substr(under.size()) + " " + all[i].second);
        return out;
    }
    bool wait_for(const std::function<bool()> &ready, milliseconds timeout = WAIT) {
        return sim_board::wait_until(ready, timeout, milliseconds(10));
    }
    // What a new subscriber to `topic` gets at once: the retained message, as
    // "retained-flag payload", or "" when there is none.
    std::string retained(const std::string &topic) {
        std::pair<int, std::string> run;
        board_.in_network([&] {
            run = run_command("/usr/bin/mosquitto_sub -h 127.0.0.1 -t " + topic + " -C 1 -W 2 -F '%r %p' 2>/dev/null");
        });
        return run.second.substr(0, run.second.find('\n'));
    }

private:
    std::unique_ptr<ns_process> spawn(const std::string &name, const std::vector<std::string> &argv) const {
        return std::make_unique<ns_process>(board_, argv, path(name + ".out"), path(name + ".err"));
    }
    std::vector<std::string> lines_of(const std::string &name) const {
        std::vector<std::string> out;
        std::istringstream in(read_file(path(name)));
        for (std::string line; std::getline(in, line);)
            out.push_back(line);
        return out;
    }
    size_t count_in(const std::string &name, const std::string &text) const {
        size_t n = 0;
        for (const std::string &line : lines_of(name))
            n += line.find(text) != std::string::npos;
        return n;
    }

    sim_board &board_;
    std::string dir_;
    std::unique_ptr<ns_process> broker_, sub_, listener_, program_;
};

// A member of a JSON object as Python's json module reads it ("null" when
// it is missing), so that no check rests on our own escaping.
std::string json_member(const std::string &json, const std::string &key) {
    temp_dir dir;
    auto [status, out] = run_command("python3 -c 'import json,sys; print(json.dumps(json.load(sys.stdin).get(\"" + key +
                                     "\")))' <" + dir.write("member.json", json));
    EXPECT_EQ(status, 0) << json;
    return out.substr(0, out.find('\n'));
}

#define SKIP_WITHOUT_MQTT()                                                                                            \
    do {                                                                                                               \
        if (MQTT_BIN.empty() || access("/usr/sbin/mosquitto", X_OK) != 0 || access("/usr/bin/mosquitto_sub", X_OK) != 0) \
            GTEST_SKIP() << "zolvin_4g_mqtt or mosquitto is not installed (scripts/deps.sh)";                          \
    } while (0)

const std::string PROGRAM_CONF = "# the test's\nbroker=127.0.0.1\nclient_id=board7\n";
const std::string AUTO_DIAL = "auto_dial=1\napn_name=cmnet\n";

TEST(MqttTest, OnlineStateEveryEventInOrderTheLinkLossAtOnceAndTheWill) {
    SKIP_WITHOUT_MQTT();
    READY_BOARD(b, board_config("ec20", AUTO_DIAL));
    ASSERT_TRUE(b.client->state_becomes("Connected"));
    mqtt_rig rig(b.board);
    ASSERT_TRUE(rig.start());
    ASSERT_TRUE(rig.start_listener());
    rig.start_program(PROGRAM_CONF);

    ASSERT_TRUE(rig.wait_for([&] { return !rig.payloads(PREFIX + "/state").empty(); })) << rig.program_err();
    const std::string state = rig.payloads(PREFIX + "/state")[0];
    EXPECT_EQ(json_member(state, "state"), "\"Connected\"") << state;
    EXPECT_EQ(json_member(state, "link"), "1") << state;
    EXPECT_EQ(json_member(state, "dials"), "1") << state;
    // Both are retained: a subscriber that comes later gets them at once.
    EXPECT_EQ(rig.retained(PREFIX + "/online"), "1 1");
    EXPECT_EQ(rig.retained(PREFIX + "/state"), "1 " + state);

    // Every kind of event the module can cause here (the restart's is the slow test's).
    ASSERT_TRUE(b.emu.inject_lines({"RING", "+CLIP: \"13912345678\",129", "NO CARRIER", "+QTONEDET: 49", "+QWTTS: 0",
                                    "+CME ERROR: 10"}));
    ASSERT_TRUE(b.emu.inject_lines({"+CMT: ,34", "0891683108100005F0040D91683119325476F800006211320151242316C8329BFD0699E5EF36888E2E83DC65FAFD2D5F03"}));
    ASSERT_TRUE(b.emu.inject_lines({"+CDS: 26", "0891683108100005F006050D91683119325476F8621132015124236211320161242300"}));
    const std::vector<std::string> kinds = {"call", "call", "tone", "speech_end", "module_error", "sms", "sms_report"};
    ASSERT_TRUE(rig.wait_for([&] { return rig.events().size() >= kinds.size(); })) << testing::PrintToString(rig.events());

    // A link loss: the module leaves the bus. Its event comes first, then the
    // state with the link down, within a few seconds of the unplug.
    const size_t before = rig.received().size(), states = rig.payloads(PREFIX + "/state").size();
    ASSERT_TRUE(b.board.unplug());
    const long long unplugged = monotonic_ms();
    ASSERT_TRUE(rig.wait_for([&] {
        std::vector<std::string> s = rig.payloads(PREFIX + "/state");
        return s.size() > states && json_member(s.back(), "link") == "0";
    })) << read_file(rig.path("sub.out"));
    EXPECT_LT(monotonic_ms() - unplugged, 3000);
    EXPECT_EQ(rig.received()[before].first, PREFIX + "/event/module") << read_file(rig.path("sub.out"));
    const std::string lost = rig.payloads(PREFIX + "/state").back();
    EXPECT_EQ(json_member(lost, "state"), "null") << lost; // not ready
    EXPECT_EQ(json_member(lost, "lost"), "1") << lost;
    ASSERT_TRUE(b.board.plug());
    ASSERT_TRUE(rig.wait_for([&] { return rig.events().size() == kinds.size() + 2; })) << testing::PrintToString(rig.events());

    // Each once, in order, with exactly the JSON the client tool prints.
    std::vector<std::string> events = rig.events(), listened = rig.listened();
    ASSERT_EQ(listened.size(), events.size()) << read_file(rig.path("listen.out"));
    std::vector<std::string> got_kinds;
    for (size_t i = 0; i < events.size(); ++i) {
        got_kinds.push_back(events[i].substr(0, events[i].find(' ')));
        EXPECT_EQ(events[i].substr(events[i].find(' ') + 1), listened[i]);
    }
    EXPECT_EQ(got_kinds, kinds + std::vector<std::string>(2, "module"));
    // The fields, as a JSON parser reads them.
    EXPECT_EQ(parsed_json(listened[0]), "[[\"event\", \"call\"], [\"state\", \"incoming\"], [\"number\", \"13912345678\"]]\n");
    EXPECT_EQ(parsed_json(listened[5]), "[[\"event\", \"sms\"], [\"from\", \"+8613912345678\"], "
                                        "[\"time\", \"2026-11-23T10:15:42\"], [\"text\", \"Hello from the network\"]]\n");
    EXPECT_EQ(json_member(listened[6], "reference"), "5");

    // Killed, the program says nothing more: the broker publishes its will after the one "1".
    rig.program().stop(SIGKILL);
    ASSERT_TRUE(rig.wait_for([&] { return rig.payloads(PREFIX + "/online") == std::vector<std::string>{"1", "0"}; }))
        << testing::PrintToString(rig.payloads(PREFIX + "/online"));
    EXPECT_EQ(rig.retained(PREFIX + "/online"), "1 0");
}

// The broker away for 10 s while events keep coming: none lost within the
// queue, all in order after the reconnect; beyond the queue the oldest are
// dropped and counted in the state. Then the restart's and a firmware
// update's events, the two that take the module away for long. About 75 s.
TEST(MqttSlowTest, ABrokerAwayLosesNoEventWithinTheQueueAndDropsTheOldestBeyondIt) {
    SKIP_WITHOUT_MQTT();
    board_config config;
    config.fota_return = "1500";
    READY_BOARD(b, config);
    mqtt_rig rig(b.board);
    ASSERT_TRUE(rig.start());
    rig.start_program(PROGRAM_CONF + "queue=6\n");
    ASSERT_TRUE(rig.wait_for([&] { return !rig.payloads(PREFIX + "/state").empty(); })) << rig.program_err();

    ASSERT_TRUE(rig.start_listener());
    // Twice away: 10 s with as many tones as the queue holds (the back-off
    // reaches 8 s meanwhile), then briefly with three more than it holds.
    struct outage {
        int first, count;
        milliseconds away;
        size_t dropped;
    };
    for (const outage &o : {outage{10, 6, milliseconds(10000), 0}, outage{20, 9, milliseconds(0), 3}}) {
        SCOPED_TRACE(o.first);
        const size_t from = rig.received().size();
        rig.stop_broker();
        const long long down = monotonic_ms();
        std::vector<std::string> sent;
        for (int i = o.first; i < o.first + o.count; ++i) {
            EXPECT_TRUE(b.emu.inject_line("+QTONEDET: " + std::to_string(i)));
            sent.push_back("tone {\"event\":\"tone\",\"tone\":\"" + std::to_string(i) + "\"}");
        }
        // Once the client tool beside the program has printed the last, the
        // program has had it from the daemon too.
        const std::string last = "\"" + std::to_string(o.first + o.count - 1) + "\"";
        EXPECT_TRUE(rig.wait_for([&] { return read_file(rig.path("listen.out")).find(last) != std::string::npos; }));
        std::this_thread::sleep_for(o.away - milliseconds(monotonic_ms() - down));
        ASSERT_TRUE(rig.start_broker());
        sent.erase(sent.begin(), sent.begin() + static_cast<long>(o.dropped));
        ASSERT_TRUE(rig.wait_for([&] { return rig.events(from).size() >= sent.size(); }, milliseconds(30000)))
            << rig.program_err();
        EXPECT_EQ(rig.events(from), sent);
        const std::string state = rig.payloads(PREFIX + "/state").back();
        EXPECT_EQ(json_member(state, "mqtt_dropped"), std::to_string(o.dropped)) << state;
    }

    // The restart's completion is an event too, and the state follows it.
    size_t from = rig.received().size();
    ASSERT_TRUE(b.client->send(901));
    ASSERT_EQ(show(b.client->reply(901, milliseconds(60000))), "901/0/");
    ASSERT_TRUE(rig.wait_for([&] { return !rig.events(from).empty(); }));
    EXPECT_EQ(rig.events(from)[0], "restarted {\"code\":901,\"status\":0,\"status_name\":\"ok\",\"text\":\"\"}");

    // The update's end, after the module's reboot; its progress is the client's alone.
    from = rig.received().size();
    std::ofstream(b.board.path("image.bin"), std::ios::binary) << std::string(640, 'x');
    ASSERT_TRUE(b.client->send(561, {"0", b.board.path("image.bin")}));
    std::optional<reply_frame> end;
    while ((end = b.client->reply(561, milliseconds(60000))) && end->status == 5) {
    }
    ASSERT_EQ(show(end), "561/0/");
    ASSERT_TRUE(rig.wait_for([&] { return !rig.events(from).empty(); }));
    EXPECT_EQ(rig.events(from), std::vector<std::string>{
                                    "firmware {\"code\":561,\"status\":0,\"status_name\":\"ok\",\"text\":\"\"}"});
}

// A stand-in for the daemon's events socket, in the board's network
// namespace: it answers 912 and 913, sends what it is told, and hangs up.
class fake_events {
public:
    fake_events(sim_board &board, const std::string &name) {
        board.in_network([&] {
            sockaddr_un addr{};
            addr.sun_family = AF_UNIX;
            memcpy(addr.sun_path + 1, name.data(), name.size());
            listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (bind(listen_fd_, reinterpret_cast<sockaddr *>(&addr),
                     static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())) != 0 ||
                ::listen(listen_fd_, 4) != 0)
                ADD_FAILURE() << "cannot listen on @" << name << ": " << strerror(errno);
        });
    }
    ~fake_events() {
        hang_up();
        close(listen_fd_);
    }
    // Takes the program's connection within `timeout` and answers its
    // requests, 912 with `state` and 913 with statistics; true once both were.
    bool serve(milliseconds timeout, const std::string &state) {
        pollfd a{listen_fd_, POLLIN, 0};
        if (poll(&a, 1, static_cast<int>(timeout.count())) != 1)
            return false;
        fd_ = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        bool state_sent = false, stats_sent = false;
        uint8_t buf[REQUEST_MAX];
        request_frame r;
        pollfd p{fd_, POLLIN, 0};
        while (!(state_sent && stats_sent) && poll(&p, 1, static_cast<int>(WAIT.count())) == 1) {
            ssize_t n = recv(fd_, buf, sizeof buf, 0);
            if (n <= 0 || request_parse(buf, static_cast<size_t>(n), &r) < 0)
                return false;
            if (r.code == 912)
                state_sent = send_frame(912, 0, state);
            else if (r.code == 913)
                stats_sent = send_frame(913, 0, "up=5 link=1");
        }
        return state_sent && stats_sent;
    }
    bool send_frame(int code, int status, const std::string &text) {
        uint8_t frame[REPLY_MAX];
        size_t len = reply_build(frame, code, status, text.c_str());
        return send(fd_, frame, len, MSG_NOSIGNAL) == static_cast<ssize_t>(len);
    }
    void hang_up() {
        if (fd_ >= 0)
            close(std::exchange(fd_, -1));
    }

private:
    int listen_fd_ = -1, fd_ = -1;
};

// The daemon's socket lost: online goes to "0" at once, the program comes back
// by itself (1 s later, the back-off's first step) with "1" and a fresh state,
// and what it hears then is published.
TEST(MqttTest, TheDaemonsSocketLostMeansOfflineUntilTheProgramIsBack) {
    SKIP_WITHOUT_MQTT();
    SKIP_WITHOUT_BOARD();
    sim_board board(board_config("none"));
    ASSERT_TRUE(board.start_daemon());
    mqtt_rig rig(board);
    ASSERT_TRUE(rig.start());
    const std::string name = "zolvin_mqtt_test_events";
    fake_events daemon(board, name);
    rig.start_program(PROGRAM_CONF, {"--events-socket", "@" + name});
    ASSERT_TRUE(daemon.serve(WAIT, "Connected")) << rig.program_err();
    ASSERT_TRUE(rig.wait_for([&] { return !rig.payloads(PREFIX + "/state").empty(); })) << rig.program_err();

    daemon.hang_up();
    ASSERT_TRUE(rig.wait_for([&] { return rig.payloads(PREFIX + "/online") == std::vector<std::string>{"1", "0"}; }))
        << testing::PrintToString(rig.payloads(PREFIX + "/online"));
    EXPECT_EQ(rig.retained(PREFIX + "/online"), "1 0");
    const long long lost = monotonic_ms();
    ASSERT_TRUE(daemon.serve(milliseconds(5000), "Disconnected"));
    EXPECT_GE(monotonic_ms() - lost, 800); // the back-off, not a busy retry
    ASSERT_TRUE(rig.wait_for([&] { return rig.payloads(PREFIX + "/state").size() == 2; }));
    EXPECT_EQ(json_member(rig.payloads(PREFIX + "/state").back(), "state"), "\"Disconnected\"");
    EXPECT_EQ(rig.payloads(PREFIX + "/online").back(), "1");
    ASSERT_TRUE(daemon.send_frame(1021, 1, "7"));
    ASSERT_TRUE(rig.wait_for([&] { return !rig.events().empty(); }));
    EXPECT_EQ(rig.events(), std::vector<std::string>{"tone {\"event\":\"tone\",\"tone\":\"7\"}"});
}

// The openssl commands that make a CA and a broker certificate for 127.0.0.1
// signed by it, and a second CA that signed nothing of this broker's.
std::string make_certificates(const std::string &dir) {
    const std::string key = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
    return "cd " + dir + " && openssl req -x509" + key + " -keyout ca.key -out ca.crt -days 2 -subj /CN=test-ca" +
           " && openssl req -x509" + key + " -keyout other.key -out other.crt -days 2 -subj /CN=other-ca" +
           " && openssl req" + key + " -keyout broker.key -out broker.csr -subj /CN=127.0.0.1" +
           " && printf 'subjectAltName=IP:127.0.0.1\\n' >san.ext && openssl x509 -req -in broker.csr -CA ca.crt" +
           " -CAkey ca.key -CAcreateserial -out broker.crt -days 2 -extfile san.ext 2>&1";
}

TEST(MqttTest, TlsWithTheBoardsCaAndAWrongCaRefusedWithAClearMessage) {
    SKIP_WITHOUT_MQTT();
    SKIP_WITHOUT_BOARD();
    sim_board board(board_config("none"));
    ASSERT_TRUE(board.start_daemon());
    mqtt_rig rig(board);
    auto [status, out] = run_command(make_certificates(rig.path("")));
    ASSERT_EQ(status, 0) << out;
    ASSERT_TRUE(rig.start("listener 8883 127.0.0.1\ncafile " + rig.path("ca.crt") + "\ncertfile " + rig.path("broker.crt") +
                          "\nkeyfile " + rig.path("broker.key") + "\n"));

    // tls_ca alone: TLS on 8883, the broker's certificate checked.
    rig.start_program(PROGRAM_CONF + "tls_ca=" + rig.path("other.crt") + "\n");
    ASSERT_TRUE(rig.wait_for([&] { return rig.program_err().find("certificate verify failed") != std::string::npos; }))
        << rig.program_err();
    EXPECT_NE(rig.program_err().find("broker 127.0.0.1:8883"), std::string::npos) << rig.program_err();
    EXPECT_NE(rig.program_err().find("tls_ca=" + rig.path("other.crt")), std::string::npos) << rig.program_err();
    EXPECT_TRUE(rig.payloads(PREFIX + "/online").empty());
    rig.program().stop();

    rig.start_program(PROGRAM_CONF + "tls_ca=" + rig.path("ca.crt") + "\n");
    ASSERT_TRUE(rig.wait_for([&] { return !rig.payloads(PREFIX + "/state").empty(); })) << rig.program_err();
    EXPECT_EQ(rig.payloads(PREFIX + "/online"), std::vector<std::string>{"1"});
}

// No board needed: the program ends before it connects anywhere.
TEST(MqttTest, BadConfigurationsNameTheKeyOrTheFileAndExitWithTwo) {
    if (MQTT_BIN.empty())
        GTEST_SKIP() << "zolvin_4g_mqtt is not built (no libmosquitto)";
    temp_dir dir;
    const std::string ca = dir.write("ca.crt", "x");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"port=1883\n", "configuration key broker: required"},
        {"broker=b\nqueue=0\n", "configuration key queue: '0'"},
        {"broker=b\ntls_ca=" + dir.path() + "/missing.crt\n", "configuration key tls_ca: cannot read " + dir.path() + "/missing.crt"},
        {"broker=b\ntls_ca=" + ca + "\ntls_cert=" + ca + "\n", "configuration key tls_key: tls_cert and tls_key go together"},
        {"broker=b\npassword_file=" + dir.path() + "/nope\n", "configuration key password_file: cannot read"},
        {"broker=b\nbroker\n", "configuration line 2: no key=value"},
    };
    for (const auto &[text, message] : cases) {
        const std::string conf = dir.write("bad.conf", text);
        auto [status, out] = run_command("'" + MQTT_BIN + "' --config " + conf + " 2>&1");
        EXPECT_EQ(status, 2) << text;
        EXPECT_NE(out.find(message), std::string::npos) << text << "\n" << out;
    }
    auto [status, out] = run_command("'" + MQTT_BIN + "' --config " + dir.path() + "/absent.conf 2>&1");
    EXPECT_EQ(status, 2);
    EXPECT_NE(out.find("cannot read the configuration file " + dir.path() + "/absent.conf"), std::string::npos) << out;
}

} // namespace
