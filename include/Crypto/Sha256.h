// SHA-256 as text. Pure functions, usable from any thread.
#pragma once

#include "common/Hex.h"

#include <openssl/evp.h>
#include <stdexcept>
#include <string>

// Throws std::runtime_error when the library could not compute a digest: an unsigned request must
// never be sent.
inline void requireDigest(bool made) {
    if (!made) {
        throw std::runtime_error("no SHA-256");
    }
}

inline const EVP_MD* fetchSha256() {
    const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    requireDigest(algorithm != nullptr);
    return algorithm;
}

// The digest of the bytes in [first, last) as 64 lower-case hexadecimal digits. Throws like
// requireDigest.
inline std::string sha256Hex(const char* first, const char* last) {
    // Fetched once: fetching the algorithm takes half as long as the digest of a short text.
    static const EVP_MD* const sha256 = fetchSha256();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    requireDigest(EVP_Digest(first, static_cast<std::size_t>(last - first), digest, &length, sha256,
                             nullptr) == 1);
    return hexText(digest, length);
}
