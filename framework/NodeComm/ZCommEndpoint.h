#pragma once

#include <cstdint>

#include "ZShared/ZAllocator.h"

/// The name spaces of endpoints. Matching is exact on type and name.
enum class ZEndpointType : std::int32_t {
    ClientRequest = 1,
    DeviceRequest = 2,
    GraphService = 3,  ///< services within the graph, and notifications
    Progress = 6,
};

/// Names one node, on this device or on a peer. Default: no particular node.
class ZNodeUID {
public:
    ZNodeUID() = default;
    explicit ZNodeUID(ZString name) : m_name(std::move(name)) {}

    bool IsAny() const { return m_name.empty(); }
    const ZString& Name() const { return m_name; }
    bool operator==(const ZNodeUID&) const = default;

private:
    ZString m_name;
};

/// A place that messages are published on: of any node, or of a particular one.
class ZCommEndpoint {
public:
    ZCommEndpoint() = default;
    ZCommEndpoint(ZNodeUID node, ZEndpointType type, ZString name)
        : m_node(std::move(node)), m_type(type), m_name(std::move(name)) {}

    const ZNodeUID& Node() const { return m_node; }
    ZEndpointType Type() const { return m_type; }
    const ZString& Name() const { return m_name; }
    /// "3:deviceProps", for log lines.
    ZString Text() const;

private:
    ZNodeUID m_node;
    ZEndpointType m_type = ZEndpointType::GraphService;
    ZString m_name;
};
