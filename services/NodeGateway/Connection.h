#pragma once

#include <sys/types.h>

#include <array>

#include "HttpMessage.h"
#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZStopEvent.h"

namespace gateway {

/// One accepted connection, used by one thread, which it never holds for long: every wait ends when the other side
/// goes, when its time is over, or when `stop` is set. Closed by the destructor.
class Connection {
public:
    Connection(ZFileDescriptor socket, const ZStopEvent& stop);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Waits, for some seconds, for the first byte of a request, and gives the request its time to arrive. Reading it
    /// fails after 64 KiB, which are for its head.
    bool AwaitRequest();
    /// Lets so many bytes more be read of this request.
    void AllowBody(std::size_t bytes) { m_mayRead = bytes; }
    /// Gives what is written from now on its time; without it, the time that the request had counts on.
    void AllowAnswer();

    /// Both as the system's calls: bytes done, 0 at the end of input, -1 on failure.
    ssize_t Read(char* bytes, std::size_t size);
    ssize_t Write(const char* bytes, std::size_t size);
    Wake Wait(int descriptor, std::chrono::milliseconds time) const;

    /// No further request is read after this one's answer.
    void CloseAfterAnswer() { m_bLast = true; }
    /// As well, because the rest of this request stays unread: it could not be told from a new one. The other side
    /// still gets to send it, for a moment, since it may not look for its answer before.
    void CloseWithRestUnread() { m_bLast = m_bRestUnread = true; }
    bool IsLast() const { return m_bLast; }
    int Descriptor() const { return m_socket.Get(); }

private:
    using Clock = std::chrono::steady_clock;
    bool WaitFor(short events, std::chrono::milliseconds time) const;
    std::chrono::milliseconds TimeForOneStep() const;
    ssize_t Receive();
    void SwallowRest();

    ZFileDescriptor m_socket;
    const ZStopEvent& m_stop;
    Clock::time_point m_deadline;
    bool m_bLast = false;
    bool m_bRestUnread = false;
    // What was received and not yet read: requests are read byte by byte up to their bodies.
    std::array<char, 16384> m_buffer;
    std::size_t m_bufferStart = 0;
    std::size_t m_bufferEnd = 0;
    std::size_t m_mayRead = 0;  // of this request: the library keeps all of a head and of a chunk's length line
};

}  // namespace gateway
