#include <gtest/gtest.h>

#include "ZSoftwareVersion.h"

namespace {

TEST(SoftwareVersion, SplitsAtDotsAndTellsWhetherEveryPieceBeganWithANumber) {
    const std::tuple<const char*, ZVector<std::size_t>, bool> kCases[]{
        {"3.044", {3, 44}, true},
        {"1.2.0", {1, 2, 0}, true},
        {"", {0}, false},
        {"1.2.", {1, 2, 0}, false},
        {".5", {0, 5}, false},
        {"1..2", {1, 0, 2}, false},
        {"2.1.0-rc1", {2, 1, 0}, true},
        {"v1.2", {0, 2}, false},
        {"unknown", {0}, false},
        {"2.0.1\n", {2, 0, 1}, true},
        {"99999999999999999999.1", {0, 1}, false},
        {"-1", {SIZE_MAX}, true},
    };
    for (const auto& [text, components, valid] : kCases) {
        const ZSoftwareVersion version{ZString(text)};
        EXPECT_EQ(version.m_components, components) << text;
        EXPECT_EQ(version.m_valid, valid) << text;
        EXPECT_STREQ(version.Get(), text);
    }
    EXPECT_STREQ(ZSoftwareVersion().Get(), "unknown");
    EXPECT_FALSE(ZSoftwareVersion().m_valid);
    ZSoftwareVersion twice("1.0");
    twice.Set("2.0");
    EXPECT_EQ(twice.m_components, (ZVector<std::size_t>{1, 0, 2, 0}));
    const ZSoftwareVersion dots(ZString(10'000, '.'));
    EXPECT_EQ(dots.m_components.size(), 10'001u);
}

TEST(SoftwareVersion, ComparesComponentByComponentButForTheFirstOnlyOrder) {
    const std::tuple<const char*, const char*, int, bool> kCases[]{
        {"1.2", "1.2.0", 0, true},    {"1.10", "1.9", 1, true},     {"1.010", "1.10", 0, true},
        {"1.0", "1.5", -1, true},     {"0.9", "1.0", -1, false},    {"1.9", "2.0", -1, false},
        {"2", "2.0.7", -1, true},     {"4294967296", "0", 0, true}, {"", "", 0, true},
        {"-1", "4294967294", 1, true}};
    for (const auto& [first, second, order, firstAtLeast] : kCases) {
        const ZSoftwareVersion left{ZString(first)};
        const ZSoftwareVersion right{ZString(second)};
        EXPECT_EQ(left < right, order < 0) << first << " and " << second;
        EXPECT_EQ(left > right, order > 0) << first << " and " << second;
        EXPECT_EQ(left == right, order == 0) << first << " and " << second;
        EXPECT_EQ(left != right, order != 0) << first << " and " << second;
        EXPECT_EQ(left >= right, firstAtLeast) << first << " and " << second;
    }
    const ZSoftwareVersion none;
    EXPECT_FALSE(none >= none);
    EXPECT_TRUE(ZSoftwareVersion("0") >= none);
    EXPECT_FALSE(none >= ZSoftwareVersion("1"));
    EXPECT_TRUE(none == ZSoftwareVersion("0.0"));
}

}  // namespace
