// zolvin_simboard: runs a command (the daemon) on a simulated board.
//
// The board lives in private mount, network and pid namespaces: a USB tree in
// sysfs, the module's AT port as a pty, the power and reset lines as FIFOs, a
// configuration file in an overlay on /etc and fake system commands first on
// PATH, and the module's network interface with its far end. This process stays outside the pid namespace and serves the board; its
// child is process 1 inside and runs the command. Everything the board sees is
// recorded in the work directory (see README.md).

#include "board_init.h"
#include "board_options.h"
#include "board_util.h"
#include "control_lines.h"
#include "far_end.h"
#include "modem_side.h"
#include "usb_board.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <memory>
#include <vector>

extern char **environ;

namespace {

// Exit status when the board itself cannot be built or served.
constexpr int BOARD_FAILURE = 125;

const char *const BOARD_RUN_DIR = "/run/simboard";
const char *const FAKE_BIN_DIR = "/run/simboard/bin";
const char *const FAKE_COMMANDS[] = {"modprobe", "killall", "ifconfig", "busybox"};
const char *const CONFIG_FILE = "/etc/zolvin_4g.conf";
const char *const DEFAULT_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

struct work_files {
    std::string dir;
    std::string path(const char *name) const { return dir + "/" + name; }
};

bool mount_tmpfs(const char *target, const char *data) {
    return mount("tmpfs", target, "tmpfs", MS_NOSUID, data) == 0;
}

bool set_error(std::string *error, const std::string &what) {
    *error = what + ": " + errno_text();
    return false;
}

// Device nodes the command and its shell commands may use. Where the kernel
// refuses mknod, the host's node is bound in from a descriptor opened before
// /dev was covered.
bool build_dev(std::string *error) {
    struct node {
        const char *name;
        unsigned major, minor;
        int host_fd;
    } nodes[] = {{"null", 1, 3, -1}, {"zero", 1, 5, -1}, {"full", 1, 7, -1},
                 {"random", 1, 8, -1}, {"urandom", 1, 9, -1}, {"tty", 5, 0, -1}};
    for (node &n : nodes)
        n.host_fd = open((std::string("/dev/") + n.name).c_str(), O_PATH | O_CLOEXEC);

    bool ok = mount_tmpfs("/dev", "mode=755");
    if (!ok) {
        for (node &n : nodes)
            if (n.host_fd >= 0)
                close(n.host_fd);
        return set_error(error, "tmpfs on /dev");
    }
    for (node &n : nodes) {
        std::string path = std::string("/dev/") + n.name;
        if (mknod(path.c_str(), S_IFCHR | 0666, makedev(n.major, n.minor)) == 0) {
            chmod(path.c_str(), 0666);
        } else if (n.host_fd >= 0) {
            std::string from = "/proc/self/fd/" + std::to_string(n.host_fd);
            ok = ok && write_file(path, "") && mount(from.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
        } else {
            ok = false;
        }
        if (n.host_fd >= 0)
            close(n.host_fd);
    }
    if (!ok)
        return set_error(error, "device nodes in /dev");
    if (mkdir("/dev/pts", 0755) != 0 ||
        mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC, "newinstance,ptmxmode=0666,mode=0620") != 0 ||
        symlink("pts/ptmx", "/dev/ptmx") != 0)
        return set_error(error, "devpts in /dev/pts");
    if (mkdir("/dev/shm", 01777) != 0 || chmod("/dev/shm", 01777) != 0 || symlink("/proc/self/fd", "/dev/fd") != 0 ||
        symlink("/proc/self/fd/0", "/dev/stdin") != 0 || symlink("/proc/self/fd/1", "/dev/stdout") != 0 ||
        symlink("/proc/self/fd/2", "/dev/stderr") != 0)
        return set_error(error, "entries in /dev");
    return true;
}

bool build_run(const std::string &fakecmd, std::string *error) {
    if (!mount_tmpfs("/run", "mode=755") || !make_dirs(FAKE_BIN_DIR))
        return set_error(error, "tmpfs on /run");
    for (const char *name : FAKE_COMMANDS) {
        std::string link = std::string(FAKE_BIN_DIR) + "/" + name;
        if (symlink(fakecmd.c_str(), link.c_str()) != 0)
            return set_error(error, link);
    }
    return true;
}

bool build_etc(const board_options &o, const std::string &conf, std::string *error) {
    std::string upper = std::string(BOARD_RUN_DIR) + "/etc-upper";
    std::string work = std::string(BOARD_RUN_DIR) + "/etc-work";
    std::string data = "lowerdir=/etc,upperdir=" + upper + ",workdir=" + work;
    if (!make_dirs(upper) || !make_dirs(work) || mount("overlay", "/etc", "overlay", 0, data.c_str()) != 0)
        return set_error(error, "overlay on /etc");
    if (!o.conf_path.empty()) {
        if (!write_file(CONFIG_FILE, conf))
            return set_error(error, CONFIG_FILE);
    } else if (unlink(CONFIG_FILE) != 0 && errno != ENOENT) {
        return set_error(error, CONFIG_FILE);
    }
    // The work directory is not under /etc: the files still read as on the host.
    // A rename replaces a link there too (resolv.conf often is one).
    for (const auto &[name, file] : o.etc_files) {
        std::string content;
        if (!read_file(file, &content) || !write_file_atomic("/etc/" + name, content))
            return set_error(error, "--etc " + name + " " + file);
    }
    return true;
}

bool build_sys(std::string *error) {
    if (!mount_tmpfs("/sys/bus", "mode=755"))
        return set_error(error, "tmpfs on /sys/bus");
    if (!mount_tmpfs("/sys/devices/platform", "mode=755"))
        return set_error(error, "tmpfs on /sys/devices/platform");
    return true;
}

// A fresh network namespace has only a loopback interface, and it is down.
bool bring_up_loopback(std::string *error) {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq req{};
    strncpy(req.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = s >= 0 && ioctl(s, SIOCGIFFLAGS, &req) == 0;
    if (ok) {
        req.ifr_flags = static_cast<short>(req.ifr_flags | IFF_UP | IFF_RUNNING);
        ok = ioctl(s, SIOCSIFFLAGS, &req) == 0;
    }
    if (!ok)
        set_error(error, "bringing up lo");
    if (s >= 0)
        close(s);
    return ok;
}

std::vector<std::string> command_environment(const std::string &work_dir) {
    std::vector<std::string> env;
    std::string path = DEFAULT_PATH;
    for (char **e = environ; *e != nullptr; ++e) {
        std::string entry = *e;
        std::string name = entry.substr(0, entry.find('='));
        if (name == "PATH")
            path = entry.substr(5);
        else if (name != BOARD_DIR_ENV && name != IDLE_ENV)
            env.push_back(entry);
    }
    env.push_back("PATH=" + std::string(FAKE_BIN_DIR) + ":" + path);
    env.push_back(std::string(BOARD_DIR_ENV) + "=" + work_dir);
    return env;
}

int listen_unix(const std::string &path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        return -1;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    unlink(path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd >= 0 && (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 8) != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

int exit_code(int wait_status) {
    if (WIFSIGNALED(wait_status))
        return 128 + WTERMSIG(wait_status);
    return WEXITSTATUS(wait_status);
}

bool under(const std::string &path, const char *top) {
    size_t n = strlen(top);
    return path.compare(0, n, top) == 0 && (path.size() == n || path[n] == '/');
}

// The running board: everything the event loop serves.
class board {
public:
    board(const board_options &o, const work_files &files) : options_(o), files_(files) {}
    ~board();

    // Builds the board, runs the command on it and returns the exit status.
    int run(const std::string &fakecmd, const std::string &conf, const sigset_t &stop_signals);

private:
    bool build(const std::string &fakecmd, const std::string &conf, std::string *error);
    bool build_far_end(std::string *error);
    bool launch(const std::string &fakecmd, std::string *error);
    void serve();
    void read_stdout();
    void on_line(const char *line, char value);
    void accept_control();
    void leave_bus();
    void serve_control(size_t index);
    std::string control_command(const std::string &text);
    int finish();

    const board_options &options_;
    const work_files &files_;
    control_lines lines_;
    std::unique_ptr<modem_side> modem_;
    std::unique_ptr<usb_board> usb_;
    std::unique_ptr<far_end> far_;
    int signals_ = -1;
    int stdout_master_ = -1;
    int stdout_file_ = -1;
    int control_listen_ = -1;
    struct control_client {
        int fd;
        std::string input;
    };
    std::vector<control_client> clients_;
    pid_t init_ = -1;
    int go_ = -1;
    int own_pid_ns_ = -1;
    int status_ = -1;
    long long stdout_bytes_ = 0;
    long long replug_at_ = -1;
    int leave_rd_ = -1, leave_wr_ = -1; // the module leaving the bus for a firmware reboot
    int stop_signal_ = 0;
    bool have_status_ = false;
    int command_status_ = 0;
};

board::~board() {
    for (control_client &c : clients_)
        close(c.fd);
    for (int fd : {signals_, stdout_master_, stdout_file_, control_listen_, go_, status_, own_pid_ns_,
                   leave_rd_, leave_wr_}) {
        if (fd >= 0)
            close(fd);
    }
}

bool board::build(const std::string &fakecmd, const std::string &conf, std::string *error) {
    // Nothing done from here on may reach the host: the copied mounts are made
    // private before the first new one.
    own_pid_ns_ = open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC);
    if (own_pid_ns_ < 0 || unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID) != 0)
        return set_error(error, "unshare of mount, network and pid namespaces");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return set_error(error, "making the mounts private");
    return build_run(fakecmd, error) && build_etc(options_, conf, error) && build_sys(error) &&
           build_dev(error) && lines_.create(options_.power_line, options_.reset_line, error) &&
           bring_up_loopback(error) && build_far_end(error);
}

bool board::build_far_end(std::string *error) {
    if (find_family(options_.family) == nullptr)
        return true; // no module, no link
    far_ = std::make_unique<far_end>(files_.path("pings.log"));
    return far_->build(options_.ifname, error);
}

bool board::launch(const std::string &fakecmd, std::string *error) {
    // The command's standard output is a tty, so that it is line-buffered as
    // on a console, in raw mode so that its bytes arrive unchanged.
    stdout_master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    char name[64];
    if (stdout_master_ < 0 || grantpt(stdout_master_) != 0 || unlockpt(stdout_master_) != 0 ||
        ptsname_r(stdout_master_, name, sizeof name) != 0)
        return set_error(error, "pty for standard output");
    int stdout_slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios t{};
    if (stdout_slave < 0 || tcgetattr(stdout_slave, &t) != 0)
        return set_error(error, "pty slave for standard output");
    cfmakeraw(&t);
    tcsetattr(stdout_slave, TCSANOW, &t);
    fcntl(stdout_master_, F_SETFL, fcntl(stdout_master_, F_GETFL) | O_NONBLOCK);
    stdout_file_ = open(files_.path("stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    int stderr_file = open(files_.path("stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    int go[2], status[2];
    if (stdout_file_ < 0 || stderr_file < 0 || pipe2(go, O_CLOEXEC) != 0 || pipe2(status, O_CLOEXEC) != 0)
        return set_error(error, "work files");

    init_plan plan;
    plan.fakecmd = fakecmd;
    plan.spawns = options_.spawns;
    plan.command = options_.command;
    plan.environment = command_environment(files_.dir);
    plan.event_log = files_.path("board.log");
    plan.stdout_fd = stdout_slave;
    plan.stderr_fd = stderr_file;
    plan.go_fd = go[0];
    plan.status_fd = status[1];

    // No thread runs yet: the child may use anything.
    init_ = fork();
    if (init_ == 0) {
        close(go[1]);
        close(status[0]);
        run_board_init(plan);
    }
    // Only the first child goes into the new pid namespace; back in our own,
    // this process may start threads again.
    if (init_ > 0 && setns(own_pid_ns_, CLONE_NEWPID) != 0)
        set_error(error, "returning to the host pid namespace");
    close(stdout_slave);
    close(stderr_file);
    close(go[0]);
    close(status[1]);
    go_ = go[1];
    status_ = status[0];
    if (init_ < 0)
        return set_error(error, "fork");
    if (!error->empty())
        return false;

    modem_ = options_.relay_modem
                 ? make_socket_modem_side(files_.path("modem.sock"))
                 : make_emulator_modem_side(options_.family, files_.path("modem.ctl"),
                                            files_.path("at.log"));
    usb_ = std::make_unique<usb_board>(options_, *modem_, files_.path("board.log"));
    int leave[2];
    if (pipe2(leave, O_CLOEXEC | O_NONBLOCK) != 0)
        return set_error(error, "pipe");
    leave_rd_ = leave[0];
    leave_wr_ = leave[1];
    // The modem side's thread may not unplug the module itself: the unplug
    // stops that thread.
    modem_->on_bus_leave([fd = leave_wr_] {
        char one = 1;
        write_all(fd, &one, 1);
    });
    if (!modem_->start())
        return set_error(error, "modem side in " + files_.dir);
    control_listen_ = listen_unix(files_.path("control.sock"));
    if (control_listen_ < 0)
        return set_error(error, "control socket " + files_.path("control.sock"));
    if (!usb_->build_fixed_devices(error))
        return false;
    if (usb_->has_module() && !options_.start_unplugged && !usb_->plug(error))
        return false;
    char one = 1;
    if (!write_all(go_, &one, 1))
        return set_error(error, "starting the command");
    return true;
}

void board::read_stdout() {
    char buf[4096];
    for (;;) {
        ssize_t n = read(stdout_master_, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n > 0) {
            write_all(stdout_file_, buf, static_cast<size_t>(n));
            stdout_bytes_ += n;
            append_record(files_.path("stdout.times"), std::to_string(stdout_bytes_));
            continue;
        }
        if (n == 0 || errno != EAGAIN) {
            // EIO: every holder of the slave has closed it.
            close(stdout_master_);
            stdout_master_ = -1;
        }
        return;
    }
}

void board::on_line(const char *line, char value) {
    char shown[8];
    if (isprint(static_cast<unsigned char>(value)))
        snprintf(shown, sizeof shown, "%c", value);
    else
        snprintf(shown, sizeof shown, "\\x%02x", static_cast<unsigned char>(value));
    append_record(files_.path("lines.log"), std::string(line) + " " + shown);
    if (strcmp(line, "pwr") == 0 && value == '1')
        modem_->power_on();
    if (options_.power_replug_ms < 0 || strcmp(line, "pwr") != 0 || !usb_->has_module())
        return;
    std::string ignored;
    if (value == '0') {
        replug_at_ = -1;
        if (usb_->plugged())
            usb_->unplug(&ignored);
    } else if (value == '1' && !usb_->plugged() && replug_at_ < 0) {
        replug_at_ = monotonic_ms() + options_.power_replug_ms;
    }
}

void board::leave_bus() {
    char drain[16];
    while (read(leave_rd_, drain, sizeof drain) > 0) {
    }
    std::string ignored;
    if (!usb_->plugged())
        return;
    append_record(files_.path("board.log"), "fota reboot");
    usb_->wait_port_read(10000);
    if (!usb_->unplug(&ignored))
        return;
    replug_at_ = options_.fota_return_ms < 0 ? -1 : monotonic_ms() + options_.fota_return_ms;
}

void board::accept_control() {
    int fd = accept4(control_listen_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0)
        clients_.push_back({fd, {}});
}

std::string board::control_command(const std::string &text) {
    std::string error;
    if (text == "status")
        return "ok " + usb_->status();
    if (text == "unplug") {
        replug_at_ = -1;
        return usb_->unplug(&error) ? "ok " + usb_->status() : "error " + error;
    }
    if (text == "plug") {
        replug_at_ = -1;
        return usb_->plug(&error) ? "ok " + usb_->status() : "error " + error;
    }
    if ((text == "echo on" || text == "echo off") && far_) {
        far_->set_answering(text == "echo on");
        return "ok " + text;
    }
    return "error unknown command '" + text + "'";
}

void board::serve_control(size_t index) {
    control_client &c = clients_[index];
    char buf[512];
    ssize_t n = read(c.fd, buf, sizeof buf);
    if (n <= 0) {
        close(c.fd);
        clients_.erase(clients_.begin() + static_cast<long>(index));
        return;
    }
    c.input.append(buf, static_cast<size_t>(n));
    size_t eol;
    while ((eol = c.input.find('\n')) != std::string::npos) {
        std::string text = c.input.substr(0, eol);
        c.input.erase(0, eol + 1);
        if (!text.empty() && text.back() == '\r')
            text.pop_back();
        std::string reply = control_command(text) + "\n";
        write_all(c.fd, reply);
    }
}

void board::serve() {
    for (;;) {
        std::vector<pollfd> fds;
        fds.push_back({signals_, POLLIN, 0});
        fds.push_back({status_, POLLIN, 0});
        fds.push_back({stdout_master_, POLLIN, 0}); // -1 is skipped by poll
        fds.push_back({lines_.watch_fd(), POLLIN, 0});
        fds.push_back({control_listen_, POLLIN, 0});
        fds.push_back({far_ ? far_->fd() : -1, POLLIN, 0});
        fds.push_back({leave_rd_, POLLIN, 0});
        for (const control_client &c : clients_)
            fds.push_back({c.fd, POLLIN, 0});
        int timeout = -1;
        if (replug_at_ >= 0)
            timeout = static_cast<int>(std::max(0LL, replug_at_ - monotonic_ms()));
        if (poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR)
            return;
        if (fds[0].revents & POLLIN) {
            signalfd_siginfo info{};
            if (read(signals_, &info, sizeof info) == sizeof info) {
                stop_signal_ = static_cast<int>(info.ssi_signo);
                return;
            }
        }
        if (fds[2].revents != 0)
            read_stdout();
        if (fds[3].revents != 0)
            lines_.serve([this](const char *line, char value) { on_line(line, value); });
        if (replug_at_ >= 0 && monotonic_ms() >= replug_at_) {
            replug_at_ = -1;
            std::string error;
            if (!usb_->plug(&error))
                append_record(files_.path("board.log"), "replug failed: " + error);
        }
        if (fds[4].revents & POLLIN)
            accept_control();
        if (fds[5].revents != 0)
            far_->serve();
        if (fds[6].revents != 0)
            leave_bus();
        for (size_t i = fds.size(); i-- > 7;) {
            if (fds[i].revents != 0)
                serve_control(i - 7);
        }
        if (fds[1].revents != 0) {
            int st = 0;
            ssize_t n = read(status_, &st, sizeof st);
            if (n == sizeof st) {
                have_status_ = true;
                command_status_ = st;
            }
            return;
        }
    }
}

int board::finish() {
    if (init_ > 0) {
        // Process 1 leaving takes every process of the namespace with it.
        if (!have_status_)
            kill(init_, SIGKILL);
        int st;
        while (waitpid(init_, &st, 0) < 0 && errno == EINTR) {
        }
        init_ = -1;
    }
    // Whatever the command wrote before it ended is still in the pty.
    long long deadline = monotonic_ms() + 2000;
    while (stdout_master_ >= 0 && monotonic_ms() < deadline) {
        pollfd p{stdout_master_, POLLIN, 100};
        if (poll(&p, 1, 100) > 0)
            read_stdout();
    }
    lines_.serve([this](const char *line, char value) { on_line(line, value); });
    if (modem_)
        modem_->stop();

    int code;
    if (stop_signal_ != 0)
        code = 128 + stop_signal_;
    else if (have_status_)
        code = exit_code(command_status_);
    else
        code = 128 + SIGKILL;
    append_record(files_.path("board.log"), "exit " + std::to_string(code));
    write_file_atomic(files_.path("exit"), std::to_string(code) + "\n");
    return code;
}

int board::run(const std::string &fakecmd, const std::string &conf, const sigset_t &stop_signals) {
    std::string error;
    signals_ = signalfd(-1, &stop_signals, SFD_CLOEXEC);
    if (signals_ < 0 || !build(fakecmd, conf, &error)) {
        if (error.empty())
            error = "signalfd: " + errno_text();
        fprintf(stderr, "zolvin_simboard: %s\n", error.c_str());
        return BOARD_FAILURE;
    }
    if (!launch(fakecmd, &error)) {
        fprintf(stderr, "zolvin_simboard: %s\n", error.c_str());
        append_record(files_.path("board.log"), "board failed: " + error);
        finish();
        return BOARD_FAILURE;
    }
    serve();
    return finish();
}

} // namespace

int main(int argc, char **argv) {
    board_options options;
    std::string error;
    if (!parse_board_options(argc, argv, &options, &error)) {
        fprintf(stderr, "zolvin_simboard: %s\n%s", error.c_str(), BOARD_USAGE);
        return BOARD_FAILURE;
    }
    if (geteuid() != 0) {
        fprintf(stderr, "zolvin_simboard: the board needs root (namespaces and mounts)\n");
        return BOARD_FAILURE;
    }
    work_files files;
    char resolved[PATH_MAX];
    if (!make_dirs(options.work_dir) || realpath(options.work_dir.c_str(), resolved) == nullptr) {
        fprintf(stderr, "zolvin_simboard: work directory %s: %s\n", options.work_dir.c_str(), errno_text().c_str());
        return BOARD_FAILURE;
    }
    files.dir = resolved;
    for (const char *hidden : {"/dev", "/etc", "/sys", "/proc", "/run"}) {
        if (under(files.dir, hidden)) {
            fprintf(stderr, "zolvin_simboard: the work directory must not be under %s\n", hidden);
            return BOARD_FAILURE;
        }
    }

    char self[PATH_MAX];
    ssize_t len = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string fakecmd = len > 0 ? std::string(self, static_cast<size_t>(len)) : std::string();
    fakecmd = fakecmd.substr(0, fakecmd.rfind('/') + 1) + "zolvin_fakecmd";
    if (access(fakecmd.c_str(), X_OK) != 0) {
        fprintf(stderr, "zolvin_simboard: %s: %s\n", fakecmd.c_str(), errno_text().c_str());
        return BOARD_FAILURE;
    }
    std::string conf;
    if (!options.conf_path.empty() && !read_file(options.conf_path, &conf)) {
        fprintf(stderr, "zolvin_simboard: --conf %s: %s\n", options.conf_path.c_str(), errno_text().c_str());
        return BOARD_FAILURE;
    }
    for (const char *name :
         {"stdout", "stdout.times", "stderr", "lines.log", "calls.log", "board.log", "pings.log", "exit"})
        unlink(files.path(name).c_str());

    // Signals are taken through a descriptor; the command gets them back unblocked.
    sigset_t stop_set;
    sigemptyset(&stop_set);
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT})
        sigaddset(&stop_set, sig);
    sigprocmask(SIG_BLOCK, &stop_set, nullptr);
    signal(SIGPIPE, SIG_IGN);

    board b(options, files);
    return b.run(fakecmd, conf, stop_set);
}
