// The client interface of the real daemon, through "@phone_server" on the
// simulated board: local codes, one client at a time, busy and not-ready
// refusals, worker codes down to the AT bytes, pass-through, restart,
// malformed and random frames, and the command-line client.

#include "e2e/board.h"

#include "core/frames.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <optional>
#include <poll.h>
#include <random>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;
using clock_type = std::chrono::steady_clock;
const milliseconds WAIT(10000);

// "code/status/text", to compare a reply in one expectation.
std::string show(const std::optional<reply_frame> &f) {
    if (!f)
        return "<none>";
    return std::to_string(f->code) + "/" + std::to_string(f->status) + "/" + std::string(f->text, f->text_len);
}

std::string request_bytes(uint16_t code, const std::vector<std::string> &fields) {
    std::vector<const char *> ptrs;
    std::vector<size_t> lens;
    for (const std::string &f : fields) {
        ptrs.push_back(f.data());
        lens.push_back(f.size());
    }
    uint8_t buf[REQUEST_MAX];
    size_t n = request_build(buf, sizeof buf, code, ptrs.data(), lens.data(), static_cast<int>(fields.size()));
    return std::string(reinterpret_cast<char *>(buf), n);
}

std::string be16(unsigned v) { return std::string{static_cast<char>(v >> 8), static_cast<char>(v & 0xFF)}; }

// One connection to the daemon's socket.
class client_conn {
public:
    explicit client_conn(int fd) : fd_(fd) {}
    ~client_conn() { close(); }
    client_conn(const client_conn &) = delete;
    client_conn &operator=(const client_conn &) = delete;

    bool valid() const { return fd_ >= 0; }
    void close() {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
    }

    bool send_bytes(const std::string &bytes) {
        return fd_ >= 0 && ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    bool send(uint16_t code, const std::vector<std::string> &fields = {}) {
        return send_bytes(request_bytes(code, fields));
    }

    // The next frame from the daemon; none after the time-out.
    std::optional<reply_frame> next(milliseconds timeout) {
        auto deadline = clock_type::now() + timeout;
        for (;;) {
            reply_frame f;
            long used = pending_.empty() ? 0 : reply_parse(pending_.data(), pending_.size(), &f);
            if (used < 0) {
                ADD_FAILURE() << "the daemon's stream is not a sequence of reply frames";
                pending_.clear();
                return std::nullopt;
            }
            if (used > 0) {
                pending_.erase(pending_.begin(), pending_.begin() + used);
                return f;
            }
            auto left = std::chrono::duration_cast<milliseconds>(deadline - clock_type::now()).count();
            pollfd p{fd_, POLLIN, 0};
            if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0)
                return std::nullopt;
            uint8_t buf[4096];
            ssize_t n = recv(fd_, buf, sizeof buf, 0);
            if (n <= 0)
                return std::nullopt;
            pending_.insert(pending_.end(), buf, buf + n);
        }
    }

    // The first frame with `code`; the frames of other codes met meanwhile go to `others`.
    std::optional<reply_frame> reply(uint16_t code, milliseconds timeout = WAIT) {
        auto deadline = clock_type::now() + timeout;
        for (;;) {
            auto left = std::chrono::duration_cast<milliseconds>(deadline - clock_type::now());
            std::optional<reply_frame> f = next(left.count() > 0 ? left : milliseconds(0));
            if (!f || f->code == code)
                return f;
            others.push_back(*f);
        }
    }

    std::optional<reply_frame> ask(uint16_t code, const std::vector<std::string> &fields = {}) {
        if (!send(code, fields))
            return std::nullopt;
        return reply(code);
    }

    // As ask(), sent again while the answer is busy: a worker replies before it
    // frees the port, so a request right after a reply may still find it busy.
    std::optional<reply_frame> ask_settled(uint16_t code, const std::vector<std::string> &fields = {}) {
        auto deadline = clock_type::now() + WAIT;
        for (;;) {
            std::optional<reply_frame> f = ask(code, fields);
            if (!f || f->status != STATUS_BUSY || clock_type::now() > deadline)
                return f;
            std::this_thread::sleep_for(milliseconds(20));
        }
    }

    // The reply to raw request bytes, sent again while the answer is busy.
    std::optional<reply_frame> ask_raw_settled(const std::string &bytes, uint16_t code) {
        auto deadline = clock_type::now() + WAIT;
        for (;;) {
            std::optional<reply_frame> f = send_bytes(bytes) ? reply(code) : std::nullopt;
            if (!f || f->status != STATUS_BUSY || clock_type::now() > deadline)
                return f;
            std::this_thread::sleep_for(milliseconds(20));
        }
    }

    // True when nothing at all arrives for `quiet`.
    bool silent(milliseconds quiet) {
        std::optional<reply_frame> f = next(quiet);
        if (f)
            others.push_back(*f);
        return !f;
    }

    int fd() const { return fd_; }
    std::vector<reply_frame> others;

private:
    int fd_;
    std::vector<uint8_t> pending_;
};

