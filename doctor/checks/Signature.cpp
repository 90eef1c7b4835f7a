// Whether the cloud accepts the gateway's signature. Sends the one signed request that the
// technician asked for.
#include "VeyraServer/GatewaySecret.h"
#include "checks/Checks.h"

Findings checkSignature(Gateway& gateway) {
    constexpr long requestMs = 5000;
    const std::string& path = *gateway.options.signedPath;
    if (gateway.cloud.isUnverified) {
        return {unknown("signature.not-sent", "GET " + path,
                        "Nothing proves that the server is the cloud, so no signature was sent.")};
    }
    if (gateway.daemon != nullptr && gateway.daemon->isForeign) {
        return {unknown("signature.not-sent", "GET " + path,
                        "The process that --pid names does not run the installed program on this "
                        "host, so no signature was sent.")};
    }
    const std::string secret = buildGatewaySecret(gateway.device, gateway.configuration["network"]);
    const ActingAs service(gateway.user); // a firewall rule may depend on the user
    const long status = askSigned(gateway.configuration["network"]["veyraServer"].asString(), path,
                                  secret, gateway.limitMs(requestMs));
    Finding finding = ok("GET " + path);
    if (status == 401 || status == 403) {
        finding = bad("signature.rejected", "GET " + path,
                      "The cloud rejects the signature. If clock and identity are ok, the cloud "
                      "has another key or another deviceId for this gateway.",
                      "Check with the operator of the cloud that both sides have the same "
                      "fingerprint: " +
                          gateway.fingerprint);
    } else if (status == 0) {
        finding = unknown("signature.no-response", "GET " + path,
                          "No response arrived within the doctor's time limit.");
    } else if (status / 100 != 2) {
        finding = unknown("signature.no-verdict", "GET " + path,
                          "Status " + std::to_string(status) +
                              " does not show whether the signature is valid.");
    }
    finding.facts["httpStatus"] = Json::Int64{status};
    return {finding};
}
