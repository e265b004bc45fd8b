// The client interface: the frames (core/frames.h), the server thread on the
// abstract socket "@phone_server" that answers the local codes itself, and the
// request workers that run every other code on the AT port. The same thread
// serves up to 8 subscribers on "@phone_events", who get a copy of every event
// (event_report) and may ask 911, 912 and 913.
#pragma once

#include "core/frames.h"
#include "core/outcome.h"
#include "core/report.h"

#include <cstddef>
#include <sys/types.h>

// Thread entry of the server; returns only after a socket error.
void *interface_thread(void *arg);

// Answers one request read from the connected client (`len` bytes), who is
// `from`. Exposed for tests.
void handle_request(const uint8_t *buf, size_t len, const client_peer &from);
// Answers one request of the subscriber in `slot` (subscriber_attach), to it
// alone: 911, 912 and 913 as for the client, any other code status 14.
void handle_subscriber_request(const uint8_t *buf, size_t len, int slot);

// The raw request a worker runs, with the number of bytes that were read:
// fields are taken only from those bytes; and who sent it: the client's
// credentials and its generation (client_attach), to which the replies go.
struct worker_request {
    size_t len;
    uint8_t bytes[REQUEST_MAX];
    client_peer peer;
    uint32_t generation;
};

// Worker thread body; the argument is a worker_request. It serves the codes
// of the present module's family.
void *request_worker(void *request_copy);

// The two operations that exist only for the client.
op_outcome set_sms_call_defaults();
op_outcome voice_dial(const char *number);

// Who may be a client: root, the daemon's own user, and, when the configuration
// names a client_group, its members by primary or supplementary group. Any
// other client could set commands that the daemon runs as root.
struct client_identity {
    uid_t uid;
    gid_t gid;
    const gid_t *groups; // supplementary groups
    size_t group_count;
};
// `group`: the resolved client_group, or null when none is set.
bool client_allowed(const client_identity &peer, uid_t self, const gid_t *group);
// A group name or number; false when empty or not a group.
bool client_group_resolve(const char *text, gid_t *gid);
// Reads the peer's credentials from a connected socket into `peer` and
// decides; a refusal is logged with debug.
bool client_admit(int fd, client_peer *peer);
