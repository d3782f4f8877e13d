#include "text/Utf8.h"

#include <array>

namespace text {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

/// Length of the sequence that a first byte announces; 0 when no sequence starts with it.
std::size_t AnnouncedLength(unsigned char first) {
    if (first < 0x80) {
        return 1;
    }
    if (first < 0xC2 || first > 0xF4) {
        return 0;
    }
    return first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
}

/// How much of the front is well formed.
std::size_t ValidPrefix(std::string_view bytes) {
    std::size_t position = 0;
    char32_t codePoint = 0;
    while (position < bytes.size()) {
        const std::size_t length = DecodeUtf8(bytes.substr(position), codePoint);
        if (length == 0) {
            break;
        }
        position += length;
    }
    return position;
}

}  // namespace

std::size_t DecodeUtf8(std::string_view bytes, char32_t& codePoint) {
    static constexpr std::array<char32_t, 5> kSmallest{0, 0, 0x80, 0x800, 0x10000};
    const auto byte = [bytes](std::size_t at) { return static_cast<unsigned char>(bytes[at]); };
    const std::size_t length = bytes.empty() ? 0 : AnnouncedLength(byte(0));
    if (length == 0 || length > bytes.size()) {
        return 0;
    }
    codePoint = length > 1 ? byte(0) & (0x7FU >> length) : byte(0);
    for (std::size_t at = 1; at < length; ++at) {
        if ((byte(at) & 0xC0U) != 0x80) {
            return 0;
        }
        codePoint = codePoint << 6U | (byte(at) & 0x3FU);
    }
    const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    return codePoint < kSmallest.at(length) || codePoint > 0x10FFFF || surrogate ? 0 : length;
}

std::string ValidUtf8(std::string bytes) {
    std::size_t valid = ValidPrefix(bytes);
    if (valid == bytes.size()) {
        return bytes;
    }
    std::string repaired;
    std::string_view rest = bytes;
    while (!rest.empty()) {
        valid = ValidPrefix(rest);
        repaired += rest.substr(0, valid);
        rest.remove_prefix(valid);
        if (!rest.empty()) {
            repaired += kReplacement;
            rest.remove_prefix(1);
        }
    }
    return repaired;
}

}  // namespace text
