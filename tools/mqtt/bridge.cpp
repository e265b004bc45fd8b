#include "mqtt/bridge.h"

#include "core/frames.h"
#include "ctl/events.h"
#include "mqtt/telemetry.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mosquitto.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace mqtt {

namespace {

using clock_type = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

void say(const std::string &text) { fprintf(stderr, "zolvin_4g_mqtt: %s\n", text.c_str()); }

// Reconnects wait 1 s, then twice as long each time, up to a minute.
struct backoff {
    int next_s = 1;
    clock_type::time_point due{};
    void failed(clock_type::time_point now) {
        due = now + seconds(next_s);
        next_s = std::min(next_s * 2, 60);
    }
    void reset() { next_s = 1; }
};

// The daemon answers a subscriber's request at once, even while the module
// restarts; no answer within this is a daemon that has stopped serving.
constexpr milliseconds REPLY_WAIT(10000);
// A broker that neither accepts nor refuses within this is tried again.
constexpr milliseconds CONNECT_WAIT(30000);

// The events socket, checked to be the daemon's: what another process sent
// would be published as the board's.
int connect_events(const std::string &name, uid_t owner, std::string *error) {
    int fd = ctl::connect_to(name, SOCK_NONBLOCK, error);
    if (fd >= 0 && !ctl::server_trusted(fd, owner, error)) {
        close(fd);
        return -1;
    }
    return fd;
}

class bridge {
public:
    explicit bridge(const bridge_options &o) : o_(o), queue_(static_cast<size_t>(o.cfg.queue)) {}
    ~bridge() { broker_close(); daemon_close(); }
    int run(int stop_fd);

private:
    // ---- the broker
    void broker_connect(clock_type::time_point now);
    void broker_close();
    void broker_lost(clock_type::time_point now, const std::string &why);
    // `events_first`: the events queued before go out before it.
    void publish_retained(const std::string &topic, const std::string &payload, bool events_first = true);
    void flush_queue();
    void greet_broker();
    void shutdown();
    static void on_connect(mosquitto *, void *self, int rc);
    static void on_disconnect(mosquitto *, void *self, int rc);
    static void on_publish(mosquitto *, void *self, int mid);
    static void on_log(mosquitto *, void *self, int level, const char *text);

    // ---- the daemon
    void daemon_connect(clock_type::time_point now);
    void daemon_close();
    void daemon_lost(clock_type::time_point now, const std::string &why);
    void daemon_read(clock_type::time_point now);
    void take_frame(const reply_frame &f, clock_type::time_point now);
    bool ask(uint16_t code);
    // `always`: publish what comes; else only a change of the state text or
    // of the link (a follow-up while the module is away).
    void refresh_state(clock_type::time_point now, bool always = true);
    void publish_state();

    std::string topic(const std::string &level) const { return o_.cfg.topic_prefix + "/" + level; }
    const char *online_value() const { return daemon_fd_ >= 0 ? "1" : "0"; }

    const bridge_options &o_;
    offline_queue queue_;
    event_decoder decoder_;

    mosquitto *mosq_ = nullptr;
    bool broker_up_ = false;   // CONNACK accepted
    bool just_connected_ = false; // accepted; online and the state not yet published
    bool broker_gone_ = false; // a callback saw the connection end
    std::string broker_why_;   // the reason a callback or the library's log gave
    backoff broker_backoff_;
    clock_type::time_point connect_started_{}, last_read_{}, last_write_{}, misc_floor_{};

