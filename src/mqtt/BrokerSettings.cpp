#include "mqtt/BrokerSettings.h"

std::optional<BrokerAddress> configuredBroker(const Json::Value& mqtt) {
    if (mqtt.isMember("host") && mqtt.isMember("port")) {
        const int port = mqtt["port"].asInt(); // read first, so that its error is the one reported
        return BrokerAddress{mqtt["host"].asString(), port};
    }
    return std::nullopt;
}

BrokerAddress brokerAddress(const Json::Value& mqtt) {
    return configuredBroker(mqtt).value_or(BrokerAddress{"127.0.0.1", 1883});
}

std::optional<BrokerCredentials> brokerCredentials(const Json::Value& mqtt) {
    if (mqtt.isMember("username") && mqtt.isMember("password")) {
        return BrokerCredentials{mqtt["username"].asString(), mqtt["password"].asString()};
    }
    return std::nullopt;
}

bool brokerIsEnabled(const Json::Value& mqtt) {
    return mqtt.isMember("enabled") && mqtt["enabled"].asBool();
}
