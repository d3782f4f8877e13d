#include "ProgressRelay.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ZShared/ZDeadline.h"
#include "ZShared/ZUnixAddress.h"

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

/// Only a socket was left by a relay: whatever else has the name stays.
bool RemoveSocket(const fs::path& path) {
    std::error_code code;
    return fs::is_socket(fs::symlink_status(path, code)) && fs::remove(path, code);
}

}  // namespace

ProgressRelay::~ProgressRelay() {
    for (const int client : m_progressMessages) {
        ::close(client);
    }
}

void ProgressRelay::Announce() {
    m_bDecided.Exchange(false);
}

void ProgressRelay::SetDecided() {
    m_bDecided.Exchange(true);
    m_changed.notify_all();
}

void ProgressRelay::WaitUntilDecided() {
    m_bDecided.Lock().WaitUntil(m_changed, ZClock::now() + kRelayStartLimit, [](bool decided) { return decided; });
}

bool ProgressRelay::Bind(int socket, const Place& place) {
    const bool bound = BindAndListen(socket, place);
    SetDecided();
    return bound;
}

bool ProgressRelay::BindAndListen(int socket, const Place& place) {
    auto table = std::make_unique<PollTable>();
    std::int64_t unbound = 0;
    if (!m_progressSocket.compare_exchange_strong(unbound, static_cast<std::int64_t>(socket) + 1)) {
        Z_LOG(4, "Unable to bind() socket: %s", std::strerror(EADDRINUSE));  // another relay runs
        return false;
    }
    if (const int failure = BindAddress(socket, place); failure != 0) {
        Z_LOG(4, "Unable to bind() socket: %s", std::strerror(failure));
    } else if (::listen(socket, 5) != 0) {
        Z_LOG(4, "Unable to listen() socket: %s", std::strerror(errno));
    } else {
        m_pollTable = std::move(table);
        Z_LOG(2, "Install progress socket bound and listening");
        return true;
    }
    m_progressSocket = 0;
    return false;
}

/// 0, or the system's error number.
int ProgressRelay::BindAddress(int socket, const Place& place) const {
    return place.bUnix ? BindUnix(socket, place) : BindPort(socket, place.port);
}

int ProgressRelay::BindUnix(int socket, const Place& place) const {
    Z_LOG(2, "Progress action archive path %s", place.archive);
    const std::string path = place.Path().string();
    Z_LOG(2, "Unlink and Bind Progress action socket path %s", path);
    const auto address = ZUnixAddress::Of(path);
    if (!address) {
        return ENAMETOOLONG;
    }
    RemoveSocket(place.Path());
    return ::bind(socket, address->Get(), ZUnixAddress::Size()) == 0 ? 0 : errno;
}

int ProgressRelay::BindPort(int socket, std::uint16_t port) const {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    Z_LOG(2, "Binding install progress socket to port %d", static_cast<int>(port));
    // Connections of the relay before may still linger on the port.
    const int reuse = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    return ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
}

void ProgressRelay::Close(int socket, const Place& place) {
    ::close(socket);
    m_pollTable.reset();
    if (place.bUnix) {
        const bool removed = RemoveSocket(place.Path());
        Z_LOG(2, "Progress local socket closed and file %s", removed ? "removed" : "remove failed");
    }
    m_progressSocket = 0;
}

std::size_t ProgressRelay::FillPollTable(int listener) {
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

bool ProgressRelay::Pass(int socket, ZCommStream& stream) {
    if (!m_pollTable) {
        Z_LOG(4, "Socket descriptor for install progress is not set");
        return true;
    }
    const std::size_t count = FillPollTable(socket);
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

void ProgressRelay::HandleHangup(const pollfd& entry, bool isListener, bool& keepRunning) {
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

void ProgressRelay::AcceptClients(int listener) {
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

void ProgressRelay::RemoveClient(int descriptor) {
    m_progressMessages.remove(descriptor);
    ::close(descriptor);
}

bool ProgressRelay::ReadClient(int descriptor, ZCommStream& stream, bool& keepRunning) {
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

bool ProgressRelay::RelayText(std::string_view text, ZCommStream& stream, bool& keepRunning) {
    // A NUL byte that a client in C sends along with its text parts documents as white space does.
    std::string document(text);
    std::ranges::replace(document, '\0', ' ');
    if (!stream.LoadText(document)) {
        Z_LOG(4, "Could not set JSON comm stream data dropping message");
        return true;
    }
    stream.SetLenient(true);  // 1 is as true as true: an end must not be missed
    const auto progress = Z_MAKE(InstallProgressMsg);
    if (!progress) {
        Z_LOG(4, "Could not create progress message");
        stream.Clear();
        return false;
    }
    if (!progress->Deserialize(stream)) {
        Z_LOG(3, "Install progress: %s", stream.Error());  // what could be read still counts
    }
    Z_LOG(2, "Install Header: %s", progress->m_Header);
    Z_LOG(2, "Install Message: %s", progress->m_Message);
    Z_LOG(2, "Install percent: %d spinner: %d done: %d error %d", progress->m_Percent, progress->m_bSpinner,
          progress->m_bDone, progress->m_bError);
    keepRunning = !progress->m_bError && !progress->m_bDone;
    if (!keepRunning) {
        Z_LOG(2, "Install %s exit progress loop", progress->m_bError ? "ERROR" : "complete");
    }
    m_publish(progress);
    stream.Clear();
    return true;
}
