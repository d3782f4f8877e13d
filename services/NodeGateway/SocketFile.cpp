#include "SocketFile.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "GatewayLog.h"
#include "ZShared/ZFileDescriptor.h"

namespace gateway {

namespace {

/// Whether a server answers there. A server whose queue is full is one too.
bool SomebodyListens(const std::string& path) {
    const ZFileDescriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return ::connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
           (errno != ECONNREFUSED && errno != ENOENT);
}

}  // namespace

bool SocketFile::Prepare(std::string& error) const {
    if (m_path.size() >= sizeof(sockaddr_un::sun_path)) {
        error = "the path is longer than " + std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes";
        return false;
    }
    std::error_code code;
    std::filesystem::create_directories(std::filesystem::path(m_path).parent_path(), code);
    if (code) {
        error = "its directory can't be made: " + code.message();
        return false;
    }
    struct stat present {};
    if (::lstat(m_path.c_str(), &present) != 0) {
        return true;
    }
    if (!S_ISSOCK(present.st_mode)) {
        error = "there is something that is no socket";
        return false;
    }
    if (SomebodyListens(m_path)) {
        error = "another server listens there";
        return false;
    }
    Z_LOG(2, "Removing %s, which a server that has ended left behind", m_path.c_str());
    if (::unlink(m_path.c_str()) != 0 && errno != ENOENT) {
        error = std::string("the old socket can't be removed: ") + std::strerror(errno);
        return false;
    }
    return true;
}

// The file that bind makes takes its mode from the socket, and connecting needs the right to write.
void SocketFile::Close(int socket) {
    ::fchmod(socket, 0);
}

bool SocketFile::Open(const SocketAccess& access, std::string& error) {
    struct stat made {};
    if (::lstat(m_path.c_str(), &made) != 0) {
        error = std::strerror(errno);
        return false;
    }
    m_device = made.st_dev;
    m_inode = made.st_ino;
    m_bOurs = true;
    if (access.group && ::lchown(m_path.c_str(), static_cast<uid_t>(-1), *access.group) != 0) {
        error = std::string("its group can't be set: ") + std::strerror(errno);
        return false;
    }
    if (::chmod(m_path.c_str(), access.mode) != 0) {
        error = std::string("its mode can't be set: ") + std::strerror(errno);
        return false;
    }
    return true;
}

void SocketFile::Remove() {
    struct stat present {};
    if (m_bOurs && ::lstat(m_path.c_str(), &present) == 0 && present.st_dev == m_device && present.st_ino == m_inode) {
        ::unlink(m_path.c_str());
    }
    m_bOurs = false;
}

}  // namespace gateway
