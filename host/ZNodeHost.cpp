#include "ZNodeHost.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

#include "ZMessages/Messages.h"
#include "ZShared/ZLog.h"

Z_IMPLEMENT(ZNodeHost)

namespace {
constexpr const char* kLogSource = "host/ZNodeHost";
}

ZNodeHost::ZNodeHost(const ZString& name) : ZNode(name), m_event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    m_logName = ClassName();
    if (!m_event) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
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
    {
        const std::lock_guard lock(m_requestMutex);
        m_request = {shutdown->m_bRestart, shutdown->m_bUnconditional,
                     ZMailbox::Clock::now() + std::chrono::seconds(shutdown->m_DelaySeconds)};
        ::eventfd_write(m_event.Get(), 1);
    }
    // Reaches nobody when the message was published without waiting for an answer.
    PublishResponse(message, ZMakeShared<ZGenericResponseMsg>());
    return true;
}

std::optional<EndRequest> ZNodeHost::TakeRequest() {
    const std::lock_guard lock(m_requestMutex);
    eventfd_t count = 0;
    ::eventfd_read(m_event.Get(), &count);
    return std::exchange(m_request, std::nullopt);
}
