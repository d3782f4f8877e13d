#include "Commands.h"
#include "JsonFields.h"
#include "Table.h"
#include "TextFormat.h"
#include "TimeText.h"
#include "text/Hex.h"

namespace json = boost::json;

namespace arborctl {
namespace {

/// The user's name in a form that an address may hold.
std::string Encoded(const std::string& name) {
    std::string encoded;
    for (const char letter : name) {
        encoded += '%';
        text::AppendHex(encoded, static_cast<unsigned char>(letter));
    }
    return encoded;
}

std::string OrdersPath(const OrdersOrder& order) {
    std::string path = "/v1/orders?limit=" + std::to_string(order.count);
    if (!order.result.empty()) {
        path += "&result=" + order.result;
    }
    if (!order.user.empty()) {
        path += "&user=" + Encoded(order.user);
    }
    if (const auto since = SinceFrom(order.since, MillisecondsNow())) {
        path += "&since=" + std::to_string(*since);
    }
    return path;
}

std::string ProgramText(const json::value& order) {
    const std::int64_t process = fields::Number(order, "processId");
    return fields::Text(order, "program") + (process == 0 ? "" : " (" + std::to_string(process) + ")");
}

/// The job that was begun, or why nothing was done; and how often.
std::string ResultText(const json::value& order) {
    const std::int64_t count = fields::Number(order, "count", 1);
    const std::string times =
        count > 1 ? std::to_string(count) + " times, the last at " + TimeText(fields::Number(order, "lastTime")) : "";
    std::string text = fields::Flag(order, "accepted") ? "accepted" : "refused";
    const std::string job = fields::Text(order, "operationId");
    const std::string reason = fields::Text(order, "reason");
    text += job.empty() ? "" : ", job " + job.substr(0, 8);
    text += reason.empty() ? "" : ": " + reason;
    return text + (times.empty() ? "" : " (" + times + ")");
}

std::string OrdersText(const json::array& orders) {
    if (orders.empty()) {
        return "No orders.\n";
    }
    Table table({"TIME", "USER", "PROGRAM", "ORDER", "WHAT", "RESULT"});
    for (const auto& order : orders) {
        const std::string keyword = fields::Text(order, "keyword");
        table.AddRow({TimeText(fields::Number(order, "time")), fields::Text(order, "user"), ProgramText(order),
                      keyword.empty() ? "several" : keyword, fields::Text(order, "subject"), ResultText(order)});
    }
    return table.Text();
}

}  // namespace

Result<ExitCode> ShowOrders(Session& session, const OrdersOrder& order) {
    const auto answer = session.gateway.Get(OrdersPath(order));
    if (!answer) {
        return answer.error();
    }
    session.Print(*answer, OrdersText(fields::List(*answer, "orders")));
    return ExitCode::kDone;
}

}  // namespace arborctl
