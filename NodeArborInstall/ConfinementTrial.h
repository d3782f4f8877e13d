#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <string>

#include "ZShared/ZError.h"

/// Whether this system can confine commands: one is tried, on a thread of its own. Thread-safe.
class ConfinementTrial {
public:
    static constexpr auto kLimit = std::chrono::seconds(30);  // all of a device may be starting just now
    using Told = std::function<void(const ZResult<void>&)>;

    /// Begins to run the shell command line, which confines something, as checks are run; `told` gets the outcome on
    /// that thread. The stop event of the calling thread ends the trial, then as one that failed and is not told.
    ConfinementTrial(std::string line, Told told);

    /// Waits for the outcome. An error says why commands can't be confined.
    ZResult<void> Outcome() const { return m_outcome.get(); }
    /// Whether the outcome is known; waits for it until `patience` has passed since the trial began, so that many who
    /// ask wait no longer than one.
    bool IsKnown(std::chrono::milliseconds patience) const {
        return m_outcome.wait_until(m_begun + patience) == std::future_status::ready;
    }

private:
    std::chrono::steady_clock::time_point m_begun = std::chrono::steady_clock::now();
    std::shared_future<ZResult<void>> m_outcome;  // whose end waits for the thread
};
