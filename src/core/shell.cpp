#include "core/shell.h"

#include "core/daemon_state.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <unistd.h>

namespace {
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
} // namespace

void daemon_exit(int status) {
    fflush(stdout);
    fflush(stderr);
    _exit(status);
}

void run_shell(const char *cmd) {
    int ignored = system(cmd);
    (void)ignored;
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
