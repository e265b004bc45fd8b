// What the telemetry program publishes of the daemon's frames, whose texts
// come from outside (the module, the network, a caller): a run of frames cut
// from the bytes (code from two bytes, status from one, text up to a 0xFF)
// (at most 12) goes through the decoder and the offline queue. Every message must be one
// JSON object that a reader written apart accepts, on a topic of a known
// kind; a long SMS must come out once; the queue must keep its bound, its
// order and its count of drops. The state must be an object too.
#include "mqtt/telemetry.h"

#include "fuzz_support.h"
#include "json_check.h"

#include <string>
#include <vector>

namespace {

bool known_kind(const std::string &k) {
    for (const char *name : {"call", "speech_end", "tone", "sms", "sms_report", "module", "module_error", "restarted",
                             "firmware"})
        if (k == name)
            return true;
    return false;
}

reply_frame received(uint16_t code, uint16_t status, const std::string &text) {
    uint8_t frame[REPLY_MAX];
    size_t len = reply_build(frame, code, status, text.c_str());
    reply_frame f;
    check(reply_parse(frame, len, &f) == static_cast<long>(len));
    return f;
}

// Every event, the answers the program asks for, and a pass-through line it must pass over.
const uint16_t FRAME_CODES[] = {EVENT_CALL,   EVENT_TTS_DONE,     EVENT_TONE,      EVENT_SMS,
                                EVENT_SMS_REPORT, EVENT_SMS_PART, EVENT_MODULE,    EVENT_MODULE_ERROR,
                                EVENT_RESTARTED,  EVENT_FOTA_DONE, CODE_STATE,     CODE_STATS,
                                EVENT_AT_LINE};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    auto block = exact_copy(data, size);
    const uint8_t *p = block.get(), *end = p + size;
    mqtt::event_decoder decoder;
    mqtt::offline_queue queue(5);
    std::vector<std::string> pushed; // every payload in push order
    reply_frame last_913 = received(CODE_STATS, 0, "");
    int mid = 1;
    // A few frames are enough to join a record, fill the queue and lose a
    // connection; more only slow the run.
    for (int frames = 0; frames < 12 && end - p >= 3; ++frames) {
        const uint16_t code = FRAME_CODES[p[0] % (sizeof FRAME_CODES / sizeof FRAME_CODES[0])];
        const uint16_t status = static_cast<uint16_t>(p[1] % 8 == 7 ? p[1] : p[1] % 8);
        const uint8_t action = p[2];
        p += 3;
        std::string text;
        while (p < end && *p != 0xFF)
            text += static_cast<char>(*p++);
        if (p < end)
            ++p;
        const reply_frame f = received(code, status, text);
        if (code == 913)
            last_913 = f;
        for (const mqtt::event_message &m : decoder.take(f)) {
            check(known_kind(m.kind) && m.kind == mqtt::event_kind(f));
            json_check::object o;
            check(json_check::read(m.json, &o));
            queue.push("p/event/" + m.kind, m.json);
            pushed.push_back(m.json);
        }
        // The connection's life beside the frames: send, acknowledge, lose.
        if (action % 4 == 0) {
            if (mqtt::offline_queue::entry *e = queue.next_unsent())
                queue.sent(e, mid++);
        } else if (action % 4 == 1) {
            queue.acked(1 + action / 4 % (mid > 1 ? mid - 1 : 1));
        } else if (action % 4 == 2 && action > 200) {
            queue.connection_lost();
        }
        check(queue.size() <= queue.capacity());
    }
    // What is kept is of the newest pushed, in order, acknowledged ones aside.
    size_t at = pushed.size();
    for (size_t i = queue.size(); i-- > 0;) {
        while (at > 0 && pushed[at - 1] != queue.at(i).payload)
            --at;
        check(at > 0 && pushed.size() - at <= queue.capacity() + queue.dropped());
        --at;
    }
    if (std::optional<mqtt::event_message> m = decoder.rest()) {
        json_check::object o;
        check(m->kind == "sms" && json_check::read(m->json, &o));
    }
    check(queue.dropped() <= pushed.size());
    json_check::object o;
    check(json_check::read(mqtt::state_json(&last_913, &last_913, queue.dropped()), &o) && o.size() == 14);
    return 0;
}
