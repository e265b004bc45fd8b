#include "module/module.h"

#include "core/daemon_state.h"
#include "core/log.h"
#include "core/text.h"

#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

namespace {

using path_buf = char[256];

void read_id(const char *base, const char *entry, const char *file, char (&id)[5]) {
    memset(id, 0, sizeof id);
    path_buf path;
    text_format(path, sizeof path, "%s/%s/%s", base, entry, file);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd > 0) {
        ssize_t n = read(fd, id, 4);
        (void)n;
        close(fd);
    } else if (fd == 0) {
        close(fd);
    }
}

// The family this USB device is of, or null (interfaces and hubs have no such ids).
const module_family *device_match(const char *base, const char *entry) {
    char vendor[5], product[5];
    read_id(base, entry, "idVendor", vendor);
    read_id(base, entry, "idProduct", product);
    for (const module_family &m : MODULE_FAMILIES) {
        if (strncasecmp(vendor, m.vendor_id, 4) == 0 && strncasecmp(product, m.product_id, 4) == 0)
            return &m;
    }
    return nullptr;
}

// First entry of `dir_path` that `wanted` accepts and that fits a name buffer.
template <typename Pred>
bool first_entry(const char *dir_path, Pred wanted, char (&name)[MODULE_NAME_SIZE], bool *opened) {
    DIR *dir = opendir(dir_path);
    *opened = dir != nullptr;
    if (dir == nullptr)
        return false;
    bool found = false;
    while (dirent *e = readdir(dir)) {
        if (wanted(e->d_name) && strlen(e->d_name) < MODULE_NAME_SIZE) {
            text_set(name, e->d_name);
            found = true;
            break;
        }
    }
    closedir(dir);
    return found;
}

bool is_tty_usb(const char *name) { return strncmp(name, "ttyUSB", 6) == 0; }
bool is_visible(const char *name) { return name[0] != '.'; }

void interface_dir(path_buf &path, const char *base, const char *entry, uint32_t if_num,
                   const char *sub) {
    text_format(path, sizeof path, "%s/%s/%s:1.%u%s", base, entry, entry, if_num, sub);
}

} // namespace

int module_discover(const module_paths &paths, char (&at_port)[MODULE_NAME_SIZE],
                    char (&net_if)[MODULE_NAME_SIZE]) {
    DIR *base = opendir(paths.usb_devices);
    if (base == nullptr)
        return -1;
    char at_name[MODULE_NAME_SIZE] = {};
    char net_name[MODULE_NAME_SIZE] = {};
    bool have_at = false, have_net = false;
    while (dirent *e = readdir(base)) {
        memset(at_name, 0, sizeof at_name);
        memset(net_name, 0, sizeof net_name);
        have_at = have_net = false;
        const module_family *m = device_match(paths.usb_devices, e->d_name);
        if (m == nullptr)
            continue;
        state().family.store(m, std::memory_order_release);
        log_printf("Find 4G module: %s\n", m->name);

        path_buf path;
        bool opened = false;
        interface_dir(path, paths.usb_devices, e->d_name, m->at_if_num, "");
        have_at = first_entry(path, is_tty_usb, at_name, &opened);
        if (!opened)
            continue;
        if (have_at)
            log_printf("Find AT port: %s\n", at_name);

        interface_dir(path, paths.usb_devices, e->d_name, m->net_if_num, "/net");
        have_net = first_entry(path, is_visible, net_name, &opened);
        if (!opened) {
            have_at = false; // dropped with the next entry's clearing
            continue;
        }
        if (have_net)
            log_printf("Find 4G ethernet: %s\n", net_name);
        if (have_at || have_net)
            break;
    }
    closedir(base);
    if (!have_at || !have_net)
        return -1;
    text_set(at_port, at_name);
    text_set(net_if, net_name);
    return 0;
}

int module_find_at_port(const module_paths &paths, char (&at_port)[MODULE_NAME_SIZE]) {
    DIR *base = opendir(paths.usb_devices);
    if (base == nullptr)
        return -1;
    int result = -1;
    while (dirent *e = readdir(base)) {
        const module_family *m = device_match(paths.usb_devices, e->d_name);
        if (m == nullptr)
            continue;
        state().family.store(m, std::memory_order_release);
        path_buf path;
        bool opened = false;
        interface_dir(path, paths.usb_devices, e->d_name, m->at_if_num, "");
        char name[MODULE_NAME_SIZE] = {};
        if (first_entry(path, is_tty_usb, name, &opened)) {
            text_set(at_port, name);
            result = 0;
            break;
        }
    }
    closedir(base);
    return result;
}

const module_family *module_probe_family(const module_paths &paths) {
    DIR *base = opendir(paths.usb_devices);
    if (base == nullptr)
        return nullptr;
    const module_family *result = nullptr;
    while (dirent *e = readdir(base)) {
        if (const module_family *m = device_match(paths.usb_devices, e->d_name))
            result = m;
    }
    closedir(base);
    return result;
}
