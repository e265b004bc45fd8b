// The telemetry program's pure part: its configuration, what each event
// frame becomes, the retained state, and the queue that carries events
// across a broker's absence.

#include "mqtt/config.h"
#include "mqtt/telemetry.h"
#include "support/test_support.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

reply_frame frame(uint16_t code, uint16_t status, const std::string &text = "") {
    reply_frame f{code, status, text.size(), {}};
    memcpy(f.text, text.data(), text.size());
    return f;
}

std::string parse_error(const std::string &text) {
    mqtt::config c;
    std::string error;
    EXPECT_FALSE(mqtt::parse_config(text, &c, &error)) << text;
    return error;
}

TEST(MqttConfigTest, DefaultsFollowTlsAndEveryKeyIsTaken) {
    mqtt::config c;
    std::string error;
    ASSERT_TRUE(mqtt::parse_config("# fleet\r\nbroker=mqtt.example\r\n\n#port=1\n", &c, &error)) << error;
    EXPECT_EQ(c.broker, "mqtt.example");
    EXPECT_EQ(c.broker_port(), 1883);
    EXPECT_EQ(c.state_interval_s, 60);
    EXPECT_EQ(c.queue, 256);
    ASSERT_TRUE(mqtt::parse_config("broker=b\ntls_ca=/ca\ntls_cert=/c\ntls_key=/k\nusername=u\npassword_file=/p\n"
                                   "client_id=board-9\ntopic_prefix=fleet/north/board-9\nstate_interval_s=86400\nqueue=1\n",
                                   &c, &error))
        << error;
    EXPECT_EQ(c.broker_port(), 8883);
    EXPECT_EQ(c.tls_cert + c.tls_key + c.username + c.password_file, "/c/ku/p");
    EXPECT_EQ(c.client_id, "board-9");
    EXPECT_EQ(c.topic_prefix, "fleet/north/board-9");
    EXPECT_EQ(c.state_interval_s, 86400);
    EXPECT_EQ(c.queue, 1);
    ASSERT_TRUE(mqtt::parse_config("broker=b\ntls_ca=/ca\nport=1884\n", &c, &error));
    EXPECT_EQ(c.broker_port(), 1884);
}

// Each mistake is named by its key; the program turns it into exit status 2.
TEST(MqttConfigTest, BadValuesAreRefusedNamingTheKey) {
    EXPECT_EQ(parse_error(""), "configuration key broker: required (the broker's host name or address)");
    EXPECT_EQ(parse_error("broker=\n"), "configuration key broker: required (the broker's host name or address)");
    for (const char *port : {"0", "65536", "-1", "80a", "", "9999999999"})
        EXPECT_EQ(parse_error(std::string("broker=b\nport=") + port).rfind("configuration key port: '", 0), 0u) << port;
    for (const char *s : {"0", "86401", "1.5", " 60"})
        EXPECT_EQ(parse_error(std::string("broker=b\nstate_interval_s=") + s).rfind("configuration key state_interval_s:", 0), 0u) << s;
    EXPECT_EQ(parse_error("broker=b\nqueue=100001").rfind("configuration key queue:", 0), 0u);
    EXPECT_EQ(parse_error("broker=b\nBroker=c"), "configuration key Broker: not a key of zolvin_4g_mqtt");
    EXPECT_EQ(parse_error("broker=b\nbroker=c"), "configuration key broker: given twice");
    for (const char *prefix : {"a/+/b", "a/#", "/a", "a/"})
        EXPECT_EQ(parse_error(std::string("broker=b\ntopic_prefix=") + prefix).rfind("configuration key topic_prefix:", 0), 0u);
    EXPECT_EQ(parse_error("broker=b\nclient_id=a/b").rfind("configuration key client_id:", 0), 0u);
    EXPECT_EQ(parse_error("broker=b\nclient_id=" + std::string(129, 'x')).rfind("configuration key client_id:", 0), 0u);
    EXPECT_EQ(parse_error("broker=b\ntls_ca=/ca\ntls_key=/k"), "configuration key tls_cert: tls_cert and tls_key go together");
    EXPECT_EQ(parse_error("broker=b\ntls_cert=/c\ntls_key=/k").rfind("configuration key tls_ca: required", 0), 0u);
    EXPECT_EQ(parse_error("broker=b\nusername=a\tb").rfind("configuration key username:", 0), 0u);
}

TEST(MqttConfigTest, TheFileFillsInTheHostNameAndReadsThePassword) {
    temp_dir dir;
    const std::string password = dir.write("secret", "s3cret\r\nsecond line\n");
    mqtt::config c;
    std::string pw, error;
    ASSERT_TRUE(mqtt::load_config(dir.write("a.conf", "broker=b\nusername=u\npassword_file=" + password + "\n"), &c, &pw, &error))
        << error;
    EXPECT_EQ(pw, "s3cret");
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    EXPECT_EQ(c.client_id, host);
    EXPECT_EQ(c.topic_prefix, std::string("zolvin/") + host);
}

// Each event's topic and JSON are checked end to end against the client
// tool's; here what no live module sends, and what is no event: replies and
// failed completions.
TEST(MqttEventTest, ABadRecordGoesOutAsAFrameAndRepliesAreNoEvents) {
    mqtt::event_decoder d;
    std::vector<mqtt::event_message> got = d.take(frame(1031, 0, "99+1"));
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].kind, "sms");
    EXPECT_EQ(got[0].json, R"({"code":1031,"status":0,"status_name":"ok","text":"99+1"})");
    for (const reply_frame &f : {frame(912, 0, "Connected"), frame(913, 0, "up=1"), frame(901, 13), frame(561, 1, "x"),
                                 frame(402, 0, "OK"), frame(561, 5, "Fota updating 50%")})
        EXPECT_TRUE(d.take(f).empty()) << f.code << "/" << f.status;
}

