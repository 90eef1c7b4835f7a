#include "cloud/RequestToken.h"

#include "Crypto/Sha256.h"

std::string makeRequestToken(const std::string& gatewaySecret, const std::string& timestampText,
                             const std::string& path) {
    const std::string signedText = gatewaySecret + timestampText + "/api/" + path;
    return sha256Hex(signedText.data(), signedText.data() + signedText.size());
}
