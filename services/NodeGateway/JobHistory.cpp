#include "JobHistory.h"

#include "MessageText.h"
#include "NodeBase/ZCommEnabledObject.h"
#include "http/Problem.h"
#include "http/Target.h"

namespace gateway {

namespace {

constexpr std::uint32_t kMostJobs = 1000;
constexpr std::size_t kShortestId = 4;

/// The enumerator's own spelling of a name in any case; none when it is no name.
template <typename Enum>
std::optional<ZString> Spelled(const std::string& name) {
    const auto value = magic_enum::enum_cast<Enum>(name, magic_enum::case_insensitive);
    return value ? std::optional(ZString(magic_enum::enum_name(*value))) : std::nullopt;
}

std::optional<ZString> SpelledState(const std::string& name) {
    constexpr std::string_view kOpen = "open";
    const bool open = std::ranges::equal(name, kOpen, {}, [](unsigned char letter) { return std::tolower(letter); });
    return open ? ZString("Open") : Spelled<ZOperationState>(name);
}

HttpResponse NoAnswer(ZPublishOutcome outcome) {
    return outcome == ZPublishOutcome::NoAnswer ? Problem(504, "The node that keeps the jobs did not answer in time")
                                                : Problem(503, "No node of this graph keeps the jobs");
}

HttpResponse Told(const ZMessage& message) {
    HttpResponse response;
    response.body = MessageText(message);
    return response;
}

}  // namespace

ZPublishOutcome JobHistory::Ask(const std::shared_ptr<ZOperationsRequestMsg>& request,
                                std::chrono::milliseconds patience, std::shared_ptr<ZOperationsMsg>& answer) const {
    std::shared_ptr<ZMessage> told;
    const auto endpoint = m_bus.GetEndpoint(ZEndpointType::GraphService, "operations", 0);
    const ZPublishOutcome outcome = m_bus.PublishWithOutcome(endpoint, request, &told, {true, false, patience});
    answer = cast_shared<ZOperationsMsg>(told);
    return outcome;
}

HttpResponse JobHistory::List(const HttpRequest& request, std::chrono::milliseconds patience) const {
    const auto message = Z_MAKE(ZOperationsRequestMsg);
    if (const std::string name = TextOf(request, "kind"); !name.empty()) {
        const auto kind = Spelled<ZOperationKind>(name);
        if (!kind) {
            return Problem(400, "\"kind\" is the name of a kind of job, such as Install", "kind");
        }
        message->m_Kind = *kind;
    }
    if (const std::string name = TextOf(request, "state"); !name.empty()) {
        const auto state = SpelledState(name);
        if (!state) {
            return Problem(400, "\"state\" is the name of a state, such as Failed, or Open", "state");
        }
        message->m_State = *state;
    }
    const auto since = NumberOf(request, "since", 0);
    if (!since) {
        return Problem(400, "\"since\" is a number of milliseconds since 1970", "since");
    }
    const auto limit = NumberOf(request, "limit", 0);
    if (!limit || *limit > kMostJobs) {
        return Problem(400, "\"limit\" is a whole number up to " + std::to_string(kMostJobs), "limit");
    }
    message->m_Since = static_cast<std::int64_t>(*since);
    message->m_Limit = static_cast<std::uint32_t>(*limit);
    message->m_Node = ToZString(TextOf(request, "node"));
    message->m_Before = ToZString(TextOf(request, "before"));
    std::shared_ptr<ZOperationsMsg> answer;
    const ZPublishOutcome outcome = Ask(message, patience, answer);
    if (!answer) {
        return NoAnswer(outcome);
    }
    return answer->m_bSuccess ? Told(*answer) : Problem(400, answer->m_ErrorText, "before");
}

HttpResponse JobHistory::One(const std::string& id, std::chrono::milliseconds patience) const {
    if (id.size() < kShortestId) {
        return Problem(400, "An id, or its beginning, has at least " + std::to_string(kShortestId) + " characters",
                       "id");
    }
    const auto message = Z_MAKE(ZOperationsRequestMsg);
    message->m_Id = ToZString(id);
    std::shared_ptr<ZOperationsMsg> answer;
    const ZPublishOutcome outcome = Ask(message, patience, answer);
    if (!answer) {
        return NoAnswer(outcome);
    }
    if (!answer->m_bSuccess || answer->m_Operations.empty()) {
        const bool several = answer->m_ErrorCode == ZFrameworkErrorCodes::ERRCODE_INVALID_REQUEST;
        return Problem(several ? 409 : 404, answer->m_ErrorText);
    }
    return Told(*answer->m_Operations.front());
}

std::optional<std::string> JobHistory::AskerOf(const std::string& id, std::chrono::milliseconds patience) const {
    const auto message = Z_MAKE(ZOperationsRequestMsg);
    message->m_Id = ToZString(id);
    std::shared_ptr<ZOperationsMsg> answer;
    Ask(message, patience, answer);
    const bool isThere =
        !id.empty() && answer && !answer->m_Operations.empty() && answer->m_Operations.front()->m_Id == message->m_Id;
    return isThere ? std::optional(ToStdString(answer->m_Operations.front()->m_Asker)) : std::nullopt;
}

std::shared_ptr<ZOperationsMsg> JobHistory::Open(const ZString& before, std::chrono::milliseconds patience) const {
    std::shared_ptr<ZOperationsMsg> answer;
    if (patience.count() > 0) {
        const auto message = Z_MAKE(ZOperationsRequestMsg);
        message->m_State = "Open";
        message->m_Limit = kMostJobs;
        message->m_Before = before;
        Ask(message, patience, answer);
    }
    return answer && answer->m_bSuccess ? answer : nullptr;
}

std::shared_ptr<ZOperationMsg> JobHistory::LastEnded(ZOperationKind kind, std::chrono::milliseconds patience) const {
    std::shared_ptr<ZOperationsMsg> answer;
    if (patience.count() > 0) {
        const auto message = Z_MAKE(ZOperationsRequestMsg);
        message->m_Kind = ZString(magic_enum::enum_name(kind));
        message->m_Limit = 8;  // of one kind hardly more are open at once
        Ask(message, patience, answer);
    }
    for (const auto& job : answer ? answer->m_Operations : ZVector<std::shared_ptr<ZOperationMsg>>()) {
        if (!job->IsOpen()) {
            return job;
        }
    }
    return nullptr;
}

}  // namespace gateway
