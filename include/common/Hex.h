// Bytes as hexadecimal text. A pure function, usable from any thread.
#pragma once

#include <cstddef>
#include <string>

// Two lower-case digits for each byte, the most significant digit first.
inline std::string hexText(const unsigned char* bytes, std::size_t count) {
    constexpr const char* digits = "0123456789abcdef";
    std::string text(2 * count, '0');
    for (std::size_t i = 0; i < count; ++i) {
        text[2 * i] = digits[bytes[i] >> 4];
        text[2 * i + 1] = digits[bytes[i] & 15];
    }
    return text;
}
