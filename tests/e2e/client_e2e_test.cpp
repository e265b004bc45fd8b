// The client interface of the real daemon, through "@phone_server" on the
// simulated board: settings, refusals while the module is not ready or the
// port is taken, who may be a client, workers and pass-through, restarts, and
// the command-line client. (Malformed frames are the request fuzz target's.)

#include "e2e/board.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

TEST(ClientSettingsTest, ReachTheSupervisorsDialWhichKeepsWorkersOut) {
    READY_BOARD(b, board_config("ec200t", "apn_name=cmnet\n"));
    client_conn &c = *b.client;
    EXPECT_EQ(c.ask(521, {"0", "1"}), "521/0/1:cmnet");
    EXPECT_EQ(c.ask(521, {"1", "1", "internet"}), "521/0/1:internet");
    // Dialling off: the interface was taken down at start.
    EXPECT_TRUE(b.board.called("ifconfig usb0 down"));

    // While the dial waits for the module, worker codes are busy; 912 does not look at the dial.
    ASSERT_TRUE(b.emu.set_reply("AT+QIACT=1", modem_reply::standard().until_released().one_shot()));
    EXPECT_EQ(c.ask(501, {"1"}), "501/0/");
    ASSERT_TRUE(b.emu.wait_for_command("AT+QIACT=1", 15000));
    EXPECT_EQ(c.ask(52), "52/12/");
    EXPECT_EQ(c.ask(912), "912/0/Connecting");
    ASSERT_TRUE(b.emu.release());
    EXPECT_TRUE(c.state_becomes("Connected"));
    // Nothing was dialled before the client asked, and then with the APN just written.
    EXPECT_EQ(commands_since(b.emu), (std::vector<std::string>{"ATE0", "AT+QIDEACT=1",
                                                                "AT+QICSGP=1,1,\"internet\",\"\",\"\",1", "AT+QIACT=1",
                                                                "AT+QNETDEVCTL=1,1"}));
    EXPECT_EQ(c.ask_settled(52), "52/0/861234567890123");
}

TEST(ClientRestartTest, AskedBeforeTheModuleIsOnTheBusItIsReportedOnceTheModuleIsUp) {
    SKIP_WITHOUT_BOARD();
    board_config config("ec200t", "auto_dial=1\napn_name=cmnet\n");
    config.unplugged = true;
    sim_board board(config);
    ASSERT_TRUE(board.start_daemon());
    // The socket is up before the module, which is reported not ready.
    client_conn c(board.connect_client());
    ASSERT_TRUE(c.valid());
    EXPECT_EQ(c.ask(912), "912/13/");
    ASSERT_TRUE(c.send(901));
    // An answer to 912 shows the restart was taken (912 is sent again if it shared a read with it).
    ASSERT_TRUE(eventually([&] { return c.send(912) && c.reply(912, milliseconds(500)); }));

    ASSERT_TRUE(board.plug());
    EXPECT_EQ(show(c.reply(901)), "901/0/");
    // Start-up served the restart: the supervisor finds none left and dials
    // (a restart would have come first), and the module was only switched on.
    EXPECT_TRUE(c.state_becomes("Connected"));
    EXPECT_EQ(texts(board.lines()), (std::vector<std::string>{"rst0", "pwr1"}));
}

TEST(ClientInterfaceTest, ServesRootAndClientGroupMembersOnlyAndStrangersChangeNothing) {
    SKIP_WITHOUT_BOARD();
    const gid_t users = 100, nogroup = 65534;
    const uid_t nobody = 65534;
    sim_board board(board_config("none", "client_group=users\n"));
    ASSERT_TRUE(board.start_daemon({"debug"}));
    {
        client_conn root(board.connect_client());
        EXPECT_EQ(root.ask(525, {"1", "echo set by root"}), "525/0/echo set by root");
    }
    {
        client_user stranger{nobody, nogroup, {}};
        client_conn conn(board.connect_client(WAIT, &stranger));
        ASSERT_TRUE(conn.valid());
        conn.send(525, {"1", "echo set by a stranger"});
        conn.send(522, {"1", "1"});
        EXPECT_TRUE(closed_without_reply(conn.fd()));
    }
    EXPECT_TRUE(sim_board::wait_until(
        [&] { return board.stdout_text().find("Client refused: uid 65534\n") != std::string::npos; }));
    // Members by a supplementary group and by their primary group.
    for (const client_user &member : {client_user{nobody, nogroup, {users}}, client_user{nobody, users, {}}}) {
        client_conn conn(board.connect_client(WAIT, &member));
        EXPECT_EQ(conn.ask(911), VERSION);
        EXPECT_EQ(conn.ask(525, {"0"}), "525/0/echo set by root");
        EXPECT_EQ(conn.ask(522, {"0"}), "522/0/0");
        // The down script runs as root: root's alone to set.
        EXPECT_EQ(conn.ask(525, {"1", "echo set by a member"}), "525/14/");
    }
    client_conn root(board.connect_client());
    EXPECT_EQ(root.ask(525, {"0"}), "525/0/echo set by root");
}

