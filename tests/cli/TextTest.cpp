#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "Arguments.h"
#include "TextFormat.h"
#include "TimeText.h"

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
        {"no more of it \xE2(\x9B", "no more of it \\xe2(\\x9b"},
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

TEST(TimeText, TakesWhatPeopleMean) {
    setenv("TZ", "UTC", 1);
    tzset();
    constexpr std::int64_t kNow = 1'000'000'000'000;
    const std::pair<const char*, std::optional<std::int64_t>> cases[]{
        {"90s", kNow - 90'000},
        {"10m", kNow - 600'000},
        {"2h", kNow - 7'200'000},
        {"3d", kNow - 259'200'000},
        {"2001-09-09", 999'993'600'000},
        {"2001-09-09 01:46", 999'999'960'000},
        {"2001-09-09T01:46:40", kNow},
        {"", std::nullopt},
        {"h", std::nullopt},
        {"-2h", std::nullopt},
        {"2 h", std::nullopt},
        {"2", std::nullopt},
        {"9223372036854775807d", std::nullopt},
        {"2001-02-30", std::nullopt},
        {"2001-09-09 01:46 ", std::nullopt},
    };
    for (const auto& [text, time] : cases) {
        EXPECT_EQ(SinceFrom(text, kNow), time) << text;
    }
    EXPECT_EQ(ExactTimeText(kNow + 7), "2001-09-09 01:46:40.007");
}

TEST(TimeText, WritesDurationsInTwoUnitsAtMost) {
    const std::pair<std::int64_t, const char*> cases[]{
        {0, "0.0 s"},           {9'990, "9.9 s"},           {59'999, "59 s"},
        {60'000, "1 min"},      {3'599'000, "59 min 59 s"}, {7'500'000, "2 h 5 min"},
        {90'000'000, "1 d 1 h"}};
    for (const auto& [duration, text] : cases) {
        EXPECT_EQ(DurationText(duration), text);
    }
}

TEST(Arguments, TakeTheVersionsThatPackagesHave) {
    for (const char* good : {"3", "3.046", "3.045.1", "3.046-rc1", "10.0~git+5"}) {
        EXPECT_EQ(WrongVersion(good), "") << good;
    }
    for (const char* wrong : {"", ".", "3.", ".3", "3..1", "v3", "3.x", "3.046'", "3 4", "3.1\n", "\xC3\xBC"}) {
        EXPECT_NE(WrongVersion(wrong), "") << wrong;
    }
}

TEST(Arguments, ProposeTheNearestWordOrNone) {
    const std::vector<std::string> words{"updates", "upload", "log", "install"};
    for (const auto& [typed, meant] : {std::pair{"updaets", "updates"},
                                       {"uplod", "upload"},
                                       {"lgo", "log"},
                                       {"xy", ""},
                                       {"", ""},
                                       {"reinstallation", ""}}) {
        EXPECT_EQ(Nearest(typed, words), meant) << typed;
    }
}

}  // namespace
}  // namespace arborctl
