#include "NodeBase/ZCommEnabledObject.h"

Z_IMPLEMENT(ZCommEnabledObject)

namespace {
constexpr const char* kHeader = "NodeBase/ZCommEnabledObject";  // where the templates that report stand
}

void ZCommEnabledObject::Attach(std::shared_ptr<ZNodeComm> comm, std::shared_ptr<ZMailbox> mailbox) {
    m_comm = std::move(comm);
    m_mailbox = std::move(mailbox);
}

ZCommEndpoint ZCommEnabledObject::GetEndpoint(ZEndpointType type, const char* name, int scope) const {
    return {scope == 0 ? ZNodeUID() : ZNodeUID(m_name), type, name};
}

bool ZCommEnabledObject::Subscribe(const ZCommEndpoint& endpoint, MessageFunction function) {
    const auto filtered = [this, function = std::move(function)](std::shared_ptr<ZMessage>& message) {
        return OnFilterMessage(message) && function(message);
    };
    if (m_comm && m_comm->Subscribe(this, ZNodeUID(m_name), m_mailbox, endpoint, filtered)) {
        return true;
    }
    Z_LOG(4, "Could not subscribe %s to %s", m_name, endpoint.Text());
    return false;
}

void ZCommEnabledObject::Unsubscribe() {
    if (m_comm) {
        m_comm->Unsubscribe(this);
    }
}

ZPublishOutcome ZCommEnabledObject::PublishWithOutcome(const ZCommEndpoint& endpoint,
                                                       const std::shared_ptr<ZMessage>& message,
                                                       std::shared_ptr<ZMessage>* responseOut,
                                                       const ZPublishOptions& options) {
    return m_comm ? m_comm->Publish(endpoint, message, responseOut, options) : ZPublishOutcome::Closed;
}

void ZCommEnabledObject::LogFailedCast(const char* function, const ZShared::ZFactoryObject* object, int line) const {
    if (const ZLogger log(m_logName.c_str(), m_logLevel, kHeader); log.Takes(4)) {
        log.Write(4, "", function, line, "ZCAST(ZMessage, pMessageSubclass) %s: %s", "Expected Base Class: ZMessage, ",
                  object == nullptr ? "nullptr" : object->ClassName());
    }
    LogAssertion(function, line);
}

void ZCommEnabledObject::LogAssertion(const char* function, int line) const {
    if (const ZLogger log(m_logName.c_str(), m_logLevel, kHeader); log.Takes(4)) {
        log.Write(4, "", function, line, "Assertion failed in <%s> at <%d>!", kHeader, line);
    }
}
