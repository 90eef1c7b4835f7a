// The program's connection to the gateway's MQTT broker.
//
// Constructing it connects and starts the broker library's network thread, which runs the
// callbacks; the broker worker owns the one live instance, publishes through it, and destroys and
// rebuilds it when the link is dead. Destroying it cancels the network thread wherever it is, a
// callback's log record included: callbacks hold locks by guards only, and catch nothing but
// Exception.
#pragma once

#include <atomic>
#include <cstdint>
#include <mosquittopp.h>

// The topic whose echo proves that the link works.
constexpr const char* keepaliveTopic = "lora/veyra_keepalive";
constexpr int publishQos = 1;

class Mosquitto final : public mosqpp::mosquittopp {
  public:
    // Connects to `host`:`port` as client `id`, with the credentials of the configuration's "mqtt"
    // section when it has both. A connection that fails shows only later, in `connected`. `id`
    // must outlive the object, `host` the constructor. Clients whose id begins with "VEYRA_SERVER"
    // subscribe to the bridge's keepalive, others to the network server's topics.
    Mosquitto(const char* id, const char* host, int port);
    ~Mosquitto() override;
    Mosquitto(const Mosquitto&) = delete;
    Mosquitto& operator=(const Mosquitto&) = delete;

    void on_connect(int rc) override;
    void on_disconnect(int rc) override;
    void on_publish(int mid) override;
    void on_message(const mosquitto_message* message) override;
    void on_subscribe(int mid, int qosCount, const int* grantedQos) override;
    void on_error() override;

    // Publishes with QoS 1, not retained. True when the library took the message.
    bool sendMessage(const char* topic, const void* payload, int length);

    // Set by the network thread after an accepted connection, cleared when it is lost.
    bool isConnected() const { return connected; }

  private:
    void setCredentials();
    void sendWithoutDelay();
    void subscribeToRole();

    const char* host; // used only during construction
    const char* id;
    std::int32_t port;
    std::int32_t keepalive = 0; // MQTT keepalive interval, seconds
    std::atomic<bool> connected{false};
    bool networkThreadRuns = false; // loop_start succeeded
};

// The live client; null when there is none. Made by main before the worker runs, afterwards only
// the worker touches it. Never destroyed at exit, since the worker may be using it.
extern Mosquitto* mqttClient;

// monotonicMillis() when the bridge's keepalive was last heard back, and when it was last
// published. Under mqttLock.
extern std::uint64_t lastKeepalive;
extern std::uint64_t lastKeepaliveSent;

// A client for the broker of the configuration: "host" and "port" of the section "mqtt" when both
// are there, which is null when memory is exhausted; else for 127.0.0.1:1883.
Mosquitto* createMqttClient();
