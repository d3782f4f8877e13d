#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <string>

#include "ZShared/ZError.h"

/// Whether this system can confine commands: one is tried, on a thread of its own. Thread-safe.
class ConfinementTrial {
public:
    static constexpr auto kLimit = std::chrono::seconds(10);
    using Told = std::function<void(const ZResult<void>&)>;

    /// Begins to run the shell command line, which confines something; `told` gets the outcome on that thread. The
    /// stop event of the calling thread ends the trial, then as one that failed and is not told.
    ConfinementTrial(std::string line, Told told);

    /// Waits for the outcome. An error says why commands can't be confined.
    ZResult<void> Outcome() const { return m_outcome.get(); }

private:
    std::shared_future<ZResult<void>> m_outcome;  // whose end waits for the thread
};
