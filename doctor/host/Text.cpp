#include "host/Text.h"

#include <algorithm>
#include <openssl/asn1.h>

namespace {

// Returns the length of the UTF-8 sequence at `place` in bytes, or 0 when it is not valid. Stores
// the value of the sequence in `character`. OpenSSL also accepts values above U+10FFFF.
std::size_t sequenceLength(const std::string& text, std::size_t place, unsigned long& character) {
    constexpr int longest = 4;
    const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data() + place);
    const auto rest = static_cast<int>(std::min<std::size_t>(text.size() - place, longest));
    const int length = UTF8_getc(bytes, rest, &character);
    if (length < 0 || character > 0x10FFFF) {
        return 0;
    }
    return static_cast<std::size_t>(length);
}

bool isHarmless(unsigned long character) {
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
    unsigned long character = 0;
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
    unsigned long character = 0;
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

std::string quoted(const std::string& record) {
    constexpr std::size_t longest = 160;
    std::string text = printable(masked(record));
    if (text.size() > longest) {
        text = printable(text.substr(0, longest)) + "...";
    }
    return "\"" + text + "\"";
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
    if (count != 1) {
        text += 's';
    }
    return text;
}
