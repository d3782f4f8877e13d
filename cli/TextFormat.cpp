#include "TextFormat.h"

#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <cstdio>

namespace arborctl {
namespace {

unsigned char ByteAt(std::string_view text, std::size_t at) {
    return static_cast<unsigned char>(text[at]);
}

bool IsContinuation(unsigned char byte) {
    return (byte & 0xC0U) == 0x80U;
}

std::size_t LengthFromLeadByte(unsigned char lead) {
    if (lead < 0x80U) {
        return 1;
    }
    if (lead >= 0xC2U && lead <= 0xDFU) {
        return 2;
    }
    if (lead >= 0xE0U && lead <= 0xEFU) {
        return 3;
    }
    return lead >= 0xF0U && lead <= 0xF4U ? 4 : 0;
}

/// Bytes of the valid UTF-8 sequence at the start of `text`, with its code point; 0 when there is none.
std::size_t Decode(std::string_view text, char32_t& codePoint) {
    static constexpr std::array<unsigned, 5> kLeadMask{0, 0x7F, 0x1F, 0x0F, 0x07};
    static constexpr std::array<char32_t, 5> kSmallest{0, 0, 0x80, 0x800, 0x10000};
    const std::size_t length = LengthFromLeadByte(ByteAt(text, 0));
    if (length == 0 || length > text.size()) {
        return 0;
    }
    codePoint = ByteAt(text, 0) & kLeadMask.at(length);
    for (std::size_t i = 1; i < length; ++i) {
        if (!IsContinuation(ByteAt(text, i))) {
            return 0;
        }
        codePoint = (codePoint << 6U) | (ByteAt(text, i) & 0x3FU);
    }
    const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    return codePoint < kSmallest.at(length) || codePoint > 0x10FFFF || surrogate ? 0 : length;
}

bool IsSafe(char32_t codePoint) {
    const bool control = codePoint < 0x20 || (codePoint >= 0x7F && codePoint <= 0x9F);
    const bool directionMark = codePoint == 0x200E || codePoint == 0x200F || codePoint == 0x061C ||
                               (codePoint >= 0x202A && codePoint <= 0x202E) ||
                               (codePoint >= 0x2066 && codePoint <= 0x2069);
    const bool lineBreak = codePoint == 0x2028 || codePoint == 0x2029;
    return !control && !directionMark && !lineBreak;
}

void AppendEscape(std::string& out, unsigned char byte) {
    switch (byte) {
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        default:
            static constexpr std::string_view kHex = "0123456789abcdef";
            out += "\\x";
            out += kHex[byte >> 4U];
            out += kHex[byte & 0x0FU];
    }
}

}  // namespace

std::string Escaped(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        char32_t codePoint = 0;
        const std::size_t length = Decode(text, codePoint);
        const std::size_t taken = length == 0 ? 1 : length;
        if (length != 0 && IsSafe(codePoint)) {
            out += text.substr(0, length);
        } else {
            for (std::size_t i = 0; i < taken; ++i) {
                AppendEscape(out, ByteAt(text, i));
            }
        }
        text.remove_prefix(taken);
    }
    return out;
}

std::size_t DisplayWidth(std::string_view escaped) {
    std::size_t width = 0;
    for (const char character : escaped) {
        width += IsContinuation(static_cast<unsigned char>(character)) ? 0U : 1U;
    }
    return width;
}

std::string Fitted(std::string_view escaped, std::size_t columns) {
    static constexpr std::string_view kCut = "...";
    if (DisplayWidth(escaped) <= columns) {
        return std::string(escaped);
    }
    const std::string_view mark = columns > kCut.size() ? kCut : std::string_view{};
    std::size_t keep = columns - mark.size();
    std::size_t end = 0;
    while (end < escaped.size() && (keep > 0 || IsContinuation(ByteAt(escaped, end)))) {
        keep -= IsContinuation(ByteAt(escaped, end)) ? 0U : 1U;
        ++end;
    }
    return std::string(escaped.substr(0, end)).append(mark);
}

std::string ByteCount(std::size_t bytes) {
    static constexpr std::array<const char*, 4> kUnits{"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) {
        return std::to_string(bytes) + " B";
    }
    auto value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    for (; value >= 1024 && unit + 1 < kUnits.size(); ++unit) {
        value /= 1024;
    }
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f %s", value, kUnits.at(unit));
    return text.data();
}

std::string Base64(std::string_view data) {
    // The encoder ends its output with a zero byte, which a string has room for.
    std::string out(4 * ((data.size() + 2) / 3), '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), reinterpret_cast<const unsigned char*>(data.data()),
                    static_cast<int>(data.size()));
    return out;
}

}  // namespace arborctl
