// The JSON library with its old reader and writer classes. The program relies on their behaviour
// (comments are accepted, keys are written in ascending order, the output is one line with a line
// feed), so the library's deprecation warnings are switched off here. Include this header, never
// json/json.h.
#pragma once

#include <json/config.h>
#undef JSONCPP_DEPRECATED
#define JSONCPP_DEPRECATED(message)
#include <json/json.h> // IWYU pragma: export

#include <string>

// Parses the text of one JSON file and drops its comments. Returns false when the text is not valid
// JSON or is nested too deeply for the parser; `value` then holds the part before the fault. The
// library reports the nesting with an exception; this function catches it.
inline bool parseFile(const std::string& text, Json::Value& value) {
    try {
        return Json::Reader().parse(text, value, false);
    } catch (const Json::Exception&) {
        return false;
    }
}
