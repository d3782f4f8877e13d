#include "Arguments.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "TextFormat.h"
#include "TimeText.h"

namespace arborctl {
namespace {

constexpr std::size_t kLongest = 64;
constexpr std::size_t kShortestId = 4;
constexpr std::size_t kIdDigits = 16;
/// More mistakes than this, and another word was meant.
constexpr std::size_t kMistakes = 2;

bool IsDigit(unsigned char letter) {
    return letter >= '0' && letter <= '9';
}

/// ASCII letters and digits, and those of `others`.
bool ConsistsOf(std::string_view text, std::string_view others) {
    return std::ranges::all_of(text, [&](unsigned char letter) {
        return letter < 0x80 &&
               (std::isalnum(letter) != 0 || others.find(static_cast<char>(letter)) != std::string_view::npos);
    });
}

std::string Quoted(const std::string& text) {
    return "\"" + Escaped(text) + "\"";
}

/// How many letters have to be put in, taken away, changed or swapped with their neighbour.
std::size_t Distance(std::string_view from, std::string_view to) {
    std::vector<std::vector<std::size_t>> rows(from.size() + 1, std::vector<std::size_t>(to.size() + 1));
    for (std::size_t i = 0; i <= from.size(); ++i) {
        for (std::size_t j = 0; j <= to.size(); ++j) {
            if (i == 0 || j == 0) {
                rows[i][j] = i + j;
                continue;
            }
            const std::size_t change = from[i - 1] == to[j - 1] ? 0 : 1;
            rows[i][j] = std::min({rows[i - 1][j] + 1, rows[i][j - 1] + 1, rows[i - 1][j - 1] + change});
            const bool swapped = i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
            rows[i][j] = swapped ? std::min(rows[i][j], rows[i - 2][j - 2] + 1) : rows[i][j];
        }
    }
    return rows[from.size()][to.size()];
}

}  // namespace

std::string WrongVersion(const std::string& text) {
    bool good = !text.empty() && text.size() <= kLongest && text.back() != '.' && ConsistsOf(text, ".-_+~");
    for (std::size_t at = 0; good && at < text.size(); ++at) {
        good = (at != 0 && text[at - 1] != '.') || IsDigit(static_cast<unsigned char>(text[at]));
    }
    return good ? "" : Quoted(text) + " is not a version, such as 3.046";
}

std::string WrongName(const std::string& text) {
    if (text.empty()) {
        return "it is empty";
    }
    const bool good = text.size() <= kLongest && ConsistsOf(text, "._:+-");
    return good ? "" : Quoted(text) + " is not a name: up to 64 letters, digits and ._:+-";
}

std::string WrongId(const std::string& text) {
    const bool good = text.size() >= kShortestId && text.size() <= kIdDigits &&
                      std::ranges::all_of(text, [](unsigned char letter) { return std::isxdigit(letter) != 0; });
    return good ? "" : Quoted(text) + " is not an id: 4 to 16 hexadecimal digits, as \"history\" lists them";
}

std::string WrongSince(const std::string& text) {
    return SinceFrom(text, MillisecondsNow())
               ? ""
               : Quoted(text) +
                     " is not a time: 90s, 10m, 2h, 3d, or a date such as 2025-03-01 or \"2025-03-01 14:05\"";
}

std::string Nearest(const std::string& word, const std::vector<std::string>& words) {
    std::string nearest;
    std::size_t least = kMistakes + 1;
    if (word.size() > kLongest) {
        return nearest;
    }
    for (const auto& known : words) {
        const std::size_t distance = Distance(word, known);
        if (distance < least && distance < known.size()) {
            least = distance;
            nearest = known;
        }
    }
    return nearest;
}

}  // namespace arborctl
