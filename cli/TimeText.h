#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// Times as people read and type them. Counted in milliseconds, since 1970 where they are points in time.
namespace arborctl {

std::int64_t MillisecondsNow();

/// "2025-03-01 14:05:09" in this machine's zone; "-" for 0.
std::string TimeText(std::int64_t time);
/// The same with milliseconds, "2025-03-01 14:05:09.123".
std::string ExactTimeText(std::int64_t time);

/// "0.4 s", "12 s", "3 min 20 s", "2 h 5 min", "3 d 4 h".
std::string DurationText(std::int64_t milliseconds);

/// The point in time that a person means: so long ago ("90s", "10m", "2h", "3d"), or a date of this machine's zone
/// ("2025-03-01", "2025-03-01 14:05", with a blank or a T, seconds may follow). Nothing for anything else.
std::optional<std::int64_t> SinceFrom(const std::string& text, std::int64_t now);

}  // namespace arborctl
