#pragma once

#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <memory>

namespace gateway {

/// The bytes of one connection: by a UNIX socket, TCP, or TLS on TCP. Reads and writes as asio's own streams do, each
/// within the time that was set before it; when that is over the connection is closed.
class ByteStream {
public:
    using Protocol = boost::asio::generic::stream_protocol;
    using Executor = boost::asio::io_context::executor_type;
    using Socket = boost::asio::basic_stream_socket<Protocol, Executor>;
    using Plain = boost::beast::basic_stream<Protocol, Executor>;
    using Tls = boost::asio::ssl::stream<Plain&>;

    /// `tls` may be null, and outlives the stream.
    ByteStream(Socket socket, boost::asio::ssl::context* tls)
        : m_plain(std::make_unique<Plain>(std::move(socket))),
          m_tls(tls == nullptr ? nullptr : std::make_unique<Tls>(*m_plain, *tls)) {}

    /// The bytes as they travel, and the time for them.
    Plain& OnTheWay() { return *m_plain; }
    Socket& Transport() { return m_plain->socket(); }
    /// Null without TLS.
    Tls* Encrypted() { return m_tls.get(); }

    // NOLINTBEGIN(readability-identifier-naming): what asio calls them.
    using executor_type = Executor;
    executor_type get_executor() { return m_plain->get_executor(); }
    template <typename Buffers, typename Handler>
    void async_read_some(const Buffers& buffers, Handler&& handler) {
        m_tls ? m_tls->async_read_some(buffers, std::forward<Handler>(handler))
              : m_plain->async_read_some(buffers, std::forward<Handler>(handler));
    }
    template <typename Buffers, typename Handler>
    void async_write_some(const Buffers& buffers, Handler&& handler) {
        m_tls ? m_tls->async_write_some(buffers, std::forward<Handler>(handler))
              : m_plain->async_write_some(buffers, std::forward<Handler>(handler));
    }
    // NOLINTEND(readability-identifier-naming)

private:
    std::unique_ptr<Plain> m_plain;  // at a place of its own: the other one refers to it
    std::unique_ptr<Tls> m_tls;
};

}  // namespace gateway
