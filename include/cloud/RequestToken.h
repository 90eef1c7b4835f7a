// The token that proves that a request to the cloud comes from this gateway. A pure function,
// usable from any thread.
#pragma once

#include <string>

// SHA-256, in hexadecimal, of `gatewaySecret`, `timestampText`, "/api/" and `path` without
// separators. `path` is the path of the datagram and does not start with "/api/". The signed path
// does not depend on the URL of the request: the URL is the configured base followed by `path`, and
// the base ends with the prefix that the cloud verifies.
std::string makeRequestToken(const std::string& gatewaySecret, const std::string& timestampText,
                             const std::string& path);
