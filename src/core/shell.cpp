#include "core/shell.h"

#include "core/config.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/text.h"
#include "core/wait.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

// Older C libraries lack the name; the number is the same on every architecture.
#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif

namespace {

// One command on its way. The shell (or the program, or the middle process
// of a background one; "the shell" below) leads its process group, so its pid
// is the group's id: it is reaped only after any kill of the group, so that the
// id cannot have passed to someone else by then.
struct shell_run {
    pid_t pid = -1;      // the shell; -1 once reaped
    int status = 0;      // its wait status once reaped
    int ready_fd = -1;   // readable once the shell has ended: its pidfd, or the waiter's eventfd
    bool waiter = false; // a waiter thread runs and must be joined
    pthread_t waiter_tid{};
};

// What is run: the shell with a command, or a program with its arguments.
struct launch {
    const char *path;   // as execve takes it
    char *const *argv;  // ended by nullptr
    bool background;    // started by a middle process that ends at once
    const char *label;  // for the log
};

// What system() gives its shell: no blocked signals, default handling of the
// ones the daemon may have set aside.
const int DEFAULT_SIGNALS[] = {SIGCHLD, SIGINT, SIGQUIT};

bool spawn_direct(const launch &l, pid_t *pid) {
    posix_spawnattr_t attr;
    if (posix_spawnattr_init(&attr) != 0)
        return false;
    sigset_t none;
    sigset_t defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int sig : DEFAULT_SIGNALS)
        sigaddset(&defaults, sig);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(
        &attr, static_cast<short>(POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK |
                                  POSIX_SPAWN_SETSIGDEF));
    int err = posix_spawn(pid, l.path, nullptr, &attr, l.argv, environ);
    posix_spawnattr_destroy(&attr);
    return err == 0;
}

// A shell's background job outlives the shell and is no child of the
// daemon's, so nothing here has to reap it later. The same without a shell:
// a middle process, in a group of its own with the signals set as above,
// starts the program and ends at once. Between fork and exec only calls that
// are safe in the child of a threaded process.
bool spawn_background(const launch &l, pid_t *pid) {
    struct sigaction dfl;
    memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigset_t none;
    sigemptyset(&none);
    pid_t middle = fork();
    if (middle < 0)
        return false;
    if (middle == 0) {
        setpgid(0, 0);
        for (int sig : DEFAULT_SIGNALS)
            sigaction(sig, &dfl, nullptr);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        pid_t program = fork();
        if (program == 0) {
            execve(l.path, l.argv, environ);
            _exit(127);
        }
        _exit(program < 0 ? 127 : 0);
    }
    // Also here, so that the group exists before any kill of it.
    setpgid(middle, middle);
    *pid = middle;
    return true;
}

// Whether the shell has not ended yet; it stays unreaped either way.
bool still_running(pid_t pid) {
    siginfo_t info;
    info.si_pid = 0;
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0)
        return false;
    return info.si_pid == 0;
}

void *waiter_main(void *arg) {
    const shell_run *run = static_cast<const shell_run *>(arg);
    // WNOWAIT: the caller reaps, after any kill of the group.
    siginfo_t info;
    while (waitid(P_PID, static_cast<id_t>(run->pid), &info, WEXITED | WNOWAIT) != 0 &&
           errno == EINTR) {
    }
    uint64_t one = 1;
    ssize_t n = write(run->ready_fd, &one, sizeof one);
    (void)n;
    return nullptr;
}

// Without pidfd_open (kernels before 5.3, or a filter refusing it), a thread
// blocked in waitid tells the end through an eventfd. Nothing the shell or its
// children inherit may carry that news: a background child would hold it open.
bool start_waiter(shell_run *run) {
    run->ready_fd = eventfd(0, EFD_CLOEXEC);
    if (run->ready_fd < 0)
        return false;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, THREAD_STACK_SIZE);
    // The daemon's signals go to its own threads, never to this one.
    sigset_t all;
    sigset_t old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    run->waiter = pthread_create(&run->waiter_tid, &attr, waiter_main, run) == 0;
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    pthread_attr_destroy(&attr);
    if (!run->waiter) {
        close(run->ready_fd);
        run->ready_fd = -1;
    }
    return run->waiter;
}

