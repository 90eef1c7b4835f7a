// The proof that a request to the cloud comes from this gateway. A pure function.
#pragma once

#include <string>

// SHA-256, in hexadecimal, of `gatewaySecret`, `timestampText`, "/api/" and `path` (the datagram's,
// without a leading "/api/"). The request's URL does not decide what is signed: it is the
// configured base followed by the path, and the base ends in the prefix that the cloud verifies.
std::string makeRequestToken(const std::string& gatewaySecret, const std::string& timestampText,
                             const std::string& path);
