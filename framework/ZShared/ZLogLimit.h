#pragma once

#include <map>
#include <optional>
#include <string>

#include "ZShared/ZDeadline.h"
#include "ZShared/ZGuarded.h"

/// Keeps what somebody outside does again and again from filling the log: of each kind of line the first is written,
/// then at most one a minute, which tells how many were left out. Thread-safe.
class ZLogLimit {
public:
    /// Beyond `mostKinds` at a time all others are one kind.
    explicit ZLogLimit(std::size_t mostKinds = 64) : m_mostKinds(mostKinds) {}

    /// Whether a line may be written now: what to put at its end ("" or " (12 more like it)"), or nothing. `kind` says
    /// who causes the line and why; its first 200 bytes count.
    std::optional<std::string> Admit(std::string kind, ZClock::time_point now = ZClock::now());
    /// Forgets all: every line is the first of its kind again.
    void Clear() { m_kinds.Lock()->clear(); }

private:
    struct Kind {
        ZClock::time_point told;
        std::uint64_t leftOut = 0;
    };
    const std::size_t m_mostKinds;
    ZGuarded<std::map<std::string, Kind>> m_kinds;
};
