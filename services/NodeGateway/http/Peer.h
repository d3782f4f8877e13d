#pragma once

#include <sys/types.h>

#include <optional>
#include <span>
#include <vector>

namespace gateway {

/// Who has connected, as the kernel tells it of that moment.
struct Peer {
    uid_t user = 0;
    pid_t process = 0;          ///< 0: not of this process's namespace
    std::vector<gid_t> groups;  ///< of those that were asked about, the ones that the process was in

    bool IsIn(gid_t group) const;
};

/// The peer of a connected UNIX socket, and which of `groups` its process was in: its own group or a supplementary one.
/// None when the kernel does not tell.
std::optional<Peer> PeerOf(int socket, std::span<const gid_t> groups);

}  // namespace gateway