// Polls `ready` every 50 ms: each poll may be a request to the daemon.
template <typename F> bool eventually(F ready, milliseconds timeout = WAIT) {
    auto deadline = clock_type::now() + timeout;
    for (;;) {
        if (ready())
            return true;
        if (clock_type::now() > deadline)
            return false;
        std::this_thread::sleep_for(milliseconds(50));
    }
}

// Waits until worker codes are taken (912 no longer answers "not ready").
bool wait_ready(client_conn &c) {
    return eventually([&] {
        std::optional<reply_frame> f = c.ask(912);
        return f && f->status != STATUS_NOT_READY;
    });
}

// Waits until no worker holds the port, before a request whose answer the
// test reads itself.
bool wait_idle(client_conn &c) {
    return eventually([&] {
        std::optional<reply_frame> f = c.ask(912);
        return f && f->status == STATUS_OK;
    });
}

bool state_becomes(client_conn &c, const std::string &text) {
    return eventually([&] { return show(c.ask(912)) == "912/0/" + text; });
}

std::vector<std::string> texts_since(modem_control &emu, size_t from) {
    std::vector<std::string> out;
    for (const modem_command &c : emu.commands(from).value_or(std::vector<modem_command>{}))
        out.push_back(c.text);
    return out;
}

size_t next_index(modem_control &emu) {
    std::optional<std::vector<modem_command>> all = emu.commands();
    return all && !all->empty() ? all->back().index + 1 : 0;
}

bool has_event(const std::vector<reply_frame> &frames, uint16_t code) {
    for (const reply_frame &f : frames) {
        if (f.code == code)
            return true;
    }
    return false;
}

// A board with the daemon running, its emulator reachable and a client
// connected once the module is open.
struct ready_board {
    explicit ready_board(board_config config) : board(std::move(config)) {}

    bool start() {
        if (!board.start_daemon() || !board.modem(&emu))
            return false;
        client.emplace(board.connect_client());
        return client->valid() && wait_ready(*client);
    }
    client_conn &c() { return *client; }

    sim_board board;
    modem_control emu;
    std::optional<client_conn> client;
};

// ---- the command-line client, run inside the board's network namespace

struct tool_result {
    int status = -1;
    std::string out, err;
};

