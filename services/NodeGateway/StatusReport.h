#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "EventHub.h"
#include "JobHistory.h"
#include "NodeComm/ZCommEndpoint.h"
#include "Roles.h"

class ZCommEnabledObject;
class ZMessage;
class ZSlotsMsg;

namespace gateway {

/// The device's state in one document, asked for on the bus. A part that nobody tells is null. Thread-safe.
class StatusReport {
public:
    StatusReport(ZCommEnabledObject& bus, const EventHub& events, const JobHistory& jobs, const Roles& roles,
                 std::string pageAddress)
        : m_bus(bus), m_events(events), m_jobs(jobs), m_roles(roles), m_pageAddress(std::move(pageAddress)) {}

    /// JSON, with what `peer` may do. Takes at most `patience`, however many parts stay unanswered.
    std::string Document(const Peer& peer, std::chrono::milliseconds patience) const;
    /// Whether an install is under way, here or on the accessory; none when nobody tells.
    std::optional<bool> UpdateInProgress(std::chrono::milliseconds patience) const;

    /// Where trials stand; null when nobody tells.
    std::shared_ptr<ZSlotsMsg> Trials(std::chrono::milliseconds patience) const;

private:
    using Clock = std::chrono::steady_clock;
    std::shared_ptr<ZMessage> Ask(ZEndpointType type, const char* keyword, const std::shared_ptr<ZMessage>& request,
                                  Clock::time_point deadline) const;

    /// `open` are the open jobs, as far as their first page goes; null when nobody tells them.
    std::optional<bool> InProgress(std::shared_ptr<ZOperationsMsg> open, Clock::time_point deadline) const;

    ZCommEnabledObject& m_bus;
    const EventHub& m_events;
    const JobHistory& m_jobs;
    const Roles& m_roles;
    const std::string m_pageAddress;
};

}  // namespace gateway
