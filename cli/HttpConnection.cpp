#include "HttpConnection.h"

#include <httplib.h>
#include <sys/socket.h>

#include "Reachability.h"
#include "text/Escape.h"

namespace arborctl {
namespace {

constexpr std::size_t kMaxRefusalBody = std::size_t{1} << 20U;

std::string Describe(httplib::Error error, const std::string& socketPath) {
    const std::string device = "device not reachable at " + text::Escaped(socketPath) + ": ";
    switch (error) {
        case httplib::Error::Connection:
        case httplib::Error::ConnectionTimeout:
            return WhyNotConnected(socketPath);
        case httplib::Error::Read:
            return device + "the connection broke off or no answer came in time";
        case httplib::Error::Write:
            return device + "the connection broke off while the request was sent";
        case httplib::Error::Canceled:
            return device + "the request was broken off";
        default:
            return device + httplib::to_string(error);
    }
}

HttpReply ToReply(const httplib::Result& result, const std::string& socketPath) {
    if (!result) {
        const bool isSent = result.error() == httplib::Error::Read || result.error() == httplib::Error::Canceled;
        return {0, "", "", Describe(result.error(), socketPath), isSent};
    }
    return {result->status, result->get_header_value("Content-Type"), result->body, "", false};
}

}  // namespace

struct HttpConnection::Impl {
    Impl(std::string path, std::chrono::milliseconds patience)
        : socketPath(std::move(path)), client(socketPath, 80) {  // the port is not used with a UNIX socket
        client.set_address_family(AF_UNIX);
        client.set_default_headers({{"Host", "localhost"}});
        client.set_keep_alive(true);
        client.set_connection_timeout(patience);
        client.set_read_timeout(patience);
        client.set_write_timeout(patience);
    }

    std::string socketPath;
    httplib::Client client;
};

HttpConnection::HttpConnection(const std::string& socketPath, std::chrono::milliseconds patience)
    : m_impl(std::make_unique<Impl>(socketPath, patience)) {}

HttpConnection::~HttpConnection() = default;

HttpReply HttpConnection::Get(const std::string& path) {
    return ToReply(m_impl->client.Get(path), m_impl->socketPath);
}

HttpReply HttpConnection::PostJson(const std::string& path, const std::string& body) {
    return ToReply(m_impl->client.Post(path, body, "application/json"), m_impl->socketPath);
}

HttpReply HttpConnection::Stream(const std::string& path, const std::function<void()>& onOpen,
                                 const std::function<bool(std::string_view)>& onBytes) {
    bool streaming = false;
    std::string refusal;
    const auto onHeaders = [&](const httplib::Response& response) {
        streaming = response.status == 200;
        if (streaming) {
            onOpen();
        }
        return true;
    };
    const auto onContent = [&](const char* bytes, std::size_t count) {
        if (streaming) {
            return onBytes({bytes, count});
        }
        refusal.append(bytes, count);
        return refusal.size() <= kMaxRefusalBody;
    };
    const httplib::Headers headers{{"Accept", "text/event-stream"}};
    HttpReply reply = ToReply(m_impl->client.Get(path, headers, onHeaders, onContent), m_impl->socketPath);
    if (!streaming) {
        reply.body = std::move(refusal);
    }
    return reply;
}

void HttpConnection::Stop() {
    m_impl->client.stop();
}

}  // namespace arborctl
