#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <string>

#include "ZShared/ZFileDescriptor.h"

namespace gateway {

/// Accepts the connections of one listening socket. Belongs to the thread that runs `io`, once that runs.
class Listener {
public:
    /// `name` is for the log; `serve` gets each connected socket, which does not block.
    Listener(boost::asio::io_context& io, std::string name, std::function<void(ZFileDescriptor)> serve)
        : m_name(std::move(name)), m_serve(std::move(serve)), m_socket(io), m_retry(io) {}

    void Start(ZFileDescriptor socket);
    void Close();

private:
    void Await();
    void Accept();
    void RetryLater();

    const std::string m_name;
    const std::function<void(ZFileDescriptor)> m_serve;
    boost::asio::posix::stream_descriptor m_socket;
    boost::asio::steady_timer m_retry;
    bool m_closed = false;
};

}  // namespace gateway
