#include "client/client.h"

#include "at/at.h"
#include "core/config.h"
#include "core/daemon_state.h"
#include "core/stats.h"
#include "core/text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The frame a worker runs; rewritten only when the next worker starts, which
// cannot happen while one runs.
worker_request g_request_copy;

// The subscriber whose request is being answered; -1: the client. The server
// thread's alone.
int g_answer_slot = -1;

void reply(uint16_t code, int status, const char *text = nullptr) {
    if (g_answer_slot >= 0)
        subscriber_report(g_answer_slot, code, status, text);
    else
        client_report(code, status, text);
}

bool switch_is(const request_frame &f, int field, char value) {
    return f.field_count > field && f.fields[field][0] == value;
}

void restart_module() {
    daemon_state &s = state();
    worker_cancel();
    s.at_passthrough.store(0, std::memory_order_release);
    s.restart_report_pending.store(1, std::memory_order_release);
    supervisor_request(s.module_restarting, 1);
}

void connection_state(uint16_t code) {
    daemon_state &s = state();
    if (!module_ready()) {
        reply(code, STATUS_NOT_READY);
        return;
    }
    const char *text = s.phase.load(std::memory_order_acquire) == module_phase::connected
                           ? "Connected"
                       : s.auto_dial.load(std::memory_order_acquire) ? "Connecting"
                                                                     : "Disconnected";
    reply(code, s.worker_busy.load(std::memory_order_acquire) ? STATUS_BUSY : STATUS_OK, text);
}

void auto_dial_switch(const request_frame &f) {
    if (!switch_is(f, 0, '0') && !switch_is(f, 0, '1')) {
        reply(f.code, STATUS_BAD_PARAM);
        return;
    }
    supervisor_request(state().auto_dial, f.fields[0][0] == '1' ? 1 : 0);
    reply(f.code, STATUS_OK);
}

// Text settings behind numbered slots, read ("0") or written ("1") by 521 and 523.
struct text_slot {
    char *field;
};

// 521 and 523: field 1 read/write, field 2 the slot, field 3 the value.
void slot_setting(const request_frame &f, const text_slot *slots, int slot_count,
                  bool is_apn) {
    if (f.field_count < 2 || (!switch_is(f, 0, '0') && !switch_is(f, 0, '1'))) {
        reply(f.code, STATUS_BAD_PARAM);
        return;
    }
    int slot = f.fields[1][0] - '0';
    if (slot < 1 || slot > slot_count) {
        reply(f.code, STATUS_BAD_PARAM);
        return;
    }
    daemon_state &s = state();
    bool write = f.fields[0][0] == '1';
    char text[100];
    if (is_apn && slot == 4) {
        if (write) {
            int v = atoi(f.fields[2]);
            bool valid = f.field_count >= 3 && v >= 0 && v <= 3;
            settings_edit([&] {
                if (valid)
                    s.apn_auth.store(static_cast<uint32_t>(v), std::memory_order_release);
                app_cmd_build();
            });
            if (!valid) {
                reply(f.code, STATUS_OK, "");
                return;
            }
        }
        text_format(text, sizeof text, "4:%d", static_cast<int>(s.apn_auth.load()));
        reply(f.code, STATUS_OK, text);
        return;
    }
    if (is_apn && write && f.field_count >= 3 && !at_text_ok(f.fields[2]))
        return reply(f.code, STATUS_BAD_PARAM); // the APN texts go into AT command lines
    char *field = slots[slot - 1].field;
    settings_edit([&] {
        if (write) {
            text_copy(field, TEXT_FIELD_SIZE, f.field_count >= 3 ? f.fields[2] : "",
                      CONFIG_VALUE_MAX);
            if (is_apn)
                app_cmd_build();
        }
        text_format(text, sizeof text, "%d:%s", slot, field);
    });
    reply(f.code, STATUS_OK, text);
}

