// The queue of messages to the broker. Threads never publish through the client themselves: they
// append a copy of the message here, and the broker worker publishes one message in each pass.
//
// Any thread may enqueue. Access to mqttQueue requires mqttLock; the queue is never destroyed. It
// owns its records until the worker removes them.
#pragma once

#include <ZEP/Lock.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

struct MqttMessage {
    std::vector<char> payload; // `length` bytes and a 0
    std::int32_t length;
    std::string tag;   // not published
    std::string topic; // without the prefix "lora/"
};

// Guards mqttQueue, lastKeepalive and lastKeepaliveSent. The broker worker holds it while it
// publishes.
extern ZEP::Lock& mqttLock;

// Unbounded. The broker worker skips null entries.
extern std::deque<std::unique_ptr<MqttMessage>>& mqttQueue;

// Appends a copy of the message. `topic` lacks the prefix "lora/"; `length` is the size of the
// payload in bytes. Logs an error and returns false when there is no memory for the copy.
bool enqueueMqttMessage(const std::string& tag, const std::string& topic, const void* payload,
                        int length);