// The daemon's socket name is never free while it runs, so no other local
// process can stand in for it: neither while a client is served nor after a
// second connection was turned away.
TEST(ClientInterfaceTest, OneClientAtATimeAndTheNameStaysTheDaemons) {
    READY_BOARD(b);
    const client_user nobody{65534, 65534, {}};
    EXPECT_EQ(b.board.bind_server_name(nobody), EADDRINUSE);
    // A second connection is closed at once without a reply; the first goes on.
    client_conn second(b.board.connect_client(milliseconds(0)));
    ASSERT_TRUE(second.valid());
    second.send(911);
    EXPECT_TRUE(closed_without_reply(second.fd()));
    EXPECT_EQ(b.board.bind_server_name(nobody), EADDRINUSE);
    EXPECT_EQ(b.client->ask(911), VERSION);
    // A client may leave and come back at once (one attempt): its successor is served.
    for (int i = 0; i < 10; ++i) {
        int fd = -1;
        b.board.in_network([&] {
            b.client->close();
            sockaddr_un addr;
            socklen_t len = server_address(&addr);
            fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (connect(fd, reinterpret_cast<sockaddr *>(&addr), len) != 0)
                fd = (close(fd), -1);
        });
        b.client = std::make_unique<client_conn>(fd);
        ASSERT_EQ(b.client->ask(911), VERSION) << i;
    }
    EXPECT_EQ(b.board.bind_server_name(nobody), EADDRINUSE);
}

// A worker outlives its client, but its reply goes nowhere else.
TEST(ClientInterfaceTest, AWorkersReplyIsNotForTheNextClient) {
    READY_BOARD(b);
    size_t from = next_index(b.emu);
    ASSERT_TRUE(b.emu.set_reply("AT+COPS?", modem_reply::standard().until_released().one_shot()));
    ASSERT_TRUE(b.client->send(103));
    ASSERT_TRUE(b.emu.wait_for_command("AT+COPS?", 15000, from));
    b.client->close();
    client_conn next(b.board.connect_client());
    ASSERT_TRUE(next.valid());
    EXPECT_EQ(next.ask(102), "102/12/");
    ASSERT_TRUE(b.emu.release());
    // The worker replies before it frees the port: by the 102 answer, a 103 would be here.
    EXPECT_EQ(next.ask_settled(102), "102/0/20");
    for (const reply_frame &f : next.others)
        EXPECT_NE(f.code, 103) << show(f);
    EXPECT_EQ(commands_since(b.emu, from), (std::vector<std::string>{"AT+COPS?", "AT+CSQ"}));
}

TEST(ClientWorkerTest, CodesRunTheirCommandsAndPassThroughBelongsToItsClient) {
    READY_BOARD(b, board_config("ec20"));
    client_conn &c = *b.client;
    ASSERT_TRUE(b.emu.set_reply("AT+CSMS=0", modem_reply::error().one_shot()));
    // Speaking ends with a late "+QWTTS: 0": kept out of the pass-through below.
    ASSERT_TRUE(b.emu.set_reply("AT+QWTTS=1,1,1,\"00410042\"", modem_reply::ok()));
    const struct {
        uint16_t code;
        std::vector<std::string> fields;
        std::vector<std::string> sent; // what the module receives, in order
        std::string reply;
    } cases[] = {
        {51, {}, {"ATI"}, "51/0/MAKER,EC20F,Revision: EMU-EC20F-R01"},
        {310, {"1", "AB"}, {"AT+QWTTS=1,1,1,\"00410042\""}, "310/0/"},
        // The defaults stop at the first step that fails, named in the reply.
        {301, {}, {"ATE0", "AT+CSCS=\"GSM\"", "AT+CMGF=0", "AT+CSMS=0"}, "301/1/set_csms"},
    };
    for (const auto &wc : cases) {
        size_t from = next_index(b.emu);
        EXPECT_EQ(c.ask_settled(wc.code, wc.fields), wc.reply) << wc.code;
        b.emu.wait_for_command(wc.sent.back(), 5000, from);
        EXPECT_EQ(commands_since(b.emu, from), wc.sent) << wc.code;
    }

    EXPECT_EQ(c.ask_settled(401, {"1"}), "401/0/");
    // Every module line comes back as a 402 event (the echo is off since 301).
    std::string first;
    ASSERT_TRUE(eventually([&] { return (first = c.ask(402, {"1", "AT+CSQ"})) != "402/12/"; }));
    EXPECT_EQ(first, "402/0/+CSQ: 20,99");
    EXPECT_EQ(show(c.reply(402)), "402/0/OK");
    ASSERT_TRUE(b.emu.inject_line("RING"));
    EXPECT_EQ(show(c.reply(402)), "402/0/RING");
    // The client's leaving ends the mode (another worker code does too, in the workers' own tests).
    c.close();
    client_conn next(b.board.connect_client());
    EXPECT_EQ(next.ask_settled(402, {"1", "AT"}), "402/11/");
}

