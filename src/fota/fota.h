// The module firmware update: the module is told where its new image is with
// AT+QFOTADL (a local file the daemon pushes through the AT port, for the
// families that take one, or an HTTP/FTP URL it fetches itself), and the update is
// followed as one long transaction through its start, download and update
// phases, its frames under code 561. What happens after the
// module reboots (re-opening the port, the final event) is the supervisor's,
// told through the fota_* flags of daemon_state.
#pragma once

#include "core/family.h"
#include "core/outcome.h"
#include "core/report.h"

#include <cstdint>

constexpr int FOTA_CHUNK_MAX = 1500; // the read buffer; larger requests are cut to it

// The time limits of the phases. The daemon uses the defaults; tests shorten them.
struct fota_limits {
    int64_t start_ms = 5000;       // command sent to a start line
    int64_t file_end_ms = 60000;   // last byte pushed to the download end line
    int64_t url_end_ms = 1800000;  // command sent to the download end line
    int64_t update_ms = -1;        // silence in the update phase; -1: the family's own
    // A watched module may leave the bus without an END line; the supervisor then
    // tells through fota_port_status, which is looked at this often.
    int64_t port_watch_ms = 100;
};

// Runs the update as the present module's family does it: mode 0 pushes the file
// `source` in chunks of `chunk_size` bytes with `chunk_delay_us` after each,
// any other mode has the module fetch the URL `source`. The file is read as
// root for `peer`, the client, so it must be a regular file that the client
// could read itself; any other is "file not found!". Every frame under 561
// goes to `replies` as it happens (progress status 5, a failure status 1) and
// the outcome then owes none (STATUS_NONE); only a refused request (status 10)
// and a command that could not be written are the outcome itself. A failure
// after the module was told raises module_reset_request once its frame is out;
// success hands the module to the supervisor (fota_done). The caller holds the
// AT port.
op_outcome fota_update(int mode, const char *source, int chunk_size, int64_t chunk_delay_us,
                       const client_peer &peer, const reply_sink &replies,
                       const fota_limits &limits = fota_limits());

// What the update makes of one module line in one of its phases. Pure: the
// caller carries out the report, the hand-over and the supervisor's word.
enum class fota_phase { start, download, update };
enum class fota_step {
    waiting,    // the command's echo or OK, or a line that is not the update's
    next_phase, // the phase ended well; in the update phase, progress
    done,       // the update ended
    failed,
};
struct fota_line {
    int status = -1;                    // the report under 561; -1: none
    char text[REPLY_TEXT_MAX + 1] = {}; // its text, empty for none
    bool unsolicited = false;           // the line goes to the common thread (a module error too)
    bool download_told = false;         // the family's supervisor flag is raised
};
fota_step fota_line_step(fota_phase phase, const char *line, const module_family &family,
                         fota_line *out);
