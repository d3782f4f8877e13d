#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace gateway {

/// The door of the network.
struct NetworkSettings {
    std::string listen;           ///< CanListenAt
    std::string tokenFile;        ///< TokenFile
    std::string certificateFile;  ///< PEM, with those that lead to its root; empty: without TLS, for this machine only
    std::string privateKeyFile;   ///< PEM
    std::vector<std::string> hostNames;
};

/// Whether the text is an address with a port from 1 on: "127.0.0.1:8080", "[::1]:8080".
bool CanListenAt(std::string_view listen);
/// Whether only this machine reaches that address.
bool IsLoopback(std::string_view listen);

}  // namespace gateway
