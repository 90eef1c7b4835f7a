// One datagram's way from its text to the queued reply. Main thread only.
#pragma once

#include "VeyraServer/CircuitBreaker.h"
#include "common/Json.h"

#include <optional>

// What the upstream loop keeps across datagrams.
struct DatagramRelay {
    Json::Reader reader;
    std::optional<Json::FastWriter> writer; // always there; made anew after a large reply
    CircuitBreaker breaker;

    // Validates the datagram's `text`, sends it to the cloud unless the breaker refuses, and queues
    // the answer for the broker. Whatever is wrong with it is logged; nothing is thrown.
    void handleDatagram(const char* text);
};
