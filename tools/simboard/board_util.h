// Small file and clock helpers shared by the simulated board and the fake commands.
#pragma once

#include <string>
#include <vector>

// CLOCK_MONOTONIC in milliseconds: the one clock every record of the board uses,
// the same inside and outside its namespaces.
long long monotonic_ms();

// Writes the whole buffer, retrying short writes and EINTR.
bool write_all(int fd, const void *data, size_t size);
bool write_all(int fd, const std::string &text);

// Appends "<ms> <text>\n" with one write on an O_APPEND descriptor, so lines from
// several processes never mix.
void append_record(const std::string &path, const std::string &text);

// Replaces the file through a rename, so a reader sees the old or the new content.
bool write_file_atomic(const std::string &path, const std::string &content);
bool write_file(const std::string &path, const std::string &content);
bool read_file(const std::string &path, std::string *content);

bool make_dirs(const std::string &path, unsigned mode = 0755);
// Removes a file, symlink or whole directory tree; true when nothing is left.
bool remove_tree(const std::string &path);

std::string join_words(const std::vector<std::string> &words);
std::string errno_text();
