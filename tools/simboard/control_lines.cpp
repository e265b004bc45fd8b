#include "control_lines.h"

#include "board_util.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

// Two FIFOs polled side by side cannot tell which was written first when the
// writer is quicker than the reader, and the daemon writes reset and power
// back to back. The kernel queues a modify event for every write, after its
// bytes are in the pipe, on one inotify queue for both lines: taking one byte
// per event keeps the writer's order across the lines. The kernel merges an
// event into an identical one still queued; open and close events keep a
// writer that opens the line for every byte from being merged, and what a merge
// (or a write of several bytes) leaves behind is taken once no event is queued.
// A write's bytes are in the pipe a moment before its event is queued: bytes
// taken in that moment are counted, so that their late event does not take the
// next write's byte ahead of the other line's (a writer's close settles the
// count: bytes of a merge or of a longer write have no event of their own). So
// the order is exact for one-byte writes on either kind of writer, unless one
// line is written twice in a row before the board catches up.

control_lines::~control_lines() {
    for (line &l : lines_) {
        if (l.fd >= 0)
            close(l.fd);
    }
    if (watch_ >= 0)
        close(watch_);
}

bool control_lines::create(bool power, bool reset, std::string *error) {
    const struct {
        bool wanted;
        const char *path;
        const char *name;
    } wanted[2] = {{power, POWER_FIFO, "pwr"}, {reset, RESET_FIFO, "rst"}};
    if (!power && !reset)
        return true;
    watch_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (watch_ < 0) {
        *error = "inotify: " + errno_text();
        return false;
    }
    for (int i = 0; i < 2; ++i) {
        if (!wanted[i].wanted)
            continue;
        line &l = lines_[i];
        l.name = wanted[i].name;
        // Held open for reading and writing: the daemon's opens never block and
        // its closes never look like the end of the line.
        if (mkfifo(wanted[i].path, 0600) != 0 ||
            (l.fd = open(wanted[i].path, O_RDWR | O_NONBLOCK | O_CLOEXEC)) < 0 ||
            (l.watch = inotify_add_watch(watch_, wanted[i].path, IN_MODIFY | IN_OPEN | IN_CLOSE_WRITE)) < 0) {
            *error = std::string(wanted[i].path) + ": " + errno_text();
            return false;
        }
    }
    return true;
}

void control_lines::take(line &l, int count, const on_write &handler) {
    char buf[256];
    while (count > 0) {
        ssize_t n = read(l.fd, buf, std::min(sizeof buf, static_cast<size_t>(count)));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        count -= static_cast<int>(n);
        for (ssize_t i = 0; i < n; ++i)
            handler(l.name, buf[i]);
    }
}

void control_lines::serve(const on_write &handler) {
    if (watch_ < 0)
        return;
    alignas(inotify_event) char events[64 * (sizeof(inotify_event) + NAME_MAX + 1)];
    for (;;) {
        ssize_t n;
        while ((n = read(watch_, events, sizeof events)) > 0) {
            for (ssize_t off = 0; off < n;) {
                const auto *ev = reinterpret_cast<const inotify_event *>(events + off);
                for (line &l : lines_) {
                    if (l.fd < 0 || l.watch != ev->wd)
                        continue;
                    if (ev->mask & IN_CLOSE_WRITE)
                        l.ahead = 0; // the writer's events all came before this one
                    else if ((ev->mask & IN_MODIFY) && l.ahead > 0)
                        --l.ahead;
                    else if (ev->mask & IN_MODIFY)
                        take(l, 1, handler);
                }
                off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
            }
        }
        bool queued = false;
        for (line &l : lines_) {
            int pending = 0;
            if (l.fd < 0 || ioctl(l.fd, FIONREAD, &pending) != 0 || pending == 0)
                continue;
            pollfd p{watch_, POLLIN, 0};
            queued = poll(&p, 1, 0) == 1;
            if (queued)
                break; // events came in meanwhile: they go first
            // Only what was there before the look at the queue: later bytes
            // may come after another line's byte that has its event queued.
            l.ahead += pending;
            take(l, pending, handler);
        }
        if (!queued)
            return;
    }
}
