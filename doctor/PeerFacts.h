// Asks the daemon's peers, the cloud and the broker, as the daemon would, with time limits. One
// thread; what is returned is the caller's. libcurl and the broker library are initialised before.
#pragma once

#include "PeerChecks.h"
#include "mqtt/BrokerSettings.h"

// An unsigned HEAD on `url`. Takes 6 s at most, and 2 s to look at a certificate that is refused.
CloudFacts askCloud(const std::string& url);

// The status that a signed GET of `path` gets; 0 when there is no answer within 5 s.
long askSigned(const std::string& url, const std::string& path, const std::string& secret);

// LISTEN waits 12 s at most for a keepalive of the daemon's, PUBLISH publishes an empty object on
// lora/veyra by MQTT 5, where the broker says what becomes of it.
enum class BrokerTask { CONNECT, LISTEN, PUBLISH };

BrokerFacts askBroker(const BrokerAddress& address,
                      const std::optional<BrokerCredentials>& credentials, BrokerTask task);
