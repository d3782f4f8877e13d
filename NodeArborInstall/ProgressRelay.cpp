#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>

#include "ZNodeArborInstall.h"
#include "ZShared/ZLog.h"

namespace fs = std::filesystem;

namespace {

// An install starts all the same when its relay is not ready after this.
constexpr auto kRelayStartLimit = std::chrono::seconds(2);
constexpr int kPollMilliseconds = 500;  // bounds how long a stopped relay goes on
// A client that writes without a pause must not keep the others, or a stop, waiting.
constexpr int kMostReadsAtOnce = 64;

/// Connections that are refused for want of descriptors or memory stay in the queue: asking again at once is no use.
bool IsOutOfResources(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

fs::path ZNodeArborInstall::ProgressSocketPath() const {
    return m_archivePath / fs::path(Config().m_ProgressPath);
}

void ZNodeArborInstall::SetRelayDecided(bool decided) {
    {
        const std::lock_guard lock(m_relayMutex);
        m_bRelayDecided = decided;
    }
    m_relayChanged.notify_all();
}

void ZNodeArborInstall::WaitForRelay() {
    std::unique_lock lock(m_relayMutex);
    m_relayChanged.wait_for(lock, kRelayStartLimit, [this] { return m_bRelayDecided; });
}

bool ZNodeArborInstall::BindSocket(int sockfd, bool bUnix) {
    const bool bound = BindAndListen(sockfd, bUnix);
    SetRelayDecided(true);
    return bound;
}

bool ZNodeArborInstall::BindAndListen(int sockfd, bool bUnix) {
    auto table = std::make_unique<PollTable>();
    std::int64_t unbound = 0;
    if (!m_progressSocket.compare_exchange_strong(unbound, static_cast<std::int64_t>(sockfd) + 1)) {
        Z_LOG(4, "Unable to bind() socket: %s", std::strerror(EADDRINUSE));  // another relay runs
        return false;
    }
    if (!BindAddress(sockfd, bUnix)) {
        Z_LOG(4, "Unable to bind() socket: %s", std::strerror(errno));
    } else if (::listen(sockfd, 5) != 0) {
        Z_LOG(4, "Unable to listen() socket: %s", std::strerror(errno));
    } else {
        m_pollTable = std::move(table);
        Z_LOG(2, "Install progress socket bound and listening");
        return true;
    }
    m_progressSocket = 0;
    return false;
}

bool ZNodeArborInstall::BindAddress(int sockfd, bool bUnix) {
    if (bUnix) {
        Z_LOG(2, "Progress action archive path %s", m_archivePath);
        const std::string path = ProgressSocketPath().string();
        Z_LOG(2, "Unlink and Bind Progress action socket path %s", path);
        ::unlink(path.c_str());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        return ::bind(sockfd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    const std::uint16_t port = Config().m_ProgressPort;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    Z_LOG(2, "Binding install progress socket to port %d", static_cast<int>(port));
    // Connections of the relay before may still linger on the port.
    const int reuse = 1;
    ::setsockopt(sockfd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    return ::bind(sockfd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

void ZNodeArborInstall::CloseSocket(int sockfd, bool bUnix) {
    ::close(sockfd);
    // Clients stay connected and listed: the next relay, or the destructor, sees them off.
    m_pollTable.reset();
    if (bUnix) {
        const fs::path path = ProgressSocketPath();
        std::error_code error;
        const bool removed = fs::remove(path, error);
        Z_LOG(2, "Progress local socket closed and file %s", removed ? "removed" : "remove failed");
    }
    m_progressSocket = 0;
}

std::size_t ZNodeArborInstall::FillPollTable(int listener) {
    auto& entries = m_pollTable->entries;
    const bool full = m_progressMessages.size() + 1 >= kPollEntries;
    const bool accepting = !full && !m_pollTable->bAcceptPaused;
    m_pollTable->bAcceptPaused = false;
    entries[0] = {listener, static_cast<short>(accepting ? POLLIN : 0), 0};
    std::size_t count = 1;
    for (const int client : m_progressMessages) {
        entries[count++] = {client, POLLIN, 0};
    }
    return count;
}

bool ZNodeArborInstall::SocketLoop(const int* pSockfd, std::shared_ptr<ZCommStream>& stream) {
    if (!m_pollTable) {
        Z_LOG(4, "Socket descriptor for install progress is not set");
        return true;
    }
    const std::size_t count = FillPollTable(*pSockfd);
    int ready = ::poll(m_pollTable->entries.data(), count, kPollMilliseconds);
    if (ready < 0) {
        Z_LOG(4, "Error on SocketLoop poll: %s", std::strerror(errno));
        return true;
    }
    bool keepRunning = true;
    bool endPass = false;
    for (std::size_t index = 0; index < count && ready > 0 && !endPass; ++index) {
        const pollfd& entry = m_pollTable->entries[index];
        ready -= entry.revents != 0 ? 1 : 0;
        if ((entry.revents & POLLIN) == 0) {
            HandleHangup(entry, index == 0, keepRunning);
        } else if (index == 0) {
            AcceptClients(entry.fd);
        } else {
            endPass = !ReadClient(entry.fd, stream, keepRunning);
        }
    }
    return keepRunning;
}

void ZNodeArborInstall::HandleHangup(const pollfd& entry, bool isListener, bool& keepRunning) {
    if ((entry.revents & (POLLHUP | POLLERR)) == 0) {
        return;
    }
    if (isListener) {
        Z_LOG(4, "Got Hangup or error on listening socket %d", entry.fd);
        keepRunning = false;
        return;
    }
    Z_LOG(2, "Removing Install Progress client %d: %0hx (POLLHUP = %0hx, POLLERR = %0hx)", entry.fd,
          static_cast<unsigned short>(entry.revents), static_cast<unsigned short>(POLLHUP),
          static_cast<unsigned short>(POLLERR));
    RemoveClient(entry.fd);
}

void ZNodeArborInstall::AcceptClients(int listener) {
    while (m_progressMessages.size() + 1 < kPollEntries) {
        const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            m_pollTable->bAcceptPaused = IsOutOfResources(errno);
            break;
        }
        Z_LOG(2, "Adding new Install Progress client %d", client);
        const int flags = ::fcntl(client, F_GETFL);
        if (flags < 0) {
            Z_LOG(4, "client socket fcntl GET failed: %s", std::strerror(errno));
            break;  // a descriptor in an unknown state is left alone
        }
        if (::fcntl(client, F_SETFL, flags | O_NONBLOCK) < 0) {
            Z_LOG(4, "client socket fcntl SET failed: %s", std::strerror(errno));
            break;
        }
        m_progressMessages.push_back(client);
    }
    Z_LOG(2, "No more clients connected");
}

void ZNodeArborInstall::RemoveClient(int descriptor) {
    m_progressMessages.remove(descriptor);
    ::close(descriptor);
}

bool ZNodeArborInstall::ReadClient(int descriptor, std::shared_ptr<ZCommStream>& stream, bool& keepRunning) {
    auto& buffer = m_pollTable->buffer;
    for (int reads = 0; reads < kMostReadsAtOnce; ++reads) {
        const ssize_t count = ::recv(descriptor, buffer.data(), buffer.size(), 0);
        if (count < 0) {
            break;
        }
        if (count == 0) {
            Z_LOG(2, "Got %d bytes on recv() for socket %d - EOF", 0, descriptor);
            RemoveClient(descriptor);
            break;
        }
        if (!RelayText({buffer.data(), static_cast<std::size_t>(count)}, stream, keepRunning)) {
            return false;
        }
    }
    return true;
}

bool ZNodeArborInstall::RelayText(std::string_view text, std::shared_ptr<ZCommStream>& stream, bool& keepRunning) {
    if (!stream->LoadText(text)) {
        Z_LOG(4, "Could not set JSON comm stream data dropping message");
        return true;
    }
    const auto progress = Z_MAKE(InstallProgressMsg);
    if (!progress) {
        Z_LOG(4, "Could not create progress message");
        stream->Clear();
        return false;
    }
    if (!progress->Deserialize(*stream)) {
        Z_LOG(3, "Install progress: %s", stream->Error());  // what could be read still counts
    }
    Z_LOG(2, "Install Header: %s", progress->m_Header);
    Z_LOG(2, "Install Message: %s", progress->m_Message);
    Z_LOG(2, "Install percent: %d spinner: %d done: %d error %d", progress->m_Percent, progress->m_bSpinner,
          progress->m_bDone, progress->m_bError);
    keepRunning = !progress->m_bError && !progress->m_bDone;
    if (!keepRunning) {
        Z_LOG(2, "Install %s exit progress loop", progress->m_bError ? "ERROR" : "complete");
    }
    Publish(GetEndpoint(ZEndpointType::Progress, "", 0), progress);
    stream->Clear();
    return true;
}