bool watch(shell_run *run, shell_waiter waiter) {
    if (waiter == shell_waiter::pidfd) {
        // A pidfd is close-on-exec from the start.
        long fd = syscall(SYS_pidfd_open, run->pid, 0);
        if (fd >= 0) {
            run->ready_fd = static_cast<int>(fd);
            return true;
        }
    }
    return start_waiter(run);
}

// Waits for the shell's end until the deadline; false when it did not come.
bool wait_ready(int fd, int64_t deadline_ms) {
    for (;;) {
        pollfd p = {fd, POLLIN, 0};
        int n = poll(&p, 1, poll_timeout(deadline_ms));
        if (n > 0)
            return true;
        if (n == 0 || errno != EINTR)
            return false;
    }
}

// Kills the group when the shell still runs; true if it did.
bool stop_run(shell_run *run) {
    if (run->pid <= 0 || !still_running(run->pid))
        return false;
    kill(-run->pid, SIGKILL);
    return true;
}

// After the shell has ended or been killed: joins the waiter, reaps the
// shell, closes the descriptor. Blocks only as long as the dying takes.
void finish_run(shell_run *run) {
    if (run->waiter) {
        pthread_join(run->waiter_tid, nullptr);
        run->waiter = false;
    }
    if (run->pid > 0) {
        while (waitpid(run->pid, &run->status, 0) < 0 && errno == EINTR) {
        }
        run->pid = -1;
    }
    if (run->ready_fd >= 0) {
        close(run->ready_fd);
        run->ready_fd = -1;
    }
}

// A cancelled caller leaves no command, thread or descriptor behind.
void abandon_run(void *arg) {
    shell_run *run = static_cast<shell_run *>(arg);
    // The joins and waits below must not be cancellation points again.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    stop_run(run);
    finish_run(run);
}
bool has_entry(const char *dir_path, const char *name) {
    DIR *dir = opendir(dir_path);
    if (dir == nullptr)
        return false;
    bool found = false;
    while (dirent *e = readdir(dir)) {
        if (strcmp(e->d_name, name) == 0) {
            found = true;
            break;
        }
    }
    closedir(dir);
    return found;
}

// Where execve finds `name`: itself when it holds a '/', else the first
// executable file of that name along PATH, as a shell would look.
bool find_program(const char *name, char *path, size_t size) {
    if (name[0] == '\0')
        return false;
    if (strchr(name, '/') != nullptr)
        return text_copy(path, size, name, size - 1) == strlen(name);
    const char *dirs = getenv("PATH");
    if (dirs == nullptr)
        dirs = "/bin:/usr/bin";
    for (;;) {
        const char *end = strchr(dirs, ':');
        size_t len = end != nullptr ? static_cast<size_t>(end - dirs) : strlen(dirs);
        // An empty entry is the working directory.
        int n = len == 0 ? snprintf(path, size, "%s", name)
                         : snprintf(path, size, "%.*s/%s", static_cast<int>(len), dirs, name);
        struct stat st;
        if (n > 0 && static_cast<size_t>(n) < size && stat(path, &st) == 0 &&
            S_ISREG(st.st_mode) && access(path, X_OK) == 0)
            return true;
        if (end == nullptr)
            return false;
        dirs = end + 1;
    }
}

