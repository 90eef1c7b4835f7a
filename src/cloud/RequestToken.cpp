#include "cloud/RequestToken.h"

#include "Crypto/Sha256.h"

std::string makeRequestToken(const std::string& gatewaySecret, const std::string& timestampText,
                             const std::string& path) {
    constexpr const char* prefix = "/api/";
    std::string signedText;
    signedText.reserve(gatewaySecret.size() + timestampText.size() + 8 + path.size());
    signedText += gatewaySecret;
    signedText += timestampText;
    signedText += prefix;
    signedText += path;
    return sha256Hex(signedText.data(), signedText.data() + signedText.size());
}
