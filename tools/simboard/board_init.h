// Process 1 of the board's pid namespace: starts the idle processes and the
// command under test, reaps everything that ends, and reports the command's
// wait status to the board. When it returns from the namespace (by exiting)
// the kernel kills whatever is left in it.
#pragma once

#include <string>
#include <vector>

struct init_plan {
    std::string fakecmd;
    std::vector<std::vector<std::string>> spawns;
    std::vector<std::string> command;
    std::vector<std::string> environment; // NAME=value, for the command
    std::string event_log;
    int stdout_fd = -1;
    int stderr_fd = -1;
    int go_fd = -1;     // read end: one byte when the board is ready, EOF if the board died
    int status_fd = -1; // write end: the command's wait status (an int)
};

[[noreturn]] void run_board_init(const init_plan &plan);

// Set in the environment of an idle process so that the fake command idles.
constexpr const char *IDLE_ENV = "ZOLVIN_FAKECMD_IDLE";
// Tells the fake commands where the board's records are.
constexpr const char *BOARD_DIR_ENV = "ZOLVIN_SIMBOARD_DIR";