void apn_setting(const request_frame &f) {
    daemon_state &s = state();
    const text_slot slots[] = {{s.apn_name}, {s.apn_user}, {s.apn_passwd}, {nullptr}};
    slot_setting(f, slots, 4, true);
}

void ping_setting(const request_frame &f) {
    daemon_state &s = state();
    const text_slot slots[] = {{s.ping_address[0]}, {s.ping_address[1]}, {s.ping_address[2]},
                               {s.ping_address[3]}, {s.ping_address[4]}, {s.ping_address[5]}};
    slot_setting(f, slots, 6, false);
}

void check_switch(const request_frame &f) {
    daemon_state &s = state();
    if (f.field_count < 1 || (switch_is(f, 0, '1') && f.field_count < 2)) {
        reply(f.code, STATUS_BAD_PARAM);
        return;
    }
    // The supervisor starts or stops the running check at once.
    if (switch_is(f, 0, '1') && (f.fields[1][0] == '0' || f.fields[1][0] == '1'))
        supervisor_request(s.auto_check, f.fields[1][0] == '1' ? 1 : 0);
    reply(f.code, STATUS_OK, s.auto_check.load(std::memory_order_acquire) ? "1" : "0");
}

void check_period(const request_frame &f) {
    daemon_state &s = state();
    if (f.field_count < 1 || (switch_is(f, 0, '1') && f.field_count < 2)) {
        reply(f.code, STATUS_BAD_PARAM);
        return;
    }
    if (switch_is(f, 0, '1')) {
        int v = atoi(f.fields[1]);
        if (v < 1 || v > 30000) {
            reply(f.code, STATUS_BAD_PARAM, "Value between 1-30000");
            return;
        }
        s.check_timeS.store(static_cast<uint32_t>(v), std::memory_order_release);
    }
    char text[16];
    text_format(text, sizeof text, "%u", s.check_timeS.load(std::memory_order_acquire));
    reply(f.code, STATUS_OK, text);
}

void down_script_setting(const request_frame &f) {
    daemon_state &s = state();
    if (!switch_is(f, 0, '0') && !switch_is(f, 0, '1')) {
        reply(f.code, STATUS_BAD_PARAM);
        return;
    }
    char text[TEXT_FIELD_SIZE];
    settings_edit([&] {
        if (f.fields[0][0] == '1')
            text_copy(s.down_script, sizeof s.down_script, f.field_count >= 2 ? f.fields[1] : "",
                      CONFIG_VALUE_MAX);
        text_set(text, s.down_script);
    });
    reply(f.code, STATUS_OK, text);
}

void statistics(const request_frame &f) {
    char text[STATS_TEXT_SIZE];
    stats_format(text, sizeof text, monotonic_ms());
    reply(f.code, STATUS_OK, text);
}

struct local_code {
    uint16_t code;
    void (*handle)(const request_frame &f);
    // A write ("1" in field 1) changes what the daemon runs as root: only a
    // root client may make it.
    bool root_writes = false;
};

const local_code LOCAL_CODES[] = {
    {CODE_RESTART, [](const request_frame &) { restart_module(); }},
    {CODE_VERSION, [](const request_frame &f) { reply(f.code, STATUS_OK, BANNER); }},
    {CODE_STATE, [](const request_frame &f) { connection_state(f.code); }},
    {CODE_STATS, statistics},
    {CODE_AUTO_DIAL, auto_dial_switch},
    {CODE_APN, apn_setting},
    {CODE_AUTO_CHECK, check_switch},
    {CODE_PING_ADDRESS, ping_setting},
    {CODE_CHECK_PERIOD, check_period},
    {CODE_DOWN_SCRIPT, down_script_setting, true},
};

// A worker's replies go to the client that sent its request, or nowhere.
template <void *(*entry)(void *)> void *bound_worker(void *request_copy) {
    client_reply_bind(static_cast<const worker_request *>(request_copy)->generation);
    return entry(request_copy);
}

