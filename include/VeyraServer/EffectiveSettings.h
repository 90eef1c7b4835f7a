// What takes effect of the configuration where that may differ from what it says. Pure functions of
// the whole configuration, usable from any thread.
#pragma once

#include "VeyraServer/CircuitBreaker.h"
#include "common/Json.h"

#include <cstdint>

// The port on 127.0.0.1 for datagrams: udp.veyraPort cut to 16 bits, 1790 when that is no unsigned
// integer.
std::uint16_t effectivePort(const Json::Value& root);

// A closed circuit with the thresholds that take effect.
CircuitBreaker effectiveBreaker(const Json::Value& root);
