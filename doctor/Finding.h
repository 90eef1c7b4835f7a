// The result of a check. Plain data, usable from any thread.
#pragma once

#include "common/Json.h"

#include <string>
#include <utility>
#include <vector>

enum class Outcome { OK, BAD, UNKNOWN };

// The texts are complete sentences for a technician; they never hold a secret.
struct Finding {
    Outcome outcome;
    std::string id;      // stable, such as "broker.refused"; empty when the outcome is OK
    std::string subject; // what was examined
    std::string cause;
    std::string fix;   // what to do about a problem, with command() where possible
    Json::Value facts; // numbers and names for programs that read the report
};

using Findings = std::vector<Finding>;

// A line of a fix that is a command. The report does not break it: a technician copies it to a root
// shell, where the second half of a broken line would be a command of its own.
inline std::string command(const std::string& text) {
    return "\n  " + text;
}

inline Finding ok(std::string subject, Json::Value facts = {}) {
    return {Outcome::OK, {}, std::move(subject), {}, {}, std::move(facts)};
}

inline Finding bad(const char* id, std::string subject, std::string cause, std::string fix) {
    return {Outcome::BAD, id, std::move(subject), std::move(cause), std::move(fix), {}};
}

inline Finding unknown(const char* id, std::string subject, std::string cause,
                       std::string fix = {}) {
    return {Outcome::UNKNOWN, id, std::move(subject), std::move(cause), std::move(fix), {}};
}
