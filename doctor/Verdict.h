// What a check of the doctor comes to, and how: each check is a table of findings, judged from facts
// that others gathered. Plain data and pure functions, usable from any thread.
#pragma once

#include <string>
#include <utility>
#include <vector>

enum class Outcome { OK, BAD, UNKNOWN };

struct Verdict {
    Outcome outcome;
    std::string seen;   // what was looked at; never a secret
    std::string cause;  // of what is not ok
    std::string remedy; // of what is bad
};

struct Finding {
    bool applies;
    Outcome outcome;
    std::string cause;
    std::string remedy;
};

inline Finding bad(bool applies, std::string cause, std::string remedy) {
    return {applies, Outcome::BAD, std::move(cause), std::move(remedy)};
}

inline Finding unknown(bool applies, std::string cause) {
    return {applies, Outcome::UNKNOWN, std::move(cause), {}};
}

// The first finding that applies, else ok.
inline Verdict judge(std::string seen, const std::vector<Finding>& findings) {
    for (const Finding& finding : findings) {
        if (finding.applies) {
            return {finding.outcome, std::move(seen), finding.cause, finding.remedy};
        }
    }
    return {Outcome::OK, std::move(seen), {}, {}};
}
