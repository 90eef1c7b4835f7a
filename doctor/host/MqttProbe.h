// Talks to the broker as the daemon would, with time limits and with another client id: with the
// daemon's id, the broker would end the daemon's connection. One thread. The caller must initialise
// the broker library first.
#pragma once

#include "mqtt/BrokerSettings.h"

#include <functional>
#include <memory>
#include <mosquitto.h>
#include <optional>
#include <string>
#include <vector>

// One address of a host name.
struct HostAddress {
    std::string text; // numeric
    int error = 0;    // errno of connecting to it; 0: it accepts connections
};

struct AddressTrial {
    int resolverError = 0;          // of getaddrinfo(3); EAI_AGAIN also after the time limit
    std::vector<HostAddress> tried; // empty when the name could not be resolved
};

// Tries the addresses of the host in the order in which the daemon tries them, up to the first one
// that accepts a connection. Each attempt takes at most 2 s, all together at most `limitMs`.
AddressTrial tryAddresses(const BrokerAddress& broker, long limitMs);

class MqttProbe {
  public:
    // `protocol` is MQTT_PROTOCOL_V311, which the daemon uses, or MQTT_PROTOCOL_V5, with which the
    // broker reports whether it accepted a message.
    explicit MqttProbe(int protocol);
    ~MqttProbe();
    MqttProbe(const MqttProbe&) = delete;
    MqttProbe& operator=(const MqttProbe&) = delete;

    // Sends CONNECT to a numeric host and waits for the answer.
    void connect(const std::string& host, int port,
                 const std::optional<BrokerCredentials>& credentials, long limitMs);
    void subscribe(const char* topic, int qos);
    // Returns the library's result.
    int publish(const char* topic, const std::string& payload);

    // Lets the library work until `isDone` or for `limitMs`. Returns whether the connection lasts.
    bool waitUntil(const std::function<bool()>& isDone, long limitMs);

    // The responses of the broker.
    std::optional<int> connack;       // its return code
    std::optional<int> publishResult; // its MQTT 5 reason code
    bool isSubscribed = false;        // the broker has answered the subscription to the keepalive
    bool isDenied = false;            // the broker has denied that subscription
    bool keepaliveWasSeen = false;
    bool replyWasSeen = false;

  private:
    int keepaliveMessageId = -1;
    std::unique_ptr<mosquitto, decltype(&mosquitto_destroy)> client;
};
