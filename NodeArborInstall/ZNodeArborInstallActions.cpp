#include "ZNodeArborInstallActions.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ZShared/ZScopeEnd.h"

bool ZNodeArborInstallAction::ActionThread() {
    try {
        return Work();
    } catch (const std::exception& error) {
        Z_LOG(4, "%s ended: %s", ClassName(), error.what());
        return false;
    }
}

void ZNodeArborInstallAction::WorkOff(const char* name, const std::function<void()>& lookAtMessage) {
    for (; m_pMessage; m_pMessage = Node().NextWaiting(name)) {
        try {
            lookAtMessage();
        } catch (const std::exception& error) {
            Z_LOG(4, "%s ended: %s", ClassName(), error.what());
        }
        Node().DropJobs(*m_pMessage);
    }
}

std::optional<int> ZNodeArborInstallAction::MakeRelaySocket(int family) {
    const int descriptor = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        // Said of the TCP socket too: the text is what people search their logs for.
        Z_LOG(4, "Unable to create UNIX socket: %s", std::strerror(errno));
        return std::nullopt;
    }
    const int flags = ::fcntl(descriptor, F_GETFL);
    if (flags < 0) {
        Z_LOG(4, "fcntl GET failed: %s", std::strerror(errno));
        ::close(descriptor);
        return std::nullopt;
    }
    if (::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) < 0) {
        Z_LOG(4, "Ruh Roh fcntl SET failed: %s", std::strerror(errno));
        ::close(descriptor);
        return std::nullopt;
    }
    return descriptor;
}

void ZNodeArborInstallAction::RelayUntilDone(int socket, bool bUnix, const std::function<bool()>& isOver) {
    // Whatever ends the loop, an exception too, the socket is closed and the next relay can bind.
    const ZScopeEnd close([&] { Node().CloseSocket(socket, bUnix); });
    auto stream = ZCAST(ZCommStream, ZShared::ZFactory::Instance().CreateShared("ZJSONCommStream"));
    if (bUnix) {
        Z_LOG(2, "Starting Install Progress socket loop");
    }
    while (m_bRun) {
        if (!Node().SocketLoop(&socket, stream) || isOver()) {
            m_bRun = false;
        }
    }
    Z_LOG(2, "Closing Install %sProgress socket and exiting", bUnix ? "" : "Remote ");
}
