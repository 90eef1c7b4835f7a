#include "host/Text.h"

#include <algorithm>
#include <cstdint>

namespace {

// The bytes of the UTF-8 sequence at `place`, 0 when it is not valid; `character` becomes its value.
std::size_t sequenceLength(const std::string& text, std::size_t place, std::uint32_t& character) {
    const auto byteAt = [&](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned first = byteAt(place);
    if (first < 0x80) {
        character = first;
        return 1;
    }
    if (first < 0xC2 || first > 0xF4) {
        return 0;
    }
    std::size_t length = 2;
    if (first >= 0xF0) {
        length = 4;
    } else if (first >= 0xE0) {
        length = 3;
    }
    if (place + length > text.size()) {
        return 0;
    }
    character = first & (0xFFU >> (length + 1));
    for (std::size_t index = place + 1; index < place + length; ++index) {
        if ((byteAt(index) & 0xC0U) != 0x80) {
            return 0;
        }
        character = (character << 6U) | (byteAt(index) & 0x3FU);
    }
    const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
    const bool isTooLong =
        (length == 3 && character < 0x800) || (length == 4 && character < 0x10000);
    if (isSurrogate || isTooLong || character > 0x10FFFF) {
        return 0;
    }
    return length;
}

bool isHarmless(std::uint32_t character) {
    const bool isControl = character < 0x20 || (character >= 0x7F && character <= 0x9F);
    const bool isDirection = (character >= 0x200E && character <= 0x200F) ||
                             (character >= 0x2028 && character <= 0x202E) ||
                             (character >= 0x2066 && character <= 0x2069) || character == 0x61C;
    return !isControl && !isDirection;
}

} // namespace

std::size_t findInvalidUtf8(const std::string& text) {
    std::uint32_t character = 0;
    for (std::size_t place = 0; place < text.size();) {
        const std::size_t length = sequenceLength(text, place, character);
        if (length == 0) {
            return place;
        }
        place += length;
    }
    return std::string::npos;
}

std::string printable(const std::string& text) {
    std::string result;
    std::uint32_t character = 0;
    for (std::size_t place = 0; place < text.size();) {
        const std::size_t length = sequenceLength(text, place, character);
        if (length != 0 && isHarmless(character)) {
            result.append(text, place, length);
        } else if (length == 1 && character == '\n') {
            result += ' ';
        } else {
            result += '?';
        }
        place += std::max<std::size_t>(length, 1);
    }
    return result;
}

std::string masked(const std::string& text) {
    const auto at = text.rfind('@');
    if (at == std::string::npos) {
        return text;
    }
    const auto scheme = text.find("//");
    if (scheme > at) {
        return "***" + text.substr(at);
    }
    return text.substr(0, scheme + 2) + "***" + text.substr(at);
}

std::string utcText(std::time_t time) {
    char text[32];
    std::tm utc{};
    gmtime_r(&time, &utc);
    return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%SZ", &utc));
}

void addItem(std::string& list, const std::string& item) {
    if (!list.empty()) {
        list += ", ";
    }
    list += item;
}

std::string counted(long long count, const std::string& noun) {
    const std::string text = std::to_string(count) + " " + noun;
    return count == 1 ? text : text + "s";
}
