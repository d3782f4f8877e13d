#pragma once

#include <sys/socket.h>

#include <optional>
#include <string>

#include "ZShared/ZError.h"
#include "ZShared/ZFileDescriptor.h"

// TCP as the link uses it: sockets that never block, addresses as "tcp://host:port".

/// A socket's address, as the system has it.
struct TcpAddress {
    sockaddr_storage storage{};
    socklen_t size = sizeof storage;

    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }
    sockaddr* Get() { return reinterpret_cast<sockaddr*>(&storage); }
    /// The host's number: "10.77.0.2".
    std::string Host() const;
};

bool IsTcpAddress(const std::string& text);

/// The address when its host is a number, or "*" to listen on every one (of IPv4). No value for a name.
std::optional<TcpAddress> NumericTcpAddress(const std::string& text);
/// Asks for a name's number. Waits for as long as the system's resolver does: some seconds.
ZResult<TcpAddress> ResolveTcpAddress(const std::string& text);

ZResult<ZFileDescriptor> ListenTcp(const std::string& address);
/// No descriptor when nobody calls. An error when the system has none left.
ZResult<ZFileDescriptor> AcceptTcp(const ZFileDescriptor& listener, TcpAddress& from);
/// The connection stands, or failed, when the socket is writable: IsTcpConnected tells.
ZResult<ZFileDescriptor> ConnectTcp(const TcpAddress& address);
bool IsTcpConnected(const ZFileDescriptor& socket);
