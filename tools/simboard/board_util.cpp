#include "board_util.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

long long monotonic_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool write_all(int fd, const void *data, size_t size) {
    const char *p = static_cast<const char *>(data);
    while (size > 0) {
        ssize_t n = write(fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool write_all(int fd, const std::string &text) { return write_all(fd, text.data(), text.size()); }

void append_record(const std::string &path, const std::string &text) {
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    std::string line = std::to_string(monotonic_ms()) + " " + text + "\n";
    write_all(fd, line);
    close(fd);
}

bool write_file(const std::string &path, const std::string &content) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    bool ok = write_all(fd, content);
    return close(fd) == 0 && ok;
}

bool write_file_atomic(const std::string &path, const std::string &content) {
    std::string tmp = path + ".tmp";
    if (!write_file(tmp, content))
        return false;
    return rename(tmp.c_str(), path.c_str()) == 0;
}

bool read_file(const std::string &path, std::string *content) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    content->clear();
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            close(fd);
            return n == 0;
        }
        content->append(buf, static_cast<size_t>(n));
    }
}

bool make_dirs(const std::string &path, unsigned mode) {
    std::string part;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos)
            slash = path.size();
        part = path.substr(0, slash);
        if (!part.empty() && mkdir(part.c_str(), static_cast<mode_t>(mode)) != 0 && errno != EEXIST)
            return false;
        start = slash + 1;
    }
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

namespace {
int remove_entry(const char *path, const struct stat *, int, FTW *) { return remove(path) == 0 ? 0 : -1; }
} // namespace

bool remove_tree(const std::string &path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0)
        return errno == ENOENT;
    if (!S_ISDIR(st.st_mode))
        return unlink(path.c_str()) == 0;
    return nftw(path.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS) == 0;
}

std::string join_words(const std::vector<std::string> &words) {
    std::string out;
    for (const std::string &w : words) {
        if (!out.empty())
            out += ' ';
        out += w;
    }
    return out;
}

std::string errno_text() { return strerror(errno); }
