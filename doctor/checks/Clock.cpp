// Whether the clock is right: certificates and signatures depend on it.
#include "checks/Clock.h"

#include "checks/Checks.h"
#include "host/Text.h"

#include <cstdlib>
#include <openssl/x509_vfy.h>

Finding judgeClock(std::time_t now, const HttpAnswer& cloud) {
    constexpr std::time_t saneFrom = 1735689600; // 2025
    constexpr std::time_t saneTo = 4102444800;   // 2100
    constexpr std::time_t toleranceS = 60;
    const std::string subject = utcText(now);
    const std::string fix =
        "Set the clock with NTP, or by hand:" + command("date -u -s 'YYYY-MM-DD hh:mm:ss'");
    if (now < saneFrom || now > saneTo) {
        return bad("clock.not-set", subject,
                   "The clock is not set, so certificates and signatures are rejected.", fix);
    }
    if (cloud.date != 0 && cloud.isUnverified) {
        return unknown(
            "clock.unverified", subject,
            "The server reports " + utcText(cloud.date) +
                ", but nothing proves that it is the cloud. Do not set the clock to this time.");
    }
    if (cloud.date != 0 && (cloud.date < saneFrom || cloud.date > saneTo)) {
        return unknown("clock.no-reference", subject,
                       "The cloud's own clock is wrong: it reports " + utcText(cloud.date) + ".");
    }
    if (cloud.date != 0) {
        const std::time_t aheadS = cloud.dateTaken - cloud.date;
        if (std::abs(aheadS) > toleranceS) {
            Finding finding = bad("clock.wrong", subject,
                                  "The clock is " + counted(std::abs(aheadS), "second") +
                                      (aheadS < 0 ? " behind the cloud." : " ahead of the cloud."),
                                  fix);
            finding.facts["aheadSeconds"] = Json::Int64{aheadS};
            return finding;
        }
        Json::Value facts;
        facts["aheadSeconds"] = Json::Int64{aheadS};
        return ok(subject, facts);
    }
    if (cloud.verifyResult == X509_V_ERR_CERT_NOT_YET_VALID) {
        return bad("clock.wrong", subject, "The cloud's certificate is not valid yet at this time.",
                   fix);
    }
    return unknown(
        "clock.no-reference", subject,
        "No response with a Date header arrived from the cloud, so the clock was not checked.");
}

Findings checkClock(Gateway& gateway) {
    return {judgeClock(std::time(nullptr), gateway.cloud)};
}
