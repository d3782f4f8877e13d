#pragma once

#include <sys/types.h>

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace gateway {

/// What somebody may do here. Each includes those before it, but for Nodes: those are messages between nodes.
enum class Role { Look, Operate, Administer, Nodes };

/// "look", "operate", "administer", "nodes".
const char* RoleName(Role role);

/// What a client on the network shows that it knows, without the secret.
struct Token {
    std::string name;
    Role role = Role::Look;
};

/// Who asks: a user of this system, as the kernel told it when the process connected, or the holder of a token.
struct Peer {
    std::string account;  ///< what limits count by: one for each user, and each token
    std::optional<Token> token;

    // Over the network:
    std::string address;     ///< without the port; empty: by the UNIX socket
    std::string ownAddress;  ///< of this device: where it connected to

    // By the UNIX socket:
    uid_t user = static_cast<uid_t>(-1);
    pid_t process = 0;          ///< 0: not of this process's namespace
    std::vector<gid_t> groups;  ///< of those that were asked about, the ones that the process was in

    bool IsIn(gid_t group) const;
};

/// The peer of a connected UNIX socket, and which of `groups` its process was in: its own group or a supplementary one.
/// None when the kernel does not tell.
std::optional<Peer> PeerOf(int socket, std::span<const gid_t> groups);

}  // namespace gateway
