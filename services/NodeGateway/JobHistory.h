#pragma once

#include <optional>

#include "NodeComm/ZNodeComm.h"
#include "ZMessages/OperationMessages.h"
#include "http/HttpMessage.h"

class ZCommEnabledObject;

namespace gateway {

/// Asks the node that keeps the jobs. Thread-safe.
class JobHistory {
public:
    explicit JobHistory(ZCommEnabledObject& bus) : m_bus(bus) {}

    /// The jobs that the request's query chooses, or a problem.
    HttpResponse List(const HttpRequest& request, std::chrono::milliseconds patience) const;
    /// The job with that id, or with the one id that begins so, or a problem.
    HttpResponse One(const std::string& id, std::chrono::milliseconds patience) const;
    /// Who asked for the job with exactly that id: empty for the device itself; none when nobody tells.
    std::optional<std::string> AskerOf(const std::string& id, std::chrono::milliseconds patience) const;
    /// A page of the open ones, the newest first; null when nobody tells.
    /// The newest of a kind that has ended; null when there is none, or nobody tells.
    std::shared_ptr<ZOperationMsg> LastEnded(ZOperationKind kind, std::chrono::milliseconds patience) const;
    std::shared_ptr<ZOperationsMsg> Open(const ZString& before, std::chrono::milliseconds patience) const;

private:
    ZPublishOutcome Ask(const std::shared_ptr<ZOperationsRequestMsg>& request, std::chrono::milliseconds patience,
                        std::shared_ptr<ZOperationsMsg>& answer) const;

    ZCommEnabledObject& m_bus;
};

}  // namespace gateway
