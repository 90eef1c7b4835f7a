// Which broker the configuration leads to, and as whom. Pure functions of the section "mqtt", usable
// from any thread. A value that cannot be converted throws Json::LogicError.
#pragma once

#include "common/Json.h"

#include <optional>
#include <string>

struct BrokerAddress {
    std::string host;
    int port;
};

struct BrokerCredentials {
    std::string username;
    std::string password;
};

// "host" and "port" when both are there.
std::optional<BrokerAddress> configuredBroker(const Json::Value& mqtt);

// The configured broker, else 127.0.0.1:1883.
BrokerAddress brokerAddress(const Json::Value& mqtt);

// "username" and "password" when both are there.
std::optional<BrokerCredentials> brokerCredentials(const Json::Value& mqtt);

// True when "enabled" is there and true.
bool brokerIsEnabled(const Json::Value& mqtt);
