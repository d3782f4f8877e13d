#include "http/SocketFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "ZShared/ZUnixAddress.h"
#include "http/GatewayLog.h"

namespace gateway {

namespace {

// That the kernel keeps until they are accepted. Many a client does not wait for a place among them, but gives up.
constexpr int kWaitingConnections = 1024;

ZFileDescriptor NewSocket() {
    return ZFileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

ZError SystemError() {
    return ZError(std::strerror(errno));
}

/// Whether a server answers there. A server whose queue is full is one too.
bool SomebodyListens(const ZUnixAddress& address) {
    const ZFileDescriptor probe = NewSocket();
    return ::connect(probe.Get(), address.Get(), ZUnixAddress::Size()) == 0 ||
           (errno != ECONNREFUSED && errno != ENOENT);
}

}  // namespace

ZResult<ZFileDescriptor> SocketFile::Listen(const SocketAccess& access) {
    if (auto ready = Prepare(); !ready) {
        return ready.error();
    }
    ZFileDescriptor socket = NewSocket();
    // The file that bind makes takes its mode from the socket, and connecting needs the right to write: nobody connects
    // before Open.
    if (!socket || ::fchmod(socket.Get(), 0) != 0 ||
        ::bind(socket.Get(), ZUnixAddress::Of(m_path)->Get(), ZUnixAddress::Size()) != 0 ||
        ::listen(socket.Get(), kWaitingConnections) != 0) {
        return SystemError();
    }
    if (auto open = Open(access); !open) {
        return open.error();
    }
    return socket;
}

ZResult<void> SocketFile::Prepare() const {
    const auto address = ZUnixAddress::Of(m_path);
    if (!address) {
        return ZError("the path is longer than " + std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes");
    }
    std::error_code code;
    std::filesystem::create_directories(std::filesystem::path(m_path).parent_path(), code);
    if (code) {
        return ZError("its directory can't be made: " + code.message());
    }
    struct stat present {};
    if (::lstat(m_path.c_str(), &present) != 0) {
        return {};
    }
    if (!S_ISSOCK(present.st_mode)) {
        return ZError("there is something that is no socket");
    }
    if (SomebodyListens(*address)) {
        return ZError("another server listens there");
    }
    Z_LOG(2, "Removing %s, which a server that has ended left behind", m_path);
    if (::unlink(m_path.c_str()) != 0 && errno != ENOENT) {
        return ZError::OfSystem("the old socket can't be removed", errno);
    }
    return {};
}

ZResult<void> SocketFile::Open(const SocketAccess& access) {
    struct stat made {};
    if (::lstat(m_path.c_str(), &made) != 0) {
        return SystemError();
    }
    m_device = made.st_dev;
    m_inode = made.st_ino;
    m_bOurs = true;
    if (access.group && ::lchown(m_path.c_str(), static_cast<uid_t>(-1), *access.group) != 0) {
        return ZError::OfSystem("its group can't be set", errno);
    }
    if (::chmod(m_path.c_str(), access.mode) != 0) {
        return ZError::OfSystem("its mode can't be set", errno);
    }
    return {};
}

void SocketFile::Remove() {
    struct stat present {};
    if (m_bOurs && ::lstat(m_path.c_str(), &present) == 0 && present.st_dev == m_device && present.st_ino == m_inode) {
        ::unlink(m_path.c_str());
    }
    m_bOurs = false;
}

}  // namespace gateway