    int daemon_fd_ = -1;
    ctl::frame_reader reader_;
    backoff daemon_backoff_;
    // The state is asked 912 then 913, one request at a time: the daemon
    // takes one read of its socket as one frame.
    enum class asking { none, state, stats } asking_ = asking::none;
    bool ask_again_ = false;
    bool publish_always_ = true;
    clock_type::time_point asked_at_{}, state_due_{};
    // While 912 answers "not ready" (the module away or restarting), the
    // state is read again this often: the link falls and the module returns
    // without an event of their own.
    static constexpr seconds FOLLOW_UP{1};
    clock_type::time_point follow_up_due_ = clock_type::time_point::max();
    std::string published_state_; // the state text and link last published
    reply_frame state_reply_{}, stats_reply_{};
    bool have_state_ = false, have_stats_ = false;
};

void bridge::on_connect(mosquitto *, void *self, int rc) {
    auto *b = static_cast<bridge *>(self);
    if (rc != 0) {
        b->broker_gone_ = true;
        b->broker_why_ = std::string("the broker refused the connection: ") + mosquitto_connack_string(rc);
        return;
    }
    b->broker_up_ = true;
    b->just_connected_ = true;
    b->broker_backoff_.reset();
    say("connected to the broker " + b->o_.cfg.broker + ":" + std::to_string(b->o_.cfg.broker_port()));
}

void bridge::greet_broker() {
    // Called from the loop, not from on_connect: the library holds its own
    // locks around a callback, and a publication there takes them in another order.
    just_connected_ = false;
    // Online first: a fleet sees the board back before its backlog.
    publish_retained(topic("online"), online_value(), false);
    if (have_stats_)
        publish_state();
}

void bridge::on_disconnect(mosquitto *, void *self, int rc) {
    auto *b = static_cast<bridge *>(self);
    b->broker_gone_ = true;
    if (b->broker_why_.empty())
        b->broker_why_ = std::string("connection lost: ") + mosquitto_strerror(rc);
}

void bridge::on_publish(mosquitto *, void *self, int mid) { static_cast<bridge *>(self)->queue_.acked(mid); }

void bridge::on_log(mosquitto *, void *self, int level, const char *text) {
    // The library says why a TLS handshake failed only here.
    if (level == MOSQ_LOG_ERR && text != nullptr)
        static_cast<bridge *>(self)->broker_why_ = text;
}

void bridge::broker_connect(clock_type::time_point now) {
    // A fresh session each time: what was in flight is resent from the queue,
    // in order, not by the library on its own.
    mosq_ = mosquitto_new(o_.cfg.client_id.c_str(), true, this);
    if (mosq_ == nullptr) {
        broker_lost(now, "cannot create a client session");
        return;
    }
    broker_why_.clear();
    broker_gone_ = false;
    mosquitto_connect_callback_set(mosq_, on_connect);
    mosquitto_disconnect_callback_set(mosq_, on_disconnect);
    mosquitto_publish_callback_set(mosq_, on_publish);
    mosquitto_log_callback_set(mosq_, on_log);
    const config &c = o_.cfg;
    const std::string will = topic("online");
    int rc = mosquitto_will_set(mosq_, will.c_str(), 1, "0", 1, true);
    if (rc == MOSQ_ERR_SUCCESS && !c.username.empty())
        rc = mosquitto_username_pw_set(mosq_, c.username.c_str(), c.password_file.empty() ? nullptr : o_.password.c_str());
    if (rc == MOSQ_ERR_SUCCESS && c.tls())
        rc = mosquitto_tls_set(mosq_, c.tls_ca.c_str(), nullptr, c.tls_cert.empty() ? nullptr : c.tls_cert.c_str(),
                               c.tls_key.empty() ? nullptr : c.tls_key.c_str(), nullptr);
    if (rc != MOSQ_ERR_SUCCESS) {
        broker_lost(now, std::string("cannot set up the session: ") + mosquitto_strerror(rc));
        return;
    }
    rc = mosquitto_connect_async(mosq_, c.broker.c_str(), c.broker_port(), o_.keepalive_s);
    if (rc != MOSQ_ERR_SUCCESS) {
        std::string why = rc == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(rc);
        if (!broker_why_.empty())
            why = broker_why_;
        broker_lost(now, "cannot connect: " + why);
        return;
    }
    connect_started_ = last_read_ = last_write_ = now;
}

void bridge::broker_close() {
    if (mosq_ != nullptr)
        mosquitto_destroy(mosq_);
    mosq_ = nullptr;
    broker_up_ = false;
    just_connected_ = false;
    broker_gone_ = false;
}

void bridge::broker_lost(clock_type::time_point now, const std::string &why) {
    const bool tls_failed = o_.cfg.tls() && !broker_up_ &&
                            (why.find("SSL") != std::string::npos || why.find("TLS") != std::string::npos ||
                             why.find("certificate") != std::string::npos);
    std::string text = "broker " + o_.cfg.broker + ":" + std::to_string(o_.cfg.broker_port()) + ": " + why;
    if (tls_failed)
        text += " (TLS: is tls_ca=" + o_.cfg.tls_ca + " the CA that signed the broker's certificate, "
                "for the name " + o_.cfg.broker + "?)";
    broker_close();
    queue_.connection_lost();
    broker_backoff_.failed(now);
    say(text + "; again in " + std::to_string(std::chrono::duration_cast<seconds>(broker_backoff_.due - now).count()) +
        " s");
}

void bridge::publish_retained(const std::string &t, const std::string &payload, bool events_first) {
    if (!broker_up_)
        return;
    if (events_first)
        flush_queue();
    mosquitto_publish(mosq_, nullptr, t.c_str(), static_cast<int>(payload.size()), payload.data(), 1, true);
    last_write_ = clock_type::now();
}

void bridge::flush_queue() {
    if (!broker_up_)
        return;
    while (offline_queue::entry *e = queue_.next_unsent()) {
        int mid = 0;
        int rc = mosquitto_publish(mosq_, &mid, e->topic.c_str(), static_cast<int>(e->payload.size()),
                                   e->payload.data(), 1, false);
        if (rc != MOSQ_ERR_SUCCESS) {
            // The connection went while sending; the entry stays for the next one.
            broker_gone_ = true;
            if (broker_why_.empty())
                broker_why_ = std::string("publish failed: ") + mosquitto_strerror(rc);
            return;
        }
        queue_.sent(e, mid);
        last_write_ = clock_type::now();
    }
}

void bridge::shutdown() {
    if (!broker_up_)
        return;
    // An orderly end does not make the broker send the will: say it ourselves.
    publish_retained(topic("online"), "0");
    const auto until = clock_type::now() + milliseconds(1000);
    while (mosq_ != nullptr && mosquitto_want_write(mosq_) && clock_type::now() < until) {
        pollfd p{mosquitto_socket(mosq_), POLLOUT, 0};
        if (poll(&p, 1, 100) > 0 && mosquitto_loop_write(mosq_, 1) != MOSQ_ERR_SUCCESS)
            break;
    }
    mosquitto_disconnect(mosq_);
}

void bridge::daemon_connect(clock_type::time_point now) {
    std::string error;
    daemon_fd_ = connect_events(o_.events_socket, o_.daemon_uid, &error);
    if (daemon_fd_ < 0) {
        daemon_lost(now, error);
        return;
    }
    daemon_backoff_.reset();
    reader_ = ctl::frame_reader();
    decoder_ = event_decoder();
    say("subscribed to the daemon's events on " + o_.events_socket);
    publish_retained(topic("online"), "1");
    refresh_state(now);
}

void bridge::daemon_close() {
    if (daemon_fd_ >= 0)
        close(daemon_fd_);
    daemon_fd_ = -1;
    asking_ = asking::none;
    ask_again_ = false;
}

void bridge::daemon_lost(clock_type::time_point now, const std::string &why) {
    if (daemon_fd_ >= 0) {
        if (std::optional<event_message> m = decoder_.rest())
            queue_.push(topic("event/" + m->kind), m->json);
        publish_retained(topic("online"), "0");
    }
    daemon_close();
    daemon_backoff_.failed(now);
    say(why + "; again in " + std::to_string(std::chrono::duration_cast<seconds>(daemon_backoff_.due - now).count()) +
        " s");
}

bool bridge::ask(uint16_t code) {
    uint8_t frame[16];
    size_t n = request_build(frame, sizeof frame, code, nullptr, nullptr, 0);
    return n > 0 && send(daemon_fd_, frame, n, MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(n);
}

void bridge::refresh_state(clock_type::time_point now, bool always) {
    follow_up_due_ = clock_type::time_point::max();
    if (always)
        state_due_ = now + seconds(o_.cfg.state_interval_s);
    if (asking_ != asking::none) {
        ask_again_ = true; // the answers under way may predate what changed
        publish_always_ = publish_always_ || always;
        return;
    }
    publish_always_ = always;
    if (!ask(CODE_STATE)) {
        daemon_lost(now, "cannot ask the daemon's state");
        return;
    }
    asking_ = asking::state;
    asked_at_ = now;
}

void bridge::publish_state() {
    publish_retained(topic("state"), state_json(have_state_ ? &state_reply_ : nullptr,
                                                have_stats_ ? &stats_reply_ : nullptr, queue_.dropped()));
}

void bridge::take_frame(const reply_frame &f, clock_type::time_point now) {
    if (f.code == CODE_STATE && asking_ == asking::state) {
        state_reply_ = f;
        have_state_ = true;
        if (!ask(CODE_STATS)) {
            daemon_lost(now, "cannot ask the daemon's statistics");
            return;
        }
        asking_ = asking::stats;
        asked_at_ = now;
        return;
    }
    if (f.code == CODE_STATS && asking_ == asking::stats) {
        stats_reply_ = f;
        have_stats_ = true;
        asking_ = asking::none;
        std::optional<uint64_t> link = link_of(stats_reply_);
        std::string seen = std::to_string(state_reply_.status) + "/" + std::string(state_reply_.text, state_reply_.text_len) +
                           "/" + (link ? std::to_string(*link) : "-");
        if (publish_always_ || seen != published_state_) {
            publish_state();
            published_state_ = seen;
        }
        if (state_reply_.status == STATUS_NOT_READY)
            follow_up_due_ = now + FOLLOW_UP;
        if (ask_again_) {
            ask_again_ = false;
            refresh_state(now);
        }
        return;
    }
    for (event_message &m : decoder_.take(f))
        queue_.push(topic("event/" + m.kind), std::move(m.json));
    // The events that come with a change of the link: the state follows at once.
    if (f.code == EVENT_MODULE || f.code == EVENT_RESTARTED || f.code == EVENT_FOTA_DONE)
        refresh_state(now);
}

void bridge::daemon_read(clock_type::time_point now) {
    uint8_t buf[4096];
    for (;;) {
        ssize_t n = recv(daemon_fd_, buf, sizeof buf, MSG_DONTWAIT);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return;
        if (n <= 0) {
            daemon_lost(now, n == 0 ? "the daemon closed its events socket" : std::string("events socket: ") + strerror(errno));
            return;
        }
        reader_.feed(buf, static_cast<size_t>(n));
        reply_frame f;
        while (daemon_fd_ >= 0 && reader_.next(&f))
            take_frame(f, now);
        if (daemon_fd_ >= 0 && reader_.bad()) {
            daemon_lost(now, "the events socket sent bytes that are not frames");
            return;
        }
        if (daemon_fd_ < 0)
            return;
    }
}

int bridge::run(int stop_fd) {
    for (;;) {
        auto now = clock_type::now();
        if (mosq_ == nullptr && now >= broker_backoff_.due)
            broker_connect(now);
        if (daemon_fd_ < 0 && now >= daemon_backoff_.due)
            daemon_connect(now);
        if (daemon_fd_ >= 0 && asking_ != asking::none && now - asked_at_ >= REPLY_WAIT)
            daemon_lost(now, "the daemon did not answer within 10 s");
        if (daemon_fd_ >= 0 && now >= state_due_)
            refresh_state(now);
        else if (daemon_fd_ >= 0 && asking_ == asking::none && now >= follow_up_due_)
            refresh_state(now, false);
        if (mosq_ != nullptr && !broker_up_ && now - connect_started_ >= CONNECT_WAIT)
            broker_lost(now, "no answer to the connection within 30 s");
        // Keep-alive: the library pings when a keep-alive has passed since the
        // last packet either way; it is called just then, not on a period.
        auto misc_due = std::max(std::min(last_read_, last_write_) + seconds(o_.keepalive_s) + milliseconds(100),
                                 misc_floor_);
        if (mosq_ != nullptr && now >= misc_due) {
            mosquitto_loop_misc(mosq_);
            misc_floor_ = now + seconds(1);
        }
        if (mosq_ != nullptr && (broker_gone_ || mosquitto_socket(mosq_) < 0))
            broker_lost(now, broker_why_.empty() ? "connection lost" : broker_why_);
        if (broker_up_ && just_connected_)
            greet_broker();
        flush_queue();

        // The next deadline.
        clock_type::time_point next = clock_type::time_point::max();
        if (mosq_ == nullptr)
            next = std::min(next, broker_backoff_.due);
        else
            next = std::min(next, broker_up_ ? misc_due : connect_started_ + CONNECT_WAIT);
        if (daemon_fd_ < 0)
            next = std::min(next, daemon_backoff_.due);
        else
            next = std::min(next, asking_ != asking::none ? asked_at_ + REPLY_WAIT : std::min(state_due_, follow_up_due_));
        pollfd p[3] = {{stop_fd, POLLIN, 0}, {daemon_fd_, POLLIN, 0}, {-1, 0, 0}};
        if (mosq_ != nullptr) {
            p[2].fd = mosquitto_socket(mosq_);
            p[2].events = static_cast<short>(POLLIN | (mosquitto_want_write(mosq_) ? POLLOUT : 0));
        }
        now = clock_type::now();
        int timeout = -1;
        if (next != clock_type::time_point::max()) {
            // Rounded up, so that the wake comes after the deadline, not just before it.
            const int64_t ms = std::chrono::duration_cast<milliseconds>(next - now).count() + 1;
            timeout = static_cast<int>(std::min<int64_t>(std::max<int64_t>(ms, 0), 3600 * 1000));
        }
        int rc = poll(p, 3, timeout);
        if (rc < 0 && errno != EINTR) {
            say(std::string("poll: ") + strerror(errno));
            return 1;
        }
        if (rc <= 0)
            continue;
        now = clock_type::now();
        if ((p[0].revents & POLLIN) != 0) {
            shutdown();
            return 0;
        }
        if (p[1].fd >= 0 && p[1].revents != 0 && daemon_fd_ >= 0)
            daemon_read(now);
        if (mosq_ != nullptr && p[2].fd >= 0 && p[2].revents != 0) {
            if ((p[2].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
                last_read_ = now;
                int r = mosquitto_loop_read(mosq_, 1);
                if (r != MOSQ_ERR_SUCCESS && !broker_gone_) {
                    broker_gone_ = true;
                    if (broker_why_.empty())
                        broker_why_ = r == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(r);
                } else if (r == MOSQ_ERR_SUCCESS && (p[2].revents & (POLLHUP | POLLERR)) != 0 && !broker_gone_) {
                    // A socket that hangs up stays readable: left alone it would spin the loop.
                    broker_gone_ = true;
                    if (broker_why_.empty())
                        broker_why_ = "connection lost";
                }
            }
            if (mosq_ != nullptr && !broker_gone_ && (p[2].revents & POLLOUT) != 0) {
                last_write_ = now;
                int r = mosquitto_loop_write(mosq_, 1);
                if (r != MOSQ_ERR_SUCCESS) {
                    broker_gone_ = true;
                    if (broker_why_.empty())
                        broker_why_ = r == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(r);
                }
            }
        }
    }
}

} // namespace

int run_bridge(const bridge_options &opts, int stop_fd) {
    bridge b(opts);
    return b.run(stop_fd);
}

} // namespace mqtt
