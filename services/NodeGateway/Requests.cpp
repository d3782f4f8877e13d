#include "Requests.h"

#include "DocumentCheck.h"
#include "MessageText.h"
#include "NodeBase/ZCommEnabledObject.h"
#include "NodeBase/ZOperation.h"
#include "OrderText.h"
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

/// Why nobody has answered: a status and a sentence.
std::pair<int, std::string> WhyFailed(ZPublishOutcome outcome, const std::string& name) {
    switch (outcome) {
        case ZPublishOutcome::NoSubscriber:
            return {503, "No node of this graph serves \"" + name + "\""};
        case ZPublishOutcome::NoAnswer:
            return {504, "Nobody answered \"" + name + "\" in time"};
        case ZPublishOutcome::QueueFull:
            return {503, "The node that serves \"" + name + "\" has more to do than its queue holds"};
        default:
            return {503, "The graph is shutting down"};
    }
}

/// The JSON object with the job's id as one more key.
std::string WithOperation(std::string object, const std::string& id) {
    object.pop_back();
    return object + (object.size() > 1 ? "," : "") + "\"operationId\":\"" + id + "\"}";
}

}  // namespace

Requests::Asking Requests::AskingOf(const Keyword& keyword, const Peer& peer) {
    Asking asking{keyword, peer, AskerOf(peer), nullptr};
    if (keyword.role != Role::Look) {
        asking.order = OrderOf(keyword.name, peer);
    }
    return asking;
}

HttpResponse Requests::Handle(const Keyword& keyword, const std::string& body, const Peer& peer) {
    Asking asking = AskingOf(keyword, peer);
    const std::string reason = WhyNotSend(asking);
    if (!reason.empty() && asking.order && body.size() <= kUsualBody) {
        if (const auto message = ReadMessage(keyword, body)) {
            asking.order->m_Subject = SubjectOf(**message);
        }
    }
    HttpResponse response = reason.empty() ? Answer(asking, body) : Forbid(asking, reason);
    Note(asking);
    return response;
}

HttpResponse Requests::Answer(Asking& asking, const std::string& body) {
    // Reading takes several times a document's memory.
    std::unique_lock oneAtATime(m_largeDocument, std::defer_lock);
    if (body.size() > kUsualBody) {
        oneAtATime.lock();
    }
    const auto message = ReadMessage(asking.keyword, body);
    oneAtATime = {};
    if (!message) {
        return Refuse(asking, 400, message.error().detail, message.error().key);
    }
    (*message)->SetOrigin(std::make_shared<ZRequestOrigin>(asking.asker, ToStdString(ZOperation::NewId())));
    if (asking.order) {
        asking.order->m_Subject = SubjectOf(**message);
        asking.isStep = cast_shared<ZFileWriteMsg>(*message) || cast_shared<ZFileCloseMsg>(*message);
    }
    if (const auto cancel = cast_shared<ZCancelMsg>(*message)) {
        if (const std::string reason = WhyNotCancel(asking, ToStdString(cancel->m_Id)); !reason.empty()) {
            return Forbid(asking, reason);
        }
    }
    const auto scan = cast_shared<ZScanMsg>(*message);
    return scan ? Scan(asking, *scan) : Ask(asking, asking.keyword.name, *message);
}

HttpResponse Requests::Ask(Asking& asking, const char* name, const std::shared_ptr<ZMessage>& message) {
    const Keyword& keyword = asking.keyword;
    std::shared_ptr<ZMessage> answer;
    ZCommEnabledObject& bus = m_context.bus;
    const ZPublishOutcome outcome =
        bus.PublishWithOutcome(bus.GetEndpoint(keyword.type, name, 0), message,
                               keyword.IsNotification() ? nullptr : &answer, {true, false, m_context.patience});
    if (outcome != ZPublishOutcome::Delivered) {
        const auto [status, reason] = WhyFailed(outcome, keyword.name);
        return Refuse(asking, status, reason);
    }
    HttpResponse response;
    response.status = answer ? 200 : 202;
    const ZRequestOrigin& origin = *message->Origin();
    response.body = answer ? MessageText(*answer) : keyword.beginsJob ? "{}" : "";
    // What a notification begins, it begins later.
    const bool begins = answer ? origin.begun.load() : keyword.beginsJob;
    if (begins) {
        response.body = WithOperation(std::move(response.body), origin.operationId);
    }
    if (asking.order) {
        asking.order->m_OperationId = begins ? ToZString(origin.operationId) : ZString();
        asking.order->m_Reason = answer ? WhyUnsuccessful(answer) : ZString();
        asking.order->m_bAccepted = asking.order->m_Reason.empty();
    }
    return response;
}

HttpResponse Requests::Scan(Asking& asking, const ZScanMsg& order) {
    const auto told = m_scans.Translate(order);
    if (!told) {
        return Refuse(asking, 403, told.error().text, "path");
    }
    told->message->SetOrigin(order.Origin());
    return Ask(asking, told->keyword, told->message);
}

HttpResponse Requests::Refuse(Asking& asking, int status, const std::string& reason, std::string_view field) {
    if (asking.order) {
        asking.order->m_Reason = ToZString(reason);
    }
    return Problem(status, reason, field);
}

/// The pieces of a file that was let in are not told one by one.
void Requests::Note(const Asking& asking) {
    if (asking.order && !(asking.isStep && asking.order->m_bAccepted)) {
        m_orders.Note(asking.order);
    }
}

// --- Who may ---

std::string Requests::WhyNotSend(const Asking& asking) const {
    const Roles& roles = m_context.roles;
    const Keyword& keyword = asking.keyword;
    if (roles.Has(asking.peer, keyword.role)) {
        return {};
    }
    if (keyword.role == Role::Nodes && (!roles.AreNodesOpen() || asking.peer.token)) {
        return '"' + std::string(keyword.name) + "\" is a message between nodes, and people can't send it; " +
               keyword.instead;
    }
    return roles.WhyNot(asking.peer, asking.asker, keyword.role);
}

std::string Requests::WhyNotCancel(const Asking& asking, const std::string& job) const {
    if (m_context.roles.Has(asking.peer, Role::Administer)) {
        return {};
    }
    const auto owner = m_context.jobs.AskerOf(job, m_context.patience);
    if (owner == asking.asker) {
        return {};
    }
    const std::string whose = !owner           ? "nobody tells who asked for this job"
                              : owner->empty() ? "the device itself began this job"
                                               : *owner + " asked for this job";
    return whose + ", and " + m_context.roles.WhyNot(asking.peer, asking.asker, Role::Administer);
}

std::optional<HttpResponse> Requests::WhyNotRead(const std::string& resource, const Peer& peer) {
    if (m_context.roles.Has(peer, Role::Look)) {
        return std::nullopt;
    }
    const std::string asker = AskerOf(peer);
    const std::string reason = m_context.roles.WhyNot(peer, asker, Role::Look);
    LogRefusal(resource, asker, reason);
    return Problem(403, reason);
}

HttpResponse Requests::Forbid(Asking& asking, const std::string& reason) {
    LogRefusal(asking.keyword.name, asking.asker, reason);
    return Refuse(asking, 403, reason);
}

void Requests::LogRefusal(const std::string& what, const std::string& asker, const std::string& reason) {
    if (const auto more = m_refusals.Admit(asker + ' ' + what)) {
        Z_LOG(3, "%s was refused \"%s\": %s%s", asker, what, reason, *more);
    }
}

}  // namespace gateway
