#include "Roles.h"

#include <unistd.h>

#include "SystemNames.h"

namespace gateway {

namespace {

constexpr std::array<const char*, 3> kMay{"look at what this device does", "install, transfer, upload, scan and check",
                                          "pair devices and end jobs that others have asked for"};

}  // namespace

std::string AskerOf(const Peer& peer) {
    return peer.token ? "token " + peer.token->name : "user " + UserName(peer.user);
}

Roles::Roles(const RoleGroups& names) : m_nodesAreOpen(names.nodesAreOpen) {
    std::optional<Group> group;
    std::size_t role = 0;
    for (const std::string* name : {&names.look, &names.operate, &names.administer}) {
        if (!name->empty()) {
            // A group that has gone since the record was read is one that nobody is in.
            group = Group{*name, GroupIdOf(*name).value_or(static_cast<gid_t>(-1))};
        }
        m_groups.at(role++) = group;
    }
}

std::vector<gid_t> Roles::Groups() const {
    std::vector<gid_t> groups;
    for (const auto& group : m_groups) {
        if (group) {
            groups.push_back(group->id);
        }
    }
    return groups;
}

bool Roles::Has(const Peer& peer, Role role) const {
    if (peer.token) {
        return role <= peer.token->role;
    }
    if (role == Role::Nodes) {
        return m_nodesAreOpen && Has(peer, Role::Administer);
    }
    if (peer.user == 0 || peer.user == ::geteuid()) {
        return true;
    }
    for (std::size_t held = static_cast<std::size_t>(role); held < m_groups.size(); ++held) {
        if (!m_groups.at(held) || peer.IsIn(m_groups.at(held)->id)) {
            return true;
        }
    }
    return false;
}

Role Roles::Highest(const Peer& peer) const {
    for (const Role role : {Role::Administer, Role::Operate}) {
        if (Has(peer, role)) {
            return role;
        }
    }
    return Role::Look;
}

std::string Roles::WhyNot(const Peer& peer, std::string_view name, Role role) const {
    const auto index = static_cast<std::size_t>(role == Role::Nodes ? Role::Administer : role);
    const auto& group = m_groups.at(index);
    const std::string why =
        peer.token ? std::string("have only the role \"") + RoleName(peer.token->role) + "\", and not the one that may "
                   : "are not in the group " + (group ? group->name : "") + ", which may ";
    return "you (" + std::string(name) + ") " + why + kMay.at(index) + " (the role \"" +
           RoleName(static_cast<Role>(index)) + "\")";
}

}  // namespace gateway
