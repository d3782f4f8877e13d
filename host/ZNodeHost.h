#pragma once

#include <optional>

#include "NodeBase/ZNode.h"
#include "ZShared/ZGuarded.h"
#include "ZShared/ZWakeUp.h"

/// How a message asked the graph to end.
struct EndRequest {
    bool restart = false;        ///< start again afterwards
    bool unconditional = false;  ///< no node is asked
    ZMailbox::Clock::time_point due;
};

/// The host's own node: takes the message "shutdown", which any node may publish, for the host.
class ZNodeHost : public ZNode {
    Z_CLASS(ZNodeHost, ZNode)
public:
    /// Throws std::system_error when the system has no descriptor left.
    explicit ZNodeHost(const ZString& name);
    bool InitMessageMap() override;

    /// Readable while there is a request that TakeRequest has not returned. Owned by this object.
    int Descriptor() const noexcept { return m_event.Descriptor(); }
    /// The newest request; nothing when there is none. Thread-safe.
    std::optional<EndRequest> TakeRequest();

private:
    bool OnShutdownMessage(const std::shared_ptr<ZMessage>& message);

    ZWakeUp m_event;  // set while there is a request
    ZGuarded<std::optional<EndRequest>> m_request;
};
