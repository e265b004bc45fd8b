// Process start-up: command line, drivers, control lines, configuration and
// the commands prepared for later.
#pragma once

#include <pthread.h>

// Sets `debug` and `atprint` from their fixed positions on the command line.
void parse_command_line(int argc, char **argv);

// The attributes (1 MiB stack) of every thread the main thread creates.
pthread_attr_t *thread_attributes();

// Runs the daemon; returns the process exit status.
int daemon_main(int argc, char **argv);
