#pragma once

#include <chrono>
#include <mutex>
#include <optional>

#include "JobHistory.h"
#include "KeywordTable.h"
#include "OrderBook.h"
#include "Roles.h"
#include "ScanOrder.h"
#include "ZShared/ZLogLimit.h"
#include "http/HttpMessage.h"

class ZCommEnabledObject;
class ZMessage;

namespace gateway {

/// What requests need of the gateway that they come through.
struct RequestContext {
    ZCommEnabledObject& bus;
    const Roles& roles;
    const JobHistory& jobs;
    std::chrono::milliseconds patience;  ///< with whoever answers
    std::string updatesFolder;           ///< may be empty: there is none
};

/// Puts requests on the bus and waits for their answers. Thread-safe.
class Requests {
public:
    explicit Requests(RequestContext context)
        : m_context(std::move(context)), m_scans(m_context.bus, m_context.updatesFolder), m_orders(m_context.bus) {}

    /// The answer to a request of `peer` whose message is the JSON text `body`, or a problem that says why there is
    /// none. When it has begun a job, the answer tells its id.
    HttpResponse Handle(const Keyword& keyword, const std::string& body, const Peer& peer);
    /// Why the peer may not look at `resource`, which is told in the log, too; none when it may.
    std::optional<HttpResponse> WhyNotRead(const std::string& resource, const Peer& peer);
    /// What people ordered until now.
    OrderBook& Orders() { return m_orders; }

private:
    /// A request that is being dealt with, and what will be told of it when it is an order.
    struct Asking {
        const Keyword& keyword;
        const Peer& peer;
        std::string asker;
        std::shared_ptr<ZOrderMsg> order;
        bool isStep = false;  ///< of something that was ordered before
    };
    static Asking AskingOf(const Keyword& keyword, const Peer& peer);
    void Note(const Asking& asking);
    HttpResponse Answer(Asking& asking, const std::string& body);
    HttpResponse Ask(Asking& asking, const char* name, const std::shared_ptr<ZMessage>& message);
    HttpResponse Scan(Asking& asking, const ZScanMsg& order);
    HttpResponse Forbid(Asking& asking, const std::string& reason);
    static HttpResponse Refuse(Asking& asking, int status, const std::string& reason, std::string_view field = {});
    /// Empty when the asker may.
    std::string WhyNotSend(const Asking& asking) const;
    std::string WhyNotCancel(const Asking& asking, const std::string& job) const;
    void LogRefusal(const std::string& what, const std::string& asker, const std::string& reason);

    const RequestContext m_context;
    const ScanOrder m_scans;
    std::mutex m_largeDocument;
    ZLogLimit m_refusals;
    OrderBook m_orders;
};

}  // namespace gateway
