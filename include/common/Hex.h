// Bytes as hexadecimal text. A pure function, usable from any thread.
#pragma once

#include <cstddef>
#include <string>

// Two lower-case digits a byte, most significant first.
inline std::string hexText(const unsigned char* bytes, std::size_t count) {
    constexpr const char* digits = "0123456789abcdef";
    std::string text;
    text.reserve(2 * count);
    for (std::size_t i = 0; i < count; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}
