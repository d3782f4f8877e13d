#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace arborctl {

/// What came back from one request. Status 0: nothing did, and `failure` says why, in a sentence for people.
struct HttpReply {
    int status = 0;
    std::string contentType;
    std::string body;
    std::string failure;
    bool unanswered = false;  ///< The request was sent whole, then nothing came back.
};

/// HTTP over a UNIX socket: the only place that knows the HTTP library. One request at a time; Stop() may be called by
/// any thread at any time.
class HttpConnection {
public:
    /// `patience` bounds the connecting and each wait for bytes of an answer. A socket path that the system can't take
    /// (more than 107 bytes) makes every request fail.
    HttpConnection(const std::string& socketPath, std::chrono::milliseconds patience);
    ~HttpConnection();
    HttpConnection(const HttpConnection&) = delete;
    HttpConnection& operator=(const HttpConnection&) = delete;

    HttpReply Get(const std::string& path);
    HttpReply PostJson(const std::string& path, const std::string& body);

    /// Reads an answer without an end. `onOpen` is called once when it starts, with status 200; `onBytes` with each
    /// piece until it returns false, the other side ends, or Stop(). Any other status is returned as a plain reply.
    HttpReply Stream(const std::string& path, const std::function<void()>& onOpen,
                     const std::function<bool(std::string_view)>& onBytes);

    /// Breaks off the request that is under way, if any; one that has not begun is not affected.
    void Stop();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace arborctl
