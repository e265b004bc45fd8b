// `client_report`: the one writer of reply and event frames to the connected
// client. It never blocks the thread that reports.
#pragma once

#include "core/frames.h"

#include <cstddef>
#include <sys/types.h>

// Sends one frame in one send(), so frames of different threads never mix on
// the stream. Nothing is sent while no client is connected; a frame that does
// not fit in the client's socket buffer is dropped (logged with `debug`).
void client_report(int code, int status, const char *text);

// Who a request came from: the connected client's credentials as the server
// read them when it admitted the connection (SO_PEERCRED, SO_PEERGROUPS).
constexpr size_t CLIENT_GROUPS_MAX = 256; // supplementary groups looked at
struct client_peer {
    uid_t uid = 0;
    gid_t gid = 0;
    size_t group_count = 0;
    gid_t groups[CLIENT_GROUPS_MAX] = {};
};
