// What an operation on the module ends with: the code it answers, the status
// and the text of its reply. Operations return it and never reply themselves;
// the client interface turns it into the reply frame, and internal callers
// (start-up, the supervisor, the link check) look at its status. Also the sink
// through which an operation hands over the frames its requester is owed
// before the outcome (a firmware update's progress).
#pragma once

#include "core/frames.h"

#include <cstring>

// No reply is owed: the answer went out as a stream or comes as events.
constexpr int STATUS_NONE = -1;

struct op_outcome {
    int code = 0;
    int status = STATUS_OK;
    // The command never reached the module (the port is gone or the module is
    // not ready); the status then says which.
    bool unsent = false;
    bool has_text = false;
    char text[REPLY_TEXT_MAX + 1] = {};

    bool ok() const { return status == STATUS_OK; }
    // The reply's text, or null for a reply without one.
    const char *reply_text() const { return has_text ? text : nullptr; }
    // Sets the text, cut to what a reply frame carries; null clears it.
    void set_text(const char *t) {
        has_text = t != nullptr;
        size_t n = t != nullptr ? strnlen(t, REPLY_TEXT_MAX) : 0;
        memcpy(text, t != nullptr ? t : "", n);
        text[n] = '\0';
    }
};

inline op_outcome outcome(int code, int status, const char *text = nullptr) {
    op_outcome o;
    o.code = code;
    o.status = status;
    o.set_text(text);
    return o;
}

// Where frames go that an operation owes its requester before its outcome.
struct reply_sink {
    void (*send)(const op_outcome &o, void *ctx) = nullptr;
    void *ctx = nullptr;

    // Nothing happens without a receiver: an internal caller wants none.
    void operator()(const op_outcome &o) const {
        if (send != nullptr)
            send(o, ctx);
    }
};
