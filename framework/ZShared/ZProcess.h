#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

/// A process that may outlive whoever started it, told apart from a later one with the same number.
struct ZProcessId {
    pid_t id = 0;             ///< 0: none
    std::uint64_t start = 0;  ///< clock ticks after the boot, field 22 of /proc/PID/stat
    bool operator==(const ZProcessId&) const = default;
};

/// The process with that number now; none when there is none, or when it has ended and only waits to be reaped.
std::optional<ZProcessId> FindProcess(pid_t id);

/// The kernel's name of this boot; empty when it does not tell.
const std::string& BootId();

/// Milliseconds since 1970 by the system's clock.
std::int64_t MillisecondsNow();

/// Milliseconds since this boot, sleep included: no change of the system's clock touches them.
std::int64_t MillisecondsSinceBoot();

/// How a process ended, in words that follow "it": "ended with status 3", "was ended by SIGKILL".
std::string EndOfProcess(int waitStatus);
