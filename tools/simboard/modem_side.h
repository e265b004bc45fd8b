// What plays the module on the master side of the AT port's pty.
//
// The board owns the pty; a modem side only borrows the master between
// attach() (module plugged in) and detach() (module gone, the master is about
// to be closed). Both calls return once the side has taken or released it.
#pragma once

#include <functional>
#include <memory>
#include <string>

class modem_side {
public:
    virtual ~modem_side() = default;
    virtual bool start() = 0;
    virtual void attach(int master_fd) = 0;
    virtual void detach() = 0;
    virtual void stop() = 0;
    // The power line switched the module on: it starts afresh.
    virtual void power_on() {}
    // `leave` runs, on the side's own thread, when the module reboots during a
    // firmware update and leaves the bus; the board unplugs it meanwhile.
    virtual void on_bus_leave(std::function<void()> leave) { (void)leave; }
};

// Relays the master to one connection on the Unix stream socket `socket_path`,
// bytes both ways, so that a test can answer as the module. What the port sends
// while nobody is connected is kept (up to a bound) for the next connection.
std::unique_ptr<modem_side> make_socket_modem_side(const std::string &socket_path);

// Plays the module with the modem emulator of `family` ("ec20", "ec200t",
// "ec200s"); a test drives it through its control socket `control_path`, and
// every command it receives is logged to `log_path`.
std::unique_ptr<modem_side> make_emulator_modem_side(const std::string &family,
                                                     const std::string &control_path,
                                                     const std::string &log_path);
