// The JSON library with its old reader and writer classes. The program relies on what these do
// (comments accepted, keys in ascending order, one line with a line feed) and keeps them, so the
// library's advice to leave them is silenced here, once. Include this header, never json/json.h.
#pragma once

#include <json/config.h>
#undef JSONCPP_DEPRECATED
#define JSONCPP_DEPRECATED(message)
#include <json/json.h> // IWYU pragma: export

#include <string>

// Parses one whole JSON file, comments dropped. False when it is no JSON; that a file is nested too
// deeply for the parser is a fault like any other, though the library throws it. `value` then holds
// whatever was read before the fault.
inline bool parseFile(const std::string& text, Json::Value& value) {
    try {
        return Json::Reader().parse(text, value, false);
    } catch (const Json::Exception&) {
        return false;
    }
}
