// Whether the broker allows the daemon's MQTT user to publish replies, and whether a client reads
// them. Publishes the one message that the technician asked for.
#include "checks/Checks.h"

#include <mqtt_protocol.h>

namespace {

// The network server ignores this message, because it has neither "path" nor "result". The message
// is as large as a real reply may be.
std::string makeMessage() {
    constexpr std::size_t bytes = 8192;
    return "{\"doctor\":\"" + std::string(bytes, '.') + "\"}";
}

} // namespace

Findings checkReplies(Gateway& gateway) {
    constexpr long waitMs = 2000;
    constexpr int noSubscriber = 0x10; // MQTT 5 reason codes
    constexpr int tooLarge = 0x95;
    const std::string subject = "lora/veyra";
    const auto& mqtt = gateway.configuration["mqtt"];
    gateway.broker.reset(); // the doctor's own subscription would count as a reader
    MqttProbe probe(MQTT_PROTOCOL_V5);
    {
        const ActingAs service(gateway.user); // a firewall rule may depend on the user
        probe.connect(gateway.brokerHost, brokerAddress(mqtt).port, brokerCredentials(mqtt),
                      gateway.limitMs(waitMs));
    }
    const int result = probe.publish(subject.c_str(), makeMessage());
    probe.waitUntil([&] { return probe.publishResult.has_value(); }, gateway.limitMs(waitMs));
    if (probe.publishResult == tooLarge || result == MOSQ_ERR_OVERSIZE_PACKET) {
        return {bad("replies.too-large", subject,
                    "The broker rejects a message of 8 KiB. Replies of this size are lost.",
                    "Raise message_size_limit and max_packet_size of the broker.")};
    }
    if (!probe.publishResult) {
        return {unknown("replies.no-verdict", subject,
                        "The broker did not acknowledge the message. Perhaps the broker does not "
                        "support MQTT 5.")};
    }
    if (*probe.publishResult == noSubscriber) {
        return {bad("replies.not-read", subject,
                    "The broker accepts replies, but no client is subscribed to them.",
                    "Check that the network server runs, that it uses this broker, and that it "
                    "subscribes to lora/veyra.")};
    }
    if (*probe.publishResult != 0) {
        return {bad("replies.denied", subject,
                    "The broker denies publishing (reason code " +
                        std::to_string(*probe.publishResult) +
                        "). The broker does not report this to the daemon.",
                    "Allow the daemon's MQTT user to publish to this topic. Add to the broker's "
                    "ACL: topic write lora/veyra")};
    }
    return {ok(subject)};
}
