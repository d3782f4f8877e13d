#include "Requests.h"

#include "DocumentCheck.h"
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

/// What is wrong with a request, and the key that is to blame; may be empty.
struct Fault {
    std::string detail;
    std::string key;
};

boost::system::result<std::shared_ptr<ZMessage>, Fault> ReadMessage(const Keyword& keyword, std::string_view body) {
    if (body.find_first_not_of(" \t\r\n") == std::string_view::npos) {
        body = "{}";
    }
    if (const auto checked = CheckDocument(body); !checked) {
        return Fault{checked.error().text, {}};
    }
    ZJSONCommStream stream;
    if (!stream.LoadText(body)) {
        return Fault{stream.Error(), {}};
    }
    const ZString name = RequestClass(keyword, stream);
    if (name.empty()) {
        return Fault{"\"className\" must name the request's class: " + OneOf(keyword.RequestClasses()), kClassKey};
    }
    auto message = cast_shared<ZMessage>(ZShared::ZFactory::Instance().CreateShared(name));
    if (!message) {
        return Fault{"\"className\" names a class that can't be made", kClassKey};
    }
    if (!message->Deserialize(stream)) {
        return Fault{stream.Error(), stream.ErrorKey()};
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
    // Reading takes several times a document's memory.
    std::unique_lock oneAtATime(m_largeDocument, std::defer_lock);
    if (body.size() > kUsualBody) {
        oneAtATime.lock();
    }
    const auto message = ReadMessage(keyword, body);
    oneAtATime = {};
    return message ? Ask(keyword, *message) : Problem(400, message.error().detail, message.error().key);
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
