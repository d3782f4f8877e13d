#include "Requests.h"

#include <pwd.h>

#include <vector>

#include "DocumentCheck.h"
#include "MessageText.h"
#include "NodeBase/ZCommEnabledObject.h"
#include "NodeBase/ZOperation.h"
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

/// Who asks, for people: a name, or the number of a user whom the system does not know.
std::string AskerOf(uid_t user) {
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(16384);
    const bool known = ::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr;
    return "user " + (known ? std::string(entry.pw_name) : std::to_string(user));
}

/// The JSON object with the job's id as one more key.
std::string WithOperation(std::string object, const std::string& id) {
    object.pop_back();
    return object + (object.size() > 1 ? "," : "") + "\"operationId\":\"" + id + "\"}";
}

}  // namespace

HttpResponse Requests::Handle(const Keyword& keyword, const std::string& body, uid_t user) {
    // Reading takes several times a document's memory.
    std::unique_lock oneAtATime(m_largeDocument, std::defer_lock);
    if (body.size() > kUsualBody) {
        oneAtATime.lock();
    }
    const auto message = ReadMessage(keyword, body);
    oneAtATime = {};
    if (!message) {
        return Problem(400, message.error().detail, message.error().key);
    }
    (*message)->SetOrigin(std::make_shared<ZRequestOrigin>(AskerOf(user), ToStdString(ZOperation::NewId())));
    return Ask(keyword, *message);
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
    response.status = answer ? 200 : 202;
    const ZRequestOrigin& origin = *message->Origin();
    response.body = answer ? MessageText(*answer) : keyword.beginsJob ? "{}" : "";
    // What a notification begins, it begins later.
    if (answer ? origin.begun.load() : keyword.beginsJob) {
        response.body = WithOperation(std::move(response.body), origin.operationId);
    }
    return response;
}

}  // namespace gateway
