#include "http/Listener.h"

#include <sys/socket.h>

#include <cerrno>

#include "http/GatewayLog.h"
#include "http/Limits.h"

namespace gateway {

void Listener::Start(ZFileDescriptor socket) {
    m_socket.assign(socket.Get());
    socket.Release();
    Await();
}

void Listener::Close() {
    m_closed = true;
    m_socket.close();
    m_retry.cancel();
}

void Listener::Await() {
    m_socket.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                        [this](const boost::system::error_code& failure) {
                            if (!failure && !m_closed) {
                                Accept();
                            }
                        });
}

// By hand: no child that is started meanwhile may get a copy of the descriptor.
void Listener::Accept() {
    while (true) {
        ZFileDescriptor socket(::accept4(m_socket.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket) {
            m_serve(std::move(socket));
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            RetryLater();
            return;
        } else if (errno != ECONNABORTED && errno != EINTR) {
            Await();
            return;
        }
    }
}

void Listener::RetryLater() {
    Z_LOG(4, "No connections are accepted on %s; trying again", m_name);
    m_retry.expires_after(limits::kRetryAfter);
    m_retry.async_wait([this](const boost::system::error_code& failure) {
        if (!failure && !m_closed) {
            Accept();
        }
    });
}

}  // namespace gateway
