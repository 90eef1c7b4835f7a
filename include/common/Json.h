// The JSON library with its old reader and writer classes. The program relies on what these do
// (comments accepted, keys in ascending order, one line with a line feed) and keeps them, so the
// library's advice to leave them is silenced here, once. Include this header, never json/json.h.
#pragma once

#include <json/config.h>
#undef JSONCPP_DEPRECATED
#define JSONCPP_DEPRECATED(message)
#include <json/json.h> // IWYU pragma: export
