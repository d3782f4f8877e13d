#pragma once

#include <memory>
#include <optional>

#include "ZShared/ZWakeUp.h"
#include "http/HttpMessage.h"
#include "http/NetworkSettings.h"
#include "http/SocketFile.h"

namespace gateway {

struct HttpServerSettings {
    std::string path;  ///< of the UNIX socket
    SocketAccess access;
    std::vector<gid_t> groups;  ///< whose members the handler tells apart
    std::size_t streams = 0;    ///< that may be open at once, beside the connections for everything else
    std::optional<NetworkSettings> network;
};

/// HTTP/1.1 on a UNIX socket and, when that is set, on the network: on one thread for all connections and a few for the
/// handler's calls. What a client may cost is bounded (Limits.h).
class HttpServer {
public:
    /// Handler and `streamsReady` must outlive the server. Whoever sets the latter has something for a stream to take.
    HttpServer(HttpServerSettings settings, HttpHandler& handler, ZWakeUp& streamsReady);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Listens and serves on threads of its own. An error when a socket, a file or a thread can't be had; it names
    /// where was to be listened.
    ZResult<void> Start();
    /// Ends all connections, waits for the handler's calls and the threads, and removes the socket. Not to be called by
    /// a handler. May be called again; a stopped server can't be started again.
    void Stop();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace gateway
