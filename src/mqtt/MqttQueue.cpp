#include "mqtt/MqttQueue.h"

#include "common/Log.h"

#include <cstring>
#include <mutex>
#include <new>
#include <utility>

// Never destroyed, since the worker uses them until the process is gone.
ZEP::Lock& mqttLock = *new ZEP::Lock;
std::deque<std::unique_ptr<MqttMessage>>& mqttQueue = *new std::deque<std::unique_ptr<MqttMessage>>;

namespace {

std::unique_ptr<MqttMessage> makeMessage(const std::string& tag, const std::string& topic,
                                         const void* payload, int length) {
    std::unique_ptr<MqttMessage> message(new (std::nothrow) MqttMessage{{}, length, tag, topic});
    if (message == nullptr) {
        return nullptr;
    }
    const auto bytes = static_cast<std::size_t>(length);
    message->payload.reset(new (std::nothrow) char[bytes + 1]);
    if (message->payload == nullptr) {
        return nullptr;
    }
    std::memcpy(message->payload.get(), payload, bytes);
    message->payload[bytes] = 0;
    return message;
}

} // namespace

bool enqueueMqttMessage(const std::string& tag, const std::string& topic, const void* payload,
                        int length) {
    std::unique_ptr<MqttMessage> message = makeMessage(tag, topic, payload, length);
    if (message == nullptr) {
        VEYRA_LOG(ERROR, "Failed to create MQTT message, out of memory");
        return false;
    }
    const std::lock_guard<ZEP::Lock> guard(mqttLock);
    mqttQueue.push_back(std::move(message));
    return true;
}
