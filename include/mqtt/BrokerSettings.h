// The broker's address and the credentials for it. Pure functions of the section "mqtt" of the
// configuration, usable from any thread. They throw Json::LogicError for a value of the wrong type.
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

// "host" and "port" when both are present.
std::optional<BrokerAddress> configuredBroker(const Json::Value& mqtt);

// The configured broker, or 127.0.0.1:1883.
BrokerAddress brokerAddress(const Json::Value& mqtt);

// "username" and "password" when both are present.
std::optional<BrokerCredentials> brokerCredentials(const Json::Value& mqtt);

// True when "enabled" is present and true.
bool brokerIsEnabled(const Json::Value& mqtt);
