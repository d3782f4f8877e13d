#include "Reachability.h"

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "TextFormat.h"

namespace arborctl {
namespace {

std::string UserName() {
    const passwd* const user = getpwuid(geteuid());
    return user != nullptr ? user->pw_name : "USER";
}

/// The system lets this user not connect.
std::string Forbidden(const std::string& socketPath) {
    const std::string path = Escaped(socketPath);
    struct stat status {};
    if (stat(socketPath.c_str(), &status) != 0) {
        return "you (" + UserName() + ") may not enter the folder of " + path + ": ask whoever looks after the device";
    }
    const group* const owners = getgrgid(status.st_gid);
    const std::string name = owners != nullptr ? owners->gr_name : std::to_string(status.st_gid);
    return "you are not in the group " + name + " that may use " + path + ": sudo usermod -aG " + name + " " +
           UserName() + ", then log in again";
}

std::string Sentence(int reason, const std::string& socketPath) {
    const std::string path = Escaped(socketPath);
    switch (reason) {
        case 0:
            return "device not reachable at " + path + ": the connection was refused";
        case ENOENT:
        case ENOTDIR:
            return "arbord does not run: systemctl status arbord (no socket at " + path + ")";
        case ECONNREFUSED:
            return "arbord does not run: systemctl status arbord (nobody listens at " + path + ")";
        case EACCES:
        case EPERM:
            return Forbidden(socketPath);
        default:
            return "device not reachable at " + path + ": " + std::strerror(reason);
    }
}

}  // namespace

std::string WhyNotConnected(const std::string& socketPath) {
    sockaddr_un address{};
    if (socketPath.size() >= sizeof(address.sun_path)) {
        return "device not reachable at " + Escaped(socketPath) + ": the path is longer than " +
               std::to_string(sizeof(address.sun_path) - 1) + " bytes";
    }
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (probe < 0) {
        return Sentence(errno, socketPath);
    }
    const int result = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    const int reason = result == 0 ? 0 : errno;
    close(probe);
    return Sentence(reason, socketPath);
}

}  // namespace arborctl
