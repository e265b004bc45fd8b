#include "mqtt/telemetry.h"

#include <utility>

namespace mqtt {

namespace {

const ctl::print_style JSON{true};

} // namespace

const char *event_kind(const reply_frame &f) {
    switch (f.code) {
    case EVENT_CALL: return "call";
    case EVENT_TTS_DONE: return "speech_end";
    case EVENT_TONE: return "tone";
    case EVENT_SMS:
    case EVENT_SMS_PART: return "sms";
    case EVENT_SMS_REPORT: return "sms_report";
    case EVENT_MODULE: return "module";
    case EVENT_MODULE_ERROR: return "module_error";
    // Only the completions reach subscribers; a failure is the asking client's reply.
    case EVENT_RESTARTED: return f.status == STATUS_OK ? "restarted" : nullptr;
    case EVENT_FOTA_DONE: return f.status == STATUS_OK ? "firmware" : nullptr;
    default: return nullptr;
    }
}

std::vector<event_message> event_decoder::take(const reply_frame &f) {
    const char *kind = event_kind(f);
    if (kind == nullptr)
        return {};
    std::vector<event_message> out;
    if (f.code == EVENT_SMS_PART) {
        for (const ctl::joined_record &r : joiner_.take(f)) {
            std::string json = r.whole ? ctl::format_sms_record(r.text, JSON) : "";
            if (json.empty())
                json = ctl::format_text_frame(EVENT_SMS_PART, 0, r.text, JSON, false);
            out.push_back({kind, std::move(json)});
        }
        return out;
    }
    // Frames without a decoded form (the completions, or a text that does not
    // add up) go out as `listen` prints them: code, status and text.
    std::string json = ctl::format_event(f, JSON);
    if (json.empty())
        json = ctl::format_frame(f, JSON, false);
    out.push_back({kind, std::move(json)});
    return out;
}

std::optional<event_message> event_decoder::rest() {
    std::optional<ctl::joined_record> r = joiner_.rest();
    if (!r)
        return std::nullopt;
    return event_message{"sms", ctl::format_text_frame(EVENT_SMS_PART, 0, r->text, JSON, false)};
}

std::optional<uint64_t> link_of(const reply_frame &stats_reply) {
    ctl::daemon_stats s;
    if (stats_reply.status != STATUS_OK || !ctl::parse_stats(std::string(stats_reply.text, stats_reply.text_len), &s))
        return std::nullopt;
    return s.get("link");
}

std::string state_json(const reply_frame *state_reply, const reply_frame *stats_reply, uint64_t mqtt_dropped) {
    // 912 carries its text with busy (12) too; not ready (13) has none.
    std::string out = "{\"state\":";
    if (state_reply != nullptr && state_reply->text_len > 0 &&
        (state_reply->status == STATUS_OK || state_reply->status == STATUS_BUSY))
        out += ctl::quoted(std::string(state_reply->text, state_reply->text_len));
    else
        out += "null";
    ctl::daemon_stats s;
    bool read = stats_reply != nullptr && stats_reply->status == STATUS_OK &&
                ctl::parse_stats(std::string(stats_reply->text, stats_reply->text_len), &s);
    for (size_t i = 0; i < ctl::STATS_KEY_COUNT; ++i) {
        out += ",\"" + std::string(ctl::STATS_KEYS[i]) + "\":";
        out += read && s.known[i] ? std::to_string(s.value[i]) : "null";
    }
    return out + ",\"mqtt_dropped\":" + std::to_string(mqtt_dropped) + "}";
}

offline_queue::offline_queue(size_t capacity) : ring_(capacity == 0 ? 1 : capacity) {}

void offline_queue::pop_front() {
    slot(0) = entry{};
    head_ = (head_ + 1) % ring_.size();
    --count_;
    if (sent_ > 0)
        --sent_;
}

void offline_queue::push(std::string topic, std::string payload) {
    if (count_ == ring_.size()) {
        // The newest events say the most about the board now.
        pop_front();
        ++dropped_;
    }
    entry &e = slot(count_++);
    e.topic = std::move(topic);
    e.payload = std::move(payload);
    e.mid = -1;
    e.acked = false;
}

offline_queue::entry *offline_queue::next_unsent() {
    // One the broker acknowledged before the connection went is not sent again.
    while (sent_ < count_ && slot(sent_).acked)
        ++sent_;
    return sent_ < count_ ? &slot(sent_) : nullptr;
}

void offline_queue::sent(entry *e, int mid) {
    if (e != &slot(sent_) || sent_ >= count_)
        return;
    e->mid = mid;
    ++sent_;
}

void offline_queue::acked(int mid) {
    for (size_t i = 0; i < sent_; ++i) {
        if (slot(i).mid == mid) {
            slot(i).acked = true;
            break;
        }
    }
    while (count_ > 0 && slot(0).acked)
        pop_front();
}

void offline_queue::connection_lost() {
    for (size_t i = 0; i < count_; ++i)
        slot(i).mid = -1;
    sent_ = 0;
    // (Acknowledged entries stay marked: next_unsent() passes over them.)
}

} // namespace mqtt
