#pragma once

#include "NodeBase/ZNode.h"

namespace gateway {
enum class EventKind;
}

/// Settings of a ZNodeGateway.
class ZNodeGatewayCfg : public ZConfig {
    Z_MESSAGE(ZNodeGatewayCfg, ZConfig)
public:
    using ZConfig::ZConfig;
    ZString m_SocketPath = "/run/arbor/gateway.sock";  ///< environment variables in it are replaced
    ZString m_SocketMode = "0660";                     ///< octal permission bits
    ZString m_SocketGroup;                      ///< who beside the owner the bits are for; empty: the host's group
    std::uint32_t m_AnswerTimeoutSeconds = 30;  ///< 1 to 3600
    std::uint32_t m_MaxEventClients = 16;       ///< event streams at once; 1 to 256
    std::uint32_t m_EventBacklog = 256;         ///< events that wait for one client; 1 to 65536

    Z_FIELDS(Z_FIELD(m_SocketPath), Z_FIELD(m_SocketMode), Z_FIELD(m_SocketGroup), Z_FIELD(m_AnswerTimeoutSeconds),
             Z_FIELD(m_MaxEventClients), Z_FIELD(m_EventBacklog))
};

/// The graph's door for people and their tools: requests and notifications of the bus over HTTP on a UNIX socket, what
/// happens as server-sent events, and the state, log, metrics and description of it all. It serves from the time that
/// the graph exists until it shuts down.
class ZNodeGateway : public ZNode {
    Z_CLASS(ZNodeGateway, ZNode)
public:
    explicit ZNodeGateway(const ZString& name);
    ~ZNodeGateway() override;

    bool OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) override;
    bool InitMessageMap() override;
    bool OnGraphCreated() override;
    void OnShutdown() override;

private:
    struct Parts;
    /// Publishes every message of that class that arrives there as an event.
    template <typename Class>
    bool ShowAs(gateway::EventKind kind, ZEndpointType type, const char* keyword);

    std::unique_ptr<Parts> m_parts;
};
