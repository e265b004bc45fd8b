// zolvin_4g_ctl: sends one request to the daemon, or listens to its frames.

#include "ctl/ctl.h"

#include <csignal>
#include <iostream>
#include <sys/signalfd.h>
#include <unistd.h>

int main(int argc, char **argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    ctl::options opts;
    std::string error;
    if (!ctl::parse_options(args, &opts, &error)) {
        std::cerr << "zolvin_4g_ctl: " << error << "\n" << ctl::usage();
        return ctl::EXIT_USAGE;
    }
    opts.tty = isatty(STDOUT_FILENO) == 1;
    // Listening ends cleanly on SIGINT or SIGTERM: they are taken through a
    // descriptor that the wait for frames watches.
    int stop_fd = -1;
    if (opts.listen) {
        sigset_t stop;
        sigemptyset(&stop);
        sigaddset(&stop, SIGINT);
        sigaddset(&stop, SIGTERM);
        if (sigprocmask(SIG_BLOCK, &stop, nullptr) == 0)
            stop_fd = signalfd(-1, &stop, SFD_CLOEXEC);
    }
    int status = ctl::run(opts, std::cout, std::cerr, stop_fd);
    if (stop_fd >= 0)
        close(stop_fd);
    return status;
}