void start_worker(const uint8_t *buf, size_t len, uint16_t code, const client_peer &from) {
    daemon_state &s = state();
    if (!module_ready()) {
        reply(code, STATUS_NOT_READY);
        return;
    }
    if (s.worker_busy.load(std::memory_order_acquire) ||
        s.dial_in_progress.load(std::memory_order_acquire)) {
        reply(code, STATUS_BUSY);
        return;
    }
    g_request_copy.len = len < sizeof g_request_copy.bytes ? len : sizeof g_request_copy.bytes;
    memset(g_request_copy.bytes, 0, sizeof g_request_copy.bytes);
    memcpy(g_request_copy.bytes, buf, g_request_copy.len);
    g_request_copy.peer = from;
    g_request_copy.generation = s.client_generation.load(std::memory_order_acquire);
    // Supervisor work may have taken the port since the test above.
    if (worker_start(bound_worker<request_worker>, &g_request_copy) == worker_start_result::busy)
        reply(code, STATUS_BUSY);
}

// A listening socket, made once: while the daemon runs no other process can
// take the name. -1 after a failure, which is reported.
int open_listener(socklen_t (*address)(sockaddr_un *), int backlog) {
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0) {
        perror("cannot create communication socket");
        return -1;
    }
    int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_un addr;
    socklen_t addr_len = address(&addr);
    if (bind(listener, reinterpret_cast<sockaddr *>(&addr), addr_len) != 0) {
        perror("cannot bind server socket");
        close(listener);
        return -1;
    }
    if (listen(listener, backlog) != 0) {
        perror("cannot listen the client connect request");
        close(listener);
        return -1;
    }
    return listener;
}

constexpr int64_t ACCEPT_RETRY_MS = 1000;

// The connected client, the server thread's alone.
int g_client = -1;
client_peer g_peer;

void client_gone() {
    client_detach();
    close(g_client);
    g_client = -1;
    state().at_passthrough.store(0, std::memory_order_release);
}

enum class client_read { request, nothing, gone };

// One read of the client is one request; gone: end of file or an error. With
// MSG_DONTWAIT, only what is there already.
client_read serve_client(int flags) {
    static uint8_t buf[REQUEST_MAX];
    ssize_t n = recv(g_client, buf, sizeof buf, flags);
    if (n > 0) {
        handle_request(buf, static_cast<size_t>(n), g_peer);
        return client_read::request;
    }
    bool nothing = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
    return nothing ? client_read::nothing : client_read::gone;
}

// A new connection: the client if none is connected and it may be one, else
// closed at once without a reply (a stranger learns nothing).
void take_connection(int fresh) {
    // A client whose end of file waits to be read has gone: the newcomer is
    // its successor. What it sent before is served first.
    client_read r = client_read::request;
    while (g_client >= 0 && r == client_read::request) {
        if ((r = serve_client(MSG_DONTWAIT)) == client_read::gone)
            client_gone();
    }
    if (g_client >= 0 || !client_admit(fresh, &g_peer)) {
        close(fresh);
        return;
    }
    g_client = fresh;
    client_attach(g_client);
}

// The subscribers' descriptors by slot (-1: free), the server thread's copy
// of the slots that core/report.h sends to.
int g_subscriber[SUBSCRIBERS_MAX] = {-1, -1, -1, -1, -1, -1, -1, -1};

void subscriber_gone(int slot) {
    subscriber_detach(slot);
    close(g_subscriber[slot]);
    g_subscriber[slot] = -1;
}

// A subscriber if it may be a client and a slot is free; else closed at once.
void take_subscriber(int fresh) {
    client_peer peer;
    int slot = client_admit(fresh, &peer) ? subscriber_attach(fresh) : -1;
    if (slot < 0) {
        close(fresh);
        return;
    }
    g_subscriber[slot] = fresh;
}

