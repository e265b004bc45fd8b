#include "core/shell.h"
#include "support/test_support.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif

namespace {

TEST(AppRunningTest, MatchesOnlyTheProgramPathWithinFortyNineBytes) {
    temp_dir proc;
    proc.write("self/cmdline", std::string("/opt/other\0-c\0", 14)); // non-numeric names count too
    proc.mkdir("103");                                               // no cmdline: passed over
    proc.write("1/cmdline", std::string(45, 'p') + "abcdefg");
    const char *dir = proc.path().c_str();
    EXPECT_EQ(app_running_in(dir, "other"), 0);
    EXPECT_EQ(app_running_in(dir, "-c"), -1);    // a later word
    EXPECT_EQ(app_running_in(dir, "abcd"), 0);   // bytes 45..48 are searched
    EXPECT_EQ(app_running_in(dir, "abcde"), -1); // byte 49 is not
    EXPECT_EQ(app_running_in("/nonexistent_proc", "x"), -1);
}

int open_fds() {
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (d != nullptr && readdir(d) != nullptr)
        ++n;
    if (d != nullptr)
        closedir(d);
    return n;
}

// The shell's background child outlives the shell: this process adopts it
// then, so it can tell how it ended whatever the system's init does.
struct adopt_orphans {
    adopt_orphans() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
    ~adopt_orphans() { prctl(PR_SET_CHILD_SUBREAPER, 0); }
};

// Wait status of `pid`, a child of this process, once it ended within
// `timeout_ms`; -1 if it still runs.
int reap_within(pid_t pid, int timeout_ms) {
    int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0)
        return -1;
    pollfd p = {fd, POLLIN, 0};
    int ready = poll(&p, 1, timeout_ms);
    close(fd);
    int status = 0;
    if (ready != 1 || waitpid(pid, &status, 0) != pid)
        return -1;
    return status;
}

bool gone(pid_t pid) {
    return kill(pid, 0) == -1 && errno == ESRCH && waitpid(pid, nullptr, WNOHANG) == -1 &&
           errno == ECHILD;
}

// A command that starts `sleep 30` in the background and tells, through a
// FIFO, its shell's pid and the sleep's, then runs `rest`.
class sleeper {
public:
    explicit sleeper(const std::string &rest) : fifo_(dir_.path() + "/pids") {
        mkfifo(fifo_.c_str(), 0600);
        fd_ = open(fifo_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        cmd_ = "sleep 30 >/dev/null 2>&1 & echo $$ $! >" + fifo_ + "; " + rest;
    }
    ~sleeper() {
        if (shell > 0)
            kill(-shell, SIGKILL); // whatever a failed test left running
        if (bg > 0)
            reap_within(bg, 5000);
        close(fd_);
    }
    sleeper(const sleeper &) = delete;
    sleeper &operator=(const sleeper &) = delete;

    const char *cmd() const { return cmd_.c_str(); }
    // Reads the two pids as they come within `timeout_ms`.
    bool read_pids(int timeout_ms) {
        std::string line;
        int64_t deadline = monotonic_ms() + timeout_ms;
        while (line.find('\n') == std::string::npos) {
            pollfd p = {fd_, POLLIN, 0};
            if (poll(&p, 1, poll_timeout(deadline)) != 1)
                return false;
            char buf[64];
            ssize_t n = read(fd_, buf, sizeof buf);
            if (n <= 0)
                return false;
            line.append(buf, static_cast<size_t>(n));
        }
        return sscanf(line.c_str(), "%d %d", &shell, &bg) == 2;
    }

    pid_t shell = -1;
    pid_t bg = -1;

private:
    temp_dir dir_;
    std::string fifo_;
    std::string cmd_;
    int fd_ = -1;
};

class ShellTest : public ::testing::TestWithParam<shell_waiter> {};

INSTANTIATE_TEST_SUITE_P(Waiters, ShellTest,
                         ::testing::Values(shell_waiter::pidfd, shell_waiter::thread),
                         [](const ::testing::TestParamInfo<shell_waiter> &param) {
                             return param.param == shell_waiter::pidfd ? "pidfd" : "thread";
                         });

TEST_P(ShellTest, EndedShellIsDoneWithItsStatusAndLeavesItsBackgroundAlone) {
    adopt_orphans adopt;
    int fds = open_fds();
    shell_outcome out = run_shell_limited("exit 3", 5000, GetParam());
    EXPECT_EQ(out.result, shell_result::done);
    EXPECT_TRUE(WIFEXITED(out.status) && WEXITSTATUS(out.status) == 3) << out.status;
    out = run_shell_limited("no_such_command_here 2>/dev/null", 5000, GetParam());
    EXPECT_EQ(out.result, shell_result::done);
    EXPECT_TRUE(WIFEXITED(out.status) && WEXITSTATUS(out.status) == 127) << out.status;

    // The shell starts without the caller's blocked or ignored signals.
    temp_dir dir;
    std::string status_file = dir.path() + "/status";
    sigset_t term;
    sigset_t old_mask;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, &old_mask);
    struct sigaction ignore = {};
    struct sigaction old_int = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ignore, &old_int);
    std::string cmd = "exec grep -E '^Sig(Blk|Ign)' /proc/self/status >" + status_file;
    out = run_shell_limited(cmd.c_str(), 5000, GetParam());
    sigaction(SIGINT, &old_int, nullptr);
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    EXPECT_EQ(out.result, shell_result::done);
    std::string masks = read_file(status_file);
    unsigned long long blocked = ~0ull;
    unsigned long long ignored = ~0ull;
    ASSERT_EQ(sscanf(masks.c_str(), "SigBlk: %llx SigIgn: %llx", &blocked, &ignored), 2) << masks;
    EXPECT_EQ(blocked, 0u);
    EXPECT_EQ(ignored & (1ull << (SIGINT - 1)), 0u);

    // Done at once, well before the limit; the background sleep lives on in the shell's group.
    sleeper s("exit 4");
    fds = open_fds();
    int64_t start = monotonic_ms();
    out = run_shell_limited(s.cmd(), 20000, GetParam());
    EXPECT_LT(monotonic_ms() - start, 5000);
    EXPECT_EQ(out.result, shell_result::done);
    EXPECT_TRUE(WIFEXITED(out.status) && WEXITSTATUS(out.status) == 4) << out.status;
    ASSERT_TRUE(s.read_pids(0));
    EXPECT_TRUE(gone(s.shell));
    EXPECT_EQ(getpgid(s.bg), s.shell);
    EXPECT_EQ(open_fds(), fds);
}

