#pragma once

#include <boost/json.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "EventStream.h"
#include "ProgressDisplay.h"
#include "Result.h"
#include "Session.h"

namespace arborctl {

enum class Operation { kInstall, kTransfer, kRemoteInstall };

/// What a line of the device's log tells about an operation that is not ended by a progress message. The lines'
/// texts are fixed, service tools rely on them.
struct LogSign {
    enum class Meaning { kDone, kFailed, kDamaged };  ///< kDamaged: it goes on, but its result is of no use.
    Meaning meaning;
    std::string text;  ///< The telling part of the line, escaped.
};
std::optional<LogSign> SignOf(Operation operation, std::string_view logLine);

/// Follows one operation of the device to its end and shows its progress. Made before the operation is ordered, so that
/// nothing of it is missed.
class OperationWatch {
public:
    /// Subscribes to the device's events and passes over what is left from earlier operations.
    static Result<std::unique_ptr<OperationWatch>> Begin(Session& session, Operation operation);

    /// Returns when the operation has ended well, or with the failure that ended it. `version` is the one being
    /// installed: a device that restarted meanwhile and runs it has done its work.
    Result<void> Follow(const std::string& version);

private:
    using End = std::optional<Result<void>>;

    OperationWatch(Session& session, Operation operation, std::unique_ptr<EventStream> stream);
    End Take(const ServerEvent& event);
    End TakeProgress(const std::string& text);
    End TakeLogLine(const std::string& text);
    End Reconnect(const std::string& version);

    Session& m_session;
    Operation m_operation;
    LogLines m_log;
    std::unique_ptr<EventStream> m_stream;
    ProgressDisplay m_display;
    std::string m_oldProgress;  // the last progress of an earlier operation, which a reconnect may bring again
    bool m_sawOwnProgress = false;
    bool m_reconnected = false;
    std::string m_damage;
    std::chrono::steady_clock::time_point m_lastNews;
};

}  // namespace arborctl
