// Text helpers. Pure functions, usable from any thread. They ignore the locale and keep bytes that
// are not ASCII.
#pragma once

#include <string>

namespace ZEP::Text {

// The text without white space (space, \t, \n, \v, \f, \r) at both ends.
std::string trim(const std::string& text);

// The text with A to Z in lower case.
std::string toLowerCase(const std::string& text);

} // namespace ZEP::Text
