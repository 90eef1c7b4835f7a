#include "host/MqttProbe.h"

#include "common/Clock.h"
#include "host/Files.h"
#include "host/Resolver.h"
#include "mqtt/Mosquitto.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

namespace {

std::string numericText(const addrinfo& address) {
    std::array<char, 128> text{};
    getnameinfo(address.ai_addr, address.ai_addrlen, text.data(), text.size(), nullptr, 0,
                NI_NUMERICHOST);
    return text.data();
}

// Returns errno, or 0.
int tryConnect(const addrinfo& address, long limitMs) {
    const Descriptor descriptor(
        socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (connect(descriptor.get(), address.ai_addr, address.ai_addrlen) == 0) {
        return 0;
    }
    if (errno != EINPROGRESS) {
        return errno;
    }
    pollfd waiting{descriptor.get(), POLLOUT, 0};
    if (poll(&waiting, 1, static_cast<int>(limitMs)) != 1) {
        return ETIMEDOUT;
    }
    int error = 0;
    socklen_t length = sizeof error;
    getsockopt(descriptor.get(), SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}

MqttProbe& probeOf(void* given) {
    return *static_cast<MqttProbe*>(given);
}

void onMessage(mosquitto* /*client*/, void* given, const mosquitto_message* message) {
    const bool isKeepalive = std::strcmp(message->topic, keepaliveTopic) == 0;
    if (message->retain) {
        return; // a retained message may be years old
    }
    const std::string_view text(static_cast<const char*>(message->payload),
                                static_cast<std::size_t>(message->payloadlen));
    // The result is null if the cloud's response was not valid JSON, for example a login page.
    const bool isReply = !isKeepalive && text.find("\"result\":") != std::string_view::npos &&
                         text.find("\"result\":null") == std::string_view::npos;
    probeOf(given).keepaliveWasSeen = probeOf(given).keepaliveWasSeen || isKeepalive;
    probeOf(given).replyWasSeen = probeOf(given).replyWasSeen || isReply;
}

} // namespace

AddressTrial tryAddresses(const BrokerAddress& broker, long limitMs) {
    constexpr long addressMs = 2000;
    const std::uint64_t endMs = monotonicMillis() + static_cast<std::uint64_t>(limitMs);
    const Resolution resolution = resolveWithin(broker.host, broker.port, limitMs - addressMs);
    AddressTrial trial{resolution.error, {}};
    const addrinfo* address = resolution.list.get();
    while (address != nullptr && monotonicMillis() < endMs) {
        trial.tried.push_back({numericText(*address), tryConnect(*address, addressMs)});
        address = address->ai_next;
        if (trial.tried.back().error == 0) {
            break;
        }
    }
    return trial;
}

MqttProbe::MqttProbe(int protocol)
    : client(nullptr, mosquitto_destroy) {
    const std::string clientId =
        "lora-veyra-doctor-" + std::to_string(getpid()) + "-" + std::to_string(protocol);
    client.reset(mosquitto_new(clientId.c_str(), true, this));
    mosquitto_int_option(client.get(), MOSQ_OPT_PROTOCOL_VERSION, protocol);
    mosquitto_connect_callback_set(
        client.get(), [](mosquitto*, void* given, int code) { probeOf(given).connack = code; });
    mosquitto_subscribe_callback_set(
        client.get(), [](mosquitto*, void* given, int id, int count, const int* granted) {
            if (id == probeOf(given).keepaliveMessageId) {
                probeOf(given).isSubscribed = true;
                probeOf(given).isDenied = count < 1 || granted[0] >= 128;
            }
        });
    mosquitto_message_callback_set(client.get(), onMessage);
    mosquitto_publish_v5_callback_set(
        client.get(), [](mosquitto*, void* given, int, int reason, const mosquitto_property*) {
            probeOf(given).publishResult = reason;
        });
}

MqttProbe::~MqttProbe() {
    mosquitto_disconnect(client.get());
}

void MqttProbe::connect(const std::string& host, int port,
                        const std::optional<BrokerCredentials>& credentials, long limitMs) {
    constexpr int keepaliveS = 30;
    if (credentials) {
        mosquitto_username_pw_set(client.get(), credentials->username.c_str(),
                                  credentials->password.c_str());
    }
    mosquitto_connect_async(client.get(), host.c_str(), port, keepaliveS);
    waitUntil([this] { return connack.has_value(); }, limitMs);
}

void MqttProbe::subscribe(const char* topic, int qos) {
    int messageId = 0;
    mosquitto_subscribe(client.get(), &messageId, topic, qos);
    if (std::strcmp(topic, keepaliveTopic) == 0) {
        keepaliveMessageId = messageId;
    }
}

int MqttProbe::publish(const char* topic, const std::string& payload) {
    return mosquitto_publish_v5(client.get(), nullptr, topic, static_cast<int>(payload.size()),
                                payload.data(), publishQos, false, nullptr);
}

bool MqttProbe::waitUntil(const std::function<bool()>& isDone, long limitMs) {
    constexpr int turnMs = 50;
    const std::uint64_t endMs = monotonicMillis() + static_cast<std::uint64_t>(limitMs);
    while (!isDone() && monotonicMillis() < endMs) {
        if (mosquitto_loop(client.get(), turnMs, 1) != MOSQ_ERR_SUCCESS) {
            return false;
        }
    }
    return true;
}
