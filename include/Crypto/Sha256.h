// SHA-256 as text. A pure function, usable from any thread.
#pragma once

#include "common/Hex.h"

#include <openssl/evp.h>
#include <string>

// The digest of the bytes in [first, last): 64 lower-case hexadecimal digits.
inline std::string sha256Hex(const char* first, const char* last) {
    // Looking the algorithm up for every digest costs half as much again as a short text's digest.
    static const EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(first, static_cast<std::size_t>(last - first), digest, &length, sha256, nullptr);
    return hexText(digest, length);
}
