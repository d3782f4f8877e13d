#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "ZMessages/OperationMessages.h"
#include "ZMessages/TrialMessages.h"

namespace gateway {

/// What is true at the moment of asking.
struct Gauges {
    std::size_t eventListeners = 0;
    std::uint64_t droppedListeners = 0;
    std::optional<std::int64_t> progressPercent;  ///< of the last install; none before the first
    std::optional<bool> updateInProgress;         ///< none when nobody tells
    std::shared_ptr<ZSlotsMsg> trials;            ///< null when nobody tells
};

/// Counts while it lives, and tells it in Prometheus' text format. Thread-safe.
class Metrics {
public:
    Metrics();
    ~Metrics();
    Metrics(const Metrics&) = delete;
    Metrics& operator=(const Metrics&) = delete;

    void CountRequest(const std::string& keyword, int status);
    /// Is told of every change of a job.
    void CountOperation(const ZOperationMsg& job);
    std::string Text(const Gauges& gauges) const;

private:
    void AddOperations(std::ostream& out) const;
    static void AddTrials(std::ostream& out, const ZSlotsMsg& trials);

    mutable std::mutex m_mutex;
    std::map<std::pair<std::string, int>, std::uint64_t> m_requests;
    std::map<std::pair<ZOperationKind, ZOperationState>, std::uint64_t> m_operations;  // that have ended
    std::map<ZString, ZOperationKind> m_openOperations;                                // by id
    std::array<std::atomic<std::uint64_t>, 5> m_logLines{};                            // by level
    int m_logListener;
};

}  // namespace gateway
