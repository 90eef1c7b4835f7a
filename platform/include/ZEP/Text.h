// Text helpers. Pure functions, usable from any thread; only ASCII is looked at, whatever the
// locale, and other bytes are kept.
#pragma once

#include <string>

namespace ZEP::Text {

// The text without white space (blank, \t, \n, \v, \f, \r) at either end.
std::string trim(const std::string& text);

// The text with A to Z lowered.
std::string toLowerCase(const std::string& text);

} // namespace ZEP::Text
