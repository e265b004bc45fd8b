// Leaving the process, running shell commands and finding the external
// connection program, for every folder above.
#pragma once

// Ends the process from any thread: output flushed, no static destructors run
// under threads that are still working.
[[noreturn]] void daemon_exit(int status);

// Runs a shell command whose result the daemon has no use for.
void run_shell(const char *cmd);

// 0 when a process whose first command-line word contains `app_name` runs, else -1.
int app_running();
// The same scan over any /proc-like directory, for any name.
int app_running_in(const char *proc_dir, const char *name);
