// The board's stand-in for the system commands the daemon runs (modprobe,
// killall, ifconfig, busybox): one binary, told apart by the name it is run
// under. Every call is recorded; all of them succeed. killall really stops the
// named processes, so that stopping an external program has a visible effect.
// Run with ZOLVIN_FAKECMD_IDLE set, it idles under whatever command line it
// was given, as a process for the daemon's process lookup to find.

#include "board_init.h"
#include "board_util.h"

#include <cctype>
#include <cstdio>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

std::string base_name(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

// The basename of the first word of /proc/PID/cmdline.
bool program_name(const std::string &pid, std::string *name) {
    std::string cmdline;
    if (!read_file("/proc/" + pid + "/cmdline", &cmdline) || cmdline.empty())
        return false;
    *name = base_name(cmdline.c_str()); // stops at the first NUL
    return true;
}

bool gone_or_zombie(const std::string &pid) {
    std::string stat;
    if (!read_file("/proc/" + pid + "/stat", &stat))
        return true;
    size_t paren = stat.rfind(')');
    return paren == std::string::npos || paren + 2 >= stat.size() || stat[paren + 2] == 'Z';
}

void killall(const std::vector<std::string> &args) {
    int sig = SIGTERM;
    std::vector<std::string> names;
    for (const std::string &a : args) {
        if (a.size() > 1 && a[0] == '-' && isdigit(static_cast<unsigned char>(a[1])))
            sig = atoi(a.c_str() + 1);
        else if (!a.empty() && a[0] != '-')
            names.push_back(a);
    }
    std::vector<std::string> victims;
    std::string self = std::to_string(getpid());
    if (DIR *proc = opendir("/proc")) {
        while (dirent *e = readdir(proc)) {
            if (!isdigit(static_cast<unsigned char>(e->d_name[0])) || self == e->d_name)
                continue;
            std::string name;
            if (!program_name(e->d_name, &name))
                continue;
            for (const std::string &n : names) {
                if (n == name && kill(atoi(e->d_name), sig) == 0)
                    victims.push_back(e->d_name);
            }
        }
        closedir(proc);
    }
    // Return once the victims are gone, as the daemon's next step may rely on
    // the program no longer running.
    long long deadline = monotonic_ms() + 2000;
    for (const std::string &v : victims) {
        while (!gone_or_zombie(v) && monotonic_ms() < deadline)
            usleep(1000);
    }
}

} // namespace

int main(int argc, char **argv) {
    if (getenv(IDLE_ENV) != nullptr) {
        for (;;)
            pause();
    }
    std::string name = base_name(argc > 0 ? argv[0] : "");
    std::vector<std::string> words{name};
    for (int i = 1; i < argc; ++i)
        words.emplace_back(argv[i]);
    if (const char *dir = getenv(BOARD_DIR_ENV))
        append_record(std::string(dir) + "/calls.log", join_words(words));

    if (name == "killall") {
        killall(std::vector<std::string>(words.begin() + 1, words.end()));
        return 0;
    }
    if (name == "modprobe" || name == "ifconfig" || name == "busybox")
        return 0;
    fprintf(stderr, "zolvin_fakecmd: run as modprobe, killall, ifconfig or busybox, not '%s'\n",
            name.c_str());
    return 2;
}
