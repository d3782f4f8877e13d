#include "JobQuery.h"

namespace journal {

namespace {

constexpr std::size_t kShortestBeginning = 4;

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
    const auto page = query.Take(request);
    return page ? ZResult<JobQuery>(std::move(query)) : page.error();
}

bool JobQuery::Fits(const ZOperationMsg& message) const {
    return std::string_view(message.m_Id).starts_with(id) && (!kind || message.m_Kind == *kind) &&
           (!state || message.m_State == *state) && (!onlyOpen || message.IsOpen()) &&
           (node.empty() || std::string_view(message.m_Node) == node) && message.m_CreatedAt >= since;
}

}  // namespace journal
