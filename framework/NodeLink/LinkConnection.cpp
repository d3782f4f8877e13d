#include "NodeLink/LinkConnection.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "NodeLink/LinkTcp.h"

namespace {

constexpr std::size_t kMostInARow = std::size_t{1} << 20U;  // bytes to one device, before the others have their turn

bool IsBusy() {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

}  // namespace

short LinkConnection::Events() const {
    if (!m_connected) {
        return POLLOUT;
    }
    return static_cast<short>(POLLIN | (HasOutput() ? POLLOUT : 0));
}

bool LinkConnection::FinishConnecting() {
    m_connected = IsTcpConnected(m_socket);
    return m_connected;
}

std::optional<std::size_t> LinkConnection::Read() {
    const auto room = m_wire.Room();
    const ssize_t count = ::recv(m_socket.Get(), room.data(), room.size(), 0);
    if (count > 0) {
        m_wire.Filled(static_cast<std::size_t>(count));
        return static_cast<std::size_t>(count);
    }
    return count < 0 && IsBusy() ? std::optional<std::size_t>(0) : std::nullopt;
}

std::optional<std::size_t> LinkConnection::Flush() {
    std::size_t taken = 0;
    std::size_t written = 0;
    while (HasOutput() && written < kMostInARow) {
        std::string& output = m_wire.Output();
        if (m_sent == output.size()) {
            output.clear();
            m_sent = 0;
        }
        taken += Fill();
        const ssize_t count = ::send(m_socket.Get(), output.data() + m_sent, output.size() - m_sent, MSG_NOSIGNAL);
        if (count < 0) {
            return IsBusy() ? std::optional(taken) : std::nullopt;
        }
        m_sent += static_cast<std::size_t>(count);
        written += static_cast<std::size_t>(count);
    }
    return taken;
}

/// Seals frames until a piece of output is full: while it is sent and opened over there, the next one is sealed.
std::size_t LinkConnection::Fill() {
    std::size_t taken = 0;
    while (!m_outbox.empty() && m_wire.Output().size() < kLinkPiece / 2) {
        const LinkFrames& message = m_outbox.front();
        const std::string_view frame = message[m_nextFrame++].text;
        m_wire.Put(frame, m_nextFrame < message.size());
        taken += frame.size() + kLinkFrameCost;
        if (m_nextFrame == message.size()) {
            m_outbox.pop_front();
            m_nextFrame = 0;
        }
    }
    return taken;
}
