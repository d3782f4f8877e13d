#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include "ZShared/ZError.h"

/// The address of a UNIX socket that has a place in the file system.
class ZUnixAddress {
public:
    /// An error when the path is empty, or longer than the 107 bytes that the system has room for.
    static ZResult<ZUnixAddress> Of(const std::string& path) {
        ZUnixAddress address;
        constexpr std::size_t kRoom = sizeof address.m_address.sun_path - 1;
        if (path.empty() || path.size() > kRoom || path.find('\0') != std::string::npos) {
            return ZError(path + ": not a socket's path of 1 to " + std::to_string(kRoom) + " bytes");
        }
        path.copy(address.m_address.sun_path, kRoom);
        return address;
    }
    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&m_address); }
    static constexpr socklen_t Size() { return sizeof(sockaddr_un); }

private:
    ZUnixAddress() { m_address.sun_family = AF_UNIX; }
    sockaddr_un m_address{};
};
