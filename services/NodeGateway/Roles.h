#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "http/Peer.h"

namespace gateway {

/// Who asks, as jobs and orders name it: "user alice", "token ci".
std::string AskerOf(const Peer& peer);

/// The names of the groups that have the roles, as the node's record has them.
struct RoleGroups {
    std::string look;
    std::string operate;
    std::string administer;
    bool nodesAreOpen = false;  ///< on a development machine: who may administer may speak as a node, too
};

/// Who may do what. A token has the role that stands beside it, and never that of a node. Of users, a role without a
/// group of its own belongs to whoever has the one before it; everybody who can connect may look, unless a group is
/// named. Root and the host's own user may do all. Thread-safe.
class Roles {
public:
    explicit Roles(const RoleGroups& names);

    /// The groups that Peer must tell of.
    std::vector<gid_t> Groups() const;
    bool Has(const Peer& peer, Role role) const;
    /// Look when the peer has none at all.
    Role Highest(const Peer& peer) const;
    bool AreNodesOpen() const { return m_nodesAreOpen; }

    /// Why the peer, whom people call `name`, does not have the role, and who has.
    std::string WhyNot(const Peer& peer, std::string_view name, Role role) const;

private:
    struct Group {
        std::string name;
        gid_t id = 0;
    };
    /// By role, up to Administer; none: everybody.
    std::array<std::optional<Group>, 3> m_groups;
    const bool m_nodesAreOpen;
};

}  // namespace gateway
