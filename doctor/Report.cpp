#include "Report.h"

#include "VeyraServer/Version.h"
#include "host/Text.h"

#include <ZEP/Text.h>

#include <cstdio>
#include <cstring>
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

// Text from outside, made safe to print. Text longer than 4096 bytes is shortened.
std::string shown(const std::string& text) {
    constexpr std::size_t longest = 4096;
    if (text.size() > longest) {
        return printable(text.substr(0, longest)) + "...";
    }
    return printable(text);
}

// How many bytes of the word fit into `room` bytes if no UTF-8 sequence is split.
std::size_t wholeCharacters(const std::string& word, std::size_t room) {
    while (room > 0 && (static_cast<unsigned char>(word[room]) & 0xC0U) == 0x80) {
        --room;
    }
    return room;
}

// Splits the text into lines of at most 80 characters. The first line begins with `start`; the
// other lines are indented by its length. A word that is too long is broken: a terminal must not
// continue it at the left edge, where it could look like a line of its own.
std::vector<std::string> wrapped(const std::string& start, const std::string& text) {
    std::vector<std::string> lines{start};
    std::istringstream words(shown(text));
    for (std::string word; words >> word;) {
        const bool isFirst = lines.back().size() == start.size();
        if (!isFirst && lines.back().size() + 1 + word.size() > lineWidth) {
            lines.emplace_back(start.size(), ' ');
        } else if (!isFirst) {
            lines.back() += ' ';
        }
        while (lines.back().size() + word.size() > lineWidth) {
            const std::size_t room = wholeCharacters(word, lineWidth - lines.back().size());
            lines.back() += word.substr(0, room);
            word.erase(0, room);
            lines.emplace_back(start.size(), ' ');
        }
        lines.back() += word;
    }
    return lines;
}

void printText(const std::string& start, const std::string& text) {
    for (const std::string& line : wrapped(start, text)) {
        std::printf("%s\n", line.c_str());
    }
}

bool isCommand(const std::string& line) {
    return line.rfind("  ", 0) == 0;
}

// Prints each line of a fix on a line of its own. A single command is appended to the sentence
// before it if the whole command fits on that line.
void printLines(const std::string& start, const std::string& text) {
    const std::string indent(start.size(), ' ');
    std::vector<std::string> printed;
    std::istringstream lines(text);
    bool mayJoin = false;
    for (std::string line; std::getline(lines, line);) {
        const std::string& head = printed.empty() ? start : indent;
        const bool isNext = lines.peek() == ' '; // another command follows
        if (isCommand(line) && mayJoin && !isNext &&
            printed.back().size() + line.size() <= lineWidth) {
            printed.back() += shown(line.substr(1));
        } else if (isCommand(line)) {
            printed.push_back(head + shown(line));
        } else if (!line.empty()) {
            const std::vector<std::string> more = wrapped(head, line);
            printed.insert(printed.end(), more.begin(), more.end());
        }
        mayJoin = !line.empty() && !isCommand(line);
    }
    for (const std::string& whole : printed) {
        std::printf("%s\n", whole.c_str());
    }
}

// The text of a fix in the JSON output. Its line breaks are kept.
std::string shownLines(const std::string& text) {
    std::istringstream parts(text);
    std::string result;
    for (std::string part; std::getline(parts, part);) {
        if (!result.empty()) {
            result += '\n';
        }
        result += shown(ZEP::Text::trim(part));
    }
    return result;
}

std::string describeSkip(const std::string& checks, const std::string& needed) {
    if (needed == "time") {
        return checks + ". Reason: the time limit was reached.";
    }
    return checks + ". Reason: the check \"" + needed + "\" is not ok.";
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
    entry["subject"] = shown(finding.subject);
    entry["cause"] = shown(finding.cause);
    entry["fix"] = shownLines(finding.fix);
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
    char head[40];
    std::snprintf(head, sizeof head, "%-7s %-13s ", style.word, check.c_str());
    std::vector<std::string> lines = wrapped(head, finding.subject);
    if (colour) {
        lines.front().insert(std::strlen(style.word), "\033[0m");
        lines.front().insert(0, style.colour);
    }
    for (const std::string& line : lines) {
        std::printf("%s\n", line.c_str());
    }
    if (!finding.cause.empty()) {
        printText("        cause: ", finding.cause);
    }
    if (!finding.fix.empty()) {
        printLines(style.fixLabel, finding.fix);
    }
    std::fflush(stdout);
}

void Report::printEnd(bool offerMore) const {
    for (const auto& [needed, checks] : skippedFor) {
        printText("Skipped: ", describeSkip(checks, needed));
    }
    if (problems > 0) {
        printText("", counted(problems, "problem") + " found. Fix first: " + firstProblem + ".");
        return;
    }
    if (worst == Outcome::UNKNOWN) {
        printText("", "No problem found, but not everything could be examined.");
    } else {
        printText("", "No problem found.");
    }
    if (offerMore) {
        printText("", "No reply was seen during this run. If replies are missing, run this command "
                      "with the gateway's serial number in place of SERIAL: "
                      "lora-veyra-doctor --publish --sign m1/gateways/SERIAL/check_in");
        printText(
            "",
            "The manual page lora-veyra-doctor(8) lists the faults that the doctor cannot detect.");
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

std::string Report::failure(bool asJson, const std::string& fault) {
    if (!asJson) {
        return "lora-veyra-doctor: " + printable(fault) + "\n";
    }
    Json::Value failure = makeRoot();
    failure["outcome"] = "error";
    failure["error"] = printable(fault);
    return Json::FastWriter().write(failure);
}
