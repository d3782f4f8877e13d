#pragma once

#include <span>
#include <string>
#include <string_view>

namespace text {

/// Two lower-case hexadecimal digits.
inline void AppendHex(std::string& out, unsigned char byte) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    out += kDigits[byte >> 4U];
    out += kDigits[byte & 0xFU];
}

/// Two lower-case hexadecimal digits for each byte.
inline std::string HexDigits(std::span<const unsigned char> bytes) {
    std::string digits;
    digits.reserve(2 * bytes.size());
    for (const unsigned char byte : bytes) {
        AppendHex(digits, byte);
    }
    return digits;
}

}  // namespace text
