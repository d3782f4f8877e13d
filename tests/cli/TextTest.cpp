#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "TextFormat.h"

namespace arborctl {
namespace {

TEST(TextFormat, ShowsNothingThatWouldSteerATerminal) {
    const std::pair<std::string, std::string> cases[]{
        {"plain, \xC3\xBC, \xE2\x82\xAC, \xF0\x9F\x98\x80", "plain, \xC3\xBC, \xE2\x82\xAC, \xF0\x9F\x98\x80"},
        {"\x1b[2J\a", "\\x1b[2J\\x07"},
        {"a\tb\r\nc\x7f", "a\\tb\\r\\nc\\x7f"},
        {"\xC2\x9B"
         "31m",
         "\\xc2\\x9b31m"},
        {"\xE2\x80\xAEgkp", "\\xe2\\x80\\xaegkp"},
        {"cut \xE2\x82", "cut \\xe2\\x82"},
        {"overlong \xC0\x9B \xE0\x80\x9B", "overlong \\xc0\\x9b \\xe0\\x80\\x9b"},
        {"surrogate \xED\xA0\x80", "surrogate \\xed\\xa0\\x80"},
    };
    for (const auto& [text, shown] : cases) {
        EXPECT_EQ(Escaped(text), shown);
    }
}

TEST(TextFormat, CutsBetweenCodePoints) {
    const std::string text =
        "\xC3\xBC"
        "bermut";
    EXPECT_EQ(Fitted(text, 7), text);
    EXPECT_EQ(Fitted(text, 6),
              "\xC3\xBC"
              "be...");
    EXPECT_EQ(Fitted(text, 1), "\xC3\xBC");
    EXPECT_EQ(Fitted(text, 0), "");
}

}  // namespace
}  // namespace arborctl
