// Judges how the daemon interprets the values in its configuration. Pure functions, usable from any
// thread.
#pragma once

#include "Finding.h"

// One problem for each value whose type keeps the daemon from starting or from working.
Findings judgeTypes(const Json::Value& root);

// One problem for each value that the daemon replaces with another value or cannot use, and for
// each misspelt key. Every value must be of the right type. `ignored` gets the keys that the daemon
// does not know and that another program may own.
Findings judgeSettings(const Json::Value& root, std::vector<std::string>& ignored);
