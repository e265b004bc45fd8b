// `client_report`: the one writer of reply frames to the connected client;
// `event_report`: the one writer of events, to the client and to every
// subscriber of the events socket. Neither ever blocks the thread that reports.
#pragma once

#include "core/frames.h"

#include <cstddef>
#include <sys/types.h>

// Sends one frame in one send(), so frames of different threads never mix on
// the stream. Nothing is sent while no client is connected; a frame that does
// not fit in the client's socket buffer is dropped (logged with `debug`).
void client_report(int code, int status, const char *text);

// An event (codes 1000 and above, and the late completions 901 and 561 with
// status 0): to the client as client_report sends it, and a copy to every
// subscriber. A subscriber whose socket is full loses the frame (counted as
// dropped); none of them delays the caller or the others.
void event_report(int code, int status, const char *text);

// Subscribers of the events socket, in numbered slots; the server owns their
// descriptors. Attach returns the slot, or -1 when all are taken; after
// detach no frame goes to the descriptor any more, so the server may close it.
constexpr int SUBSCRIBERS_MAX = 8;
int subscriber_attach(int fd);
void subscriber_detach(int slot);
// One frame to the subscriber of `slot` alone: the answer to its request.
void subscriber_report(int slot, int code, int status, const char *text);

// The server's hand-over of the client. Attach makes an admitted connection
// the client under a new generation (never 0) and returns it; after detach no
// frame goes to the descriptor any more, so the server may close it.
uint32_t client_attach(int fd);
void client_detach();

// Binds the calling thread's replies to the client of `generation`: a request
// worker's, to the client that sent the request. Its frames below code 1000
// reach that client only and are dropped once it has gone, so a successor
// that got the same descriptor number never receives them; its events (1000
// and above) go to whoever is connected, as every frame of an unbound thread does.
void client_reply_bind(uint32_t generation);

// Who a request came from: the connected client's credentials as the server
// read them when it admitted the connection (SO_PEERCRED, SO_PEERGROUPS).
constexpr size_t CLIENT_GROUPS_MAX = 256; // supplementary groups looked at
struct client_peer {
    uid_t uid = 0;
    gid_t gid = 0;
    size_t group_count = 0;
    gid_t groups[CLIENT_GROUPS_MAX] = {};
};
