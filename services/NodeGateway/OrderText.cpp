#include "OrderText.h"

#include "NodeBase/ZOperation.h"
#include "SystemNames.h"
#include "text/Escape.h"

namespace gateway {

namespace {

constexpr std::size_t kLongestValue = 128;
constexpr std::size_t kLongestSubject = 256;

/// The beginning, in characters that may be shown.
std::string Short(std::string_view text, std::size_t longest) {
    std::string shown = text::Escaped(text.substr(0, longest));
    return text.size() > longest ? shown + "..." : shown;
}

}  // namespace

std::shared_ptr<ZOrderMsg> OrderOf(std::string_view keyword, const Peer& peer) {
    auto order = Z_MAKE(ZOrderMsg);
    order->m_Id = ZOperation::NewId();
    order->m_Time = MillisecondsNow();
    order->m_LastTime = order->m_Time;
    if (peer.token) {
        order->m_User = ToZString("token " + peer.token->name);
        order->m_Program = ToZString(peer.address);
    } else {
        order->m_User = ToZString(UserName(peer.user));
        order->m_UserId = peer.user;
        order->m_ProcessId = peer.process;
        order->m_Program = ToZString(ProgramOf(peer.process));
    }
    order->m_Keyword = ToZString(keyword);
    return order;
}

ZString SubjectOf(ZMessage& message) {
    std::string subject;
    const auto add = [&subject](std::string_view text) {
        if (!text.empty() && subject.size() < kLongestSubject) {
            subject += (subject.empty() ? "" : " ") + Short(text, kLongestValue);
        }
    };
    message.VisitFields([&](const ZFieldInfo& field, const ZFieldValue& value) {
        if (const auto* const text = std::get_if<ZString*>(&value); text != nullptr && field.key != "data") {
            add(**text);
        } else if (const auto* const texts = std::get_if<ZVector<ZString>*>(&value)) {
            for (const ZString& one : **texts) {
                add(one);
            }
        } else if (const bool* const flag = std::get_if<bool>(&value); flag != nullptr && *flag) {
            add(field.key);
        }
    });
    return ToZString(subject);
}

ZString WhyUnsuccessful(const std::shared_ptr<ZMessage>& answer) {
    const auto several = cast_shared<ZMessageArray>(answer);
    const auto response = cast_shared<ZGenericResponseMsg>(
        several && !several->m_Messages.empty() ? several->m_Messages.front() : answer);
    if (!response || response->m_bSuccess) {
        return {};
    }
    return response->m_ErrorText.empty() ? ZString(magic_enum::enum_name(response->m_ErrorCode))
                                         : ToZString(Short(response->m_ErrorText, kLongestSubject));
}

}  // namespace gateway
