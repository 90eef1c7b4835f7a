#include "mqtt/MqttQueue.h"

#include "common/Log.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <utility>

// Never destroyed, because the worker uses them until the process is gone.
ZEP::Lock& mqttLock = *new ZEP::Lock;
std::deque<std::unique_ptr<MqttMessage>>& mqttQueue = *new std::deque<std::unique_ptr<MqttMessage>>;

namespace {

// Returns null when there is no memory.
std::unique_ptr<MqttMessage> makeMessage(const std::string& tag, const std::string& topic,
                                         const void* payload, int length) {
    try {
        auto message = std::make_unique<MqttMessage>();
        message->payload.resize(static_cast<std::size_t>(length) + 1);
        std::copy_n(static_cast<const char*>(payload), length, message->payload.begin());
        message->length = length;
        message->tag = tag;
        message->topic = topic;
        return message;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
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
