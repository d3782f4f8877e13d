#pragma once

#include <memory>

#include "HttpMessage.h"
#include "SocketFile.h"

namespace gateway {

struct HttpServerSettings {
    std::string path;  ///< of the UNIX socket
    SocketAccess access;
    std::size_t threads = 1;  ///< connections that are served at once; further ones wait
};

/// HTTP/1.1 on a UNIX socket: the only place that knows the HTTP library. Bodies are limited to 2 MiB; a client that is
/// silent in the middle of a request is dropped after ten seconds.
class HttpServer {
public:
    /// Called from several threads at once. What it throws becomes an answer with status 500 and a log line.
    using Handler = std::function<HttpResponse(const HttpRequest&)>;

    HttpServer(HttpServerSettings settings, Handler handler);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Listens and serves on threads of its own. False, with `error`, when the socket or a thread can't be had.
    bool Start(std::string& error);
    /// Ends all connections, waits for the threads and removes the socket. Not to be called by a handler. May be called
    /// again; a stopped server can't be started again.
    void Stop();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace gateway
