// The events socket "@phone_events" of the real daemon on the simulated board:
// subscribers ask only what they may, a ninth and strangers are turned away,
// and a subscriber that never reads costs the others and the client nothing
// but its own frames.

#include "e2e/board.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace {

using subscribers = std::vector<std::unique_ptr<client_conn>>;

// `count` subscribers, each answered once (so each holds its slot).
subscribers subscribe(sim_board &board, int count, const client_user *as = nullptr) {
    subscribers out;
    for (int i = 0; i < count; ++i) {
        out.push_back(std::make_unique<client_conn>(board.connect_subscriber(WAIT, as)));
        EXPECT_EQ(out.back()->ask(911), VERSION) << i;
    }
    return out;
}

long long stat_value(const std::string &stats, const std::string &key) {
    size_t at = stats.find(" " + key + "=");
    return at == std::string::npos ? -1 : std::stoll(stats.substr(at + key.size() + 2));
}

TEST(EventsTest, EightSubscribersGetEveryEventInOrderAndNoRepliesOrPassThrough) {
    READY_BOARD(b);
    client_conn &c = *b.client;
    subscribers subs = subscribe(b.board, 8);

    ASSERT_TRUE(b.emu.inject_lines({"RING", "+CLIP: \"13912345678\",129", "NO CARRIER"}));
    // The client's requests meanwhile are answered to it alone.
    EXPECT_EQ(c.ask(912), "912/0/Disconnected");
    EXPECT_EQ(c.ask_settled(52), "52/0/861234567890123");
    ASSERT_TRUE(b.emu.inject_lines({"+QTONEDET: 49", "+CME ERROR: 10"}));
    // (In before pass-through is on, which would take them.)
    EXPECT_EQ(show(c.reply(1201)), "1201/1/+CME ERROR: 10");
    // Pass-through lines are the client's: the RING here is a 402, no event.
    EXPECT_EQ(c.ask_settled(401, {"1"}), "401/0/");
    ASSERT_TRUE(b.emu.inject_line("RING"));
    EXPECT_EQ(show(c.reply(402)), "402/0/RING");
    // Any other worker code ends the mode; then one more event closes the run.
    EXPECT_EQ(c.ask_settled(52), "52/0/861234567890123");
    ASSERT_TRUE(b.emu.inject_line("+CME ERROR: 99"));

    const std::vector<std::string> events = {"1001/1/13912345678", "1001/2/1", "1021/1/49", "1201/1/+CME ERROR: 10",
                                             "1201/1/+CME ERROR: 99"};
    for (size_t i = 0; i < subs.size(); ++i)
        EXPECT_EQ(frames_until(*subs[i], events.back()), events) << "subscriber " << i;
    // The client got the same events, among its replies.
    EXPECT_EQ(show(c.reply(1201)), "1201/1/+CME ERROR: 99");
    std::vector<std::string> client_events;
    for (const reply_frame &f : c.others)
        if (f.code > 1000)
            client_events.push_back(show(f));
    EXPECT_EQ(client_events, std::vector<std::string>(events.begin(), events.begin() + 3));
}

// Subscribers look and do not steer: 911, 912 and 913 are answered, every
// other code 14. A ninth subscriber and strangers are closed at once; a
// subscriber that hangs up frees its slot.
TEST(EventsTest, SubscribersAskOnlyTheirOwnCodesNineIsTooManyAndStrangersAreRefused) {
    SKIP_WITHOUT_BOARD();
    const client_user stranger{65534, 65534, {}}, member{65534, 65534, {100}};
    sim_board board(board_config("none", "client_group=users\n"));
    ASSERT_TRUE(board.start_daemon({"debug"}));
    subscribers subs = subscribe(board, 8);
    client_conn &first = *subs[0];
    EXPECT_EQ(first.ask(912), "912/13/");
    EXPECT_EQ(first.ask(913).rfind("913/0/up=", 0), 0u);
    EXPECT_EQ(first.ask(52), "52/14/");
    EXPECT_EQ(first.ask(901), "901/14/");

    client_conn ninth(board.connect_subscriber());
    ASSERT_TRUE(ninth.valid());
    ninth.send(911);
    EXPECT_TRUE(closed_without_reply(ninth.fd(), milliseconds(2000)));

    subs[7]->close();
    client_conn refused(board.connect_subscriber(WAIT, &stranger));
    ASSERT_TRUE(refused.valid());
    refused.send(911);
    EXPECT_TRUE(closed_without_reply(refused.fd(), milliseconds(2000)));
    EXPECT_TRUE(sim_board::wait_until(
        [&] { return board.stdout_text().find("Client refused: uid 65534\n") != std::string::npos; }));
    // The freed slot takes a member of client_group.
    client_conn admitted(board.connect_subscriber(WAIT, &member));
    EXPECT_EQ(admitted.ask(911), VERSION);
}

