#include "support/test_support.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

temp_dir::temp_dir() {
    char tmpl[] = "/tmp/zolvin_test.XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

temp_dir::~temp_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string temp_dir::mkdir(const std::string &name) const {
    std::string full = path_ + "/" + name;
    std::filesystem::create_directories(full);
    return full;
}

std::string temp_dir::write(const std::string &name, const std::string &content) const {
    std::string full = path_ + "/" + name;
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    std::ofstream(full, std::ios::binary) << content;
    return full;
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}
