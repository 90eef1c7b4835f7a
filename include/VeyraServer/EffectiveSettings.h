// The settings whose effective value may differ from the value in the configuration file. Pure
// functions of the whole configuration, usable from any thread.
#pragma once

#include "VeyraServer/CircuitBreaker.h"
#include "common/Json.h"

#include <cstdint>

// The port for datagrams on 127.0.0.1: udp.veyraPort truncated to 16 bits. 1790 if udp.veyraPort is
// not an unsigned integer.
std::uint16_t effectivePort(const Json::Value& root);

// A closed circuit breaker with the effective thresholds.
CircuitBreaker effectiveBreaker(const Json::Value& root);
