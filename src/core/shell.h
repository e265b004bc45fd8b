// Leaving the process and running shell commands, for every folder above.
#pragma once

// Ends the process from any thread: output flushed, no static destructors run
// under threads that are still working.
[[noreturn]] void daemon_exit(int status);

// Runs a shell command whose result the daemon has no use for.
void run_shell(const char *cmd);
