// `client_report`: the one writer of reply and event frames to the connected
// client. It never blocks the thread that reports.
#pragma once

#include "core/frames.h"

// Sends one frame in one send(), so frames of different threads never mix on
// the stream. Nothing is sent while no client is connected; a frame that does
// not fit in the client's socket buffer is dropped (logged with `debug`).
void client_report(int code, int status, const char *text);
