#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

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

    const std::string& Path() const { return m_path; }
    /// Makes the directory and takes away a socket that nobody listens on any more. False, with `error`, when the path
    /// is too long, is something else than a socket, or belongs to a living server.
    bool Prepare(std::string& error) const;
    /// Keeps everybody from connecting to `socket`, which is about to be bound, until Open.
    static void Close(int socket);
    /// Lets connect whoever `access` names. False, with `error`, on failure.
    bool Open(const SocketAccess& access, std::string& error);
    void Remove();

private:
    const std::string m_path;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    bool m_bOurs = false;
};

}  // namespace gateway
