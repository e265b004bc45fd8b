// Small helpers for the unit tests: a fresh daemon state, scratch directories
// and files.
#pragma once

#include "core/daemon_state.h"

#include <string>

// A fresh daemon state for the life of the object.
struct fresh_state {
    fresh_state() { daemon_state_reset(); }
    ~fresh_state() { daemon_state_reset(); }
};

class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;

    const std::string &path() const { return path_; }
    // Writes `content` to path()/name (creating parent folders) and returns the full path.
    std::string write(const std::string &name, const std::string &content) const;
    std::string mkdir(const std::string &name) const;

private:
    std::string path_;
};

std::string read_file(const std::string &path);
