#include "Requests.h"

#include "MessageText.h"
#include "NodeBase/ZCommEnabledObject.h"
#include "ZMessages/ZJSONCommStream.h"
#include "http/Problem.h"

namespace gateway {

namespace {

constexpr const char* kClassKey = "className";

std::string OneOf(std::span<const char* const> names) {
    std::string text;
    for (const char* name : names) {
        text += (text.empty() ? "" : ", ") + std::string(name);
    }
    return text;
}

/// The class that the document names, or the keyword's only one; empty when it is none that the keyword takes.
ZString RequestClass(const Keyword& keyword, ZCommStream& stream) {
    const auto classes = keyword.RequestClasses();
    ZString name;
    if (!stream.Has(kClassKey) && classes.size() == 1) {
        return classes.front();
    }
    stream.ReadString(kClassKey, name);
    const auto& factory = ZShared::ZFactory::Instance();
    for (const char* known : classes) {
        if (factory.Find(name).IsKindOf(factory.Find(known))) {
            return name;
        }
    }
    return {};
}

/// The request's message; null, with the problem in `refusal`.
std::shared_ptr<ZMessage> ReadMessage(const Keyword& keyword, const std::string& body, HttpResponse& refusal) {
    ZJSONCommStream stream;
    const bool empty = body.find_first_not_of(" \t\r\n") == std::string::npos;
    if (!stream.LoadText(empty ? "{}" : std::string_view(body))) {
        refusal = Problem(400, stream.Error());
        return nullptr;
    }
    const ZString name = RequestClass(keyword, stream);
    if (name.empty()) {
        refusal =
            Problem(400, "\"className\" must name the request's class: " + OneOf(keyword.RequestClasses()), kClassKey);
        return nullptr;
    }
    auto message = cast_shared<ZMessage>(ZShared::ZFactory::Instance().CreateShared(name));
    if (!message || !message->Deserialize(stream)) {
        refusal = Problem(400, message ? stream.Error() : "\"className\" names a class that can't be made",
                          message ? stream.ErrorKey() : kClassKey);
        return nullptr;
    }
    return message;
}

HttpResponse Failed(ZPublishOutcome outcome, const Keyword& keyword) {
    const std::string name = keyword.name;
    switch (outcome) {
        case ZPublishOutcome::NoSubscriber:
            return Problem(503, "No node of this graph serves \"" + name + "\"");
        case ZPublishOutcome::NoAnswer:
            return Problem(504, "Nobody answered \"" + name + "\" in time");
        case ZPublishOutcome::QueueFull:
            return Problem(503, "The node that serves \"" + name + "\" has more to do than its queue holds");
        default:
            return Problem(503, "The graph is shutting down");
    }
}

}  // namespace

HttpResponse Requests::Handle(const Keyword& keyword, const std::string& body) {
    HttpResponse refusal;
    const auto message = ReadMessage(keyword, body, refusal);
    if (!message) {
        return refusal;
    }
    return Ask(keyword, message);
}

HttpResponse Requests::Ask(const Keyword& keyword, const std::shared_ptr<ZMessage>& message) {
    std::shared_ptr<ZMessage> answer;
    const auto endpoint = m_bus.GetEndpoint(keyword.type, keyword.name, 0);
    const ZPublishOutcome outcome = m_bus.PublishWithOutcome(
        endpoint, message, keyword.IsNotification() ? nullptr : &answer, {true, false, m_patience});
    if (outcome != ZPublishOutcome::Delivered) {
        return Failed(outcome, keyword);
    }
    HttpResponse response;
    if (answer) {
        response.body = MessageText(*answer);
    } else {
        response.status = 202;
    }
    return response;
}

}  // namespace gateway
