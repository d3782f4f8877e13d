#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "http/Peer.h"

namespace gateway {

struct HttpRequest {
    std::string method;  ///< "HEAD" is answered as "GET", without the body
    std::string path;    ///< decoded, without the query
    std::multimap<std::string, std::string> query;
    std::string body;
    std::string knownTag;              ///< "If-None-Match": what the asker has already; empty: nothing
    bool takesGzip = false;            ///< an answer may be compressed
    std::shared_ptr<const Peer> peer;  ///< who has connected; never null
};

/// An answer that goes on, in pieces that come when they come. Used by the server's thread alone, which it must not
/// hold up; it is destroyed when the other side has gone, or the server stops.
class HttpStream {
public:
    using Pieces = std::vector<std::shared_ptr<const std::string>>;

    virtual ~HttpStream() = default;
    /// Adds what waits to `pieces`; that may be nothing. False when the stream ends.
    virtual bool Take(Pieces& pieces) = 0;
    /// Whether it goes on. Asked while pieces are under way, in place of Take.
    virtual bool GoesOn() = 0;
    /// The other side takes the pieces too slowly; the stream ends.
    virtual void OnTooSlow() = 0;
    /// What is sent when nothing was for a while. Lives as long as the program.
    virtual std::string_view KeepAlive() const = 0;
};

struct HttpResponse {
    int status = 200;
    std::string contentType = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;  ///< further ones
    std::unique_ptr<HttpStream> stream;                        ///< takes the body's place
};

/// What a server serves.
class HttpHandler {
public:
    virtual ~HttpHandler() = default;
    /// How many bytes the body of a request for this path may have. On the server's thread: it must return at once.
    virtual std::size_t LargestBody(std::string_view path) const = 0;
    /// Whether anybody on the network may read this path (as the request spells it) without a token. On the server's
    /// thread, as above.
    virtual bool IsOpen(std::string_view path) const = 0;
    /// Called from several threads at once, and may take its time. What it throws becomes an answer with status 500 and
    /// a log line.
    virtual HttpResponse Handle(const HttpRequest& request) = 0;
    /// The server itself has refused a request for this path. On the server's thread, as above.
    virtual void OnRefused(std::string_view path, int status) = 0;
};

}  // namespace gateway
