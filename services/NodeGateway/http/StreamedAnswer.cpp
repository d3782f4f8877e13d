// An answer that goes on: the part of a connection that sends a stream's pieces.

#include <boost/beast/core/error.hpp>
#include <charconv>

#include "http/Connection.h"

namespace gateway {

namespace asio = boost::asio;
namespace beast = boost::beast;

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kLastChunk = "0\r\n\r\n";

asio::const_buffer Bytes(std::string_view text) {
    return {text.data(), text.size()};
}

}  // namespace

void Connection::StartStream() {
    m_state = State::Streaming;
    m_request.reset();
    m_head = {};
    m_buffer = {};
    m_stream.Transport().non_blocking(true);
    m_lastSent = Clock::now();
    ScheduleKeepAlive(m_lastSent);
    if (m_door == nullptr) {
        // Waits for nothing but the end: that the other side has gone is always reported.
        m_stream.Transport().async_wait(ByteStream::Socket::wait_error,
                                        [self = shared_from_this()](Error) { self->Close(); });
    } else {
        WatchForEnd();
    }
    Continue();
}

/// Over the network only a read tells the end. What else comes is not looked at, and counts as requests do.
void Connection::WatchForEnd() {
    m_stream.OnTheWay().expires_never();
    m_buffer.clear();
    m_stream.async_read_some(m_buffer.prepare(limits::kBuffer), [self = shared_from_this()](Error error, std::size_t) {
        // A piece that is not taken in time ends the reading, too; its own callback comes next.
        if (error == asio::error::operation_aborted && self->m_sending) {
            return;
        }
        if (error || --self->m_requestsLeft <= 0) {
            self->Close();
        } else if (self->m_state == State::Streaming) {
            self->WatchForEnd();
        }
    });
}

void Connection::ScheduleKeepAlive(Clock::time_point silentSince) {
    WakeAt(silentSince + limits::kKeepAliveAfter, [](Connection& self) {
        if (self.m_state == State::Streaming) {
            self.KeepAlive();
        }
    });
}

void Connection::KeepAlive() {
    const auto now = Clock::now();
    if (!m_sending && m_lastSent + limits::kKeepAliveAfter <= now) {
        m_pieces.push_back(std::make_shared<const std::string>(m_response->stream->KeepAlive()));
        SendPieces();
    }
    if (m_state == State::Streaming) {
        ScheduleKeepAlive(m_sending ? now : m_lastSent);
    }
}

void Connection::Continue() {
    while (m_state == State::Streaming && !m_sending) {
        if (!m_response->stream->Take(m_pieces)) {
            EndStream();
        } else if (m_pieces.empty()) {
            return;
        } else {
            SendPieces();
        }
    }
    if (m_state == State::Streaming && !m_response->stream->GoesOn()) {
        Close();
    }
}

/// One chunk of the answer, without a copy of what all streams send alike.
void Connection::SendPieces() {
    std::size_t size = 0;
    m_buffers.assign(1, {});
    for (const auto& piece : m_pieces) {
        m_buffers.push_back(Bytes(*piece));
        size += piece->size();
    }
    m_buffers.push_back(Bytes(kLineEnd));
    std::array<char, 2 * sizeof size> digits{};
    const char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), size, 16).ptr;
    m_head.assign(std::string_view(digits.data(), end)).append(kLineEnd);
    m_buffers.front() = Bytes(m_head);
    m_lastSent = Clock::now();
    SendBuffers();
}

void Connection::SendBuffers() {
    // Most often the system takes all at once: what waiting costs is for when it does not.
    Error error = asio::error::would_block;
    std::size_t sent = m_stream.Encrypted() == nullptr ? m_stream.Transport().write_some(m_buffers, error) : 0;
    if (error && error != asio::error::would_block) {
        Close();
        return;
    }
    while (!m_buffers.empty() && sent >= m_buffers.front().size()) {
        sent -= m_buffers.front().size();
        m_buffers.erase(m_buffers.begin());
    }
    if (m_buffers.empty()) {
        m_pieces.clear();
        return;
    }
    m_buffers.front() += sent;
    m_sending = true;
    Write(m_buffers, [](Connection& self, Error failure) { self.OnSent(failure); });
}

void Connection::OnSent(Error error) {
    m_sending = false;
    m_pieces.clear();
    if (error == beast::error::timeout) {
        m_response->stream->OnTooSlow();
    }
    if (error) {
        Close();
    } else if (m_server.stopping) {
        EndStream();
    } else {
        Continue();
    }
}

void Connection::EndStream() {
    m_state = State::Answering;
    m_response->stream.reset();
    Write(Bytes(kLastChunk), [](Connection& self, Error) { self.Close(); });
}

}  // namespace gateway
