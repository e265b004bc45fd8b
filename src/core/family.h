// The module families the daemon supports, one row each: how discovery
// recognises the module on the USB bus, how its data call is dialled, kept up
// and taken down, how its firmware is updated, and which of the optional
// client codes it serves. Every layer reads the row of the module present
// (daemon_state::family) instead of asking which module it is, so another
// family is another row (and the emulator's answers). The rows are data only:
// a step is named here and carried out by the layer that owns it.
#pragma once

#include <cstddef>
#include <cstdint>

// One exchange of the data call, carried out by the modem functions; the
// context is always 1, the APN the configured one.
enum class data_step : uint8_t {
    echo_off,            // ATE0
    context_down,        // AT+QIDEACT
    context_config,      // AT+QICSGP with the configured APN
    context_up,          // AT+QIACT
    network_device_up,   // AT+QNETDEVCTL=1,1
    network_device_down, // AT+QNETDEVCTL=0,1
    data_call_up,        // AT$QCRMCALL=1,...
    data_call_down,      // AT$QCRMCALL=0,...
};
constexpr size_t DATA_STEP_COUNT = 8;

struct dial_step {
    data_step step;
    bool must_succeed; // else its answer does not matter and the dial goes on
};

// How the link check brings back a data call whose probes failed.
enum class link_reassert : uint8_t {
    network_device, // AT+QNETDEVCTL=1,1 again
    data_call,      // AT+QNETDEVSTATUS?, and when it is down AT$QCRMCALL off and on
};

// What the supervisor is told once the module has downloaded a new image.
enum class fota_after_download : uint8_t {
    nothing,      // the update's lines come on the port that stays open
    reopen,       // the module reboots: re-open its port
    reopen_watch, // re-open, then watch the port: the module may reboot into
                  // its new firmware without an END line
};

struct family_fota {
    // A local image pushed through the AT port; otherwise only URLs, which
    // the module fetches itself.
    bool takes_file;
    const char *file_suffix; // after the size in AT+QFOTADL="FILE:<size>"
    fota_after_download after_download;
    int64_t update_silence_ms; // the update phase's limit since the last progress line
    // Added to the supervisor's settle after a successful update: the time
    // the module takes to install its firmware beyond an ordinary boot.
    int64_t return_extra_ms;
    // The pace of a pushed file unless the client gives one.
    int chunk_size;
    int64_t chunk_pause_us;
};

constexpr size_t FAMILY_CODES_MAX = 8;

struct module_family {
    const char *name;  // as logged when the module is found
    char vendor_id[5]; // as sysfs spells them; compared without regard to case
    char product_id[5];
    uint32_t net_if_num;   // the USB interface whose "net" directory holds the network interface
    uint32_t at_if_num;    // the USB interface that holds the AT port's ttyUSB
    const dial_step *dial; // in order; the first failing step ends the dial
    size_t dial_steps;
    bool dial_logged; // "Begin to dial up..." goes to the log first
    // The external connection program (app_name) may own this family's
    // link: it dials, gets the address and is kept running instead.
    bool external_program;
    link_reassert reassert;
    data_step hang_up; // the supervisor's disconnect
    family_fota fota;
    // The optional client codes this family serves, 0-terminated. A code
    // that no family lists is served by every family.
    uint16_t codes[FAMILY_CODES_MAX];
};

constexpr size_t MODULE_FAMILY_COUNT = 3;
// Searched in this order by discovery.
extern const module_family MODULE_FAMILIES[MODULE_FAMILY_COUNT];
// The row in daemon_state until discovery finds the module.
extern const module_family *const FAMILY_AT_START;

// Whether `f` serves the client code `code` (see module_family::codes).
bool family_serves(const module_family &f, uint16_t code);

// The external program named by `app_name` owns the link of `f`.
inline bool external_program_owns_link(const module_family &f, const char *app_name) {
    return f.external_program && app_name[0] != '\0';
}
