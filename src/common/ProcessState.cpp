#include "common/ProcessState.h"

std::string gatewaySecret;
std::atomic<unsigned char> shutdownRequested{0};
std::atomic<bool> roleVeyra{false};
std::atomic<bool> roleNet{false};

// Required by the signal handler, which sets the stop flag.
static_assert(ATOMIC_CHAR_LOCK_FREE != 0 && ATOMIC_BOOL_LOCK_FREE != 0);

Json::Value& configurationForStartup() {
    // Never destroyed, because the broker worker reads it until the process is gone.
    static auto& root = *new Json::Value;
    return root;
}

const Json::Value& configuration() {
    return configurationForStartup();
}
