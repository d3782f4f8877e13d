#include "TextFormat.h"

#include <array>
#include <cstdio>

namespace arborctl {
namespace {

unsigned char ByteAt(std::string_view text, std::size_t at) {
    return static_cast<unsigned char>(text[at]);
}

bool IsContinuation(unsigned char byte) {
    return (byte & 0xC0U) == 0x80U;
}

}  // namespace

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

}  // namespace arborctl
