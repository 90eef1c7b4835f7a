// Whether the clock is right: certificates and signatures depend on it.
#include "checks/Clock.h"

#include "checks/Checks.h"
#include "host/Text.h"

#include <algorithm>
#include <cstdlib>
#include <openssl/x509_vfy.h>

namespace {

const char* const setByHand = "date -u -s 'YYYY-MM-DD hh:mm:ss'";

bool isSane(std::time_t time) {
    constexpr std::time_t from = 1735689600; // 2025
    constexpr std::time_t to = 4102444800;   // 2100
    return time >= from && time <= to;
}

// The response has a date, and comes from the cloud.
Finding compare(const std::string& subject, const HttpAnswer& cloud, const std::string& fix) {
    constexpr std::time_t toleranceS = 60;
    if (!isSane(cloud.date)) {
        return unknown("clock.no-reference", subject,
                       "The cloud's own clock is wrong: it reports " + utcText(cloud.date) + ".");
    }
    std::time_t aheadS = cloud.dateTaken - cloud.date;
    // Some caches replace the Date header. Others keep it, and the response then looks older by its
    // age. Therefore the age may explain a part of the difference, but never more than all of it.
    aheadS -= std::clamp<std::time_t>(aheadS, 0, cloud.ageS);
    Finding finding = ok(subject);
    if (std::abs(aheadS) > toleranceS) {
        finding = bad("clock.wrong", subject,
                      "The clock is " + counted(std::abs(aheadS), "second") +
                          (aheadS < 0 ? " behind the cloud." : " ahead of the cloud."),
                      fix);
    }
    finding.facts["aheadSeconds"] = Json::Int64{aheadS};
    return finding;
}

} // namespace

Finding judgeClock(std::time_t now, const HttpAnswer& cloud) {
    const std::string subject = utcText(now);
    const std::string fix = "Set the clock with NTP, or by hand:" + command(setByHand);
    if (!isSane(now)) {
        return bad("clock.not-set", subject,
                   "The clock is not set, so certificates and signatures are rejected.", fix);
    }
    if (cloud.date != 0 && cloud.isUnverified) {
        return unknown("clock.unverified", subject,
                       "The server reports " + utcText(cloud.date) +
                           ", but nothing proves that this server is the cloud. Do not set the "
                           "clock to this time.");
    }
    if (cloud.date != 0) {
        return compare(subject, cloud, fix);
    }
    if (cloud.verifyResult == X509_V_ERR_CERT_NOT_YET_VALID) {
        return bad("clock.wrong", subject,
                   "The gateway's clock shows a time at which the cloud's certificate is not valid "
                   "yet. The clock is probably behind.",
                   fix);
    }
    return unknown(
        "clock.no-reference", subject,
        "No response with a Date header arrived from the cloud, so the clock was not checked.");
}

Findings checkClock(Gateway& gateway) {
    return {judgeClock(std::time(nullptr), gateway.cloud)};
}
