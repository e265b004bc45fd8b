// Leaving the process, running shell commands and finding the external
// connection program, for every folder above.
#pragma once

// Ends the process from any thread: output flushed, no static destructors run
// under threads that are still working.
[[noreturn]] void daemon_exit(int status);

// How long a command may run before it is killed with every process it started.
constexpr int SHELL_LIMIT_MS = 60000;

enum class shell_result {
    done,   // the shell ended by itself
    killed, // still running at the limit: its process group was killed
    failed, // not started, or not watched (then killed at once)
};

struct shell_outcome {
    shell_result result;
    int status; // the shell's wait status when done or killed, else 0
};

// How the end of the command is awaited: a process descriptor (pidfd_open),
// or, on kernels without one, a thread blocked in waitid. `thread` takes the
// second way whatever the kernel offers.
enum class shell_waiter { pidfd, thread };

// Runs `cmd` through /bin/sh -c with the daemon's standard streams, in a
// process group of its own. A shell still running after `limit_ms` is killed
// with its whole group; a shell that ended leaves the processes it put in the
// background alone. The shell is reaped on every path, and a cancellation of
// the calling thread kills and reaps it too.
shell_outcome run_shell_limited(const char *cmd, int limit_ms,
                                shell_waiter waiter = shell_waiter::pidfd);

// Runs a shell command whose result the daemon has no use for, for at most
// SHELL_LIMIT_MS.
void run_shell(const char *cmd);

// 0 when a process whose first command-line word contains `app_name` runs, else -1.
int app_running();
// The same scan over any /proc-like directory, for any name.
int app_running_in(const char *proc_dir, const char *name);
