#include "ZNodeHost.h"

#include "ZMessages/Messages.h"
#include "ZShared/ZDeadline.h"
#include "ZShared/ZLog.h"

Z_IMPLEMENT(ZNodeHost)

ZNodeHost::ZNodeHost(const ZString& name) : ZNode(name) {
    m_logName = ClassName();
}

bool ZNodeHost::InitMessageMap() {
    return Subscribe(GetEndpoint(ZEndpointType::DeviceRequest, "shutdown", 0),
                     [this](std::shared_ptr<ZMessage>& message) { return OnShutdownMessage(message); });
}

bool ZNodeHost::OnShutdownMessage(const std::shared_ptr<ZMessage>& message) {
    const auto shutdown = cast_shared<ZShutdownMsg>(message);
    if (!shutdown) {
        Z_LOG(4, "Unknown message %s", message->ClassName());
        return true;
    }
    Z_LOG(2, "The graph is asked to %s in %u s%s", shutdown->m_bRestart ? "restart" : "stop",
          static_cast<unsigned>(shutdown->m_DelaySeconds), shutdown->m_bUnconditional ? ", whatever its nodes do" : "");
    m_request.Exchange(EndRequest{shutdown->m_bRestart, shutdown->m_bUnconditional,
                                  ZClock::now() + std::chrono::seconds(shutdown->m_DelaySeconds)});
    m_event.Set();
    // Reaches nobody when the message was published without waiting for an answer.
    PublishResponse(message, ZMakeShared<ZGenericResponseMsg>());
    return true;
}

std::optional<EndRequest> ZNodeHost::TakeRequest() {
    m_event.Clear();  // first: a request that comes now sets it again
    return m_request.Exchange(std::nullopt);
}
