#include "Connection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace gateway {

namespace {

constexpr auto kIdleLimit = std::chrono::seconds(5);       // between two requests
constexpr auto kSilenceLimit = std::chrono::seconds(10);   // within a request or an answer
constexpr auto kRestLimit = std::chrono::seconds(2);       // what is sent behind an answer
constexpr auto kTransferLimit = std::chrono::seconds(60);  // a whole request, or what is written of an answer at once
constexpr std::size_t kLongestHead = std::size_t{64} * 1024;

}  // namespace

Connection::Connection(ZFileDescriptor socket, const ZStopEvent& stop) : m_socket(std::move(socket)), m_stop(stop) {
    // Installers outlive this process; they must not keep its connections open.
    ::fcntl(m_socket.Get(), F_SETFD, FD_CLOEXEC);
    m_deadline = Clock::now() + kTransferLimit;
}

Connection::~Connection() {
    if (m_bRestUnread) {
        SwallowRest();
    }
    // Reaches the other side even when a child process, started between accept and the flag above, holds a copy.
    ::shutdown(m_socket.Get(), SHUT_RDWR);
}

void Connection::SwallowRest() {
    ::shutdown(m_socket.Get(), SHUT_WR);
    m_deadline = Clock::now() + kRestLimit;
    while (TimeForOneStep().count() > 0 && Receive() > 0) {
    }
}

bool Connection::AwaitRequest() {
    if (m_bufferStart == m_bufferEnd && !WaitFor(POLLIN, kIdleLimit)) {
        return false;
    }
    m_deadline = Clock::now() + kTransferLimit;
    m_mayRead = kLongestHead;
    return true;
}

void Connection::AllowAnswer() {
    m_deadline = Clock::now() + kTransferLimit;
}

std::chrono::milliseconds Connection::TimeForOneStep() const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_deadline - Clock::now());
    return std::clamp<std::chrono::milliseconds>(left, std::chrono::milliseconds(0), kSilenceLimit);
}

bool Connection::WaitFor(short events, std::chrono::milliseconds time) const {
    std::array<pollfd, 2> entries{{{m_socket.Get(), events, 0}, {m_stop.Descriptor(), POLLIN, 0}}};
    const int ready = ::poll(entries.data(), entries.size(), static_cast<int>(time.count()));
    return ready > 0 && entries[0].revents != 0 && entries[1].revents == 0;
}

Wake Connection::Wait(int descriptor, std::chrono::milliseconds time) const {
    // The socket's entry asks for nothing: that the other side has gone is always reported.
    std::array<pollfd, 3> entries{{{m_socket.Get(), 0, 0}, {m_stop.Descriptor(), POLLIN, 0}, {descriptor, POLLIN, 0}}};
    const int ready = ::poll(entries.data(), entries.size(), static_cast<int>(time.count()));
    if (ready > 0 && (entries[0].revents != 0 || entries[1].revents != 0)) {
        return Wake::Ended;
    }
    return ready > 0 ? Wake::Ready : Wake::TimedOut;
}

ssize_t Connection::Receive() {
    if (!WaitFor(POLLIN, TimeForOneStep())) {
        return -1;
    }
    const ssize_t received = ::recv(m_socket.Get(), m_buffer.data(), m_buffer.size(), MSG_DONTWAIT);
    m_bufferStart = 0;
    m_bufferEnd = received > 0 ? static_cast<std::size_t>(received) : 0;
    return received;
}

ssize_t Connection::Read(char* bytes, std::size_t size) {
    if (m_mayRead == 0) {
        return -1;
    }
    if (m_bufferStart == m_bufferEnd) {
        const ssize_t received = Receive();
        if (received <= 0) {
            return received;
        }
    }
    const std::size_t count = std::min({size, m_bufferEnd - m_bufferStart, m_mayRead});
    std::memcpy(bytes, m_buffer.data() + m_bufferStart, count);
    m_bufferStart += count;
    m_mayRead -= count;
    return static_cast<ssize_t>(count);
}

ssize_t Connection::Write(const char* bytes, std::size_t size) {
    while (true) {
        // Tried before waiting, so that an answer that is ready when the server stops still goes out.
        const ssize_t sent = ::send(m_socket.Get(), bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0 || (errno != EAGAIN && errno != EINTR)) {
            return sent;
        }
        if (!WaitFor(POLLOUT, TimeForOneStep())) {
            return -1;
        }
    }
}

}  // namespace gateway