class tool_process {
public:
    tool_process(const sim_board &board, const std::vector<std::string> &args) {
        std::vector<std::string> argv_s{ZOLVIN_CTL_BIN};
        argv_s.insert(argv_s.end(), args.begin(), args.end());
        std::vector<char *> argv;
        for (std::string &s : argv_s)
            argv.push_back(s.data());
        argv.push_back(nullptr);
        std::string ns = "/proc/" + std::to_string(board.pid()) + "/ns/net";
        int ns_fd = open(ns.c_str(), O_RDONLY | O_CLOEXEC);
        int out[2], err[2];
        if (ns_fd < 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
            return;
        pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent || setns(ns_fd, CLONE_NEWNET) != 0)
                _exit(126);
            dup2(out[1], 1);
            dup2(err[1], 2);
            execv(argv[0], argv.data());
            _exit(127);
        }
        ::close(ns_fd);
        ::close(out[1]);
        ::close(err[1]);
        out_fd_ = out[0];
        err_fd_ = err[0];
    }
    ~tool_process() {
        if (pid_ > 0 && !status_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        for (int fd : {out_fd_, err_fd_}) {
            if (fd >= 0)
                ::close(fd);
        }
    }
    tool_process(const tool_process &) = delete;
    tool_process &operator=(const tool_process &) = delete;

    bool wait_for_output(const std::string &text, milliseconds timeout) {
        auto deadline = clock_type::now() + timeout;
        while (out_.find(text) == std::string::npos) {
            auto left = std::chrono::duration_cast<milliseconds>(deadline - clock_type::now()).count();
            if (left <= 0 || !pump(static_cast<int>(left)))
                return out_.find(text) != std::string::npos;
        }
        return true;
    }
    void signal(int sig) { kill(pid_, sig); }
    // The exit status and everything printed, once the tool has ended.
    std::optional<tool_result> wait(milliseconds timeout) {
        auto deadline = clock_type::now() + timeout;
        while (out_fd_ >= 0 || err_fd_ >= 0) {
            auto left = std::chrono::duration_cast<milliseconds>(deadline - clock_type::now()).count();
            if (left <= 0)
                return std::nullopt;
            pump(static_cast<int>(left));
        }
        int st = 0;
        if (pid_ <= 0 || waitpid(pid_, &st, 0) != pid_)
            return std::nullopt;
        status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
        return tool_result{*status_, out_, err_};
    }

private:
    // Reads what is there; false when both pipes have ended.
    bool pump(int timeout_ms) {
        pollfd p[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
        if (out_fd_ < 0 && err_fd_ < 0)
            return false;
        if (poll(p, 2, timeout_ms) <= 0)
            return true;
        int *fds[2] = {&out_fd_, &err_fd_};
        std::string *texts[2] = {&out_, &err_};
        for (int i = 0; i < 2; ++i) {
            if (*fds[i] < 0 || p[i].revents == 0)
                continue;
            char buf[4096];
            ssize_t n = read(*fds[i], buf, sizeof buf);
            if (n > 0) {
                texts[i]->append(buf, static_cast<size_t>(n));
            } else {
                ::close(*fds[i]);
                *fds[i] = -1;
            }
        }
        return true;
    }

    pid_t pid_ = -1;
    int out_fd_ = -1, err_fd_ = -1;
    std::string out_, err_;
    std::optional<int> status_;
};

bool refused(const tool_result &r) { return r.status == 3 && r.err.find("cannot connect") != std::string::npos; }

// The daemon makes its next listening socket only after the last client is
// gone, so a tool run right after another may be refused: it is run again.
tool_result run_tool(const sim_board &board, const std::vector<std::string> &args, bool again_if_refused = true) {
    tool_result r;
    eventually([&] {
        tool_process tool(board, args);
        r = tool.wait(milliseconds(30000)).value_or(tool_result{});
        return !again_if_refused || !refused(r);
    });
    return r;
}

// A listening tool, started again until it is connected and has printed `first`.
std::unique_ptr<tool_process> start_listening(const sim_board &board, const std::vector<std::string> &args,
                                              const std::string &first) {
    std::unique_ptr<tool_process> tool;
    eventually([&] {
        tool = std::make_unique<tool_process>(board, args);
        if (tool->wait_for_output(first, WAIT))
            return true;
        std::optional<tool_result> r = tool->wait(milliseconds(1000));
        return !r || !refused(*r);
    });
    return tool;
}

// ---- tests

TEST(ClientLocalCodesTest, AnsweredOverTheSocketAndSeenByTheSupervisor) {
    SKIP_WITHOUT_BOARD();
    board_config config;
    config.conf = "apn_name=cmnet\nping_address1=10.9.8.7\n";
    ready_board b(config);
    ASSERT_TRUE(b.start());
    client_conn &c = b.c();

    // Byte for byte: the version frame, and the check period read of the protocol's example.
    ASSERT_TRUE(c.send_bytes(std::string("ZVS\x03\x8F\x00\x00", 7)));
    std::optional<reply_frame> version = c.next(WAIT);
    EXPECT_EQ(show(version), "911/0/ZOLVIN 4G SERVER V1.23");
    ASSERT_TRUE(c.send_bytes(std::string("ZVS\x02\x0C\x00\x01"
                                         "0\x00\x00",
                                         10)));
    char raw[11] = {};
    ASSERT_EQ(recv(c.fd(), raw, sizeof raw, MSG_WAITALL), 11);
    EXPECT_EQ(std::string(raw, 11), std::string("ZVR\x02\x0C\x00\x00"
                                                 "600\x00",
                                                 11));

    // What the configuration file said, then what the client changes.
    EXPECT_EQ(show(c.ask(521, {"0", "1"})), "521/0/1:cmnet");
    EXPECT_EQ(show(c.ask(523, {"0", "1"})), "523/0/1:10.9.8.7");
    EXPECT_EQ(show(c.ask(521, {"1", "1", "internet"})), "521/0/1:internet");
    EXPECT_EQ(show(c.ask(525, {"1", "ifconfig down_script_ran"})), "525/0/ifconfig down_script_ran");
    EXPECT_EQ(show(c.ask(912)), "912/0/Disconnected");

    // Dialling on: the supervisor dials with the APN just written and reports connected.
    size_t from = next_index(b.emu);
    EXPECT_EQ(show(c.ask(501, {"1"})), "501/0/");
    EXPECT_TRUE(state_becomes(c, "Connected")) << show(c.ask(912));
    std::vector<std::string> dial = texts_since(b.emu, from);
    EXPECT_NE(std::find(dial.begin(), dial.end(), "AT+QICSGP=1,1,\"internet\",\"\",\"\",1"), dial.end());

    // Dialling off: the tear-down command, then the client's down script.
    from = next_index(b.emu);
    EXPECT_EQ(show(c.ask(501, {"0"})), "501/0/");
    EXPECT_TRUE(state_becomes(c, "Disconnected"));
    EXPECT_TRUE(b.emu.wait_for_command("AT+QNETDEVCTL=0,1", 5000, from).has_value());
    EXPECT_TRUE(sim_board::wait_until(
        [&] {
            for (const command_call &call : b.board.calls()) {
                if (call.text == "ifconfig down_script_ran")
                    return true;
            }
            return false;
        },
        WAIT));
}

TEST(ClientInterfaceTest, WorkerCodesAreRefusedUntilTheModuleIsOpen) {
    SKIP_WITHOUT_BOARD();
    sim_board board;
    ASSERT_TRUE(board.start_daemon());
    ASSERT_TRUE(board.wait_for_stdout("ZOLVIN 4G SERVER V1.23", WAIT));
    // The socket is up before the module: bring-up takes more than two seconds.
    client_conn c(board.connect_client());
    ASSERT_TRUE(c.valid());
    EXPECT_EQ(show(c.ask(102)), "102/13/");
    EXPECT_EQ(show(c.ask(912)), "912/13/");
    EXPECT_EQ(show(c.ask(911)), "911/0/ZOLVIN 4G SERVER V1.23");
    EXPECT_EQ(show(c.ask(524, {"0"})), "524/0/600");
    ASSERT_TRUE(wait_ready(c));
    EXPECT_EQ(show(c.ask(102)), "102/0/20");

    // No module on the bus: it never becomes ready, local codes still work.
    sim_board absent(board_for("none"));
    ASSERT_TRUE(absent.start_daemon());
    ASSERT_TRUE(absent.wait_for_stdout("ZOLVIN 4G SERVER V1.23", WAIT));
    client_conn a(absent.connect_client());
    ASSERT_TRUE(a.valid());
    EXPECT_EQ(show(a.ask(52)), "52/13/");
    EXPECT_EQ(show(a.ask(912)), "912/13/");
    EXPECT_EQ(show(a.ask(501, {"1"})), "501/0/");
}

TEST(ClientInterfaceTest, ASecondClientIsRefusedAtOnceAndServedAfterTheFirstLeaves) {
    SKIP_WITHOUT_BOARD();
    sim_board board;
    ASSERT_TRUE(board.start_daemon());
    ASSERT_TRUE(board.wait_for_stdout("ZOLVIN 4G SERVER V1.23", WAIT));
    client_conn first(board.connect_client());
    ASSERT_TRUE(first.valid());
    // One attempt, refused: with no listening socket there is no queue to wait in.
    client_conn second(board.connect_client(milliseconds(0)));
    EXPECT_FALSE(second.valid());
    EXPECT_EQ(show(first.ask(911)), "911/0/ZOLVIN 4G SERVER V1.23");

    first.close();
    client_conn third(board.connect_client());
    ASSERT_TRUE(third.valid());
    EXPECT_EQ(show(third.ask(911)), "911/0/ZOLVIN 4G SERVER V1.23");
}

TEST(ClientInterfaceTest, BusyWhileAWorkerOrADialHoldsThePort) {
    SKIP_WITHOUT_BOARD();
    ready_board b(board_config{});
    ASSERT_TRUE(b.start());
    client_conn &c = b.c();

    size_t from = next_index(b.emu);
    ASSERT_TRUE(b.emu.set_reply("AT+COPS?", modem_reply::standard().after(1500).one_shot()));
    ASSERT_TRUE(c.send(103));
    ASSERT_TRUE(b.emu.wait_for_command("AT+COPS?", 5000, from).has_value());
    EXPECT_EQ(show(c.ask(102)), "102/12/");
    EXPECT_EQ(show(c.ask(912)), "912/12/Disconnected");
    EXPECT_EQ(show(c.reply(103)), "103/0/NETWORK");
    EXPECT_EQ(show(c.ask_settled(102)), "102/0/20");
    EXPECT_EQ(texts_since(b.emu, from), (std::vector<std::string>{"AT+COPS?", "AT+CSQ"}));

    // A dial of the supervisor: worker codes are busy, 912 does not look at the dial.
    from = next_index(b.emu);
    ASSERT_TRUE(b.emu.set_reply("AT+QIACT=1", modem_reply::standard().after(1500).one_shot()));
    EXPECT_EQ(show(c.ask(501, {"1"})), "501/0/");
    ASSERT_TRUE(b.emu.wait_for_command("AT+QIACT=1", 5000, from).has_value());
    EXPECT_EQ(show(c.ask(52)), "52/12/");
    EXPECT_EQ(show(c.ask(912)), "912/0/Connecting");
    EXPECT_TRUE(state_becomes(c, "Connected"));
    EXPECT_EQ(show(c.ask_settled(52)), "52/0/861234567890123");
}

struct worker_case {
    uint16_t code;
    std::vector<std::string> fields;
    std::vector<std::string> commands; // what the module receives, in order
    std::string reply;                 // show() of the reply
};

void run_worker_cases(ready_board &b, const std::vector<worker_case> &cases) {
    for (const worker_case &wc : cases) {
        size_t from = next_index(b.emu);
        EXPECT_EQ(show(b.c().ask_settled(wc.code, wc.fields)), wc.reply) << wc.code;
        EXPECT_EQ(texts_since(b.emu, from), wc.commands) << wc.code;
    }
}

TEST(ClientWorkerTest, Ec200CodesSendTheirCommandsAndReportTheAnswers) {
    SKIP_WITHOUT_BOARD();
    ready_board b(board_for("ec200t"));
    ASSERT_TRUE(b.start());
    run_worker_cases(b, {
        {102, {}, {"AT+CSQ"}, "102/0/20"},                           // answer with a prefix
        {52, {}, {"AT+GSN"}, "52/0/861234567890123"},                // digit line
        {51, {}, {"ATI"}, "51/0/MAKER,EC200T,Revision: EMU-EC200T-R01"}, // collected lines
        {111, {}, {"AT+CREG=2", "AT+CREG?"}, "111/0/1A2B,01C3D4E"},  // two exchanges
        {236, {"7"}, {"AT+CLIP=1"}, "236/0/"},                        // setters
        {353, {}, {"AT+QIACT=1"}, "353/0/"},                          // a dial step
        {360, {"1"}, {"AT+QNETDEVCTL=1,1"}, "360/0/"},
        {451, {"0", "timeout"}, {"AT+QLBSCFG=\"timeout\""}, "451/0/timeout: 10"},
        {190, {"1"}, {}, "190/20/"},                                  // the other family's code
        {236, {}, {}, "236/10/"},                                     // missing fields
        {451, {"1", "token"}, {}, "451/10/"},
    });

    // Failures: an error line, and a module that says nothing.
    ASSERT_TRUE(b.emu.set_reply("AT+CSQ", modem_reply::error().one_shot()));
    ASSERT_TRUE(b.emu.set_reply("AT+CSMS=0", modem_reply::error().one_shot()));
    ASSERT_TRUE(b.emu.set_reply("AT+GSN", modem_reply::silence().one_shot()));
    run_worker_cases(b, {
        {102, {}, {"AT+CSQ"}, "102/1/"},
        {52, {}, {"AT+GSN"}, "52/1/time out!"},
        // The defaults stop at the first step that fails, named in the reply.
        {301, {}, {"ATE0", "AT+CSCS=\"GSM\"", "AT+CMGF=0", "AT+CSMS=0"}, "301/1/set_csms"},
    });
}

TEST(ClientWorkerTest, Ec20CodesSendTheirCommandsAndReportTheAnswers) {
    SKIP_WITHOUT_BOARD();
    ready_board b(board_for("ec20"));
    ASSERT_TRUE(b.start());
    run_worker_cases(b, {
        {190, {"0"}, {"AT+QNETDEVSTATUS=0"}, "190/0/"},
        {362, {"1"}, {"AT$QCRMCALL=1,1,1,2,1"}, "362/0/"},
        {360, {"1"}, {}, "360/20/"},
        {310, {"1"}, {}, "310/10/"},
    });
    // Speaking: "AB" travels as UCS-2 digits.
    size_t from = next_index(b.emu);
    EXPECT_EQ(show(b.c().ask_settled(310, {"1", "AB"})), "310/0/");
    EXPECT_EQ(texts_since(b.emu, from), std::vector<std::string>{"AT+QWTTS=1,1,1,\"00410042\""});
}

// The module's side of the port is played by the test: the exact bytes.
TEST(ClientWorkerTest, CommandBytesOnTheWire) {
    SKIP_WITHOUT_BOARD();
    board_config config = board_for("ec20");
    config.relay_modem = true;
    sim_board board(config);
    ASSERT_TRUE(board.start_daemon());
    // The relay drops a connection made before the module is on the bus.
    ASSERT_TRUE(board.wait_for_event("command started", WAIT));
    modem_port port = board.connect_modem();
    ASSERT_TRUE(port.connected());
    client_conn c(board.connect_client());
    ASSERT_TRUE(c.valid());
    ASSERT_TRUE(wait_ready(c));

    size_t seen = port.received().size();
    auto sent_since = [&] { return port.received().substr(seen); };

    ASSERT_TRUE(c.send(102));
    ASSERT_TRUE(port.wait_for("AT+CSQ\r\n", WAIT)) << show(c.next(milliseconds(100))) << port.received();
    EXPECT_EQ(sent_since(), "AT+CSQ\r\n");
    ASSERT_TRUE(port.send("AT+CSQ\r\r\n\r\n+CSQ: 199,99\r\n\r\nOK\r\n"));
    EXPECT_EQ(show(c.reply(102)), "102/0/-1");

    // Speaking ends its command with CR alone.
    ASSERT_TRUE(wait_idle(c));
    seen = port.received().size();
    ASSERT_TRUE(c.send(310, {"1", "AB"}));
    ASSERT_TRUE(port.wait_for("\"00410042\"\r", WAIT));
    ASSERT_TRUE(port.send("\r\nOK\r\n"));
    EXPECT_EQ(show(c.reply(310)), "310/0/");
    EXPECT_EQ(sent_since(), "AT+QWTTS=1,1,1,\"00410042\"\r");

    // A voice call is answered at once, without waiting for the module.
    ASSERT_TRUE(wait_idle(c));
    seen = port.received().size();
    EXPECT_EQ(show(c.ask(304, {"123"})), "304/0/");
    ASSERT_TRUE(port.wait_for("ATD123;\r\n", WAIT));
    EXPECT_EQ(sent_since(), "ATD123;\r\n");

    // A raw line gets CR LF and nothing else.
    EXPECT_EQ(show(c.ask_settled(401, {"1"})), "401/0/");
    ASSERT_TRUE(wait_idle(c));
    seen = port.received().size();
    ASSERT_TRUE(c.send(402, {"0", "AT+QRAW=\"x\""}));
    ASSERT_TRUE(port.wait_for("AT+QRAW=\"x\"\r\n", WAIT));
    EXPECT_EQ(sent_since(), "AT+QRAW=\"x\"\r\n");
    ASSERT_TRUE(port.send("\r\n+QRAW: 1\r\n"));
    EXPECT_EQ(show(c.reply(402)), "402/0/+QRAW: 1");
}

TEST(ClientInterfaceTest, PassThroughOnlyWhileOnAndOnlyForItsClient) {
    SKIP_WITHOUT_BOARD();
    ready_board b(board_config{});
    ASSERT_TRUE(b.start());
    client_conn &c = b.c();

    EXPECT_EQ(show(c.ask_settled(402, {"1", "AT"})), "402/11/");
    EXPECT_EQ(show(c.ask_settled(402, {"1"})), "402/10/");
    EXPECT_EQ(show(c.ask_settled(401)), "401/10/");
    EXPECT_EQ(show(c.ask_settled(401, {"1"})), "401/0/");

    // Every module line comes back as a 402 event, the echo included.
    ASSERT_TRUE(wait_idle(c));
    size_t from = next_index(b.emu);
    ASSERT_TRUE(c.send(402, {"1", "AT+CSQ"}));
    EXPECT_EQ(show(c.reply(402)), "402/0/AT+CSQ");
    EXPECT_EQ(show(c.reply(402)), "402/0/+CSQ: 20,99");
    EXPECT_EQ(show(c.reply(402)), "402/0/OK");
    EXPECT_EQ(texts_since(b.emu, from), std::vector<std::string>{"AT+CSQ"});
    ASSERT_TRUE(b.emu.inject_line("RING"));
    EXPECT_EQ(show(c.reply(402)), "402/0/RING");
    EXPECT_TRUE(c.others.empty()) << show(c.others.front());

    // Another worker code ends the mode.
    EXPECT_EQ(show(c.ask_settled(102)), "102/0/20");
    EXPECT_EQ(show(c.ask_settled(402, {"1", "AT"})), "402/11/");
    EXPECT_FALSE(has_event(c.others, 402));

    // On again, then the client leaves: the next client finds it off.
    EXPECT_EQ(show(c.ask_settled(401, {"1"})), "401/0/");
    c.close();
    client_conn next(b.board.connect_client());
    ASSERT_TRUE(next.valid());
    EXPECT_EQ(show(next.ask_settled(402, {"1", "AT"})), "402/11/");
}

TEST(ClientInterfaceTest, MalformedFramesAreIgnoredOrRefused) {
    SKIP_WITHOUT_BOARD();
    ready_board b(board_config{});
    ASSERT_TRUE(b.start());
    client_conn &c = b.c();
    size_t from = next_index(b.emu);

    // Not ours: no reply at all.
    ASSERT_TRUE(c.send_bytes(std::string("ZVX\x03\x8F\x00\x00", 7)));
    EXPECT_TRUE(c.silent(milliseconds(300)));
    ASSERT_TRUE(c.send_bytes("ZV"));
    EXPECT_TRUE(c.silent(milliseconds(300)));

    // No fields: the code alone, or a zero first length.
    EXPECT_EQ(show(c.ask_raw_settled("ZVS" + be16(401), 401)), "401/10/");
    ASSERT_TRUE(c.send_bytes("ZVS" + be16(521) + be16(0)));
    EXPECT_EQ(show(c.reply(521)), "521/10/");

    // Six fields need no closing zero length; bytes after them are not a seventh.
    std::string six = request_bytes(521, {"1", "1", "six", "a", "b", "c"});
    ASSERT_TRUE(c.send_bytes(six + be16(1) + "z"));
    EXPECT_EQ(show(c.reply(521)), "521/0/1:six");
    std::string six_worker = request_bytes(451, {"0", "timeout", "a", "b", "c", "d"});
    EXPECT_EQ(show(c.ask_raw_settled(six_worker + be16(3) + "xyz", 451)), "451/0/timeout: 10");

    // A field of 1000 bytes ends the worker without a reply or a command.
    ASSERT_TRUE(wait_idle(c));
    size_t before_big = next_index(b.emu);
    ASSERT_TRUE(c.send_bytes("ZVS" + be16(237) + be16(1000) + std::string(993, 'G')));
    EXPECT_TRUE(c.silent(milliseconds(500)));
    EXPECT_TRUE(state_becomes(c, "Disconnected"));
    EXPECT_EQ(next_index(b.emu), before_big);

    // A length that runs past the bytes received: that field does not exist.
    EXPECT_EQ(show(c.ask_raw_settled("ZVS" + be16(304) + be16(10) + "123", 304)), "304/10/");
    EXPECT_EQ(show(c.ask_raw_settled("ZVS" + be16(236) + be16(5) + "1", 236)), "236/10/");
    std::vector<std::string> sent = texts_since(b.emu, from);
    EXPECT_EQ(sent, std::vector<std::string>{"AT+QLBSCFG=\"timeout\""});
    EXPECT_EQ(show(c.ask_settled(102)), "102/0/20");
}

TEST(ClientInterfaceTest, TenThousandRandomFramesThenTheVersionStillAnswers) {
    SKIP_WITHOUT_BOARD();
    ready_board b(board_config{});
    ASSERT_TRUE(b.start());
    client_conn &c = b.c();

    // Replies are read while the frames go out: the daemon blocks on a full socket.
    std::atomic<bool> sending{true};
    std::atomic<int> version_replies{0};
    std::atomic<int> replies{0};
    std::mutex codes_mu;
    std::vector<uint16_t> reply_codes;
    std::thread reader([&] {
        for (;;) {
            std::optional<reply_frame> f = c.next(milliseconds(200));
            if (!f) {
                if (!sending)
                    return;
                continue;
            }
            ++replies;
            if (f->code == 911)
                ++version_replies;
            std::lock_guard<std::mutex> lock(codes_mu);
            reply_codes.push_back(f->code);
        }
    });

    std::mt19937 mt(20261123);
    auto rng = [&] { return static_cast<unsigned>(mt()); };
    auto byte = [&] { return static_cast<char>(rng() & 0xFF); };
    // Codes no table knows (answered 20 by a worker, or busy), and 912: nothing changes state.
    auto harmless_code = [&] { return rng() % 4 == 0 ? 912u : 2000u + rng() % 60000u; };
    for (int i = 0; i < 10000; ++i) {
        std::string frame;
        switch (rng() % 3) {
        case 0: { // anything, not starting with the magic
            size_t n = 1 + rng() % 1000;
            for (size_t k = 0; k < n; ++k)
                frame += byte();
            if (frame.compare(0, 3, "ZVS") == 0)
                frame[0] = 'X';
            break;
        }
        case 1: { // the magic and random field lengths, also past the end and over 999
            frame = "ZVS" + be16(harmless_code());
            size_t fields = rng() % 8;
            for (size_t k = 0; k < fields && frame.size() < 1000; ++k) {
                unsigned len = rng() % 4 == 0 ? rng() % 65536 : rng() % 200;
                frame += be16(len);
                for (unsigned j = 0; j < len % 200; ++j)
                    frame += byte();
            }
            break;
        }
        default: // a well-formed request
            frame = request_bytes(static_cast<uint16_t>(harmless_code()), {"1", std::string(rng() % 50 + 1, 'f')});
        }
        ASSERT_TRUE(c.send_bytes(frame.substr(0, 1000))) << i;
    }
    // The last frames may share a read with the request: it is sent until answered.
    bool answered = eventually(
        [&] {
            if (version_replies > 0)
                return true;
            c.send(911);
            return false;
        },
        milliseconds(20000));
    sending = false;
    reader.join();
    EXPECT_TRUE(answered);
    EXPECT_GT(replies.load(), 0);
    for (uint16_t code : reply_codes)
        EXPECT_TRUE(code == 911 || code == 912 || code >= 2000) << code;
    EXPECT_TRUE(b.board.running());
    EXPECT_EQ(show(c.ask_settled(102)), "102/0/20");
}

// One slow test: the restart waits for a power cycle and 20 s.
TEST(ClientRestartTest, RestartCancelsTheWorkerReopensTheModuleAndFreesThePort) {
    SKIP_WITHOUT_BOARD();
    ready_board b(board_config{});
    ASSERT_TRUE(b.start());
    client_conn &c = b.c();

    size_t from = next_index(b.emu);
    ASSERT_TRUE(b.emu.set_reply("AT+QLBS", modem_reply::silence()));
    ASSERT_TRUE(c.send(452));
    ASSERT_TRUE(b.emu.wait_for_command("AT+QLBS", 5000, from).has_value());
    size_t lines_before = b.board.lines().size();
    auto asked = clock_type::now();
    ASSERT_TRUE(c.send(901));
    // The server marks the restart before it reads the next request (sent
    // again if it shared one read with the restart request).
    std::optional<reply_frame> refused;
    for (int i = 0; i < 5 && !refused; ++i) {
        c.send(102);
        refused = c.reply(102, milliseconds(500));
    }
    EXPECT_EQ(show(refused), "102/13/");
    EXPECT_EQ(show(c.reply(901, milliseconds(60000))), "901/0/");
    EXPECT_GE(clock_type::now() - asked, milliseconds(25000));
    EXPECT_FALSE(has_event(c.others, 452)) << "the cancelled worker answered";

    std::vector<line_write> lines = b.board.lines();
    std::string cycle, all;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (i >= lines_before)
            cycle += lines[i].line + lines[i].value + " ";
        all += std::to_string(lines[i].ms) + " " + lines[i].line + lines[i].value + "\n";
    }
    EXPECT_EQ(cycle, "rst1 pwr0 rst0 pwr1 ") << "from line " << lines_before << ":\n" << all;

    // The port is free again for a worker and for the supervisor's dial.
    ASSERT_TRUE(b.emu.clear_replies());
    EXPECT_EQ(show(c.ask_settled(102)), "102/0/20");
    EXPECT_EQ(show(c.ask(501, {"1"})), "501/0/");
    EXPECT_TRUE(state_becomes(c, "Connected"));
}

