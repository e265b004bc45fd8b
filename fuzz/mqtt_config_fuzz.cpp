// The telemetry program's configuration text: any bytes either give a
// configuration whose every value is in its range (a port, a period, a queue
// that can be allocated, a topic prefix without wildcards) or a message that
// names a key or a line; nothing else.
#include "mqtt/config.h"

#include "fuzz_support.h"

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    auto block = exact_copy<char>(data, size);
    const std::string text(block.get(), size);
    mqtt::config c;
    std::string error;
    if (!mqtt::parse_config(text, &c, &error)) {
        check(error.rfind("configuration key ", 0) == 0 || error.rfind("configuration line ", 0) == 0);
        return 0;
    }
    check(error.empty() && !c.broker.empty());
    check(c.broker_port() >= 1 && c.broker_port() <= 65535);
    check(c.port != 0 || c.broker_port() == (c.tls_ca.empty() ? 1883 : 8883));
    check(c.state_interval_s >= 1 && c.state_interval_s <= 86400);
    check(c.queue >= 1 && c.queue <= 100000);
    check(c.tls_cert.empty() == c.tls_key.empty() && (c.tls_cert.empty() || !c.tls_ca.empty()));
    check(c.topic_prefix.find_first_of("+#") == std::string::npos);
    check(c.client_id.find_first_of("/+#") == std::string::npos && c.client_id.size() <= 128);
    for (const std::string *v : {&c.broker, &c.tls_ca, &c.username, &c.password_file, &c.topic_prefix})
        for (char ch : *v)
            check(static_cast<unsigned char>(ch) >= 0x20 && ch != 0x7F);
    return 0;
}
