#include "common/ProcessState.h"

std::string gatewaySecret;
std::atomic<unsigned char> shutdownRequested{0};
std::atomic<bool> roleVeyra{false};
std::atomic<bool> roleNet{false};

// The signal handler writes the stop flag.
static_assert(std::atomic<unsigned char>::is_always_lock_free);

Json::Value& configurationForStartup() {
    // Never destroyed, since the broker worker reads it until the process is gone.
    static auto& root = *new Json::Value;
    return root;
}

const Json::Value& configuration() {
    return configurationForStartup();
}