shell_outcome run_limited(const launch &l, int limit_ms, shell_waiter waiter) {
    shell_outcome out = {shell_result::failed, 0};
    // Cancellation is taken only in the wait, where abandon_run knows what to undo.
    int cancel_state = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
    shell_run run;
    const char *cmd = l.label;
    if (!(l.background ? spawn_background(l, &run.pid) : spawn_direct(l, &run.pid))) {
        log_printf("Command not started: %s\n", cmd);
    } else if (!watch(&run, waiter)) {
        // Unwatched, the command could outlive any limit.
        kill(-run.pid, SIGKILL);
        finish_run(&run);
        log_printf("Command not watched, killed: %s\n", cmd);
    } else {
        int64_t deadline = monotonic_ms() + (limit_ms > 0 ? limit_ms : 0);
        bool ended = false;
        pthread_cleanup_push(abandon_run, &run);
        pthread_setcancelstate(cancel_state, nullptr);
        ended = wait_ready(run.ready_fd, deadline);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        pthread_cleanup_pop(0);
        // The shell may have ended right at the limit: then it is done.
        bool killed = !ended && stop_run(&run);
        finish_run(&run);
        out.result = killed ? shell_result::killed : shell_result::done;
        out.status = run.status;
        if (killed)
            log_printf("Command timed out, killed: %s\n", cmd);
    }
    pthread_setcancelstate(cancel_state, nullptr);
    return out;
}
} // namespace

void daemon_exit(int status) {
    fflush(stdout);
    fflush(stderr);
    _exit(status);
}

shell_outcome run_shell_limited(const char *cmd, int limit_ms, shell_waiter waiter) {
    if (cmd == nullptr)
        return {shell_result::failed, 0};
    char sh[] = "sh";
    char dash_c[] = "-c";
    char *argv[] = {sh, dash_c, const_cast<char *>(cmd), nullptr};
    return run_limited({"/bin/sh", argv, false, cmd}, limit_ms, waiter);
}

void run_shell(const char *cmd) { run_shell_limited(cmd, SHELL_LIMIT_MS); }

shell_outcome run_program_limited(const char *const argv[], run_mode mode, int limit_ms,
                                  shell_waiter waiter) {
    char path[256];
    if (argv == nullptr || argv[0] == nullptr || !find_program(argv[0], path, sizeof path)) {
        log_printf("Command not found: %s\n", argv != nullptr && argv[0] != nullptr ? argv[0] : "");
        return {shell_result::failed, 0};
    }
    // Only the program's name is logged: its arguments may hold a password.
    return run_limited({path, const_cast<char *const *>(argv), mode == run_mode::background, argv[0]},
                       limit_ms, waiter);
}

void app_start() {
    app_command c;
    if (!app_command_get(&c))
        return;
    const char *argv[APP_WORDS_MAX + 1] = {};
    for (int i = 0; i < c.count; ++i)
        argv[i] = c.words[i];
    run_program_limited(argv, c.background ? run_mode::background : run_mode::wait, SHELL_LIMIT_MS);
}

int app_running_in(const char *proc_dir, const char *name) {
    DIR *proc = opendir(proc_dir);
    if (proc == nullptr)
        return -1;
    bool found = false;
    while (!found) {
        dirent *e = readdir(proc);
        if (e == nullptr)
            break;
        if (e->d_type != DT_DIR || strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0)
            continue;
        char path[512];
        snprintf(path, sizeof path, "%s/%s", proc_dir, e->d_name);
        if (!has_entry(path, "cmdline"))
            continue;
        snprintf(path, sizeof path, "%s/%s/cmdline", proc_dir, e->d_name);
        FILE *f = fopen(path, "r");
        if (f == nullptr)
            continue;
        // Arguments are NUL-separated, so only the program path takes part.
        char cmdline[50];
        memset(cmdline, 0, sizeof cmdline);
        size_t n = fread(cmdline, 1, sizeof cmdline, f);
        (void)n;
        cmdline[49] = '\0';
        fclose(f);
        if (strstr(cmdline, name) != nullptr)
            found = true;
    }
    closedir(proc);
    return found ? 0 : -1;
}

int app_running() { return app_running_in("/proc", state().app_name); }
