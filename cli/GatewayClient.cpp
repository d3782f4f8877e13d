#include "GatewayClient.h"

#include <algorithm>
#include <future>
#include <iterator>
#include <string_view>

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

/// Which library of a graph serves a path; those that are not named here belong to the update node.
struct Server {
    std::string_view path;
    const char* what;
};
constexpr Server kServers[]{{"/v1/peers", "link node (NodePeer)"},
                            {"/v1/pair", "link node (NodePeer)"},
                            {"/v1/operations", "journal (NodeJournal)"},
                            {"/v1/orders", "journal (NodeJournal)"},
                            {"/v1/deviceProps", "identity node (NodeDeviceProps)"}};

/// The refusal in words that say what a person can do; the program itself goes by the status alone.
std::string RefusalText(const HttpReply& reply, const std::string& path) {
    if (reply.status == kNobodyAnswered) {
        return ProblemText(reply) + ": the node that serves it is busy or hangs (arborctl log --level warning)";
    }
    if (reply.status != kNobodyServesIt || reply.body.find("No node of this graph") == std::string::npos) {
        return ProblemText(reply);
    }
    const auto* const known =
        std::ranges::find_if(kServers, [&](const Server& server) { return path.starts_with(server.path); });
    const char* const node = known != std::end(kServers) ? known->what : "update node (NodeArborInstall)";
    return std::string("this device has no ") + node + " in its graph (HTTP " + std::to_string(reply.status) + ")";
}

}  // namespace

Failure ProblemOf(const HttpReply& reply, const std::string& path) {
    Failure failure = Refused(RefusalText(reply, path));
    failure.httpStatus = reply.status;
    return failure;
}

GatewayClient::GatewayClient(const Settings& settings)
    : m_limit(settings.RequestLimit()), m_connection(settings.socketPath, m_limit) {}

Result<json::value> GatewayClient::Get(const std::string& path) {
    return Perform(path, m_limit, [&] { return m_connection.Get(path); });
}

Result<json::value> GatewayClient::Send(const std::string& keyword, const json::value& message,
                                        std::optional<std::chrono::milliseconds> limit) {
    const std::string path = "/v1/" + keyword;
    return Perform(path, limit.value_or(m_limit),
                   [&] { return m_connection.PostJson(path, json::serialize(message)); });
}

Result<json::value> GatewayClient::Order(const std::string& keyword, const json::value& message) {
    auto answer = Send(keyword, message);
    if (!answer && (answer.error().unanswered || answer.error().code == ExitCode::kInterrupted)) {
        Failure failure = answer.error();
        failure.text += "; whether it was done is not known (arborctl history)";
        return failure;
    }
    return answer;
}

Result<json::value> GatewayClient::Perform(const std::string& path, std::chrono::milliseconds limit,
                                           const std::function<HttpReply()>& request) {
    // The library's limit is one for each piece of the answer; this loop is what bounds the whole.
    const auto end = std::chrono::steady_clock::now() + limit;
    bool timedOut = false;
    auto pending = std::async(std::launch::async, request);
    while (pending.wait_for(kInterruptPoll) != std::future_status::ready) {
        timedOut = timedOut || std::chrono::steady_clock::now() > end;
        if (Interrupted() || timedOut) {
            m_connection.Stop();
        }
    }
    const HttpReply reply = pending.get();
    if (Interrupted()) {
        return InterruptedByUser();
    }
    if (reply.status == 0) {
        Failure failure = Unreachable(reply.failure);
        failure.timedOut = timedOut;
        failure.unanswered = reply.unanswered;
        return failure;
    }
    if (reply.status != kOk && reply.status != kAccepted) {
        return ProblemOf(reply, path);
    }
    if (reply.status == kAccepted && reply.body.empty()) {
        return json::value{};
    }
    auto document = fields::Parse(reply.body);
    if (!document) {
        return Unreachable("the device's answer is " + document.error().text);
    }
    return document;
}

}  // namespace arborctl