TEST(MqttEventTest, ALongSmsIsOneMessageOnceItsLastFrameIsIn) {
    const std::string text(600, 'a');
    const std::string record = "03+86" "14" "20261123101542" "600" + text;
    mqtt::event_decoder d;
    EXPECT_TRUE(d.take(frame(1033, 1, record.substr(0, 492))).empty());
    // An event between the pieces goes out in its place.
    EXPECT_EQ(d.take(frame(1021, 1, "5")).size(), 1u);
    std::vector<mqtt::event_message> got = d.take(frame(1033, 0, record.substr(492)));
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].kind, "sms");
    EXPECT_EQ(parsed_json(got[0].json), "[[\"event\", \"sms\"], [\"from\", \"+86\"], [\"time\", \"2026-11-23T10:15:42\"], "
                                        "[\"text\", \"" + text + "\"]]\n");
    // Cut short by the daemon's going: what came is given, as a frame.
    EXPECT_TRUE(d.take(frame(1033, 1, record.substr(0, 492))).empty());
    std::optional<mqtt::event_message> rest = d.rest();
    ASSERT_TRUE(rest);
    EXPECT_EQ(rest->json.rfind("{\"code\":1033,\"status\":0,", 0), 0u);
    EXPECT_FALSE(d.rest());
}

TEST(MqttStateTest, TheStateCarriesEveryStatisticAndTheDropsAsAParserReadsThem) {
    reply_frame state = frame(912, 0, "Connected \"4G\""), stats = frame(913, 0,
        "up=100 link=1 link_s=40 dials=2 dial_failures=1 resets=0 lost=0 probes=9 probe_failures=1 sms_in=3 sms_out=4 dropped=5");
    EXPECT_EQ(parsed_json(mqtt::state_json(&state, &stats, 7)),
              "[[\"state\", \"Connected \\\"4G\\\"\"], [\"up\", 100], [\"link\", 1], [\"link_s\", 40], [\"dials\", 2], "
              "[\"dial_failures\", 1], [\"resets\", 0], [\"lost\", 0], [\"probes\", 9], [\"probe_failures\", 1], "
              "[\"sms_in\", 3], [\"sms_out\", 4], [\"dropped\", 5], [\"mqtt_dropped\", 7]]\n");
    // Not ready: no state text; statistics that do not read: all unknown.
    reply_frame not_ready = frame(912, 13), garbled = frame(913, 0, "up=x");
    EXPECT_EQ(parsed_json(mqtt::state_json(&not_ready, &garbled, 0)),
              "[[\"state\", null], [\"up\", null], [\"link\", null], [\"link_s\", null], [\"dials\", null], "
              "[\"dial_failures\", null], [\"resets\", null], [\"lost\", null], [\"probes\", null], "
              "[\"probe_failures\", null], [\"sms_in\", null], [\"sms_out\", null], [\"dropped\", null], "
              "[\"mqtt_dropped\", 0]]\n");
    EXPECT_EQ(mqtt::link_of(stats), 1u);
    EXPECT_FALSE(mqtt::link_of(garbled));
}

std::vector<std::string> unsent_in_order(mqtt::offline_queue &q, int first_mid) {
    std::vector<std::string> out;
    while (mqtt::offline_queue::entry *e = q.next_unsent()) {
        out.push_back(e->payload);
        q.sent(e, first_mid++);
    }
    return out;
}

TEST(MqttQueueTest, FullDropsTheOldestAndCountsIt) {
    mqtt::offline_queue q(3);
    for (const char *p : {"a", "b", "c", "d", "e"})
        q.push("t", p);
    EXPECT_EQ(q.dropped(), 2u);
    EXPECT_EQ(unsent_in_order(q, 1), (std::vector<std::string>{"c", "d", "e"}));
    // Sent but not acknowledged still counts against the bound.
    q.push("t", "f");
    EXPECT_EQ(q.dropped(), 3u);
    EXPECT_EQ(q.size(), 3u);
    EXPECT_EQ(q.at(0).payload, "d");
}

// A broker that dies with messages in flight: nothing unacknowledged is
// lost, and on the next connection everything kept goes out again in order,
// except what the broker had acknowledged.
TEST(MqttQueueTest, UnacknowledgedMessagesAreSentAgainInOrderAfterAConnectionIsLost) {
    mqtt::offline_queue q(8);
    for (const char *p : {"a", "b", "c", "d"})
        q.push("t", p);
    EXPECT_EQ(unsent_in_order(q, 10), (std::vector<std::string>{"a", "b", "c", "d"}));
    q.acked(10);           // a leaves
    q.acked(12);           // c acknowledged ahead of b: kept until b is
    EXPECT_EQ(q.size(), 3u);
    q.acked(99);           // not ours (the retained state's)
    q.push("t", "e");
    q.connection_lost();
    EXPECT_EQ(unsent_in_order(q, 1), (std::vector<std::string>{"b", "d", "e"}));
    q.acked(1);            // b: c behind it was acknowledged already
    EXPECT_EQ(q.size(), 2u);
    EXPECT_EQ(q.at(0).payload, "d");
    q.acked(2);
    q.acked(3);
    EXPECT_EQ(q.size(), 0u);
    EXPECT_EQ(q.dropped(), 0u);
}

} // namespace
