#include "Requests.h"

#include "DocumentCheck.h"
#include "MessageText.h"
#include "NodeBase/ZCommEnabledObject.h"
#include "NodeBase/ZOperation.h"
#include "SystemNames.h"
#include "ZMessages/ZJSONCommStream.h"
#include "http/GatewayLog.h"
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

std::string AskerOf(const Peer& peer) {
    return "user " + UserName(peer.user);
}

/// The JSON object with the job's id as one more key.
std::string WithOperation(std::string object, const std::string& id) {
    object.pop_back();
    return object + (object.size() > 1 ? "," : "") + "\"operationId\":\"" + id + "\"}";
}

}  // namespace

HttpResponse Requests::Handle(const Keyword& keyword, const std::string& body, const Peer& peer) {
    const std::string asker = AskerOf(peer);
    if (const std::string reason = WhyNotSend(keyword, asker, peer); !reason.empty()) {
        return Forbid(keyword.name, asker, reason);
    }
    return Answer(keyword, body, asker, peer);
}

HttpResponse Requests::Answer(const Keyword& keyword, const std::string& body, const std::string& asker,
                              const Peer& peer) {
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
    (*message)->SetOrigin(std::make_shared<ZRequestOrigin>(asker, ToStdString(ZOperation::NewId())));
    if (const auto cancel = cast_shared<ZCancelMsg>(*message)) {
        if (const std::string reason = WhyNotCancel(ToStdString(cancel->m_Id), asker, peer); !reason.empty()) {
            return Forbid(keyword.name, asker, reason);
        }
    }
    const auto scan = cast_shared<ZScanMsg>(*message);
    return scan ? Scan(keyword, *scan) : Ask(keyword, keyword.name, *message);
}

HttpResponse Requests::Ask(const Keyword& keyword, const char* name, const std::shared_ptr<ZMessage>& message) {
    std::shared_ptr<ZMessage> answer;
    ZCommEnabledObject& bus = m_context.bus;
    const ZPublishOutcome outcome =
        bus.PublishWithOutcome(bus.GetEndpoint(keyword.type, name, 0), message,
                               keyword.IsNotification() ? nullptr : &answer, {true, false, m_context.patience});
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

HttpResponse Requests::Scan(const Keyword& keyword, const ZScanMsg& order) {
    const auto told = m_scans.Translate(order);
    if (!told) {
        return Problem(403, told.error().text, "path");
    }
    told->message->SetOrigin(order.Origin());
    return Ask(keyword, told->keyword, told->message);
}

// --- Who may ---

std::string Requests::WhyNotSend(const Keyword& keyword, const std::string& asker, const Peer& peer) const {
    const Roles& roles = m_context.roles;
    if (roles.Has(peer, keyword.role)) {
        return {};
    }
    if (keyword.role == Role::Nodes && !roles.AreNodesOpen()) {
        return '"' + std::string(keyword.name) + "\" is a message between nodes, and people can't send it; " +
               keyword.instead;
    }
    return roles.WhyNot(asker, keyword.role);
}

std::string Requests::WhyNotCancel(const std::string& job, const std::string& asker, const Peer& peer) const {
    if (m_context.roles.Has(peer, Role::Administer)) {
        return {};
    }
    const auto owner = m_context.jobs.AskerOf(job, m_context.patience);
    if (owner == asker) {
        return {};
    }
    const std::string whose = !owner           ? "nobody tells who asked for this job"
                              : owner->empty() ? "the device itself began this job"
                                               : *owner + " asked for this job";
    return whose + ", and " + m_context.roles.WhyNot(asker, Role::Administer);
}

std::optional<HttpResponse> Requests::WhyNotRead(const std::string& resource, const Peer& peer) {
    if (m_context.roles.Has(peer, Role::Look)) {
        return std::nullopt;
    }
    const std::string asker = AskerOf(peer);
    return Forbid(resource, asker, m_context.roles.WhyNot(asker, Role::Look));
}

HttpResponse Requests::Forbid(const std::string& what, const std::string& asker, const std::string& reason) {
    if (const auto more = m_refusals.Admit(asker + ' ' + what)) {
        Z_LOG(3, "%s was refused \"%s\": %s%s", asker, what, reason, *more);
    }
    return Problem(403, reason);
}

}  // namespace gateway
