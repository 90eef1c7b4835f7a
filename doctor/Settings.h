// Judges the configuration: what it says beside what takes effect of it. Pure functions, usable
// from any thread.
#pragma once

#include "Verdict.h"
#include "common/Json.h"

struct ConfigurationFacts {
    std::string path;
    bool isRoot = true; // looked at as the service's user, as only root can
    int error = 0;      // errno of reading it
    std::string text;
};

// One verdict for each fault, or one when there is none. `root` becomes the configuration, or null
// when the daemon could not start with it.
std::vector<Verdict> judgeConfiguration(const ConfigurationFacts& facts, Json::Value& root);

// A text, such as a URL, without what may be a user's name and password before an "@".
std::string maskedUrl(const std::string& text);
