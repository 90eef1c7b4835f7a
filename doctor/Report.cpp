#include "Report.h"

#include "VeyraServer/Version.h"
#include "host/Text.h"

#include <cstdio>
#include <sstream>
#include <unistd.h>

namespace {

constexpr int schemaVersion = 1;
constexpr std::size_t lineWidth = 80;

struct Style {
    const char* word;
    const char* colour;
    const char* fixLabel;
};

Style styleOf(Outcome outcome) {
    switch (outcome) {
    case Outcome::OK:
        return {"ok", "\033[32m", "        try:   "};
    case Outcome::BAD:
        return {"bad", "\033[31m", "        fix:   "};
    default:
        return {"unknown", "\033[33m", "        fix:   "};
    }
}

Json::Value makeRoot() {
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    Json::Value root;
    root["schema"] = schemaVersion;
    root["program"] = "lora-veyra-doctor";
    root["version"] = programVersion;
    root["host"] = printable(host);
    root["time"] = utcText(std::time(nullptr));
    return root;
}

// Breaks the line at spaces and indents what follows. A word that is too long, such as a path, stays
// whole.
void printLine(const std::string& start, const std::string& text) {
    std::string line = start;
    std::istringstream words(printable(text));
    bool isFirst = true;
    for (std::string word; words >> word;) {
        if (!isFirst && line.size() + 1 + word.size() > lineWidth) {
            std::printf("%s\n", line.c_str());
            line = std::string(start.size(), ' ');
            isFirst = true;
        }
        if (!isFirst) {
            line += ' ';
        }
        line += word;
        isFirst = false;
    }
    std::printf("%s\n", line.c_str());
}

// Each line of the text on a line of its own.
void printWrapped(std::string start, const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        printLine(start, line);
        start.assign(start.size(), ' ');
    }
}

} // namespace

Report::Report(bool asJson, bool inColour)
    : json(asJson)
    , colour(inColour)
    , root(makeRoot()) {
    root["checks"] = Json::Value(Json::arrayValue);
    root["skipped"] = Json::Value(Json::arrayValue);
}

void Report::add(const std::string& check, const Finding& finding) {
    if (finding.outcome == Outcome::BAD || worst == Outcome::OK) {
        worst = finding.outcome;
    }
    if (finding.outcome == Outcome::BAD && problems++ == 0) {
        firstProblem = check + " (" + finding.id + ")";
        root["fixFirst"] = finding.id;
    }
    Json::Value& entry = root["checks"].append(finding.facts);
    entry["check"] = check;
    entry["outcome"] = styleOf(finding.outcome).word;
    entry["id"] = finding.id.empty() ? check + ".ok" : finding.id;
    entry["subject"] = printable(finding.subject);
    entry["cause"] = printable(finding.cause);
    entry["fix"] = printable(finding.fix);
    if (!json) {
        printFinding(check, finding);
    }
}

void Report::skip(const std::string& check, const std::string& needed) {
    Json::Value& entry = root["skipped"].append(Json::Value());
    entry["check"] = check;
    entry["needs"] = needed;
    addItem(skippedFor[needed], check);
    if (worst == Outcome::OK) {
        worst = Outcome::UNKNOWN;
    }
}

void Report::printFinding(const std::string& check, const Finding& finding) const {
    const Style style = styleOf(finding.outcome);
    const std::string subject = printable(finding.subject);
    if (colour) {
        std::printf("%s%-7s\033[0m %-13s %s\n", style.colour, style.word, check.c_str(),
                    subject.c_str());
    } else {
        std::printf("%-7s %-13s %s\n", style.word, check.c_str(), subject.c_str());
    }
    if (!finding.cause.empty()) {
        printWrapped("        cause: ", finding.cause);
    }
    if (!finding.fix.empty()) {
        printWrapped(style.fixLabel, finding.fix);
    }
    std::fflush(stdout);
}

void Report::printEnd(bool offerMore) const {
    for (const auto& [needed, checks] : skippedFor) {
        printWrapped("Skipped because of " + needed + ": ", checks + ".");
    }
    if (problems > 0) {
        printWrapped("", counted(problems, "problem") + " found. Fix first: " + firstProblem + ".");
        return;
    }
    if (worst == Outcome::UNKNOWN) {
        printWrapped("", "No problem found, but not everything could be examined.");
    } else {
        printWrapped("", "No problem found.");
    }
    if (offerMore) {
        printWrapped("", "No reply was seen during this run. If replies are missing, run: "
                         "lora-veyra-doctor --publish --sign m1/gateways/SERIAL/check_in");
        printWrapped("", "lora-veyra-doctor(8) lists the faults that the doctor cannot see.");
    }
}

Outcome Report::finish(const std::string& fingerprint, bool offerMore) {
    if (!json) {
        printEnd(offerMore);
        return worst;
    }
    root["outcome"] = styleOf(worst).word;
    root["problems"] = problems;
    if (!fingerprint.empty()) {
        root["fingerprint"] = fingerprint;
    }
    std::fputs(Json::FastWriter().write(root).c_str(), stdout);
    return worst;
}

void Report::fail(bool asJson, const std::string& fault) {
    if (!asJson) {
        std::fprintf(stderr, "lora-veyra-doctor: %s\n", printable(fault).c_str());
        return;
    }
    Json::Value failure = makeRoot();
    failure["outcome"] = "error";
    failure["error"] = printable(fault);
    std::fputs(Json::FastWriter().write(failure).c_str(), stdout);
}
