#include "checks/CloudCertificate.h"

#include "checks/Checks.h"
#include "cloud/CloudRequest.h"
#include "host/Text.h"

#include <algorithm>
#include <openssl/x509_vfy.h>

namespace {

constexpr const char* expectedRoot = "DigiCert Global Root CA";

// The names of the first few CA certificates in the file.
std::string namesOf(const std::vector<Certificate>& certificates) {
    constexpr std::size_t most = 3;
    std::string names;
    for (std::size_t index = 0; index < std::min(most, certificates.size()); ++index) {
        addItem(names, "\"" + certificates[index].subject + "\"");
    }
    if (certificates.size() > most) {
        names += " and " + std::to_string(certificates.size() - most) + " more";
    }
    return names;
}

// The top of the chain that the server sends: follows the issuers, starting at the server's own
// certificate.
const Certificate& topOf(const std::vector<Certificate>& chain) {
    const Certificate* top = &chain.front();
    for (const Certificate& next : chain) {
        if (next.subject == top->issuer) {
            top = &next;
        }
    }
    return *top;
}

// The certificate from the CA file that has the name of the chain's issuer; null when there is
// none.
const Certificate* issuerInFile(const Refusal& refusal) {
    const Certificate& top = topOf(refusal.chain);
    for (const Certificate& ca : refusal.trusted) {
        if (ca.subject == top.issuer) {
            return &ca;
        }
    }
    return nullptr;
}

std::string issuerOf(const Refusal& refusal) {
    return "\"" + topOf(refusal.chain).issuer + "\"";
}

std::string caFileContent(const Refusal& refusal) {
    return std::string(" The CA file ") + cloudCaFile + " contains " + namesOf(refusal.trusted);
}

std::string reinstallCaFile() {
    return "To restore the packaged CA file:" +
           command("apt-get install --reinstall ca-certificates");
}

Finding caHasOtherKey(const Refusal& refusal) {
    return bad(
        "cloud.ca-other-key", refusal.url,
        "The server's certificate names the issuer " + issuerOf(refusal) +
            ". This issuer is in the CA file, but the signature was made with another key: " +
            refusal.answer.error + ".",
        thenRestart("Either the CA file is old, or the certificate is forged. Ask the "
                    "operator of the cloud. If the certificate is genuine, install the "
                    "cloud's current CA certificate. " +
                    reinstallCaFile()));
}

Finding caIsMissing(const Refusal& refusal) {
    return bad("cloud.ca-missing", refusal.url,
               "The CA " + issuerOf(refusal) +
                   " issued the server's certificate. The certificate of this CA is missing from "
                   "the CA file." +
                   caFileContent(refusal) + ".",
               thenRestart("Ask the operator of the cloud whether this CA is correct. If not, a "
                           "proxy may have issued the server's certificate. If the CA is correct, "
                           "add its certificate to the CA file. " +
                           reinstallCaFile()));
}

Finding chainIsIncomplete(const Refusal& refusal) {
    return bad("cloud.incomplete-chain", refusal.url,
               "The server sends only its own certificate, and the issuer " + issuerOf(refusal) +
                   " is not in the CA file. Either the server does not send its intermediate "
                   "certificate, or a proxy issued the certificate." +
                   caFileContent(refusal) + ".",
               "Ask the operator of the cloud to send the complete chain.");
}

Finding certificateIsFromOtherCa(const Refusal& refusal) {
    return bad("cloud.other-ca", refusal.url,
               "The server's certificate is from another CA: " + issuerOf(refusal) + "." +
                   caFileContent(refusal) +
                   ". The daemon trusts only the CA certificates in this file.",
               thenRestart("Find out whether a proxy intercepts the connection. If not, ask the "
                           "operator of the cloud which CA is correct, and put the certificate of "
                           "this CA into the CA file."));
}

// The CA file does not verify the issuer of the top certificate. If the CA file is a bundle, or the
// issuer is the expected root, a certificate is missing from the file. If not, the server either
// left out its intermediate certificate or has a certificate from another CA.
Finding judgeIssuer(const Refusal& refusal) {
    const Certificate& top = topOf(refusal.chain);
    if (issuerInFile(refusal) != nullptr) {
        return caHasOtherKey(refusal);
    }
    const bool isExpected = top.issuer.find(expectedRoot) != std::string::npos;
    if (refusal.trusted.size() > 1 || isExpected) {
        return caIsMissing(refusal);
    }
    if (refusal.chain.size() == 1 && top.subject != top.issuer && !isIssuerKnown(top)) {
        return chainIsIncomplete(refusal);
    }
    return certificateIsFromOtherCa(refusal);
}

Finding judgeExpired(const Refusal& refusal) {
    const Certificate* const ca = issuerInFile(refusal);
    if (ca != nullptr && ca->isExpired) {
        return bad("cloud.ca-expired", refusal.url,
                   "The CA certificate in " + std::string(cloudCaFile) + " has expired.",
                   thenRestart("If the clock is wrong, set it first. Otherwise put the new CA "
                               "certificate of the cloud into the file."));
    }
    return bad("cloud.certificate-expired", refusal.url, refusal.answer.error + ".",
               "If the clock is wrong, set it first. Otherwise ask the operator of the cloud for a "
               "new certificate.");
}

} // namespace

Finding judgeCertificate(const Refusal& refusal) {
    if (refusal.answer.code == CURLE_SSL_CONNECT_ERROR) {
        return judgeIssuer(refusal); // a signature by another key ends the handshake
    }
    switch (refusal.answer.verifyResult) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return judgeExpired(refusal);
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return bad("cloud.certificate-not-yet-valid", refusal.url, refusal.answer.error + ".",
                   "Compare the gateway's clock with a clock that you trust. If the gateway's "
                   "clock is wrong, set it:" +
                       command("date -u -s 'YYYY-MM-DD hh:mm:ss'"));
    case X509_V_OK: // libcurl itself compares the host when OpenSSL has no objection
    case X509_V_ERR_UNSPECIFIED:
        return bad("cloud.host-mismatch", refusal.url,
                   refusal.answer.error +
                       ". The certificate is for: " + refusal.chain.front().hosts + ".",
                   "Ask the operator of the cloud for the correct host name. If "
                   "network.veyraServer already has it, the connection may be intercepted.");
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        return judgeIssuer(refusal);
    default:
        return bad("cloud.certificate-invalid", refusal.url,
                   "The server's certificate cannot be used: " + refusal.answer.error + ".",
                   "Ask the operator of the cloud for another certificate.");
    }
}
