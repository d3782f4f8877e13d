#include "OrderHistory.h"

#include "MessageText.h"
#include "NodeBase/ZCommEnabledObject.h"
#include "ZMessages/OrderMessages.h"
#include "http/Problem.h"
#include "http/Target.h"

namespace gateway {

namespace {

constexpr std::size_t kMostOrders = 1000;

}  // namespace

HttpResponse OrderHistory(ZCommEnabledObject& bus, const HttpRequest& request, std::chrono::milliseconds patience) {
    const auto since = NumberOf(request, "since", 0);
    if (!since) {
        return Problem(400, "\"since\" is a number of milliseconds since 1970", "since");
    }
    const auto limit = NumberOf(request, "limit", 0);
    if (!limit || *limit > kMostOrders) {
        return Problem(400, "\"limit\" is a whole number up to " + std::to_string(kMostOrders), "limit");
    }
    const std::string result = TextOf(request, "result");
    if (!result.empty() && result != "accepted" && result != "refused") {
        return Problem(400, "\"result\" is accepted or refused", "result");
    }
    const auto message = Z_MAKE(ZOrdersRequestMsg);
    message->m_User = ToZString(TextOf(request, "user"));
    message->m_Result = ToZString(result);
    message->m_Since = static_cast<std::int64_t>(*since);
    message->m_Limit = static_cast<std::uint32_t>(*limit);
    message->m_Before = ToZString(TextOf(request, "before"));
    std::shared_ptr<ZMessage> told;
    const ZPublishOutcome outcome = bus.PublishWithOutcome(bus.GetEndpoint(ZEndpointType::GraphService, "orders", 0),
                                                           message, &told, {true, false, patience});
    const auto answer = cast_shared<ZOrdersMsg>(told);
    if (!answer) {
        return outcome == ZPublishOutcome::NoAnswer
                   ? Problem(504, "The node that keeps the orders did not answer in time")
                   : Problem(503, "No node of this graph keeps the orders");
    }
    if (!answer->m_bSuccess) {
        return Problem(400, answer->m_ErrorText, "before");
    }
    HttpResponse response;
    response.body = MessageText(*answer);
    return response;
}

}  // namespace gateway
