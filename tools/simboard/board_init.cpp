#include "board_init.h"

#include "board_util.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct spawned {
    pid_t pid;
    bool ended;
};

std::vector<char *> c_array(const std::vector<std::string> &words) {
    std::vector<char *> out;
    for (const std::string &w : words)
        out.push_back(const_cast<char *>(w.c_str()));
    out.push_back(nullptr);
    return out;
}

std::string describe(int status) {
    if (WIFSIGNALED(status))
        return "signal " + std::to_string(WTERMSIG(status));
    return "status " + std::to_string(WEXITSTATUS(status));
}

// Forks and execs; returns the pid once the exec has happened (so the new
// command line is visible in /proc), or -1 with errno set when it failed.
pid_t start(const std::string &path, const std::vector<std::string> &argv,
            const std::vector<std::string> &env, int out_fd, int err_fd) {
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0)
        return -1;
    std::vector<char *> args = c_array(argv);
    std::vector<char *> envp = c_array(env);
    pid_t pid = fork();
    if (pid == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int sig = 1; sig < NSIG; ++sig)
            signal(sig, SIG_DFL);
        int null_fd = open("/dev/null", O_RDWR);
        dup2(null_fd, 0);
        dup2(out_fd >= 0 ? out_fd : null_fd, 1);
        dup2(err_fd >= 0 ? err_fd : null_fd, 2);
        if (null_fd > 2)
            close(null_fd);
        // The PATH search must use the board's PATH, fake commands first.
        environ = envp.data();
        execvp(path.c_str(), args.data());
        int e = errno;
        ssize_t ignored = write(report[1], &e, sizeof e);
        (void)ignored;
        _exit(127);
    }
    close(report[1]);
    if (pid < 0) {
        close(report[0]);
        return -1;
    }
    int exec_errno = 0;
    ssize_t n;
    do {
        n = read(report[0], &exec_errno, sizeof exec_errno);
    } while (n < 0 && errno == EINTR);
    close(report[0]);
    if (n == sizeof exec_errno) {
        int st;
        waitpid(pid, &st, 0);
        errno = exec_errno;
        return -1;
    }
    return pid;
}

} // namespace

void run_board_init(const init_plan &plan) {
    // Outside the board's session, so that no tty the command opens becomes its
    // controlling terminal through us.
    setsid();
    prctl(PR_SET_PDEATHSIG, SIGKILL);

    // A /proc of this pid namespace, in a mount namespace of our own so that the
    // board process keeps the host's /proc.
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
        std::string msg = "zolvin_simboard: cannot mount /proc for the board: " + errno_text() + "\n";
        write_all(plan.stderr_fd, msg);
        int status = 125 << 8;
        write_all(plan.status_fd, &status, sizeof status);
        _exit(1);
    }

    char go = 0;
    ssize_t got;
    do {
        got = read(plan.go_fd, &go, 1);
    } while (got < 0 && errno == EINTR);
    if (got != 1)
        _exit(1); // the board went away before it was ready

    std::vector<spawned> idle;
    std::vector<std::string> idle_env = plan.environment;
    idle_env.push_back(std::string(IDLE_ENV) + "=1");
    for (const std::vector<std::string> &argv : plan.spawns) {
        pid_t pid = start(plan.fakecmd, argv, idle_env, -1, -1);
        if (pid < 0) {
            append_record(plan.event_log, "spawn failed " + join_words(argv) + ": " + errno_text());
            continue;
        }
        idle.push_back({pid, false});
        append_record(plan.event_log, "spawned " + std::to_string(pid) + " " + join_words(argv));
    }

    int command_status = 127 << 8;
    pid_t command = start(plan.command[0], plan.command, plan.environment, plan.stdout_fd, plan.stderr_fd);
    if (command < 0) {
        std::string msg = "zolvin_simboard: cannot run '" + plan.command[0] + "': " + errno_text() + "\n";
        write_all(plan.stderr_fd, msg);
        append_record(plan.event_log, "command failed " + join_words(plan.command));
    } else {
        append_record(plan.event_log, "command started " + std::to_string(command) + " " +
                                          join_words(plan.command));
    }
    close(plan.stdout_fd);
    close(plan.stderr_fd);

    auto note_end = [&](pid_t pid, int status) {
        for (spawned &s : idle) {
            if (s.pid == pid && !s.ended) {
                s.ended = true;
                append_record(plan.event_log, "spawn ended " + std::to_string(pid) + " " + describe(status));
            }
        }
    };
    while (command > 0) {
        int status = 0;
        pid_t pid = waitpid(-1, &status, 0);
        if (pid < 0 && errno == EINTR)
            continue;
        if (pid < 0)
            break;
        if (pid == command) {
            command_status = status;
            append_record(plan.event_log, "command ended " + describe(status));
            break;
        }
        note_end(pid, status);
    }
    for (;;) {
        int status = 0;
        pid_t pid = waitpid(-1, &status, WNOHANG);
        if (pid <= 0)
            break;
        note_end(pid, status);
    }
    for (const spawned &s : idle) {
        if (!s.ended)
            append_record(plan.event_log, "spawn alive " + std::to_string(s.pid));
    }
    write_all(plan.status_fd, &command_status, sizeof command_status);
    _exit(0);
}