// One read of a subscriber is one request; false when it has gone.
bool serve_subscriber(int slot) {
    static uint8_t buf[REQUEST_MAX];
    ssize_t n = recv(g_subscriber[slot], buf, sizeof buf, MSG_DONTWAIT);
    if (n > 0) {
        handle_subscriber_request(buf, static_cast<size_t>(n), slot);
        return true;
    }
    return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
}

// A connection waiting on `listener`, given to `take`; after a failed accept,
// such as no descriptor left, the listener rests until `*again_ms`.
void accept_on(int listener, void (*take)(int), int64_t *again_ms) {
    int fresh = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fresh >= 0) {
        take(fresh);
    } else if (errno != EINTR && errno != EAGAIN && errno != ECONNABORTED) {
        perror("cannot accept client connect request");
        *again_ms = monotonic_ms() + ACCEPT_RETRY_MS;
    }
}

} // namespace

void handle_request(const uint8_t *buf, size_t len, const client_peer &from) {
    request_frame f;
    if (request_parse(buf, len, &f) != 0)
        return; // not ours: no reply at all
    for (const local_code &c : LOCAL_CODES) {
        if (c.code != f.code)
            continue;
        if (c.root_writes && switch_is(f, 0, '1') && from.uid != 0)
            reply(f.code, STATUS_NOT_SERVED);
        else
            c.handle(f);
        return;
    }
    start_worker(buf, len, f.code, from);
}

void handle_subscriber_request(const uint8_t *buf, size_t len, int slot) {
    request_frame f;
    if (request_parse(buf, len, &f) != 0)
        return; // not ours: no reply at all
    g_answer_slot = slot;
    // Subscribers look, they do not steer: only the codes that change nothing.
    if (f.code == CODE_VERSION || f.code == CODE_STATE || f.code == CODE_STATS)
        handle_request(buf, len, client_peer{});
    else
        reply(f.code, STATUS_NOT_SERVED);
    g_answer_slot = -1;
}

void *interface_thread(void *) {
    pthread_setname_np(pthread_self(), "zolvin_client");
    int listener = open_listener(server_address, 1);
    if (listener < 0)
        return nullptr;
    // Without it the client is still served; only subscribers go without.
    int events = open_listener(events_address, SUBSCRIBERS_MAX);
    // After a failed accept, such as no descriptor left.
    int64_t accept_again_ms = 0, events_again_ms = 0;
    enum { CLIENT, LISTENER, EVENTS, SUBSCRIBERS };
    for (;;) {
        int64_t now = monotonic_ms();
        bool listening = now >= accept_again_ms, events_open = now >= events_again_ms;
        // poll() passes over a negative descriptor.
        pollfd fds[SUBSCRIBERS + SUBSCRIBERS_MAX] = {{g_client, POLLIN, 0},
                                                      {listening ? listener : -1, POLLIN, 0},
                                                      {events_open ? events : -1, POLLIN, 0}};
        for (int i = 0; i < SUBSCRIBERS_MAX; ++i)
            fds[SUBSCRIBERS + i] = {g_subscriber[i], POLLIN, 0};
        int64_t deadline = !listening ? accept_again_ms : NO_DEADLINE;
        if (!events_open && (deadline == NO_DEADLINE || events_again_ms < deadline))
            deadline = events_again_ms;
        if (poll(fds, SUBSCRIBERS + SUBSCRIBERS_MAX, poll_timeout(deadline)) < 0)
            continue; // interrupted
        if (fds[CLIENT].revents != 0 && serve_client(0) == client_read::gone)
            client_gone();
        for (int i = 0; i < SUBSCRIBERS_MAX; ++i) {
            if (fds[SUBSCRIBERS + i].revents != 0 && !serve_subscriber(i))
                subscriber_gone(i);
        }
        if ((fds[EVENTS].revents & POLLIN) != 0)
            accept_on(events, take_subscriber, &events_again_ms);
        if ((fds[LISTENER].revents & POLLIN) != 0)
            accept_on(listener, take_connection, &accept_again_ms);
    }
}
