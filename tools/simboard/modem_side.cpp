#include "modem_side.h"

#include "board_util.h"
#include "modem_emu/modem_emu.h"

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr size_t KEEP_LIMIT = 64 * 1024;

class socket_relay : public modem_side {
public:
    explicit socket_relay(std::string path) : path_(std::move(path)) {}
    ~socket_relay() override { stop(); }

    bool start() override;
    void attach(int master_fd) override { request(master_fd); }
    void detach() override { request(-1); }
    void stop() override;

private:
    void request(int master_fd);
    void run();
    void take_request();
    void drop_client();
    void set_master(int fd);
    bool flush(int fd, std::string *pending);

    std::string path_;
    int listen_fd_ = -1;
    int wake_[2] = {-1, -1};
    std::thread thread_;

    std::mutex mutex_;
    std::condition_variable served_;
    bool pending_request_ = false;
    int requested_master_ = -1;
    bool stopping_ = false;
    unsigned long requests_made_ = 0;
    unsigned long requests_served_ = 0;

    // Owned by the relay thread.
    int master_ = -1;
    int client_ = -1;
    std::string to_client_;
    std::string to_master_;
};

bool socket_relay::start() {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path_.size() >= sizeof addr.sun_path)
        return false;
    memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
    unlink(path_.c_str());
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        listen(listen_fd_, 4) != 0 || pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
        return false;
    }
    thread_ = std::thread([this] { run(); });
    return true;
}

void socket_relay::request(int master_fd) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!thread_.joinable())
        return;
    requested_master_ = master_fd;
    pending_request_ = true;
    unsigned long mine = ++requests_made_;
    char one = 1;
    ssize_t ignored = write(wake_[1], &one, 1);
    (void)ignored;
    served_.wait(lock, [&] { return requests_served_ >= mine || stopping_; });
}

void socket_relay::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    if (thread_.joinable()) {
        char one = 1;
        ssize_t ignored = write(wake_[1], &one, 1);
        (void)ignored;
        thread_.join();
    }
    served_.notify_all();
    for (int *fd : {&listen_fd_, &wake_[0], &wake_[1], &client_}) {
        if (*fd >= 0)
            close(*fd);
        *fd = -1;
    }
    if (master_ >= 0)
        close(master_);
    master_ = -1;
    unlink(path_.c_str());
}

void socket_relay::drop_client() {
    if (client_ >= 0)
        close(client_);
    client_ = -1;
    to_master_.clear();
}

void socket_relay::set_master(int fd) {
    if (master_ >= 0)
        close(master_);
    master_ = -1;
    // A module that goes away ends the conversation with whoever played it.
    drop_client();
    to_client_.clear();
    if (fd >= 0) {
        // A private descriptor: the board closes its own when the module is unplugged.
        master_ = fcntl(fd, F_DUPFD_CLOEXEC, 0);
        if (master_ >= 0)
            fcntl(master_, F_SETFL, fcntl(master_, F_GETFL) | O_NONBLOCK);
    }
}