// The command-line client in the board's network namespace: its exit status
// and what it printed.
std::pair<int, std::string> run_tool(const sim_board &board, const std::vector<std::string> &args) {
    std::string command = ZOLVIN_CTL_BIN;
    for (const std::string &a : args) // none holds a quote
        command += " '" + a + "'";
    std::pair<int, std::string> run;
    board.in_network([&] { run = run_command(command); }); // the child starts in this thread's namespace
    return run;
}

TEST(ClientToolTest, PrintsTheRepliesToRequestsFromTheCommandLine) {
    READY_BOARD(b);
    std::pair<int, std::string> busy = run_tool(b.board, {"version"});
    EXPECT_EQ(busy.first, 3);
    EXPECT_NE(busy.second.find("the daemon closed the connection"), std::string::npos) << busy.second;
    b.client.reset(); // the tool is the client now

    const std::pair<std::vector<std::string>, std::string> runs[] = {
        {{"version"}, "911 ok(0) ZOLVIN 4G SERVER V1.23\n"},
        {{"--json", "signal"}, "{\"code\":102,\"status\":0,\"status_name\":\"ok\",\"text\":\"20\"}\n"},
        {{"at", "AT+CSQ"}, "402 ok(0) AT+CSQ\n402 ok(0) +CSQ: 20,99\n402 ok(0) OK\n"},
        {{"raw", "190", "1"}, "190 unknown-code(20)\n"},
        {{"sms", "send", "+8613912345678", "hello"}, "251 ok(0) 1\n"}, // the module's reference
    };
    size_t from = next_index(b.emu);
    for (const auto &r : runs) {
        // Each run right after the one before: the daemon serves a client's successor.
        std::pair<int, std::string> run = run_tool(b.board, r.first);
        EXPECT_EQ(run.first, r.first[0] == "raw" ? 1 : 0) << r.first[0];
        EXPECT_EQ(run.second, r.second);
    }
    // The message went out as a 7-bit PDU through the module's own centre.
    std::optional<modem_command> sms = b.emu.wait_for_command("AT+CMGS=", 5000, from);
    ASSERT_TRUE(sms);
    EXPECT_EQ(sms->text + " " + sms->body,
              "AT+CMGS=20 07912143658709F1" "11000D91683119325476F8" "0000A7" "05E8329BFD06");
}

// After the dial the statistics show the link up and the one dial. While the
// application holds the command socket, `status` still shows the daemon's
// version, state and statistics, asked on the events socket, and leaves the
// client served; as the client, its summary says the link is up.
TEST(ClientToolTest, StatusBesideTheClientAndAsTheClientAfterTheDial) {
    READY_BOARD(b, board_config("ec200t", "auto_dial=1\napn_name=cmnet\n"));
    ASSERT_TRUE(b.client->state_becomes("Connected"));
    // The supervisor marks the link just after it stores `connected`.
    std::string stats;
    EXPECT_TRUE(eventually([&] { return (stats = b.client->ask(913)).find(" link=1 ") != std::string::npos; }));
    EXPECT_EQ(stats.rfind("913/0/up=", 0), 0u) << stats;
    EXPECT_NE(stats.find(" dials=1 dial_failures=0 resets=0 "), std::string::npos) << stats;

    std::pair<int, std::string> run = run_tool(b.board, {"status"});
    EXPECT_EQ(run.first, 0) << run.second;
    EXPECT_EQ(run.second.rfind("daemon:   ZOLVIN 4G SERVER V1.23, up ", 0), 0u) << run.second;
    for (const char *line : {"\nstate:    Connected", "\nmodule:   not asked (the command socket serves another client)\n",
                             "\nSMS:      0 in, 0 out\n", "\nclient:   0 frames dropped\n"})
        EXPECT_NE(run.second.find(line), std::string::npos) << run.second;
    EXPECT_EQ(b.client->ask(911), VERSION);
    run = run_tool(b.board, {"status", "--json"});
    EXPECT_EQ(run.first, 0) << run.second;
    std::string json = parsed_json(run.second);
    for (const char *member : {R"(["version", "ZOLVIN 4G SERVER V1.23"])", R"(["sms_in", 0])",
                               R"(["model", null])", R"(["asked_on", "events"])"})
        EXPECT_NE(json.find(member), std::string::npos) << json;

    b.client.reset(); // the tool is the client now
    run = run_tool(b.board, {"status", "--json"});
    EXPECT_EQ(run.first, 0) << run.second;
    json = parsed_json(run.second);
    for (const char *member : {R"(["state", "Connected"])", R"(["link", 1])", R"(["dials", 1])", R"(["signal", 20])"})
        EXPECT_NE(json.find(member), std::string::npos) << json;
}

} // namespace
