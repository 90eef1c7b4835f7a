#include "host/Text.h"

#include <algorithm>
#include <cstdint>

namespace {

// The length of a UTF-8 sequence, from its first byte; 0 for a byte that cannot begin a sequence.
std::size_t lengthBy(unsigned first) {
    if (first < 0x80) {
        return 1;
    }
    if (first < 0xC2 || first > 0xF4) {
        return 0;
    }
    if (first < 0xE0) {
        return 2;
    }
    return first < 0xF0 ? 3 : 4;
}

// Whether UTF-8 permits this number of bytes for a character of this value.
bool isAllowed(std::uint32_t character, std::size_t length) {
    const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
    const bool isTooLong =
        (length == 3 && character < 0x800) || (length == 4 && character < 0x10000);
    return !isSurrogate && !isTooLong && character <= 0x10FFFF;
}

// Returns the length of the UTF-8 sequence at `place` in bytes, or 0 when it is not valid. Stores
// its value in `character`.
std::size_t sequenceLength(const std::string& text, std::size_t place, std::uint32_t& character) {
    const unsigned first = static_cast<unsigned char>(text[place]);
    const std::size_t length = lengthBy(first);
    character = first;
    if (length < 2) {
        return length;
    }
    if (place + length > text.size()) {
        return 0;
    }
    character = first & (0xFFU >> (length + 1));
    for (std::size_t index = place + 1; index < place + length; ++index) {
        const unsigned byte = static_cast<unsigned char>(text[index]);
        if ((byte & 0xC0U) != 0x80) {
            return 0;
        }
        character = (character << 6U) | (byte & 0x3FU);
    }
    return isAllowed(character, length) ? length : 0;
}

bool isHarmless(std::uint32_t character) {
    const bool isControl = character < 0x20 || (character >= 0x7F && character <= 0x9F);
    const bool isDirection = (character >= 0x2000 && character <= 0x200F) ||
                             (character >= 0x2028 && character <= 0x202F) ||
                             (character >= 0x205F && character <= 0x206F) || character == 0x61C;
    const bool isSpace = character == 0xA0 || character == 0xAD || character == 0x1680 ||
                         character == 0x2800 || character == 0x3000 || character == 0x3164 ||
                         character == 0xFEFF || character == 0xFFA0 || character == 0x34F ||
                         character == 0x115F || character == 0x1160 || character == 0x180E;
    return !isControl && !isDirection && !isSpace;
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
    const auto scheme = text.find("://");
    if (scheme > at) {
        return "***" + text.substr(at);
    }
    return text.substr(0, scheme + 3) + "***" + text.substr(at);
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
    std::string text = std::to_string(count) + " " + noun;
    if (count == 1) {
        return text;
    }
    return text + (noun.back() == 's' ? "es" : "s");
}
