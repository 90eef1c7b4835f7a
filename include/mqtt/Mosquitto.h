// The connection to the gateway's MQTT broker.
//
// The constructor connects and starts the broker library's network thread, which runs the
// callbacks. The broker worker owns the only instance, publishes through it, and replaces it when
// the link is dead. The destructor cancels the network thread at any point, even while a callback
// writes a log record. Therefore callbacks hold locks only through guards and catch no exception
// but Exception.
#pragma once

#include <atomic>
#include <cstdint>
#include <mosquittopp.h>

// The client publishes this topic and subscribes to it: the echo proves that the link works.
constexpr const char* keepaliveTopic = "lora/veyra_keepalive";
constexpr int publishQos = 1;

class Mosquitto final : public mosqpp::mosquittopp {
  public:
    // Connects to `host`:`port` as client `id`. Uses "username" and "password" of the section
    // "mqtt" if both are present. A failed connection is not reported here: isConnected() stays
    // false. `id` must outlive the object. `host` is used only during construction. Clients whose
    // id begins with "VEYRA_SERVER" subscribe to the bridge's keepalive, others to the network
    // server's topics.
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

    // Publishes with QoS 1, not retained. True when the library accepted the message.
    bool sendMessage(const char* topic, const void* payload, int length);

    // The network thread sets the flag when the broker accepts the connection and clears it when
    // the connection is lost.
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
    bool networkThreadStarted = false;
};

// The current client, or null. main creates the first one before the broker worker runs; after that
// only the worker uses it. Not destroyed at exit, because the worker may still use it.
extern Mosquitto* mqttClient;

// monotonicMillis() when the echo of the keepalive last arrived, and when the keepalive was last
// published. Guarded by mqttLock.
extern std::uint64_t lastKeepalive;
extern std::uint64_t lastKeepaliveSent;

// Creates a client for the configured broker. If memory is exhausted, returns null for a configured
// "host" and "port", but throws std::bad_alloc for the default broker 127.0.0.1:1883.
Mosquitto* createMqttClient();
