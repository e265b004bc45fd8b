// The loop of zolvin_4g_mqtt: one thread waits on the daemon's events socket,
// the broker's socket and the next deadline (the state's period, a
// reconnect's back-off, the broker's keep-alive), and nothing else.
#pragma once

#include "mqtt/config.h"

#include <string>
#include <sys/types.h>

namespace mqtt {

struct bridge_options {
    config cfg;
    std::string password;
    std::string events_socket; // "@name" (abstract) or a path
    uid_t daemon_uid = 0;      // whose the events socket must be
    int keepalive_s = 60;
};

// Runs until `stop_fd` (a signal descriptor) is readable; returns the exit
// status. Problems with the broker or the daemon are reported on standard
// error and retried, never fatal.
int run_bridge(const bridge_options &opts, int stop_fd);

} // namespace mqtt
