#include "GatewayClient.h"

#include <future>

#include "Interrupt.h"
#include "JsonFields.h"
#include "TextFormat.h"

namespace json = boost::json;

namespace arborctl {
namespace {

constexpr int kOk = 200;
constexpr int kAccepted = 202;

std::string ProblemText(const HttpReply& reply) {
    const std::string status = "HTTP " + std::to_string(reply.status);
    const auto document = fields::Parse(reply.body);
    if (!document || !document->is_object()) {
        return "the device refused the request (" + status + ")";
    }
    std::string text = Escaped(fields::Text(*document, "title", "refused"));
    if (const auto detail = fields::Text(*document, "detail"); !detail.empty()) {
        text += ": " + Escaped(detail);
    }
    text += " (" + status;
    if (const auto field = fields::Text(*document, "field"); !field.empty()) {
        text += ", field \"" + Escaped(field) + "\"";
    }
    return text + ")";
}

}  // namespace

Failure ProblemOf(const HttpReply& reply) {
    Failure failure = Refused(ProblemText(reply));
    failure.httpStatus = reply.status;
    return failure;
}

Failure NotReachable(const std::string& socketPath, const std::string& reason) {
    return Unreachable("device not reachable at " + Escaped(socketPath) + ": " + reason);
}

GatewayClient::GatewayClient(const Settings& settings)
    : m_socketPath(settings.socketPath), m_limit(settings.RequestLimit()), m_connection(m_socketPath, m_limit) {}

Result<json::value> GatewayClient::Get(const std::string& path) {
    return Perform([&] { return m_connection.Get(path); });
}

Result<json::value> GatewayClient::Send(const std::string& keyword, const json::value& message) {
    return Perform([&] { return m_connection.PostJson("/v1/" + keyword, json::serialize(message)); });
}

Result<json::value> GatewayClient::Perform(const std::function<HttpReply()>& request) {
    // The library's limit is one for each piece of the answer; this loop is what bounds the whole.
    const auto end = std::chrono::steady_clock::now() + m_limit;
    auto pending = std::async(std::launch::async, request);
    while (pending.wait_for(kInterruptPoll) != std::future_status::ready) {
        if (Interrupted() || std::chrono::steady_clock::now() > end) {
            m_connection.Stop();
        }
    }
    const HttpReply reply = pending.get();
    if (Interrupted()) {
        return InterruptedByUser();
    }
    if (reply.status == 0) {
        return NotReachable(m_socketPath, reply.failure);
    }
    if (reply.status == kAccepted) {
        return json::value{};
    }
    if (reply.status != kOk) {
        return ProblemOf(reply);
    }
    auto document = fields::Parse(reply.body);
    if (!document) {
        return Unreachable("the device's answer is " + document.error().text);
    }
    return document;
}

}  // namespace arborctl
