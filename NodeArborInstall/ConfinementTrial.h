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
    /// Whether the outcome is known, once `patience` is over at the latest.
    bool IsKnown(std::chrono::milliseconds patience) const {
        return m_outcome.wait_for(patience) == std::future_status::ready;
    }

private:
    std::shared_future<ZResult<void>> m_outcome;  // whose end waits for the thread
};
