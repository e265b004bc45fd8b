// The module's power and reset lines: FIFOs at /dev/pcie_pwr and /dev/pcie_rst
// that the board reads, one record per byte written.
#pragma once

#include <functional>
#include <string>

class control_lines {
public:
    // Called for every byte, in the order the bytes were written across both lines.
    using on_write = std::function<void(const char *line, char value)>;

    control_lines() = default;
    ~control_lines();
    control_lines(const control_lines &) = delete;
    control_lines &operator=(const control_lines &) = delete;

    bool create(bool power, bool reset, std::string *error);
    // Readable when a line has been written to; -1 when there are no lines.
    int watch_fd() const { return watch_; }
    void serve(const on_write &handler);

private:
    struct line {
        const char *name = nullptr;
        int fd = -1;
        int watch = -1;
        // Bytes taken before their modify events came: those events take nothing.
        long ahead = 0;
    };
    void take(line &l, int count, const on_write &handler);

    line lines_[2];
    int watch_ = -1;
};

constexpr const char *POWER_FIFO = "/dev/pcie_pwr";
constexpr const char *RESET_FIFO = "/dev/pcie_rst";
