// The one process-wide record that every thread of the daemon shares.
//
// Plain text buffers are written before the threads that read them exist, or
// under the AT access rule; every flag and index that one thread publishes for
// others is a std::atomic (release on the publishing store, acquire on the
// load); the rings are guarded by line_lock.
#pragma once

#include "core/family.h"
#include "core/wait.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <semaphore.h>

constexpr const char *BANNER = "ZOLVIN 4G SERVER V1.23";
constexpr size_t THREAD_STACK_SIZE = 1024 * 1024; // every thread of the daemon

constexpr int RING_SLOTS = 20;
constexpr int RING_LINE_SIZE = 500;
constexpr int TEXT_FIELD_SIZE = 52;  // configuration texts and paths
constexpr int CMD_FIELD_SIZE = 100;  // prepared shell commands
constexpr int IDENTITY_SIZE = 100;   // module identity texts
constexpr int PING_ADDRESS_COUNT = 6;
constexpr int ICMP_BUFFER_SIZE = 4096;

// A binary semaphore: the interface thread takes it before starting a worker and
// the worker gives it back, so it must not be owned by the thread that took it.
class at_gate {
public:
    at_gate();
    ~at_gate();
    at_gate(const at_gate &) = delete;
    at_gate &operator=(const at_gate &) = delete;

    void lock();     // waits; a cancellation point
    bool try_lock(); // true when taken
    void unlock();   // from any thread; a second unlock without a lock is ignored

private:
    sem_t sem_;
};

// One ring of module lines. Its fields are guarded by `line_lock`; a ring
// holds RING_SLOTS lines, and a producer that finds it full waits for room.
struct line_ring {
    char slots[RING_SLOTS][RING_LINE_SIZE];
    int32_t write_index = 0;
    int32_t read_index = 0;
    int32_t count = 0;
    mono_cond readable; // a line was pushed
};

// The supervisor's state, published for the other threads.
enum class module_phase : uint8_t {
    starting,  // start-up brings the module up
    idle,      // the module is open, the link down and not wanted
    dialling,  // the link is wanted and down: a dial runs or is paced
    connected, // the link is up
    resetting, // power cycle, settle and bring-up (or a re-open after an update)
    reopening, // the module reboots during a firmware update
    gone,      // the module left the bus; the supervisor looks for it
};

struct daemon_state {
    // Command line
    std::atomic<uint8_t> debug{0};
    std::atomic<uint8_t> atprint{0};

    // Configuration. The texts that clients may change at run time are
    // written and read under settings_lock (see config.h).
    pthread_mutex_t settings_lock = PTHREAD_MUTEX_INITIALIZER;
    char app_name[TEXT_FIELD_SIZE];
    char apn_name[TEXT_FIELD_SIZE];
    char apn_user[TEXT_FIELD_SIZE];
    char apn_passwd[TEXT_FIELD_SIZE];
    std::atomic<uint32_t> apn_auth{1};
    std::atomic<uint8_t> auto_dial{0};
    std::atomic<uint8_t> auto_check{0};
    char ping_address[PING_ADDRESS_COUNT][TEXT_FIELD_SIZE]; // ping_address1 .. ping_address6
    std::atomic<uint32_t> check_timeS{600};
    char down_script[TEXT_FIELD_SIZE];
    // Group (name or number) whose members may be clients besides root and the
    // daemon's own user; empty: none. Only the file sets it, before any thread.
    char client_group[TEXT_FIELD_SIZE];

    // Prepared commands
    char killall_cmd[CMD_FIELD_SIZE];
    char app_cmd[CMD_FIELD_SIZE];
    char ifdown_cmd[TEXT_FIELD_SIZE];

    // Module
    // The row of the module present, set by discovery (see core/family.h).
    std::atomic<const module_family *> family{FAMILY_AT_START};
    char net_if_name[TEXT_FIELD_SIZE];
    char at_port_path[TEXT_FIELD_SIZE];

