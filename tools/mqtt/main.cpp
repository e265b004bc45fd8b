// zolvin_4g_mqtt: publishes the daemon's events and state to an MQTT broker.

#include "core/frames.h"
#include "mqtt/bridge.h"
#include "mqtt/config.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <mosquitto.h>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

const char USAGE[] = "usage: zolvin_4g_mqtt [--config FILE] [--events-socket NAME]\n"
                     "Publishes the events and state of zolvin_4g to the MQTT broker named in FILE\n"
                     "(default /etc/zolvin_4g_mqtt.conf). See zolvin_4g_mqtt(8).\n";

} // namespace

int main(int argc, char **argv) {
    std::string path = mqtt::CONFIG_PATH, events_socket = EVENTS_SOCKET_NAME;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--config") == 0 && i + 1 < argc) {
            path = argv[++i];
        } else if (strcmp(argv[i], "--events-socket") == 0 && i + 1 < argc) {
            events_socket = argv[++i];
        } else if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
            fputs(USAGE, stdout);
            return 0;
        } else {
            fprintf(stderr, "zolvin_4g_mqtt: unknown argument '%s'\n%s", argv[i], USAGE);
            return mqtt::EXIT_CONFIG;
        }
    }
    mqtt::bridge_options opts;
    std::string error;
    if (!mqtt::load_config(path, &opts.cfg, &opts.password, &error)) {
        fprintf(stderr, "zolvin_4g_mqtt: %s\n", error.c_str());
        return mqtt::EXIT_CONFIG;
    }
    opts.events_socket = events_socket;

    // SIGTERM and SIGINT end the loop through a descriptor it watches; a
    // broker or daemon that hangs up must not end the program.
    signal(SIGPIPE, SIG_IGN);
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    int stop_fd = -1;
    if (sigprocmask(SIG_BLOCK, &stop, nullptr) != 0 || (stop_fd = signalfd(-1, &stop, SFD_CLOEXEC)) < 0) {
        perror("zolvin_4g_mqtt: signalfd");
        return 1;
    }
    mosquitto_lib_init();
    int status = mqtt::run_bridge(opts, stop_fd);
    mosquitto_lib_cleanup();
    close(stop_fd);
    return status;
}
