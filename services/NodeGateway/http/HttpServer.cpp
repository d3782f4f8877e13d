#include "http/HttpServer.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <future>
#include <thread>

#include "ZShared/ZScopeEnd.h"
#include "http/Connection.h"
#include "http/GatewayLog.h"
#include "http/Listener.h"
#include "http/NetworkDoor.h"

namespace gateway {

namespace asio = boost::asio;

struct HttpServer::Impl {
    Impl(HttpServerSettings theSettings, HttpHandler& handler, ZWakeUp& ready)
        : settings(std::move(theSettings)),
          file(settings.path),
          state(handler, settings.streams + limits::kConnections),
          streamsReady(ready) {}

    void Run();
    ZResult<void> Listen();
    void ServeUser(ZFileDescriptor socket);
    void ServeStranger(ZFileDescriptor socket);
    std::shared_ptr<Connection> Made(ZFileDescriptor socket, const Peer& peer, UserShares& share, NetworkDoor* entered);
    void AwaitStreams();
    void StopListening();
    void CloseAll();

    const HttpServerSettings settings;
    SocketFile file;
    std::unique_ptr<NetworkDoor> door;  // null: only users of this system are served
    ServerState state;
    ZWakeUp& streamsReady;
    asio::executor_work_guard<asio::io_context::executor_type> guard{state.io.get_executor()};
    Listener users{state.io, settings.path, [this](ZFileDescriptor socket) { ServeUser(std::move(socket)); }};
    Listener network{state.io, settings.network.value_or(NetworkSettings()).listen,
                     [this](ZFileDescriptor socket) { ServeStranger(std::move(socket)); }};
    asio::posix::stream_descriptor wake{state.io};  // a second descriptor of streamsReady's
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

void HttpServer::Impl::ServeUser(ZFileDescriptor socket) {
    const auto peer = PeerOf(socket.Get(), settings.groups);
    if (!peer) {
        return;
    }
    const bool welcome = state.connections.Take(peer->account);
    if (!welcome && !state.refused.Take(peer->account)) {
        return;
    }
    const auto connection = Made(std::move(socket), *peer, welcome ? state.connections : state.refused, nullptr);
    welcome ? connection->Start() : connection->TurnAway();
}

void HttpServer::Impl::ServeStranger(ZFileDescriptor socket) {
    const auto peer = NetworkDoor::StrangerOf(socket.Get());
    if (peer && state.strangers.Take(peer->account)) {
        Made(std::move(socket), *peer, state.strangers, door.get())->Start();
    }
}

std::shared_ptr<Connection> HttpServer::Impl::Made(ZFileDescriptor socket, const Peer& peer, UserShares& share,
                                                   NetworkDoor* entered) {
    ByteStream::Socket stream(state.io.get_executor());
    stream.assign(ByteStream::Protocol(entered == nullptr ? AF_UNIX : AF_INET, 0), socket.Release());
    auto connection = std::make_shared<Connection>(
        state, ByteStream(std::move(stream), entered == nullptr ? nullptr : entered->Tls()),
        std::make_shared<const Peer>(peer), share, entered);
    state.open.insert(connection);
    return connection;
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
    users.Close();
    network.Close();
    wake.close();
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

ZResult<void> HttpServer::Impl::Listen() {
    if (settings.network) {
        const std::string where = settings.network->listen + " (\"listen\")";
        auto opened = NetworkDoor::Open(*settings.network);
        if (!opened) {
            return opened.error().In(where);
        }
        door = std::move(*opened);
        auto socket = door->Listen();
        if (!socket) {
            return socket.error().In(where);
        }
        network.Start(std::move(*socket));
    }
    auto socket = file.Listen(settings.access);
    if (!socket) {
        return socket.error().In(settings.path + " (\"socketPath\")");
    }
    users.Start(std::move(*socket));
    return {};
}

ZResult<void> HttpServer::Start() {
    try {
        if (auto listens = m_impl->Listen(); !listens) {
            return listens;
        }
        m_impl->wake.assign(::fcntl(m_impl->streamsReady.Descriptor(), F_DUPFD_CLOEXEC, 0));
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
