// One read from the client, as the server thread and the request workers take
// it: the frame parse, the local codes that change settings, and each worker
// family run on this thread. The module port is closed, so every module
// exchange fails at its send and nothing waits; the module stays flagged as
// restarting, so the server never starts a worker thread of its own. Every
// reply is read back off the client socket and must be a whole frame.
#include "client/client.h"
#include "core/config.h"
#include "core/daemon_state.h"

#include "fuzz_support.h"

#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int g_client[2] = {-1, -1};

void connect_client() {
    daemon_state &s = state();
    s.client_fd.store(g_client[0]);
    s.client_connected.store(1);
}

struct sent {
    int frames = 0;
    int with_code = 0; // of them, those under the request's code
};

// Reads every frame the daemon sent since the last call. A frame cut short or
// not a frame at all traps.
sent replies(uint16_t code) {
    static uint8_t stream[1 << 16];
    size_t len = 0;
    ssize_t n;
    while (len < sizeof stream && (n = read(g_client[1], stream + len, sizeof stream - len)) > 0)
        len += static_cast<size_t>(n);
    sent got;
    size_t pos = 0;
    while (pos < len) {
        reply_frame f;
        long used = reply_parse(stream + pos, len - pos, &f);
        check(used > 0 && f.text_len <= REPLY_TEXT_MAX && strlen(f.text) == f.text_len);
        ++got.frames;
        got.with_code += f.code == code ? 1 : 0;
        pos += static_cast<size_t>(used);
    }
    return got;
}

bool terminated(const char *field, size_t size, size_t max_chars) {
    return strnlen(field, size) <= max_chars;
}

// The texts a client can write stay within their fields, and the command
// built from them within its own.
void check_settings() {
    const daemon_state &s = state();
    for (const char *field : {s.apn_name, s.apn_user, s.apn_passwd, s.down_script})
        check(terminated(field, TEXT_FIELD_SIZE, CONFIG_VALUE_MAX));
    for (const char *ping : s.ping_address)
        check(terminated(ping, TEXT_FIELD_SIZE, CONFIG_VALUE_MAX));
    check(terminated(s.app_cmd, CMD_FIELD_SIZE, CMD_FIELD_SIZE - 1));
    check(s.apn_auth.load() <= 3);
    check(s.check_timeS.load() >= 1 && s.check_timeS.load() <= 30000);
}

// The workers run on one long-lived thread of their own, as the server runs
// them on a thread (a worker's clean-up looks at its own thread's stack,
// which costs a read of the process's memory map on the main thread).
struct worker_job {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
    void *(*entry)(void *) = nullptr;
    void *arg = nullptr;
    bool done = false;
} g_job;

void *worker_thread(void *) {
    pthread_mutex_lock(&g_job.lock);
    for (;;) {
        while (g_job.entry == nullptr)
            pthread_cond_wait(&g_job.changed, &g_job.lock);
        void *(*entry)(void *) = g_job.entry;
        pthread_mutex_unlock(&g_job.lock);
        entry(g_job.arg);
        pthread_mutex_lock(&g_job.lock);
        g_job.entry = nullptr;
        g_job.done = true;
        pthread_cond_broadcast(&g_job.changed);
    }
}

void run_on_worker_thread(void *(*entry)(void *), void *arg) {
    pthread_mutex_lock(&g_job.lock);
    g_job.entry = entry;
    g_job.arg = arg;
    g_job.done = false;
    pthread_cond_broadcast(&g_job.changed);
    while (!g_job.done)
        pthread_cond_wait(&g_job.changed, &g_job.lock);
    pthread_mutex_unlock(&g_job.lock);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_client) != 0)
        __builtin_trap();
    // Room for every frame one request can bring, read back without waiting.
    int room = 1 << 20;
    setsockopt(g_client[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    fcntl(g_client[1], F_SETFL, O_NONBLOCK);
    pthread_t tid;
    if (pthread_create(&tid, nullptr, worker_thread, nullptr) != 0)
        __builtin_trap();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // The server reads at most this much at once.
    if (size > REQUEST_MAX)
        return 0;
    auto bytes = exact_copy(data, size);
    daemon_state_reset();
    connect_client();

    request_frame f;
    bool parsed = request_parse(bytes.get(), size, &f) == 0;
    if (parsed) {
        check(f.field_count >= 0 && f.field_count <= REQUEST_FIELDS_MAX);
        size_t used = 5;
        for (int i = 0; i < REQUEST_FIELDS_MAX; ++i) {
            if (i < f.field_count) {
                check(f.field_len[i] >= 1 && f.field_len[i] < FIELD_SIZE);
                check(memcmp(f.fields[i], bytes.get() + used + 2, f.field_len[i]) == 0);
                check(f.fields[i][f.field_len[i]] == '\0');
                used += 2 + f.field_len[i];
            } else {
                check(f.field_len[i] == 0 && f.fields[i][0] == '\0');
            }
        }
        check(used <= size);
    }

    // A request the server answers itself gets exactly one reply (a restart
    // none: it is answered once the module is back); any other is refused
    // while the module restarts. A read that is no request gets nothing.
    handle_request(bytes.get(), size, client_peer{}); // a root client: every code is open
    sent answer = replies(parsed ? f.code : 0);
    bool owed = parsed && f.code != 901;
    check(answer.frames == (owed ? 1 : 0) && answer.with_code == answer.frames);
    check_settings();
    if (!parsed || f.code == 901)
        return 0;

    // The firmware update opens the file a field names; it is left out.
    if (f.code == 561)
        return 0;
    worker_request raw;
    raw.len = size;
    memset(raw.bytes, 0, sizeof raw.bytes);
    memcpy(raw.bytes, bytes.get(), size);
    for (const module_family &family : MODULE_FAMILIES) {
        state().family = &family;
        run_on_worker_thread(request_worker, &raw);
        // A request with an oversize field ends silently; every other is answered.
        sent result = replies(f.code);
        check(f.oversize_field ? result.frames == 0 : result.with_code >= 1);
    }
    check_settings();
    return 0;
}
