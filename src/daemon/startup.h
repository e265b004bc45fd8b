// Process start-up: command line, drivers, control lines, configuration and
// the commands prepared for later.
#pragma once

#include <pthread.h>

// Sets `debug` and `atprint` from their fixed positions on the command line.
void parse_command_line(int argc, char **argv);

// 0 when a process whose first command-line word contains `app_name` runs, else -1.
int app_running();
// The same scan over any /proc-like directory, for any name.
int app_running_in(const char *proc_dir, const char *name);

// The attributes (1 MiB stack) of every thread the main thread creates.
pthread_attr_t *thread_attributes();

// Runs the daemon; returns the process exit status.
int daemon_main(int argc, char **argv);
