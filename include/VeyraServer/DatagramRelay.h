// Relays datagrams: validates each one, sends it to the cloud and queues the reply for the broker.
// Main thread only.
#pragma once

#include "VeyraServer/CircuitBreaker.h"
#include "common/Json.h"

#include <optional>

// The members last as long as the upstream loop and are reused for every datagram.
struct DatagramRelay {
    Json::Reader reader;
    std::optional<Json::FastWriter> writer; // never empty; replaced after a large reply
    CircuitBreaker breaker;

    // Handles one datagram, whose text is `text`. Every fault is logged; nothing is thrown.
    void handleDatagram(const char* text);
};
