#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "ZShared/ZError.h"
#include "ZShared/ZFileDescriptor.h"

namespace gateway {

/// Who may connect.
struct SocketAccess {
    mode_t mode = 0660;
    std::optional<gid_t> group;  ///< none: the process's own
};

/// The place of a listening UNIX socket in the file system: made ready before it is bound, opened to others only once
/// its mode and group are right, and removed at the end if it is still the same one. Not thread-safe.
class SocketFile {
public:
    explicit SocketFile(std::string path) : m_path(std::move(path)) {}
    ~SocketFile() { Remove(); }
    SocketFile(const SocketFile&) = delete;
    SocketFile& operator=(const SocketFile&) = delete;

    /// A socket that listens there, without blocking. Makes the directory and takes away a socket that nobody listens
    /// on any more. An error when the path is too long, is something else than a socket, or belongs to a living server.
    ZResult<ZFileDescriptor> Listen(const SocketAccess& access);
    void Remove();

private:
    ZResult<void> Prepare() const;
    /// Lets connect whoever `access` names.
    ZResult<void> Open(const SocketAccess& access);

    const std::string m_path;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    bool m_bOurs = false;
};

}  // namespace gateway
