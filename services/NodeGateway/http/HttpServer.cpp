#include "http/HttpServer.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cerrno>
#include <future>
#include <thread>

#include "ZShared/ZScopeEnd.h"
#include "http/Connection.h"
#include "http/GatewayLog.h"

namespace gateway {

namespace asio = boost::asio;

struct HttpServer::Impl {
    Impl(HttpServerSettings theSettings, HttpHandler& handler, ZWakeUp& ready)
        : settings(std::move(theSettings)),
          file(settings.path),
          state(handler, settings.streams + limits::kConnections),
          streamsReady(ready) {}

    void Run();
    void AwaitConnections();
    void Accept();
    void RetryLater();
    void Serve(ZFileDescriptor socket);
    void AwaitStreams();
    void StopListening();
    void CloseAll();

    const HttpServerSettings settings;
    SocketFile file;
    ServerState state;
    ZWakeUp& streamsReady;
    asio::executor_work_guard<asio::io_context::executor_type> guard{state.io.get_executor()};
    asio::posix::stream_descriptor listener{state.io};
    asio::posix::stream_descriptor wake{state.io};  // a second descriptor of streamsReady's
    asio::steady_timer retry{state.io};
    std::thread thread;
};

void HttpServer::Impl::Run() {
    while (true) {
        try {
            state.io.run();
            return;
        } catch (const std::exception& failure) {
            Z_LOG(4, "A connection broke off: %s", failure.what());
        }
    }
}

void HttpServer::Impl::AwaitConnections() {
    listener.async_wait(asio::posix::stream_descriptor::wait_read, [this](const boost::system::error_code& failure) {
        if (!failure && !state.stopping) {
            Accept();
        }
    });
}

// By hand: no child that is started meanwhile may get a copy of the descriptor.
void HttpServer::Impl::Accept() {
    while (true) {
        ZFileDescriptor socket(::accept4(listener.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket) {
            Serve(std::move(socket));
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            RetryLater();
            return;
        } else if (errno != ECONNABORTED && errno != EINTR) {
            AwaitConnections();
            return;
        }
    }
}

void HttpServer::Impl::RetryLater() {
    Z_LOG(4, "No connections are accepted on %s; trying again", settings.path);
    retry.expires_after(limits::kRetryAfter);
    retry.async_wait([this](const boost::system::error_code& failure) {
        if (!failure && !state.stopping) {
            Accept();
        }
    });
}

void HttpServer::Impl::Serve(ZFileDescriptor socket) {
    const auto peer = PeerOf(socket.Get(), settings.groups);
    if (!peer) {
        return;
    }
    const bool welcome = state.connections.Take(peer->user);
    if (!welcome && !state.refused.Take(peer->user)) {
        return;
    }
    Connection::Socket stream(state.io.get_executor());
    stream.assign(Connection::Protocol(), socket.Release());
    const auto connection = std::make_shared<Connection>(state, std::move(stream), std::make_shared<const Peer>(*peer),
                                                         welcome ? state.connections : state.refused);
    state.open.insert(connection);
    welcome ? connection->Start() : connection->TurnAway();
}

void HttpServer::Impl::AwaitStreams() {
    wake.async_wait(asio::posix::stream_descriptor::wait_read, [this](const boost::system::error_code& failure) {
        if (failure || state.stopping) {
            return;
        }
        streamsReady.Clear();
        // A connection that ends takes itself out.
        for (const auto& connection : std::vector(state.open.begin(), state.open.end())) {
            connection->Continue();
        }
        AwaitStreams();
    });
}

void HttpServer::Impl::StopListening() {
    state.stopping = true;
    listener.close();
    wake.close();
    retry.cancel();
    for (const auto& connection : std::vector(state.open.begin(), state.open.end())) {
        connection->Finish();
    }
    state.turns.Close();
}

void HttpServer::Impl::CloseAll() {
    for (const auto& connection : std::vector(state.open.begin(), state.open.end())) {
        connection->Close();
    }
    guard.reset();
}

HttpServer::HttpServer(HttpServerSettings settings, HttpHandler& handler, ZWakeUp& streamsReady)
    : m_impl(std::make_unique<Impl>(std::move(settings), handler, streamsReady)) {}

HttpServer::~HttpServer() {
    Stop();
}

ZResult<void> HttpServer::Start() {
    auto listener = m_impl->file.Listen(m_impl->settings.access);
    if (!listener) {
        return listener.error();
    }
    try {
        m_impl->listener.assign(listener->Release());
        m_impl->wake.assign(::fcntl(m_impl->streamsReady.Descriptor(), F_DUPFD_CLOEXEC, 0));
        m_impl->AwaitConnections();
        m_impl->AwaitStreams();
        m_impl->thread = std::thread([impl = m_impl.get()] { impl->Run(); });
    } catch (const std::exception& failure) {
        return ZError(failure.what());
    }
    return {};
}

void HttpServer::Stop() {
    Impl& impl = *m_impl;
    if (impl.thread.joinable()) {
        std::promise<void> stopped;
        asio::post(impl.state.io, [&] {
            const ZScopeEnd done([&] { stopped.set_value(); });
            impl.StopListening();
        });
        stopped.get_future().wait();
        impl.state.turns.Join();
        // Answers that were ready by now have been sent, as far as the other side has room for them.
        asio::post(impl.state.io, [&impl] { impl.CloseAll(); });
        impl.thread.join();
    }
    impl.file.Remove();
}

}  // namespace gateway
