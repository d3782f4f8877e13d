#include "http/Peer.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace gateway {

namespace {

/// The supplementary groups; none when the kernel does not tell them.
std::optional<std::vector<gid_t>> GroupsOf(int socket) {
    std::vector<gid_t> groups(64);
    for (int tries = 0; tries < 2; ++tries) {
        auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        if (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == 0) {
            groups.resize(size / sizeof(gid_t));
            return groups;
        }
        if (errno != ERANGE) {
            break;
        }
        groups.resize(size / sizeof(gid_t));  // what there is; it does not change any more
    }
    return std::nullopt;
}

}  // namespace

const char* RoleName(Role role) {
    constexpr std::array<const char*, 4> kNames{"look", "operate", "administer", "nodes"};
    return kNames.at(static_cast<std::size_t>(role));
}

bool Peer::IsIn(gid_t group) const {
    return std::ranges::find(groups, group) != groups.end();
}

std::optional<Peer> PeerOf(int socket, std::span<const gid_t> groups) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return std::nullopt;
    }
    Peer peer;
    peer.account = std::to_string(credentials.uid);
    peer.user = credentials.uid;
    peer.process = credentials.pid;
    if (groups.empty()) {
        return peer;
    }
    const auto all = GroupsOf(socket);
    if (!all) {
        return std::nullopt;
    }
    for (const gid_t group : groups) {
        if (group == credentials.gid || std::ranges::find(*all, group) != all->end()) {
            peer.groups.push_back(group);
        }
    }
    return peer;
}

}  // namespace gateway
