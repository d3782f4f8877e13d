#pragma once

#include <algorithm>
#include <chrono>
#include <optional>

/// The clock of everything that waits.
using ZClock = std::chrono::steady_clock;

/// How long poll may sleep until `deadline`, in milliseconds: rounded up, so that nobody polls in vain, and 0 when it
/// has passed. -1, for ever, without a deadline.
inline int PollTimeout(const std::optional<ZClock::time_point>& deadline) {
    if (!deadline) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - ZClock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 1'000'000));
}
