#include "mqtt/Mosquitto.h"

#include "common/Clock.h"
#include "common/Exception.h"
#include "common/Log.h"
#include "common/ProcessState.h"
#include "mqtt/BrokerSettings.h"
#include "mqtt/MqttQueue.h"

#include <cstring>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <new>
#include <sys/socket.h>

Mosquitto* mqttClient = nullptr;
std::uint64_t lastKeepalive = 0;
std::uint64_t lastKeepaliveSent = 0;

namespace {

constexpr const char* bridgeClientId = "VEYRA_SERVER";
constexpr int subscriptionQos = 2;

bool isRoleKeepalive(const char* topic) {
    return (roleVeyra && std::strcmp(topic, keepaliveTopic) == 0) ||
           (roleNet && std::strcmp(topic, "lora/net_keepalive") == 0);
}

// Empty: the network server's topic dispatcher is not part of this program.
void dispatchNetworkServerMessage(const mosquitto_message& /*message*/) {}

} // namespace

Mosquitto::Mosquitto(const char* idText, const char* hostText, int portNumber)
    : mosqpp::mosquittopp(idText, true)
    , host(hostText)
    , id(idText)
    , port(portNumber) {
    mosqpp::lib_init();
    keepalive = 5;
    setCredentials();
    connect(host, port, keepalive);
    networkThreadStarted = loop_start() == MOSQ_ERR_SUCCESS;
    if (!networkThreadStarted) {
        // Without this call the library takes the calling thread for the network thread, and
        // cancels it when the client is destroyed.
        threaded_set(false);
    }
}

Mosquitto::~Mosquitto() {
    disconnect();
    // Only reduces the library's count of users: startup has added one user permanently.
    mosqpp::lib_cleanup();
    // The base destructor cancels and joins the network thread too, but a callback could then run
    // on an object of which only the base is left.
    if (networkThreadStarted) {
        loop_stop(true);
    }
}

void Mosquitto::setCredentials() {
    if (const auto credentials = brokerCredentials(configuration()["mqtt"])) {
        username_pw_set(credentials->username.c_str(), credentials->password.c_str());
    }
}

void Mosquitto::on_connect(int rc) {
    if (rc != 0) {
        VEYRA_LOG(ERROR, "MQTT - Impossible to connect with server(%d)", rc);
        return;
    }
    VEYRA_LOG(TRACE, "MQTT - connected with server %s", id);
    sendWithoutDelay();
    connected = true;
    subscribeToRole();
    // Has no effect: this callback runs in the network thread, and the library does not start a
    // second one. Kept on purpose.
    loop_start();
}

// With the kernel's default, a small packet waits until the peer has acknowledged the previous one.
// A reply that follows a keepalive would wait for up to 40 ms.
void Mosquitto::sendWithoutDelay() {
    const int on = 1;
    setsockopt(socket(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void Mosquitto::subscribeToRole() {
    if (std::strncmp(id, bridgeClientId, std::strlen(bridgeClientId)) == 0) {
        subscribe(nullptr, keepaliveTopic, subscriptionQos);
        return;
    }
    subscribe(nullptr, "lora/+/+", subscriptionQos);
    subscribe(nullptr, "lora/veyra", subscriptionQos);
    subscribe(nullptr, "lora/net_keepalive", subscriptionQos);
}

void Mosquitto::on_disconnect(int rc) {
    VEYRA_LOG(TRACE, "MQTT - disconnected (%d)", rc);
    connected = false;
}

void Mosquitto::on_publish(int /*mid*/) {}

void Mosquitto::on_message(const mosquitto_message* message) {
    try {
        if (isRoleKeepalive(message->topic)) {
            const std::lock_guard<ZEP::Lock> guard(mqttLock);
            lastKeepalive = monotonicMillis();
        } else {
            dispatchNetworkServerMessage(*message);
        }
    } catch (const Exception& exception) {
        VEYRA_LOG(ERROR, "%s", exceptionRecord("Mosquitto Msg exception : ", exception).c_str());
    }
}

void Mosquitto::on_subscribe(int mid, int qosCount, const int* grantedQos) {
    VEYRA_LOG(TRACE, "MQTT - subscribed id: %d qos_count: %d granted_qos: %d", mid, qosCount,
              grantedQos[0]);
}

void Mosquitto::on_error() {
    VEYRA_LOG(ERROR, "MQTT - error occured");
}

bool Mosquitto::sendMessage(const char* topic, const void* payload, int length) {
    try {
        int mid = 0;
        return publish(&mid, topic, length, payload, publishQos, false) == MOSQ_ERR_SUCCESS;
    } catch (const Exception& exception) {
        VEYRA_LOG(ERROR, "%s",
                  exceptionRecord("Mosquitto publish exception : ", exception).c_str());
        return false;
    }
}

Mosquitto* createMqttClient() {
    const Json::Value& mqtt = configuration()["mqtt"];
    if (const auto broker = configuredBroker(mqtt)) {
        return new (std::nothrow) Mosquitto(bridgeClientId, broker->host.c_str(), broker->port);
    }
    const BrokerAddress broker = brokerAddress(mqtt);
    return new Mosquitto(bridgeClientId, broker.host.c_str(), broker.port);
}