// One subscriber never reads while events pour in: its socket fills and it
// loses frames, counted as dropped; a reading subscriber gets every one of
// them promptly and the client's answers do not wait.
TEST(EventsTest, ASubscriberThatNeverReadsDelaysNeitherTheOthersNorTheClient) {
    READY_BOARD(b);
    client_conn &c = *b.client;
    subscribers subs = subscribe(b.board, 2);
    client_conn &stuck = *subs[0], &reader = *subs[1];
    const int rounds = 16, per_round = 50;
    const int total = rounds * per_round;
    const std::string pad(300, 'x');
    auto line = [&](int i) { return "+CME ERROR: " + std::to_string(i) + " " + pad; };

    // The reading subscriber, on a thread of its own; the test waits for it
    // round by round, so it is never more than a round behind.
    std::vector<int> read_numbers;
    std::mutex read_lock;
    std::condition_variable read_more;
    std::thread reading([&] {
        while (std::optional<reply_frame> f = reader.next(WAIT)) {
            std::lock_guard<std::mutex> hold(read_lock);
            read_numbers.push_back(std::atoi(f->text + strlen("+CME ERROR: ")));
            read_more.notify_all();
            if (read_numbers.back() == total - 1)
                break;
        }
    });
    long long slowest_answer_ms = 0, slowest_round_ms = 0;
    size_t client_events = 0;
    for (int r = 0; r < rounds; ++r) {
        std::vector<std::string> lines;
        for (int i = r * per_round; i < (r + 1) * per_round; ++i)
            lines.push_back(line(i));
        long long injected = monotonic_ms();
        if (!b.emu.inject_lines(lines))
            break;
        EXPECT_EQ(c.ask(912), "912/0/Disconnected");
        slowest_answer_ms = std::max(slowest_answer_ms, monotonic_ms() - injected);
        // The client reads its events as a client does, among the answers.
        for (const reply_frame &f : c.others)
            client_events += f.code == 1201;
        c.others.clear();
        const size_t round_end = static_cast<size_t>((r + 1) * per_round);
        while (client_events < round_end) {
            std::optional<reply_frame> f = c.next(WAIT);
            if (!f)
                break;
            client_events += f->code == 1201;
        }
        std::unique_lock<std::mutex> hold(read_lock);
        bool round_read = read_more.wait_for(hold, WAIT, [&] { return read_numbers.size() >= round_end; });
        slowest_round_ms = std::max(slowest_round_ms, monotonic_ms() - injected);
        if (!round_read)
            break;
    }
    reading.join();

    std::vector<int> expected;
    for (int i = 0; i < total; ++i)
        expected.push_back(i);
    EXPECT_EQ(read_numbers, expected);
    // A daemon that waited for the stuck socket would hold every frame back for good.
    EXPECT_LT(slowest_round_ms, 2000);
    EXPECT_LT(slowest_answer_ms, 2000);
    EXPECT_EQ(client_events, static_cast<size_t>(total));

    // What the stuck subscriber holds is a part of the events, in order, and
    // every one it lost was counted.
    std::vector<int> stuck_numbers;
    while (std::optional<reply_frame> f = stuck.next(milliseconds(500)))
        stuck_numbers.push_back(std::atoi(f->text + strlen("+CME ERROR: ")));
    EXPECT_LT(stuck_numbers.size(), static_cast<size_t>(total));
    EXPECT_TRUE(std::is_sorted(stuck_numbers.begin(), stuck_numbers.end()));
    std::string stats = c.ask(913);
    EXPECT_EQ(stat_value(stats, "dropped"), total - static_cast<long long>(stuck_numbers.size())) << stats;
}

} // namespace