void socket_relay::take_request() {
    char drain[64];
    while (read(wake_[0], drain, sizeof drain) > 0) {
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (pending_request_) {
        set_master(requested_master_);
        pending_request_ = false;
        requests_served_ = requests_made_;
        served_.notify_all();
    }
}

// Writes what the peer takes without blocking; false when the peer is gone.
bool socket_relay::flush(int fd, std::string *pending) {
    while (!pending->empty()) {
        ssize_t n = send(fd, pending->data(), pending->size(), MSG_NOSIGNAL);
        if (n < 0 && errno == ENOTSOCK)
            n = write(fd, pending->data(), pending->size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno == EAGAIN)
            return true;
        if (n <= 0)
            return false;
        pending->erase(0, static_cast<size_t>(n));
    }
    return true;
}

void socket_relay::run() {
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_)
                return;
        }
        pollfd fds[4];
        nfds_t count = 0;
        fds[count++] = {wake_[0], POLLIN, 0};
        fds[count++] = {listen_fd_, POLLIN, 0};
        int master_slot = -1, client_slot = -1;
        if (master_ >= 0) {
            short ev = POLLIN;
            if (!to_master_.empty())
                ev = static_cast<short>(ev | POLLOUT);
            master_slot = static_cast<int>(count);
            fds[count++] = {master_, ev, 0};
        }
        if (client_ >= 0) {
            short ev = POLLIN;
            if (!to_client_.empty())
                ev = static_cast<short>(ev | POLLOUT);
            client_slot = static_cast<int>(count);
            fds[count++] = {client_, ev, 0};
        }
        if (poll(fds, count, -1) < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        if (fds[0].revents != 0) {
            take_request();
            continue; // the descriptors above may be stale now
        }
        if (fds[1].revents & POLLIN) {
            int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (fd >= 0) {
                // The newest connection plays the module; an older one is dropped.
                drop_client();
                client_ = fd;
                if (master_ < 0) {
                    // No module on the bus: nothing will ever answer.
                    drop_client();
                } else if (!flush(client_, &to_client_)) {
                    drop_client();
                }
            }
        }
        char buf[4096];
        if (master_slot >= 0 && (fds[master_slot].revents & (POLLIN | POLLHUP | POLLERR))) {
            ssize_t n = read(master_, buf, sizeof buf);
            if (n > 0) {
                to_client_.append(buf, static_cast<size_t>(n));
                if (client_ >= 0 && !flush(client_, &to_client_))
                    drop_client();
                if (client_ < 0 && to_client_.size() > KEEP_LIMIT)
                    to_client_.erase(0, to_client_.size() - KEEP_LIMIT);
            }
            // EIO here only means that no one holds the slave open; the board does.
        }
        if (master_slot >= 0 && (fds[master_slot].revents & POLLOUT) && master_ >= 0)
            flush(master_, &to_master_);
        if (client_slot >= 0 && client_ >= 0 && fds[client_slot].revents != 0) {
            short rev = fds[client_slot].revents;
            if (rev & POLLOUT) {
                if (!flush(client_, &to_client_)) {
                    drop_client();
                    continue;
                }
            }
            if (rev & (POLLIN | POLLHUP | POLLERR)) {
                ssize_t n = read(client_, buf, sizeof buf);
                if (n > 0) {
                    to_master_.append(buf, static_cast<size_t>(n));
                    if (master_ >= 0)
                        flush(master_, &to_master_);
                } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                    drop_client();
                }
            }
        }
    }
}

class emulator_side : public modem_side {
public:
    emulator_side(modem_family family, std::string control_path, std::string log_path)
        : emulator_(family), control_path_(std::move(control_path)), log_path_(std::move(log_path)) {}
    ~emulator_side() override { stop(); }

    bool start() override {
        return emulator_.set_log_file(log_path_) && emulator_.serve_control(control_path_);
    }
    void attach(int master_fd) override {
        // A module that comes back on the bus has rebooted.
        emulator_.reboot();
        emulator_.start(master_fd);
    }
    void detach() override { emulator_.stop_port(); }
    void stop() override { emulator_.stop(); }
    void power_on() override {
        emulator_.forget_update();
        emulator_.reboot();
    }
    void on_bus_leave(std::function<void()> leave) override { emulator_.set_bus_leave(std::move(leave)); }

private:
    modem_emulator emulator_;
    std::string control_path_;
    std::string log_path_;
};

} // namespace

std::unique_ptr<modem_side> make_emulator_modem_side(const std::string &family,
                                                     const std::string &control_path,
                                                     const std::string &log_path) {
    modem_family f = modem_family::ec200t;
    modem_family_parse(family, &f);
    return std::make_unique<emulator_side>(f, control_path, log_path);
}

std::unique_ptr<modem_side> make_socket_modem_side(const std::string &socket_path) {
    return std::make_unique<socket_relay>(socket_path);
}
