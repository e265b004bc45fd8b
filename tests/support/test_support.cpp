#include "support/test_support.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

temp_dir::temp_dir() {
    char tmpl[] = "/tmp/zolvin_test.XXXXXX";
    const char *made = mkdtemp(tmpl);
    if (made == nullptr)
        throw std::runtime_error("mkdtemp failed");
    path_ = made;
}

temp_dir::~temp_dir() {
    std::string cmd = "rm -rf '" + path_ + "'";
    int ignored = system(cmd.c_str());
    (void)ignored;
}

std::string temp_dir::mkdir(const std::string &name) const {
    std::string full = path_;
    size_t start = 0;
    while (start <= name.size()) {
        size_t slash = name.find('/', start);
        if (slash == std::string::npos)
            slash = name.size();
        full += "/" + name.substr(start, slash - start);
        ::mkdir(full.c_str(), 0755);
        start = slash + 1;
    }
    return full;
}

std::string temp_dir::write(const std::string &name, const std::string &content) const {
    size_t slash = name.rfind('/');
    if (slash != std::string::npos)
        mkdir(name.substr(0, slash));
    std::string full = path_ + "/" + name;
    std::ofstream out(full, std::ios::binary);
    out << content;
    return full;
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}
