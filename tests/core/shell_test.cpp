#include "core/shell.h"
#include "support/test_support.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <poll.h>
#include <sys/prctl.h>
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

size_t open_fds() { return open_descriptors(getpid()); }

// The shell's background child outlives the shell: this process adopts it
// then, so it can tell how it ended whatever the system's init does.
struct adopt_orphans {
    adopt_orphans() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
    ~adopt_orphans() { prctl(PR_SET_CHILD_SUBREAPER, 0); }
};

// Wait status of `pid`, a child of this process, once it ended within
// `timeout_ms`; -1 if it still runs.
int reap_within(pid_t pid, int timeout_ms) {
    int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), status = 0;
    pollfd p = {fd, POLLIN, 0};
    bool ended = fd >= 0 && poll(&p, 1, timeout_ms) == 1;
    if (fd >= 0)
        close(fd);
    return ended && waitpid(pid, &status, 0) == pid ? status : -1;
}

bool gone(pid_t pid) {
    return kill(pid, 0) == -1 && errno == ESRCH && waitpid(pid, nullptr, WNOHANG) == -1 &&
           errno == ECHILD;
}
bool exited(int status, int code) { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
bool killed(int status) { return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL; }

// A command that starts `sleep 30` in the background and writes its shell's
// pid and the sleep's to a file, then runs `rest`.
class sleeper {
public:
    explicit sleeper(const std::string &rest)
        : file_(dir_.path() + "/pids"),
          cmd_("sleep 30 >/dev/null 2>&1 & echo $$ $! >" + file_ + "; " + rest) {}
    ~sleeper() {
        if (shell > 0)
            kill(-shell, SIGKILL); // whatever a failed test left running
        if (bg > 0)
            reap_within(bg, 5000);
    }
    const char *cmd() const { return cmd_.c_str(); }
    // Reads the two pids once they are written, within `timeout_ms`.
    bool read_pids(long timeout_ms) {
        std::string line;
        auto written = [&] { return (line = read_file(file_)).find('\n') != std::string::npos; };
        return wait_until(written, timeout_ms) && sscanf(line.c_str(), "%d %d", &shell, &bg) == 2;
    }
    // The shell is gone, and the sleep was killed with its group and is reaped.
    void expect_killed() {
        EXPECT_TRUE(gone(shell));
        int status = reap_within(bg, 5000);
        EXPECT_TRUE(killed(status)) << status;
        bg = -1;
    }

    pid_t shell = -1, bg = -1;

private:
    temp_dir dir_;
    std::string file_, cmd_;
};

class ShellTest : public ::testing::TestWithParam<shell_waiter> {};

INSTANTIATE_TEST_SUITE_P(Waiters, ShellTest,
                         ::testing::Values(shell_waiter::pidfd, shell_waiter::thread),
                         [](const ::testing::TestParamInfo<shell_waiter> &param) {
                             return param.param == shell_waiter::pidfd ? "pidfd" : "thread";
                         });

TEST_P(ShellTest, EndedShellIsDoneWithItsStatusAndLeavesItsBackgroundAlone) {
    adopt_orphans adopt;
    // The shell starts without the caller's blocked or ignored signals.
    temp_dir dir;
    std::string status_file = dir.path() + "/status";
    sigset_t term, old_mask;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, &old_mask);
    sighandler_t old_int = signal(SIGINT, SIG_IGN);
    std::string cmd = "exec grep -E '^Sig(Blk|Ign)' /proc/self/status >" + status_file;
    shell_outcome out = run_shell_limited(cmd.c_str(), 5000, GetParam());
    signal(SIGINT, old_int);
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    EXPECT_EQ(out.result, shell_result::done);
    std::string masks = read_file(status_file);
    unsigned long long blocked = ~0ull, ignored = ~0ull;
    ASSERT_EQ(sscanf(masks.c_str(), "SigBlk: %llx SigIgn: %llx", &blocked, &ignored), 2) << masks;
    EXPECT_EQ(blocked, 0u);
    EXPECT_EQ(ignored & (1ull << (SIGINT - 1)), 0u);

    // Done at once, well before the limit; the background sleep lives on in the shell's group.
    sleeper s("exit 4");
    size_t fds = open_fds();
    int64_t start = monotonic_ms();
    out = run_shell_limited(s.cmd(), 20000, GetParam());
    EXPECT_LT(monotonic_ms() - start, 5000);
    EXPECT_EQ(out.result, shell_result::done);
    EXPECT_TRUE(exited(out.status, 4)) << out.status;
    ASSERT_TRUE(s.read_pids(0));
    EXPECT_TRUE(gone(s.shell));
    EXPECT_EQ(getpgid(s.bg), s.shell);
    EXPECT_EQ(open_fds(), fds);
}

TEST_P(ShellTest, LateCommandIsKilledWithItsGroupAndReaped) {
    adopt_orphans adopt;
    sleeper s("wait");
    size_t fds = open_fds();
    int64_t start = monotonic_ms();
    shell_outcome out = run_shell_limited(s.cmd(), 200, GetParam());
    int64_t took = monotonic_ms() - start;
    EXPECT_EQ(out.result, shell_result::killed);
    EXPECT_TRUE(killed(out.status)) << out.status;
    EXPECT_GE(took, 199);
    EXPECT_LT(took, 5000);
    EXPECT_EQ(open_fds(), fds);
    ASSERT_TRUE(s.read_pids(0)); // written at the start, long before the limit
    s.expect_killed();
}

TEST_P(ShellTest, CancelledCallerLeavesNoChildNorDescriptor) {
    adopt_orphans adopt;
    sleeper s("wait");
    size_t fds = open_fds();
    using call = std::pair<const char *, shell_waiter>;
    call c{s.cmd(), GetParam()};
    auto run = [](void *arg) -> void * {
        run_shell_limited(static_cast<call *>(arg)->first, SHELL_LIMIT_MS, static_cast<call *>(arg)->second);
        return nullptr;
    };
    pthread_t tid;
    ASSERT_EQ(pthread_create(&tid, nullptr, run, &c), 0);
    bool started = s.read_pids(10000);
    pthread_cancel(tid);
    void *result = nullptr;
    pthread_join(tid, &result);
    ASSERT_TRUE(started);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    s.expect_killed();
    EXPECT_EQ(open_fds(), fds);
}

} // namespace
