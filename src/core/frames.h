// The client protocol's two frames: building and parsing them, nothing more.
// The client tool links this codec alone; the daemon's writer of frames is
// `client_report` (core/report.h).
#pragma once

#include "core/codes.h"

#include <cstddef>
#include <cstdint>
#include <sys/socket.h>
#include <sys/un.h>

constexpr const char *SERVER_SOCKET_NAME = "@phone_server";
// Where subscribers take a copy of every event, beside the one client.
constexpr const char *EVENTS_SOCKET_NAME = "@phone_events";

// Fill the abstract address of the daemon's command socket and of its events
// socket; each returns the address length (15).
socklen_t server_address(sockaddr_un *addr);
socklen_t events_address(sockaddr_un *addr);

constexpr size_t REQUEST_MAX = 1000;       // one read of the socket is one request
constexpr int REQUEST_FIELDS_MAX = 6;
constexpr size_t FIELD_SIZE = 1000;        // a field is 1 .. 999 bytes, stored NUL-terminated
constexpr size_t REPLY_MAX = 500;
constexpr size_t REPLY_TEXT_MAX = REPLY_MAX - 8;

// Status values of a reply frame.
enum : int {
    STATUS_OK = 0,
    STATUS_FAIL = 1,
    STATUS_CALL_STATE = 2,
    STATUS_PROGRESS = 5,
    STATUS_BAD_PARAM = 10,
    STATUS_PASSTHROUGH_OFF = 11,
    STATUS_BUSY = 12,
    STATUS_NOT_READY = 13,
    STATUS_NOT_SERVED = 14, // not allowed to this client, or not served on this socket
    STATUS_UNKNOWN_CODE = 20,
};

struct request_frame {
    uint16_t code;
    int field_count;
    bool oversize_field; // the list ended at a length of 1000 or more
    size_t field_len[REQUEST_FIELDS_MAX];
    char fields[REQUEST_FIELDS_MAX][FIELD_SIZE]; // fields[0] is field 1
};

// Parses one read of `len` bytes. Returns -1 (no reply is owed) when the bytes
// do not start with "ZVS" and a code. Fields are taken only from the bytes
// received: a length that runs past them, or of 1000 or more, ends the list
// and is not counted.
int request_parse(const uint8_t *buf, size_t len, request_frame *out);

// Builds a request frame; returns its length, or 0 when it does not fit `cap`
// or a field is empty or 1000 bytes or longer.
size_t request_build(uint8_t *out, size_t cap, uint16_t code, const char *const *fields,
                     const size_t *lens, int count);

// Builds "ZVR", code, status, text (cut to 492 bytes), NUL; returns the length.
size_t reply_build(uint8_t (&out)[REPLY_MAX], int code, int status, const char *text);

struct reply_frame {
    uint16_t code;
    uint16_t status;
    size_t text_len;
    char text[REPLY_MAX];
};

// Takes one reply frame from the start of a received byte stream: returns the
// bytes it used, 0 when the frame is not complete yet, or -1 when the bytes do
// not start with "ZVR" or no NUL ends the text within 500 bytes.
long reply_parse(const uint8_t *buf, size_t len, reply_frame *out);
