// SHA-256 as text. A pure function, usable from any thread.
#pragma once

#include "common/Hex.h"

#include <openssl/sha.h>
#include <string>

// The digest of the bytes in [first, last): 64 lower-case hexadecimal digits.
inline std::string sha256Hex(const char* first, const char* last) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(first), static_cast<std::size_t>(last - first),
           digest);
    return hexText(digest, sizeof digest);
}
