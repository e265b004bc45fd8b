// zolvin_boardctl SOCKET REQUEST...: one request line per argument to a
// control socket of the simulated board (control.sock, modem.ctl), printing
// every answer line. Each request ends at its "ok ..." or "error ..." line.
// Exit 0 when every request was answered "ok", 1 otherwise, 2 on bad use.
#include "board_util.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

int connect_to(const char *path) {
    sockaddr_un addr{};
    if (strlen(path) >= sizeof addr.sun_path)
        return -1;
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Prints the answer lines up to the final one; true when it is "ok".
bool answer(int fd, std::string &pending) {
    for (;;) {
        size_t end = pending.find('\n');
        if (end != std::string::npos) {
            std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            printf("%s\n", line.c_str());
            if (line == "ok" || line.rfind("ok ", 0) == 0)
                return true;
            if (line == "error" || line.rfind("error ", 0) == 0)
                return false;
            continue;
        }
        char buf[4096];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            fprintf(stderr, "zolvin_boardctl: connection closed before the answer\n");
            return false;
        }
        pending.append(buf, static_cast<size_t>(n));
    }
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: zolvin_boardctl SOCKET REQUEST...\n");
        return 2;
    }
    int fd = connect_to(argv[1]);
    if (fd < 0) {
        fprintf(stderr, "zolvin_boardctl: cannot connect to %s: %s\n", argv[1], errno_text().c_str());
        return 1;
    }
    bool all_ok = true;
    std::string pending;
    for (int i = 2; i < argc && all_ok; ++i)
        all_ok = write_all(fd, std::string(argv[i]) + "\n") && answer(fd, pending);
    close(fd);
    return all_ok ? 0 : 1;
}
