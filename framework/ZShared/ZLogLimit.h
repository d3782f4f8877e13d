#pragma once

#include <map>
#include <optional>
#include <string>

#include "ZShared/ZDeadline.h"
#include "ZShared/ZGuarded.h"

/// Keeps what somebody outside does again and again from filling the log: of each kind of line a few are written in a
/// minute, and the first one after it tells how many were left out. Thread-safe.
class ZLogLimit {
public:
    /// Beyond `mostKinds` at a time all others are one kind, until one was silent for long enough: for an hour, when
    /// lines of it were left out.
    explicit ZLogLimit(std::size_t mostKinds = 64, unsigned aMinute = 1) : m_mostKinds(mostKinds), m_aMinute(aMinute) {}

    /// Whether a line may be written now: what to put at its end ("" or " (12 more like it)"), or nothing. `kind` says
    /// who causes the line and why; its first 200 bytes count.
    std::optional<std::string> Admit(std::string kind, ZClock::time_point now = ZClock::now());
    /// Forgets all: every line is the first of its kind again.
    void Clear() { m_kinds.Lock()->clear(); }

private:
    struct Kind {
        ZClock::time_point since;  // the first line of its minute
        unsigned told = 1;
        std::uint64_t leftOut = 0;
    };
    const std::size_t m_mostKinds;
    const unsigned m_aMinute;
    ZGuarded<std::map<std::string, Kind>> m_kinds;
};