    // What the supervisor is doing: written by the main thread alone.
    std::atomic<module_phase> phase{module_phase::starting};
    // The link is up (a dial connected and the DHCP client ran): the
    // supervisor's alone, like `phase`.
    std::atomic<uint8_t> connected{0};
    // Requests to the supervisor, raised through supervisor_request() and
    // cleared by the action that serves them.
    std::atomic<uint8_t> module_restarting{1};
    std::atomic<uint8_t> module_reset_request{0};
    std::atomic<uint8_t> fota_done{0};
    std::atomic<uint8_t> fota_reopen{0};
    std::atomic<uint8_t> fota_reopen_watch{0};
    // The AT port hung up by itself: the module left the bus. Raised by the
    // receive thread, cleared once the port is open again.
    std::atomic<uint8_t> module_lost{0};
    // Orders the client's (1101, 1) and (1101, 0): the receive thread's word
    // of a loss and the supervisor's of the module's return.
    pthread_mutex_t presence_lock = PTHREAD_MUTEX_INITIALIZER;
    // A firmware update talks to the module: its reboots are not losses.
    // Raised by the update; cleared by it on an early failure, else by the
    // reset that follows every update.
    std::atomic<uint8_t> fota_active{0};
    std::atomic<uint8_t> restart_report_pending{0};
    std::atomic<uint8_t> call_active{0}; // written through call_active_set
    std::atomic<int32_t> fota_port_status{0};
    std::atomic<pthread_t> check_tid{0};
    // Raised by whoever sets a flag above or changes `auto_dial`: the
    // supervisor sleeps on it.
    wake_signal supervisor_wake;

    // AT work gate
    at_gate at_mutex;
    std::atomic<uint8_t> worker_busy{0};
    std::atomic<uint8_t> dial_in_progress{0};

    // AT transport. Writers to the port hold port_lock for reading around
    // each write; the supervisor closes the port under it for writing, so no
    // write can land on a number that the close handed out again.
    std::atomic<int32_t> at_fd{-1};
    pthread_rwlock_t port_lock = PTHREAD_RWLOCK_INITIALIZER;
    std::atomic<uint8_t> at_passthrough{0};
    // The choice of ring, every push and pop, and a transaction's closing
    // drain happen under this one lock, so lines keep the module's order and
    // none is left behind in resp_ring.
    pthread_mutex_t line_lock = PTHREAD_MUTEX_INITIALIZER;
    mono_cond line_room;              // a line left a ring, or the routing changed
    std::atomic<int32_t> at_state{0}; // written under line_lock
    line_ring resp_ring;
    line_ring urc_ring;

    // Client. Senders hold client_lock for reading around each send; the
    // server changes the client under it for writing, so no frame goes to a
    // descriptor that is being closed.
    std::atomic<int32_t> client_fd{0};
    std::atomic<uint8_t> client_connected{0};
    // Which connection the client is (0: none); see client_attach.
    std::atomic<uint32_t> client_generation{0};
    pthread_rwlock_t client_lock = PTHREAD_RWLOCK_INITIALIZER;

    // Module identity
    char module_model[IDENTITY_SIZE];
    char module_imei[IDENTITY_SIZE];
    char sim_imsi[IDENTITY_SIZE];
    char operator_name[IDENTITY_SIZE];
    char signal_rssi[10];
    char smsc_number[20];
    // The concatenation reference of the last long SMS sent (the worker's).
    std::atomic<uint8_t> sms_reference{0};

    // Link check. The probe's socket, buffers and destination live on the
    // check thread's stack; only the sequence survives from one probe to the next.
    std::atomic<uint8_t> ping_disabled{1};
    uint32_t icmp_data_len = 56;
    uint32_t icmp_seq = 0; // the check thread's alone
    // Raised on every change of `call_active`: the check thread pauses on it
    // while a call lasts.
    wake_signal call_news;
};

// The single instance, zero-initialised but for the defaults above.
daemon_state &state();

// Sets a supervisor request (or `auto_dial`, `auto_check`) and wakes the supervisor.
void supervisor_request(std::atomic<uint8_t> &flag, uint8_t value);

// The row of the module present.
const module_family &current_family();

// Whether module commands can be served: false while the module starts, is
// reset, has left the bus, or a request for one of these waits. Status 13.
bool module_ready();
// Sets or clears `call_active` and wakes the check thread's call pause.
void call_active_set(uint8_t on);

// Puts every field back to its start value. Only for a process that has no
// other thread running (tests).
void daemon_state_reset();
