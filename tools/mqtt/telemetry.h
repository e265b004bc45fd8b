// What zolvin_4g_mqtt publishes, apart from any socket: the daemon's events
// as topics and JSON (as `zolvin_4g_ctl listen --json` shows them), the
// retained state, and the queue that holds events while the broker is away.
#pragma once

#include "core/frames.h"
#include "ctl/events.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace mqtt {

// The topic level under "<prefix>/event/" of an event frame, or nullptr for a
// frame that is no event (a reply to 912 or 913, or a 901 or 561 that failed).
const char *event_kind(const reply_frame &f);

struct event_message {
    std::string kind; // call, sms, ...
    std::string json; // one object, as `listen --json` prints it
};

// Turns the frames of the events socket into messages. A long SMS comes as
// 1033 frames with other frames possibly between them: it is one message,
// given when its last frame is in.
class event_decoder {
public:
    std::vector<event_message> take(const reply_frame &f);
    // An SMS record cut short when the daemon's socket closed, as `listen`
    // shows it then.
    std::optional<event_message> rest();

private:
    ctl::record_joiner joiner_;
};

// The retained state: 912's state text (null while the module is not ready),
// every statistic of 913 (null when not known) and the events this program
// dropped from its queue.
std::string state_json(const reply_frame *state_reply, const reply_frame *stats_reply, uint64_t mqtt_dropped);
// 913's `link`, when its text carries it.
std::optional<uint64_t> link_of(const reply_frame &stats_reply);

// Events kept until the broker has acknowledged them (QoS 1): those not yet
// sent wait for a connection, those sent wait for their PUBACK, so that a
// broker that goes away loses none of them. At most `capacity`: when full,
// the oldest is dropped and counted.
class offline_queue {
public:
    struct entry {
        std::string topic, payload;
        int mid = -1;      // the message id it was sent with; -1: not sent on this connection
        bool acked = false;
    };

    explicit offline_queue(size_t capacity);
    void push(std::string topic, std::string payload);
    // The oldest entry not yet sent on this connection, or nullptr.
    entry *next_unsent();
    void sent(entry *e, int mid);
    // The broker acknowledged `mid`: its entry, and any acknowledged run at
    // the front, leave the queue.
    void acked(int mid);
    // The connection is gone: every entry kept is to be sent again, in order.
    void connection_lost();

    size_t size() const { return count_; }
    size_t capacity() const { return ring_.size(); }
    uint64_t dropped() const { return dropped_; }
    // The entry `i` places from the oldest.
    const entry &at(size_t i) const { return ring_[(head_ + i) % ring_.size()]; }

private:
    entry &slot(size_t i) { return ring_[(head_ + i) % ring_.size()]; }
    void pop_front();

    std::vector<entry> ring_;
    size_t head_ = 0, count_ = 0;
    size_t sent_ = 0; // the first sent_ entries went out on this connection
    uint64_t dropped_ = 0;
};

} // namespace mqtt
