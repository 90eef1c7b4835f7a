#include "Report.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr const char* words[] = {"ok", "bad", "unknown"};
constexpr const char* colours[] = {"\033[32m", "\033[31m", "\033[33m"};

// What others wrote, such as a certificate's names, must not drive a terminal.
std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(),
        [](char character) { return static_cast<unsigned char>(character) < ' '; }, ' ');
    return text;
}

} // namespace

bool Report::add(const char* check, const Verdict& verdict) {
    if (verdict.outcome == Outcome::BAD || worst == Outcome::OK) {
        worst = verdict.outcome;
    }
    const auto index = static_cast<std::size_t>(verdict.outcome);
    const std::string cause = verdict.cause.substr(0, verdict.cause.find_last_not_of('.') + 1);
    Json::Value& entry = root["checks"].append(Json::Value());
    entry["check"] = check;
    entry["outcome"] = words[index];
    entry["seen"] = verdict.seen;
    entry["cause"] = cause;
    entry["remedy"] = verdict.remedy;
    if (!json) {
        const std::string line = verdict.seen + (cause.empty() ? "" : ": " + cause) +
                                 (verdict.remedy.empty() ? "" : ". Remedy: " + verdict.remedy);
        std::printf("%s%-7s%s %-13s %s\n", colour ? colours[index] : "", words[index],
                    colour ? "\033[0m" : "", check, printable(line).c_str());
        std::fflush(stdout);
    }
    return verdict.outcome != Outcome::BAD;
}

Outcome Report::finish(const std::string& fingerprint) {
    root["outcome"] = words[static_cast<std::size_t>(worst)];
    root["fingerprint"] = fingerprint;
    const char* const unseen[] = {
        "a well-formed key that is not the gateway's: compare the fingerprint with the cloud's",
        "an access list by client id: the doctor has another one than the daemon",
        "a second client with the daemon's client id: it shows as an unstable link only",
    };
    for (const char* const text : unseen) {
        root["notVisible"].append(text);
        if (!json && root["checks"].size() > 1) {
            std::printf("Not visible from here: %s\n", text);
        }
    }
    if (json) {
        std::fputs(Json::FastWriter().write(root).c_str(), stdout);
    }
    return worst;
}
