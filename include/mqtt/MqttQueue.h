// The messages on their way to the broker. Threads that want something published never touch the
// client: they append a copy here, and the broker worker takes one record a pass.
//
// Any thread may enqueue. mqttQueue is touched under mqttLock only and lives until the process is
// gone. A record belongs to the queue once added and to the worker once removed.
#pragma once

#include <ZEP/Lock.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

struct MqttMessage {
    std::unique_ptr<char[]> payload; // `length` bytes and a 0
    std::int32_t length;
    std::string tag;   // carried along, not published
    std::string topic; // below "lora/"
};

// Guards mqttQueue, lastKeepalive and lastKeepaliveSent. The worker holds it while it publishes.
extern ZEP::Lock& mqttLock;

// Unbounded. The worker skips null entries.
extern std::deque<std::unique_ptr<MqttMessage>>& mqttQueue;

// Appends a copy of the message. `topic` is the part below "lora/", `length` the payload's bytes.
// False, logged here, only when no record could be made.
bool enqueueMqttMessage(const std::string& tag, const std::string& topic, const void* payload,
                        int length);
