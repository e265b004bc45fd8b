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

// How a program started without a shell lives: awaited as a shell command
// is, or left in the background as a shell's "&" job is.
enum class run_mode { wait, background };

// Runs the program argv[0], found through PATH when it holds no '/', with the
// arguments `argv` (ended by nullptr) and no shell between: each argument
// reaches the program as it is. Awaited, it is treated as run_shell_limited
// treats the shell. In the background a middle process starts it and ends at
// once; the limit and the reaping are the middle process's, and the program
// runs on, no child of the daemon's.
shell_outcome run_program_limited(const char *const argv[], run_mode mode, int limit_ms,
                                  shell_waiter waiter = shell_waiter::pidfd);

// Starts the external connection program as app_cmd shows it, its settings
// each one argument; awaited for at most SHELL_LIMIT_MS when app_cmd does not
// put it in the background.
void app_start();

// 0 when a process whose first command-line word contains `app_name` runs, else -1.
int app_running();
// The same scan over any /proc-like directory, for any name.
int app_running_in(const char *proc_dir, const char *name);
