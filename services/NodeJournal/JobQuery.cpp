#include "JobQuery.h"

#include <charconv>

namespace journal {

namespace {

constexpr std::size_t kUsualLimit = 100;
constexpr std::size_t kMostJobs = 1000;
constexpr std::size_t kShortestBeginning = 4;

ZError Bad(std::string text) {
    return ZError(std::move(text), ZFrameworkErrorCodes::ERRCODE_INVALID_REQUEST);
}

template <typename Enum>
std::string Names() {
    std::string text;
    for (const std::string_view name : magic_enum::enum_names<Enum>()) {
        text += (text.empty() ? "" : ", ") + std::string(name);
    }
    return text;
}

}  // namespace

ZResult<JobQuery> JobQuery::Of(const ZOperationsRequestMsg& request) {
    JobQuery query;
    query.id = ToStdString(request.m_Id);
    if (!query.id.empty() && query.id.size() < kShortestBeginning) {
        return Bad("An id, or its beginning, has at least " + std::to_string(kShortestBeginning) + " characters");
    }
    query.kind = magic_enum::enum_cast<ZOperationKind>(std::string_view(request.m_Kind));
    if (!query.kind && !request.m_Kind.empty()) {
        return Bad("\"kind\" is one of " + Names<ZOperationKind>());
    }
    query.onlyOpen = request.m_State == "Open";
    query.state = magic_enum::enum_cast<ZOperationState>(std::string_view(request.m_State));
    if (!query.state && !query.onlyOpen && !request.m_State.empty()) {
        return Bad("\"state\" is Open, or one of " + Names<ZOperationState>());
    }
    query.node = ToStdString(request.m_Node);
    query.since = request.m_Since;
    query.limit = request.m_Limit == 0 ? kUsualLimit : std::min<std::size_t>(request.m_Limit, kMostJobs);
    const ZString& before = request.m_Before;
    if (!before.empty()) {
        const auto [end, failure] = std::from_chars(before.data(), before.data() + before.size(), query.before);
        if (failure != std::errc() || end != before.data() + before.size() || query.before < 0) {
            return Bad("\"before\" is the \"next\" of the page before");
        }
    }
    return query;
}

bool JobQuery::Fits(const ZOperationMsg& message) const {
    return std::string_view(message.m_Id).starts_with(id) && (!kind || message.m_Kind == *kind) &&
           (!state || message.m_State == *state) && (!onlyOpen || message.IsOpen()) &&
           (node.empty() || std::string_view(message.m_Node) == node) && message.m_CreatedAt >= since;
}

}  // namespace journal
