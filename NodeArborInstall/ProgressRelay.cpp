#include "ProgressRelay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "ZShared/ZDeadline.h"
#include "ZShared/ZUnixAddress.h"

namespace fs = std::filesystem;

namespace {

// A relay that is not ready after this will not be; one that was told to end has ended long before.
constexpr auto kRelayStartLimit = std::chrono::seconds(10);
constexpr auto kRelayEndLimit = std::chrono::seconds(5);
constexpr int kPollMilliseconds = 500;  // bounds how long a stopped relay goes on
// A client that writes without a pause must not keep the others, or a stop, waiting.
constexpr int kMostReadsAtOnce = 64;
constexpr int kMostStrangersAtOnce = 64;
constexpr int kMostLastPasses = 200;  // after the end of what is listened for: somebody writes without a pause

/// Connections that are refused for want of descriptors or memory stay in the queue: asking again at once is no use.
bool IsOutOfResources(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

/// A peer whose cable was cut is given up after some 15 s.
void SetKeepAlive(int socket) {
    const auto set = [socket](int level, int option, int value) {
        ::setsockopt(socket, level, option, &value, sizeof value);
    };
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, 6);
    set(IPPROTO_TCP, TCP_KEEPINTVL, 3);
    set(IPPROTO_TCP, TCP_KEEPCNT, 3);
}

/// Only a socket was left by a relay: whatever else has the name stays.
bool RemoveSocket(const fs::path& path) {
    std::error_code code;
    return fs::is_socket(fs::symlink_status(path, code)) && fs::remove(path, code);
}

}  // namespace

ProgressRelay::~ProgressRelay() {
    CloseClients();
}

void ProgressRelay::CloseClients() {
    for (const int client : m_progressMessages) {
        ::close(client);
    }
    m_progressMessages.clear();
}

void ProgressRelay::Announce() {
    m_failure.Exchange({});
    m_decision.Exchange(Decision::Pending);
}

void ProgressRelay::Decide(Decision decision) {
    m_decision.Exchange(decision);
    m_changed.notify_all();
}

void ProgressRelay::Abandon() {
    if (*m_decision.Lock() == Decision::Pending) {
        Decide(Decision::Failed);
    }
}

bool ProgressRelay::WaitUntilListening() {
    auto decision = m_decision.Lock();
    decision.WaitUntil(m_changed, ZClock::now() + kRelayStartLimit,
                       [](Decision value) { return value != Decision::Pending; });
    return *decision == Decision::Listens;
}

void ProgressRelay::EndWhenRead() {
    m_bEnding = true;
    m_wakeUp.Set();
}

void ProgressRelay::SetFree() {
    m_progressSocket = 0;
    m_bBound.Exchange(false);
    m_freed.notify_all();
}

void ProgressRelay::WaitUntilFree() {
    m_bBound.Lock().WaitUntil(m_freed, ZClock::now() + kRelayEndLimit, [](bool bound) { return !bound; });
}

bool ProgressRelay::Bind(int socket, const Place& place) {
    const bool bound = BindAndListen(socket, place);
    Decide(bound ? Decision::Listens : Decision::Failed);
    return bound;
}

bool ProgressRelay::BindAndListen(int socket, const Place& place) {
    auto table = std::make_unique<PollTable>();
    table->peer = place.peer;
    std::int64_t unbound = 0;
    if (!m_progressSocket.compare_exchange_strong(unbound, static_cast<std::int64_t>(socket) + 1)) {
        Z_LOG(4, "Unable to bind() socket: %s", std::strerror(EADDRINUSE));  // another relay runs
        m_failure.Exchange("another install's progress is being relayed");
        return false;
    }
    m_bBound.Exchange(true);
    m_bEnding = false;
    m_wakeUp.Clear();
    CloseClients();
    if (const int failure = BindAddress(socket, place); failure != 0) {
        Z_LOG(4, "Unable to bind() socket: %s", std::strerror(failure));
        m_failure.Exchange((place.bUnix ? place.Path().string() : "port " + std::to_string(place.port)) + ": " +
                           std::strerror(failure));
    } else if (::listen(socket, 5) != 0) {
        Z_LOG(4, "Unable to listen() socket: %s", std::strerror(errno));
        m_failure.Exchange(std::string("listening: ") + std::strerror(errno));
    } else {
        m_pollTable = std::move(table);
        m_lonelySince = ZClock::now();
        Z_LOG(2, "Install progress socket bound and listening");
        return true;
    }
    SetFree();
    return false;
}

/// 0, or the system's error number.
int ProgressRelay::BindAddress(int socket, const Place& place) const {
    return place.bUnix ? BindUnix(socket, place) : BindPort(socket, place);
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

int ProgressRelay::BindPort(int socket, const Place& place) const {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(place.port);
    Z_LOG(2, "Binding install progress socket to port %d", static_cast<int>(place.port));
    if (!place.address.empty() && ::inet_pton(AF_INET, place.address.c_str(), &address.sin_addr) != 1) {
        return EADDRNOTAVAIL;
    }
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
    SetFree();
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
    entries[count] = {m_wakeUp.Descriptor(), POLLIN, 0};
    return count;
}

bool ProgressRelay::Pass(int socket, ZCommStream& stream) {
    if (!m_pollTable) {
        Z_LOG(4, "Socket descriptor for install progress is not set");
        return true;
    }
    const bool ending = m_bEnding;  // before the poll: what was sent by now is in it
    const std::size_t count = FillPollTable(socket);
    int ready = ::poll(m_pollTable->entries.data(), count + 1, kPollMilliseconds);
    if (ready < 0) {
        Z_LOG(4, "Error on SocketLoop poll: %s", std::strerror(errno));
        return true;
    }
    ready -= m_pollTable->entries[count].revents != 0 ? 1 : 0;  // set until the next Bind: no pass sleeps any more
    // While anything comes, more may; but not for ever.
    const bool isLast = ending && (ready == 0 || ++m_pollTable->lastPasses >= kMostLastPasses);
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
    return keepRunning && !isLast;
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
        const int client = AcceptFromPeer(listener);
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
        m_lonelySince.reset();
    }
    Z_LOG(2, "No more clients connected");
}

/// The next connection of the accessory, or, where there is none, of whoever comes; negative when nobody does.
int ProgressRelay::AcceptFromPeer(int listener) {
    for (int strangers = 0; strangers < kMostStrangersAtOnce; ++strangers) {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        const bool any = m_pollTable->peer.empty();
        const int client = ::accept4(listener, any ? nullptr : reinterpret_cast<sockaddr*>(&address),
                                     any ? nullptr : &size, SOCK_CLOEXEC);
        if (client < 0 || any) {
            return client;
        }
        std::array<char, INET_ADDRSTRLEN> text{};
        ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
        if (m_pollTable->peer == text.data()) {
            SetKeepAlive(client);
            return client;
        }
        if (!std::exchange(m_pollTable->bStrangerTold, true)) {
            Z_LOG(3, "Progress from %s is refused: %s is being installed", text.data(), m_pollTable->peer);
        }
        ::close(client);
    }
    errno = EAGAIN;
    return -1;
}

void ProgressRelay::RemoveClient(int descriptor) {
    m_progressMessages.remove(descriptor);
    ::close(descriptor);
    if (m_progressMessages.empty()) {
        m_lonelySince = ZClock::now();
    }
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
