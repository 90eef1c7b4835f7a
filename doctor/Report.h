// What the doctor says: a line for each check as it ends, or one JSON object at the end. One
// thread.
#pragma once

#include "Verdict.h"
#include "common/Json.h"

class Report {
  public:
    Report(bool asJson, bool inColour)
        : json(asJson)
        , colour(inColour) {}

    // Returns whether it is not bad.
    bool add(const char* check, const Verdict& verdict);

    // Ends the report. Returns the worst outcome.
    Outcome finish(const std::string& fingerprint);

  private:
    bool json;
    bool colour;
    Outcome worst = Outcome::OK;
    Json::Value root;
};
