#include "board_options.h"

#include <cstdlib>
#include <cstring>

namespace {

const family_layout FAMILIES[] = {
    // Four serial functions, AT on the third; the network interface on the fifth.
    {"ec20", "EC20", "2c7c", "0125", 5, {0, 1, 2, 3}, 2, 4, "ttyUSB2", "wwan0"},
    // Network function first (two interfaces), then three serial ports, AT on the middle one.
    {"ec200t", "EC200T", "2c7c", "6026", 5, {2, 3, 4}, 3, 0, "ttyUSB1", "usb0"},
    {"ec200s", "EC200S", "2c7c", "6002", 5, {2, 3, 4}, 3, 0, "ttyUSB1", "usb0"},
};

bool parse_ms(const char *text, int *out) {
    char *end = nullptr;
    long v = strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < 0 || v > 3600 * 1000)
        return false;
    *out = static_cast<int>(v);
    return true;
}

// Device names the board creates under /dev and in sysfs: one path component.
bool valid_name(const std::string &name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

} // namespace

const char *const BOARD_USAGE =
    "usage: zolvin_simboard --work DIR [--family ec20|ec200t|ec200s|none] [--tty NAME]\n"
    "         [--ifname NAME] [--usb-upper] [--no-net-dir] [--conf FILE | --no-conf] [--etc NAME FILE]...\n"
    "         [--no-power-line] [--no-reset-line] [--modem emu|relay] [--power-replug MS]\n"
    "         [--unplugged] [--spawn ARGV0 [ARGS...] --]... -- COMMAND [ARGS...]\n";

const family_layout *find_family(const std::string &name) {
    for (const family_layout &f : FAMILIES) {
        if (name == f.name)
            return &f;
    }
    return nullptr;
}

bool family_known(const std::string &name) { return name == "none" || find_family(name) != nullptr; }

bool parse_board_options(int argc, char **argv, board_options *out, std::string *error) {
    board_options o;
    bool no_conf = false;
    int i = 1;
    auto value = [&](const char *option) -> const char * {
        if (i + 1 >= argc) {
            *error = std::string(option) + " needs a value";
            return nullptr;
        }
        return argv[++i];
    };
    for (; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--") {
            ++i;
            break;
        }
        if (a == "--work") {
            const char *v = value("--work");
            if (v == nullptr)
                return false;
            o.work_dir = v;
        } else if (a == "--family") {
            const char *v = value("--family");
            if (v == nullptr)
                return false;
            if (!family_known(v)) {
                *error = std::string("unknown family '") + v + "'";
                return false;
            }
            o.family = v;
        } else if (a == "--tty" || a == "--ifname") {
            const char *v = value(a.c_str());
            if (v == nullptr)
                return false;
            if (!valid_name(v)) {
                *error = a + " needs a plain name";
                return false;
            }
            (a == "--tty" ? o.tty : o.ifname) = v;
        } else if (a == "--usb-upper") {
            o.usb_upper = true;
        } else if (a == "--no-net-dir") {
            o.net_dir = false;
        } else if (a == "--conf") {
            const char *v = value("--conf");
            if (v == nullptr)
                return false;
            o.conf_path = v;
        } else if (a == "--etc") {
            const char *name = value("--etc");
            const char *file = name != nullptr ? value("--etc") : nullptr;
            if (file == nullptr)
                return false;
            if (!valid_name(name)) {
                *error = "--etc needs a plain name";
                return false;
            }
            o.etc_files.emplace_back(name, file);
        } else if (a == "--no-conf") {
            no_conf = true;
        } else if (a == "--no-power-line") {
            o.power_line = false;
        } else if (a == "--no-reset-line") {
            o.reset_line = false;
        } else if (a == "--modem") {
            const char *v = value("--modem");
            if (v == nullptr)
                return false;
            if (strcmp(v, "emu") != 0 && strcmp(v, "relay") != 0) {
                *error = "--modem takes emu or relay";
                return false;
            }
            o.relay_modem = strcmp(v, "relay") == 0;
        } else if (a == "--power-replug") {
            const char *v = value("--power-replug");
            if (v == nullptr)
                return false;
            if (!parse_ms(v, &o.power_replug_ms)) {
                *error = "--power-replug needs milliseconds";
                return false;
            }
        } else if (a == "--fota-return") {
            const char *v = value("--fota-return");
            if (v == nullptr)
                return false;
            if (strcmp(v, "never") == 0) {
                o.fota_return_ms = -1;
            } else if (!parse_ms(v, &o.fota_return_ms)) {
                *error = "--fota-return needs milliseconds or never";
                return false;
            }
        } else if (a == "--unplugged") {
            o.start_unplugged = true;
        } else if (a == "--spawn") {
            std::vector<std::string> words;
            for (++i; i < argc && strcmp(argv[i], "--") != 0; ++i)
                words.push_back(argv[i]);
            if (i >= argc || words.empty()) {
                *error = "--spawn needs ARGV0 [ARGS...] closed by --";
                return false;
            }
            o.spawns.push_back(words);
        } else {
            *error = "unknown option '" + a + "'";
            return false;
        }
    }
    for (; i < argc; ++i)
        o.command.push_back(argv[i]);

    if (o.work_dir.empty()) {
        *error = "--work DIR is required";
        return false;
    }
    if (o.command.empty()) {
        *error = "no COMMAND after --";
        return false;
    }
    if (no_conf && !o.conf_path.empty()) {
        *error = "--conf and --no-conf exclude each other";
        return false;
    }
    if (const family_layout *f = find_family(o.family)) {
        if (o.tty.empty())
            o.tty = f->default_tty;
        if (o.ifname.empty())
            o.ifname = f->default_ifname;
    }
    *out = o;
    return true;
}
