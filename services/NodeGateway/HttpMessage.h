#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace gateway {

/// Why a wait on a connection ended.
enum class Wake {
    Ready,     ///< what was waited for is there
    TimedOut,  ///< the time is over
    Ended,     ///< the other side has gone, or the server stops
};

/// Where an answer without an end is written, piece by piece. Used by the thread that runs the answer.
class HttpStream {
public:
    virtual ~HttpStream() = default;
    /// Sends one piece. False when the other side has gone, takes it too slowly, or the server stops.
    virtual bool Write(std::string_view piece) = 0;
    /// Sleeps until `descriptor` is readable, the time is over, or the connection has ended.
    virtual Wake Wait(int descriptor, std::chrono::milliseconds time) = 0;
};

struct HttpRequest {
    std::string method;  ///< "HEAD" is answered as "GET", without the body
    std::string path;    ///< decoded, without the query
    std::multimap<std::string, std::string> query;
    std::string body;
};

struct HttpResponse {
    int status = 200;
    std::string contentType = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;  ///< further ones
    /// Takes the body's place: called to write it, returns at its end.
    std::function<void(HttpStream&)> stream;
};

}  // namespace gateway