TEST_P(ShellTest, LateCommandIsKilledWithItsGroupAndReaped) {
    adopt_orphans adopt;
    sleeper s("wait");
    int fds = open_fds();
    int64_t start = monotonic_ms();
    shell_outcome out = run_shell_limited(s.cmd(), 200, GetParam());
    int64_t took = monotonic_ms() - start;
    EXPECT_EQ(out.result, shell_result::killed);
    EXPECT_TRUE(WIFSIGNALED(out.status) && WTERMSIG(out.status) == SIGKILL) << out.status;
    EXPECT_GE(took, 199);
    EXPECT_LT(took, 5000);
    EXPECT_EQ(open_fds(), fds);
    // The pids were written at the start, long before the limit.
    ASSERT_TRUE(s.read_pids(0));
    EXPECT_TRUE(gone(s.shell));
    int bg_status = reap_within(s.bg, 5000);
    EXPECT_TRUE(WIFSIGNALED(bg_status) && WTERMSIG(bg_status) == SIGKILL) << bg_status;
    EXPECT_TRUE(gone(s.bg));
    s.bg = -1;
}

struct call {
    const char *cmd;
    shell_waiter waiter;
};

void *run_call(void *arg) {
    const call *c = static_cast<const call *>(arg);
    run_shell_limited(c->cmd, SHELL_LIMIT_MS, c->waiter);
    return nullptr;
}

TEST_P(ShellTest, CancelledCallerLeavesNoChildNorDescriptor) {
    adopt_orphans adopt;
    sleeper s("wait");
    int fds = open_fds();
    call c = {s.cmd(), GetParam()};
    pthread_t tid;
    ASSERT_EQ(pthread_create(&tid, nullptr, run_call, &c), 0);
    bool started = s.read_pids(10000);
    pthread_cancel(tid);
    void *result = nullptr;
    pthread_join(tid, &result);
    ASSERT_TRUE(started);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(gone(s.shell));
    int bg_status = reap_within(s.bg, 5000);
    EXPECT_TRUE(WIFSIGNALED(bg_status) && WTERMSIG(bg_status) == SIGKILL) << bg_status;
    s.bg = -1;
    EXPECT_EQ(open_fds(), fds);
}

} // namespace
