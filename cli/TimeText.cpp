#include "TimeText.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <utility>

namespace arborctl {
namespace {

constexpr std::int64_t kSecond = 1000;
constexpr std::int64_t kMinute = 60 * kSecond;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;
constexpr std::array<std::pair<char, std::int64_t>, 4> kUnits{
    {{'s', kSecond}, {'m', kMinute}, {'h', kHour}, {'d', kDay}}};
/// A hundred years: what is longer is mistyped, and would not fit the arithmetic.
constexpr std::int64_t kLongestAgo = 36'525;

std::optional<std::int64_t> Ago(const std::string& text, std::int64_t now) {
    std::int64_t count = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, failure] = std::from_chars(text.data(), end, count);
    if (failure != std::errc() || count < 0 || rest + 1 != end) {
        return std::nullopt;
    }
    for (const auto& [letter, length] : kUnits) {
        if (*rest == letter && count <= kLongestAgo * kDay / length) {
            return now - count * length;
        }
    }
    return std::nullopt;
}

std::optional<std::int64_t> Date(const std::string& text) {
    for (const char* const format :
         {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S"}) {
        std::tm time{};
        const char* const end = strptime(text.c_str(), format, &time);
        if (end == nullptr || *end != '\0') {
            continue;
        }
        time.tm_isdst = -1;
        const int day = time.tm_mday;
        const std::time_t seconds = std::mktime(&time);
        if (time.tm_mday == day) {  // else there is no such day in that month
            return static_cast<std::int64_t>(seconds) * kSecond;
        }
    }
    return std::nullopt;
}

}  // namespace

std::int64_t MillisecondsNow() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

std::string TimeText(std::int64_t time) {
    std::array<char, 32> text{};
    std::tm parts{};
    const auto seconds = static_cast<std::time_t>(time / kSecond);
    if (time <= 0 || localtime_r(&seconds, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts) == 0) {
        return "-";
    }
    return text.data();
}

std::string ExactTimeText(std::int64_t time) {
    std::array<char, 8> fraction{};
    std::snprintf(fraction.data(), fraction.size(), ".%03d", static_cast<int>(time % kSecond));
    const std::string whole = TimeText(time);
    return whole == "-" ? whole : whole + fraction.data();
}

std::string DurationText(std::int64_t milliseconds) {
    const auto two = [&](std::int64_t large, const char* largeUnit, std::int64_t small, const char* smallUnit) {
        const std::int64_t rest = milliseconds % large / small;
        const std::string tail = rest == 0 ? "" : " " + std::to_string(rest) + smallUnit;
        return std::to_string(milliseconds / large) + largeUnit + tail;
    };
    if (milliseconds < 10 * kSecond) {
        const std::int64_t tenths = milliseconds / 100;
        return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
    }
    if (milliseconds < kMinute) {
        return std::to_string(milliseconds / kSecond) + " s";
    }
    if (milliseconds < kHour) {
        return two(kMinute, " min", kSecond, " s");
    }
    return milliseconds < kDay ? two(kHour, " h", kMinute, " min") : two(kDay, " d", kHour, " h");
}

std::optional<std::int64_t> SinceFrom(const std::string& text, std::int64_t now) {
    const auto ago = Ago(text, now);
    return ago ? ago : Date(text);
}

}  // namespace arborctl