TEST(ClientToolTest, RequestsFailuresAndTimeOutsFromTheCommandLine) {
    SKIP_WITHOUT_BOARD();
    sim_board board;
    ASSERT_TRUE(board.start_daemon());
    modem_control emu;
    ASSERT_TRUE(board.modem(&emu));
    {
        client_conn c(board.connect_client());
        ASSERT_TRUE(wait_ready(c));
        // While it is connected the tool cannot be.
        tool_result busy = run_tool(board, {"version"}, false);
        EXPECT_EQ(busy.status, 3);
        EXPECT_NE(busy.err.find("cannot connect to @phone_server"), std::string::npos) << busy.err;
    }
    tool_result version = run_tool(board, {"version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "911 ok(0) ZOLVIN 4G SERVER V1.23\n");
    EXPECT_EQ(version.err, "");

    tool_result signal = run_tool(board, {"--json", "signal"});
    EXPECT_EQ(signal.status, 0);
    EXPECT_EQ(signal.out, "{\"code\":102,\"status\":0,\"status_name\":\"ok\",\"text\":\"20\"}\n");

    tool_result other_family = run_tool(board, {"raw", "190", "1"});
    EXPECT_EQ(other_family.status, 1);
    EXPECT_EQ(other_family.out, "190 unknown-code(20)\n");

    tool_result at = run_tool(board, {"at", "AT+CSQ"});
    EXPECT_EQ(at.status, 0);
    EXPECT_EQ(at.out, "402 ok(0) AT+CSQ\n402 ok(0) +CSQ: 20,99\n402 ok(0) OK\n");

    tool_result apn = run_tool(board, {"apn", "set", "1", "internet"});
    EXPECT_EQ(apn.out, "521 ok(0) 1:internet\n");
    EXPECT_EQ(run_tool(board, {"apn", "get", "1"}).out, "521 ok(0) 1:internet\n");

    tool_result usage = run_tool(board, {"dial", "maybe"});
    EXPECT_EQ(usage.status, 2);
    EXPECT_EQ(usage.out, "");

    ASSERT_TRUE(emu.set_reply("AT+COPS?", modem_reply::standard().after(3000).one_shot()));
    auto start = clock_type::now();
    tool_result slow = run_tool(board, {"--timeout", "0.5", "operator"});
    EXPECT_EQ(slow.status, 3);
    EXPECT_LT(clock_type::now() - start, milliseconds(2500));
    EXPECT_NE(slow.err.find("no reply to 103 within 0.5 s"), std::string::npos) << slow.err;
}

TEST(ClientToolTest, ListenPrintsPassThroughLinesUntilStopped) {
    SKIP_WITHOUT_BOARD();
    ready_board b(board_config{});
    ASSERT_TRUE(b.start());
    b.client.reset(); // the tool is the client now

    std::unique_ptr<tool_process> listen = start_listening(b.board, {"listen", "passthrough", "on"}, "401 ok(0)\n");
    ASSERT_TRUE(listen);
    ASSERT_TRUE(b.emu.inject_line("RING"));
    ASSERT_TRUE(listen->wait_for_output("402 ok(0) RING\n", WAIT));
    listen->signal(SIGINT);
    std::optional<tool_result> r = listen->wait(WAIT);
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->status, 0);
    EXPECT_EQ(r->out, "401 ok(0)\n402 ok(0) RING\n");
    EXPECT_EQ(r->err, "");

    // The same as JSON lines, a line with quotes in it escaped.
    listen = start_listening(b.board, {"--json", "listen", "passthrough", "on"}, "\"code\":401");
    ASSERT_TRUE(listen);
    ASSERT_TRUE(b.emu.inject_line("+CLIP: \"123\",129"));
    ASSERT_TRUE(listen->wait_for_output("\"code\":402", WAIT));
    listen->signal(SIGTERM);
    r = listen->wait(WAIT);
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->status, 0);
    EXPECT_EQ(r->out, "{\"code\":401,\"status\":0,\"status_name\":\"ok\",\"text\":\"\"}\n"
                      "{\"code\":402,\"status\":0,\"status_name\":\"ok\",\"text\":\"+CLIP: \\\"123\\\",129\"}\n");

    // The daemon goes away.
    listen = start_listening(b.board, {"listen", "state"}, "912 ok(0)");
    ASSERT_TRUE(listen);
    b.board.stop();
    r = listen->wait(WAIT);
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->status, 3);
    EXPECT_NE(r->err.find("closed the connection"), std::string::npos) << r->err;
}

} // namespace
