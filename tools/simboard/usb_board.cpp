#include "usb_board.h"

#include "board_util.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace {

const char *const ROOT_HUB = "usb1";
const char *const MODULE_PORT = "1-1";
const char *const OTHER_PORT = "1-2";

std::string hex2(int v) {
    char buf[16];
    snprintf(buf, sizeof buf, "%02x", v);
    return buf;
}

std::string case_id(const std::string &id, bool upper) {
    std::string out = id;
    if (upper) {
        for (char &c : out)
            c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    }
    return out;
}

// Real sysfs entries of the bus are links into the device tree.
bool link_device(const std::string &name, const std::string &tree_path) {
    std::string link = std::string(USB_LINK_DIR) + "/" + name;
    std::string target = "../../.." + tree_path.substr(strlen("/sys"));
    return symlink(target.c_str(), link.c_str()) == 0;
}

bool make_device(const std::string &dir, const std::string &vendor, const std::string &product,
                 int interfaces) {
    return make_dirs(dir) && write_file(dir + "/idVendor", vendor + "\n") &&
           write_file(dir + "/idProduct", product + "\n") &&
           write_file(dir + "/bNumInterfaces", " " + std::to_string(interfaces) + "\n");
}

bool make_interface(const std::string &dir, int number, const char *klass) {
    return make_dirs(dir) && write_file(dir + "/bInterfaceNumber", hex2(number) + "\n") &&
           write_file(dir + "/bInterfaceClass", std::string(klass) + "\n");
}

} // namespace

usb_board::usb_board(const board_options &options, modem_side &modem, std::string event_log)
    : options_(options), family_(find_family(options.family)), modem_(modem),
      event_log_(std::move(event_log)) {}

usb_board::~usb_board() {
    if (master_ >= 0)
        close(master_);
    if (slave_ >= 0)
        close(slave_);
}

std::string usb_board::module_dir() const {
    return std::string(USB_CONTROLLER_DIR) + "/" + ROOT_HUB + "/" + MODULE_PORT;
}

std::string usb_board::interface_name(int number) const {
    return std::string(MODULE_PORT) + ":1." + std::to_string(number);
}

bool usb_board::build_fixed_devices(std::string *error) {
    std::string hub = std::string(USB_CONTROLLER_DIR) + "/" + ROOT_HUB;
    std::string hub_if = hub + "/1-0:1.0";
    std::string other = hub + "/" + OTHER_PORT;
    std::string other_if = other + "/" + OTHER_PORT + ":1.0";
    // Same vendor, another product: a scan must compare both ids.
    bool ok = make_dirs(USB_LINK_DIR) && make_device(hub, "1d6b", "0002", 1) &&
              make_interface(hub_if, 0, "09") && make_device(other, "2c7c", "ffff", 1) &&
              make_interface(other_if, 0, "ff") && link_device(ROOT_HUB, hub) &&
              link_device("1-0:1.0", hub_if) && link_device(OTHER_PORT, other) &&
              link_device(std::string(OTHER_PORT) + ":1.0", other_if);
    if (!ok)
        *error = "cannot build the USB tree: " + errno_text();
    return ok;
}

bool usb_board::plug(std::string *error) {
    if (family_ == nullptr) {
        *error = "no module on this board";
        return false;
    }
    if (plugged()) {
        *error = "already plugged";
        return false;
    }
    const std::string dev = module_dir();
    bool upper = options_.usb_upper;
    bool ok = make_device(dev, case_id(family_->vendor_id, upper), case_id(family_->product_id, upper),
                          family_->interface_count);
    int next_tty = 0;
    for (int i = 0; ok && i < family_->interface_count; ++i) {
        std::string ifdir = dev + "/" + interface_name(i);
        ok = make_interface(ifdir, i, "ff");
        bool serial = false;
        for (int s : family_->serial_interfaces)
            serial = serial || s == i;
        if (ok && serial) {
            std::string tty;
            if (i == family_->at_interface) {
                tty = options_.tty;
            } else {
                tty = "ttyUSB" + std::to_string(next_tty++);
                if (tty == options_.tty)
                    tty = "ttyUSB" + std::to_string(next_tty++);
            }
            ok = make_dirs(ifdir + "/" + tty);
        }
        if (ok && i == family_->net_interface && options_.net_dir)
            ok = make_dirs(ifdir + "/net/" + options_.ifname);
    }
    if (!ok) {
        *error = "cannot build the module's sysfs entries: " + errno_text();
        remove_tree(dev);
        return false;
    }

    // The AT port: the slave stays open here, in raw mode, so that the daemon
    // finds a quiet line and the master never reads as hung up between opens.
    master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    char name[64];
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0 ||
        ptsname_r(master_, name, sizeof name) != 0) {
        *error = "cannot create the AT port pty: " + errno_text();
        unplug(error);
        return false;
    }
    slave_path_ = name;
    slave_ = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios t{};
    if (slave_ < 0 || tcgetattr(slave_, &t) != 0) {
        *error = "cannot open the AT port pty slave: " + errno_text();
        unplug(error);
        return false;
    }
    cfmakeraw(&t);
    tcsetattr(slave_, TCSANOW, &t);
    modem_.attach(master_);

    // Interfaces first, the device last: a scan sees a complete device or none.
    ok = true;
    for (int i = 0; ok && i < family_->interface_count; ++i)
        ok = link_device(interface_name(i), dev + "/" + interface_name(i));
    std::string tty_path = "/dev/" + options_.tty;
    ok = ok && symlink(slave_path_.c_str(), tty_path.c_str()) == 0 && link_device(MODULE_PORT, dev);
    if (!ok) {
        *error = "cannot link the module in: " + errno_text();
        std::string ignored;
        unplug(&ignored);
        return false;
    }
    append_record(event_log_, "plugged " + options_.family + " " + family_->vendor_id + ":" +
                                  family_->product_id + " " + tty_path + " " + slave_path_ + " " +
                                  (options_.net_dir ? options_.ifname : "-"));
    return true;
}

void usb_board::wait_port_read(long long timeout_ms) const {
    // The board holds the slave too, so its readiness is what the reader has
    // not taken yet. A poll, unlike TIOCINQ, first pushes what the master
    // wrote through the tty's buffer work, which a loaded machine runs late.
    // The tty layer gives no event when the input empties.
    long long deadline = monotonic_ms() + timeout_ms;
    pollfd p{slave_, POLLIN, 0};
    while (slave_ >= 0 && poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0 && monotonic_ms() < deadline)
        poll(nullptr, 0, 1);
}

bool usb_board::unplug(std::string *error) {
    if (family_ == nullptr) {
        *error = "no module on this board";
        return false;
    }
    bool was_plugged = plugged();
    // The device link goes first, as the kernel removes it before its interfaces.
    remove_tree(std::string(USB_LINK_DIR) + "/" + MODULE_PORT);
    for (int i = 0; i < family_->interface_count; ++i)
        remove_tree(std::string(USB_LINK_DIR) + "/" + interface_name(i));
    remove_tree("/dev/" + options_.tty);
    modem_.detach();
    if (master_ >= 0)
        close(master_);
    if (slave_ >= 0)
        close(slave_);
    master_ = slave_ = -1;
    bool gone = remove_tree(module_dir());
    if (was_plugged)
        append_record(event_log_, "unplugged");
    if (!gone)
        *error = "module directory left behind: " + errno_text();
    return gone;
}

std::string usb_board::status() const {
    if (family_ == nullptr)
        return "none";
    if (!plugged())
        return "unplugged " + options_.family;
    return "plugged " + options_.family + " /dev/" + options_.tty + " " + slave_path_;
}
