#include "support/test_support.h"

#include "at/at.h"
#include "client/client.h"

#include <cstdlib> // mkdtemp, posix_openpt
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <strings.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

// Whether `fd` has bytes to read before the deadline passes.
bool readable(int fd, long deadline) {
    pollfd p{fd, POLLIN, 0};
    long left = deadline - monotonic_ms();
    return left >= 0 && poll(&p, 1, static_cast<int>(left)) > 0;
}

} // namespace

void fresh_state::reset() {
    worker_wait_ended(monotonic_ms() + 10000);
    daemon_state_reset();
    stats_reset();
}

long long stat_value(const std::string &key) {
    char text[STATS_TEXT_SIZE];
    std::string pairs = " " + std::string(text, stats_format(text, sizeof text, monotonic_ms())) + " ";
    size_t at = pairs.find(" " + key + "=");
    return at == std::string::npos ? -1 : std::stoll(pairs.substr(at + key.size() + 2));
}

std::string request_bytes(uint16_t code, const std::vector<std::string> &fields) {
    auto be16 = [](size_t v) {
        return std::string{static_cast<char>(v >> 8), static_cast<char>(v)};
    };
    std::string raw = "ZVS" + be16(code);
    for (const std::string &f : fields)
        raw += be16(f.size()) + f;
    return raw + be16(0);
}

client_end::client_end() {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_) != 0)
        throw std::runtime_error("socketpair");
    client_attach(fds_[0]);
}

client_end::~client_end() {
    client_detach();
    close(fds_[0]);
    close(fds_[1]);
}

bool next_frame(int fd, std::vector<uint8_t> &pending, reply_frame *out, long timeout_ms) {
    long deadline = monotonic_ms() + timeout_ms;
    for (;;) {
        long used = pending.empty() ? 0 : reply_parse(pending.data(), pending.size(), out);
        if (used < 0)
            throw std::runtime_error("malformed reply frame");
        if (used > 0) {
            pending.erase(pending.begin(), pending.begin() + used);
            return true;
        }
        uint8_t buf[4096];
        ssize_t n = readable(fd, deadline) ? read(fd, buf, sizeof buf) : 0;
        if (n <= 0)
            return false;
        pending.insert(pending.end(), buf, buf + n);
    }
}

bool client_end::next(reply_frame *out, long timeout_ms) { return next_frame(fds_[1], pending_, out, timeout_ms); }

namespace {
std::string shown(int code, int status, const char *text) {
    return std::to_string(code) + " " + std::to_string(status) + " " + text + "|";
}
} // namespace

std::string shown(const op_outcome &o) { return o.status == STATUS_NONE ? "" : shown(o.code, o.status, o.text); }

std::string client_end::frames() {
    client_report(0xFFFF, 0, nullptr);
    std::string got;
    reply_frame r;
    while (next(&r, 3000) && r.code != 0xFFFF)
        got += shown(r.code, r.status, r.text);
    return got;
}

std::string client_end::frames(size_t count, long timeout_ms) {
    std::string got;
    reply_frame r;
    for (size_t i = 0; i < count && next(&r, timeout_ms); ++i)
        got += shown(r.code, r.status, r.text);
    return got;
}

at_port::at_port() {
    master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    std::atomic<int32_t> fd{-1};
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0 ||
        serial_open(&fd, ptsname(master_)) != 0)
        throw std::runtime_error("serial_open on a pty slave");
    state().at_fd.store(fd.load(), std::memory_order_release);
    // The module's port is open: the module is served, as after start-up.
    state().module_restarting.store(0, std::memory_order_release);
    state().phase.store(module_phase::idle, std::memory_order_release);
}

at_port::~at_port() {
    stop_rx();
    close_port();
    if (master_ >= 0)
        close(master_);
}

void at_port::hang_up() {
    if (master_ >= 0)
        close(std::exchange(master_, -1));
}

void at_port::close_port() {
    int fd = state().at_fd.exchange(-1);
    if (fd >= 0)
        close(fd);
}

void at_port::start_rx() {
    if (pthread_create(&rx_, nullptr, rx_thread, nullptr) != 0)
        throw std::runtime_error("pthread_create");
    rx_running_ = true;
}

void at_port::stop_rx() {
    if (!rx_running_)
        return;
    pthread_cancel(rx_);
    pthread_join(rx_, nullptr);
    rx_running_ = false;
}

std::string at_port::module_reads(const std::string &until, long timeout_ms) {
    std::string got;
    long deadline = monotonic_ms() + timeout_ms;
    char buf[512];
    ssize_t n = 0;
    while (got.find(until) == std::string::npos && readable(master_, deadline) && (n = read(master_, buf, sizeof buf)) > 0)
        got.append(buf, static_cast<size_t>(n));
    return got;
}

void at_port::module_says(const std::string &bytes) {
    if (write(master_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error("write to pty master");
}

std::string urc_next(long timeout_ms) {
    char line[RING_LINE_SIZE];
    bool got = urc_pop(line, sizeof line, monotonic_ms() + timeout_ms);
    return got ? std::string(line) : std::string("<none>");
}

emulated_port::emulated_port(modem_family family) : emu_(family) {
    if (!emu_.start(master_))
        throw std::runtime_error("modem emulator");
    start_rx();
}

emulated_port::~emulated_port() {
    stop_rx();
    emu_.stop();
}

const module_family &family_of(modem_family family) {
    for (const module_family &f : MODULE_FAMILIES) {
        if (strcasecmp(f.name, modem_family_name(family)) == 0)
            return f;
    }
    throw std::runtime_error("no row for the emulated family");
}

void run_worker(const std::string &raw, modem_family family) {
    worker_request req{raw.size(), {}};
    memcpy(req.bytes, raw.data(), raw.size());
    state().family = &family_of(family);
    state().at_mutex.lock();
    state().worker_busy = 1;
    request_worker(&req);
}

std::string port_test::module_got() {
    at_send("MARK\r\n", 6);
    std::string got = port.module_reads("MARK\r\n", 3000);
    size_t end = got.rfind("MARK\r\n");
    return end == std::string::npos ? got + "<no marker>" : got.substr(0, end);
}

std::string urc_before(const std::string &marker) {
    std::string got;
    for (std::string l = urc_next(3000); l != marker && l != "<none>"; l = urc_next(3000))
        got += l + "|";
    return got;
}

temp_dir::temp_dir() {
    char tmpl[] = "/tmp/zolvin_test.XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

temp_dir::~temp_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string temp_dir::mkdir(const std::string &name) const {
    std::string full = path_ + "/" + name;
    std::filesystem::create_directories(full);
    return full;
}

std::string temp_dir::write(const std::string &name, const std::string &content) const {
    std::string full = path_ + "/" + name;
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    std::ofstream(full, std::ios::binary) << content;
    return full;
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

size_t open_descriptors(pid_t pid) {
    std::error_code none; // no process: no descriptors
    std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid) + "/fd", none);
    return static_cast<size_t>(std::distance(fds, std::filesystem::directory_iterator()));
}

std::pair<int, std::string> run_command(const std::string &command) {
    std::string out;
    FILE *p = popen((command + " 2>&1").c_str(), "r");
    char buf[4096];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;)
        out.append(buf, n);
    int status = p != nullptr ? pclose(p) : -1;
    return {status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

std::string parsed_json(const std::string &json) {
    temp_dir dir;
    auto [status, out] = run_command("python3 -c 'import json,sys; print(json.dumps(list(json.load(sys.stdin).items())))' <" +
                                     dir.write("status.json", json));
    EXPECT_EQ(status, 0) << out;
    return out;
}
