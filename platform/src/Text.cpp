#include "ZEP/Text.h"

#include <algorithm>

namespace ZEP::Text {

namespace {

constexpr const char* whiteSpace = " \t\n\v\f\r";

char lowered(char character) {
    const bool upper = character >= 'A' && character <= 'Z';
    return upper ? static_cast<char>(character - 'A' + 'a') : character;
}

} // namespace

std::string trim(const std::string& text) {
    const auto first = text.find_first_not_of(whiteSpace);
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(whiteSpace) - first + 1);
}

std::string toLowerCase(const std::string& text) {
    std::string result = text;
    std::transform(result.begin(), result.end(), result.begin(), lowered);
    return result;
}

} // namespace ZEP::Text
