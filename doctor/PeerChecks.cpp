#include "PeerChecks.h"

#include "HostChecks.h"
#include "cloud/CloudRequest.h"

#include <cstdlib>
#include <cstring>
#include <openssl/x509_vfy.h>

namespace {

bool isDateFault(const CloudFacts& facts) {
    return facts.verifyCode == X509_V_ERR_CERT_HAS_EXPIRED ||
           facts.verifyCode == X509_V_ERR_CERT_NOT_YET_VALID;
}

const char* silenceOf(const CloudFacts& facts) {
    return !facts.resolved    ? "no answer from the name servers: see /etc/resolv.conf"
           : !facts.connected ? "the host does not answer: look at the route and at packet filters"
           : facts.verified && !facts.secured
               ? "what listens there is silent, it makes no TLS handshake: mend host and port"
               : "it takes the request and is silent: the cloud's own trouble, the daemon waits "
                 "without a limit";
}

} // namespace

Verdict judgeCloud(const CloudFacts& facts) {
    const bool refused = facts.code == CURLE_PEER_FAILED_VERIFICATION;
    const std::string words = facts.words + facts.certificate;
    const std::string authority = std::string(cloudCaFile) + ": ";
    const char* const install = "install ca-certificates; the file must be readable for all";
    return judge(
        facts.url + (facts.code == CURLE_OK
                         ? ", an unsigned HEAD gives " + std::to_string(facts.status)
                         : ""),
        {bad(facts.authorityError != 0, authority + std::strerror(facts.authorityError), install),
         bad(facts.code == CURLE_SSL_CACERT_BADFILE, authority + "no certificate in it", install),
         bad(refused && isDateFault(facts), words,
             "if clock is bad, set it first; else the cloud needs a new certificate"),
         // libcurl itself compares the host, when OpenSSL has nothing to object to.
         bad(refused && facts.verifyCode <= X509_V_ERR_UNSPECIFIED, words,
             "write the host in network.veyraServer that the certificate is for"),
         bad(refused, words,
             "only the authority in " + std::string(cloudCaFile) +
                 " is trusted: this is another's, perhaps a proxy's in between"),
         bad(facts.code == CURLE_OPERATION_TIMEDOUT, facts.words, silenceOf(facts)),
         bad(facts.code == CURLE_COULDNT_RESOLVE_HOST, facts.words,
             "mend the host in network.veyraServer, or the name servers"),
         bad(facts.code != CURLE_OK, facts.words,
             "mend scheme, host and port in network.veyraServer, or the daemon's proxy; else the "
             "cloud is down"),
         bad(facts.status >= 502 && facts.status <= 504, "out of order behind its front",
             "wait, or ask whoever runs it")});
}

Verdict judgeClock(const CloudFacts& facts, std::time_t now) {
    constexpr std::time_t saneFrom = 1735689600; // 2025
    constexpr std::time_t saneTo = 4102444800;   // 2100
    constexpr std::time_t toleranceS = 60;
    const std::time_t aheadS = facts.date == 0 ? 0 : facts.dateTaken - facts.date;
    const char* const remedy = "set it: NTP, or date -u -s; no restart is needed";
    return judge(
        utcText(now) + (facts.date == 0 ? "" : ", the cloud's is " + utcText(facts.date)),
        {bad(now < saneFrom || now > saneTo,
             "it was never set: certificates and signatures are refused", remedy),
         bad(std::abs(aheadS) > toleranceS,
             std::to_string(std::abs(aheadS)) + (aheadS < 0 ? " s behind" : " s ahead"), remedy),
         bad(facts.date == 0 && isDateFault(facts),
             "outside of the certificate's dates" + facts.certificate, remedy),
         unknown(facts.date == 0, "a sane year, but the cloud tells no time")});
}

Verdict judgeSignature(const std::string& path, long status, const std::string& fingerprint) {
    return judge("signed GET of " + path + " gives " + std::to_string(status),
                 {bad(status == 401 || status == 403,
                      "refused: with clock and identity right, it knows another key or deviceId",
                      "compare the fingerprint " + fingerprint + " with whoever runs the cloud"),
                  unknown(status / 100 != 2, "says nothing of the signature")});
}

Verdict judgeBroker(const BrokerFacts& facts) {
    const bool refused = facts.answer == 4 || facts.answer == 5;
    return judge(
        facts.address + (facts.user.empty() ? ", anonymous" : " as " + facts.user),
        {bad(facts.answer == -1, facts.words, "start the broker, or mend mqtt.host and mqtt.port"),
         bad(refused && facts.user.empty(), "it refuses who gives no name",
             "set mqtt.username and mqtt.password"),
         bad(refused, "it refuses name or password",
             "mend mqtt.username and mqtt.password, or the broker's users"),
         unknown(facts.answer != 0, "it refuses the doctor with code " +
                                        std::to_string(facts.answer) +
                                        ", perhaps for its client id")});
}

Verdict judgeEcho(const BrokerFacts& facts) {
    const char* const remedy = "let the daemon's user read and write it (access list: topic "
                               "readwrite lora/veyra_keepalive)";
    return judge(
        "lora/veyra_keepalive",
        {unknown(facts.ended, "the broker ended the connection"),
         bad(facts.denied, "the broker denies the subscription", remedy),
         bad(!facts.heard && !facts.linked,
             "nothing in 12 s: the daemon is not connected and publishes none", "see alive"),
         bad(!facts.heard,
             "nothing in 12 s: it may not be read or written, or, if alive is bad, is not "
             "published",
             remedy)});
}

Verdict judgeReplies(const BrokerFacts& facts) {
    constexpr int noSubscriber = 0x10;
    return judge("an empty object on lora/veyra",
                 {unknown(facts.published == -1, "no acknowledgement: a broker without MQTT 5?"),
                  bad(facts.published == noSubscriber, "taken, but nobody subscribes it",
                      "see why the network server does not listen"),
                  bad(facts.published != 0,
                      "denied, reason code " + std::to_string(facts.published) +
                          " (the daemon's own client is told success)",
                      "let the daemon's user write it (access list: topic write lora/veyra)")});
}
