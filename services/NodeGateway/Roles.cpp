#include "Roles.h"

#include <unistd.h>

#include "SystemNames.h"

namespace gateway {

namespace {

constexpr std::array<const char*, 3> kMay{"look at what this device does", "install, transfer, upload, scan and check",
                                          "pair devices and end jobs that others have asked for"};
constexpr std::array<const char*, 4> kNames{"look", "operate", "administer", "nodes"};

}  // namespace

const char* RoleName(Role role) {
    return kNames.at(static_cast<std::size_t>(role));
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

std::string Roles::WhyNot(std::string_view name, Role role) const {
    const auto index = static_cast<std::size_t>(role == Role::Nodes ? Role::Administer : role);
    const auto& group = m_groups.at(index);
    return "you (" + std::string(name) + ") are not in the group " + (group ? group->name : "") + ", which may " +
           kMay.at(index) + " (the role \"" + kNames.at(index) + "\")";
}

}  // namespace gateway
