// The output of the doctor: lines for an 80-column terminal after each check, or one JSON object at
// the end. All texts pass through printable(). One thread.
#pragma once

#include "Finding.h"

#include <map>

class Report {
  public:
    Report(bool asJson, bool inColour);

    void add(const std::string& check, const Finding& finding);

    // Records that `check` was not run because `needed` was not ok.
    void skip(const std::string& check, const std::string& needed);

    // Ends the report. `offerMore` adds further suggestions when no problem was found. Returns the
    // worst outcome.
    Outcome finish(const std::string& fingerprint, bool offerMore);

    // The text of the whole report when the doctor could not do its work.
    static std::string failure(bool asJson, const std::string& fault);

  private:
    void printFinding(const std::string& check, const Finding& finding) const;
    void printEnd(bool offerMore) const;

    bool json;
    bool colour;
    Outcome worst = Outcome::OK;
    int problems = 0;
    std::string firstProblem;                      // such as "broker (broker.refused)"
    std::map<std::string, std::string> skippedFor; // the skipped checks, by what they depend on
    Json::Value root;
};
