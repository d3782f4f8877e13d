#include "HttpServer.h"

#include <fcntl.h>
#include <httplib.h>
#include <poll.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "Connection.h"
#include "GatewayLog.h"
#include "Problem.h"
#include "WorkerPool.h"

namespace gateway {

namespace {

constexpr std::size_t kLargestBody = std::size_t{2} * 1024 * 1024;
constexpr std::size_t kLongestPath = 256;  // far longer than any resource's
constexpr int kWaitingConnections = 128;   // that the kernel keeps until they are accepted
constexpr int kRequestsOfOneConnection = 100;
constexpr auto kRetryAfter = std::chrono::seconds(1);

// The connection that the calling worker thread serves: the library hands its handlers the request alone.
thread_local Connection* t_connection = nullptr;

/// A connection as the library reads and writes it.
class ConnectionStream final : public httplib::Stream {
public:
    explicit ConnectionStream(Connection& connection) : m_connection(connection) {}

    bool is_readable() const override { return true; }
    bool is_writable() const override { return m_connection.Wait(-1, std::chrono::milliseconds(0)) != Wake::Ended; }
    ssize_t read(char* bytes, size_t size) override { return m_connection.Read(bytes, size); }
    ssize_t write(const char* bytes, size_t size) override { return m_connection.Write(bytes, size); }
    // UNIX sockets have no addresses to tell.
    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    socket_t socket() const override { return m_connection.Descriptor(); }

private:
    Connection& m_connection;
};

/// An answer without an end, framed by the library's sink.
class SinkStream final : public HttpStream {
public:
    SinkStream(Connection& connection, httplib::DataSink& sink) : m_connection(connection), m_sink(sink) {}

    bool Write(std::string_view piece) override {
        m_connection.AllowAnswer();
        return m_sink.write(piece.data(), piece.size());
    }
    Wake Wait(int descriptor, std::chrono::milliseconds time) override { return m_connection.Wait(descriptor, time); }

private:
    Connection& m_connection;
    httplib::DataSink& m_sink;
};

/// Accepted connections as the library hands them over. It lives as long as one run of the library's loop.
class ConnectionQueue final : public httplib::TaskQueue {
public:
    explicit ConnectionQueue(std::size_t threads) : m_pool(threads) {}
    /// Holds the library's loop up while many connections wait: the next ones wait in the kernel, without a descriptor
    /// of this process.
    void enqueue(std::function<void()> task) override { m_pool.Post(std::move(task)); }
    void shutdown() override { m_pool.Stop(); }

private:
    WorkerPool m_pool;
};

HttpResponse Guarded(const HttpServer::Handler& handler, const HttpRequest& request) {
    try {
        return handler(request);
    } catch (const std::exception& failure) {
        Z_LOG(4, "An exception left the handler of %s: %s", request.path.c_str(), failure.what());
    } catch (...) {
        Z_LOG(4, "An unknown exception left the handler of %s", request.path.c_str());
    }
    return Problem(500, "The gateway failed; its log says more");
}

bool RunStream(const std::function<void(HttpStream&)>& run, httplib::DataSink& sink) {
    SinkStream stream(*t_connection, sink);
    try {
        run(stream);
        sink.done();
        return true;
    } catch (const std::exception& failure) {
        Z_LOG(4, "A stream broke off: %s", failure.what());
    } catch (...) {
        Z_LOG(4, "A stream broke off");
    }
    return false;
}

void Fill(httplib::Response& to, HttpResponse from) {
    to.status = from.status;
    for (const auto& [name, value] : from.headers) {
        to.set_header(name, value);
    }
    if (from.stream) {
        t_connection->CloseAfterAnswer();
        to.set_chunked_content_provider(
            from.contentType,
            [run = std::move(from.stream)](size_t, httplib::DataSink& sink) { return RunStream(run, sink); });
    } else if (!from.body.empty()) {
        to.set_content(from.body, from.contentType);
    }
    t_connection->AllowAnswer();
    if (t_connection->IsLast()) {
        to.set_header("Connection", "close");
    }
}

bool HasBody(const httplib::Request& request) {
    return request.has_header("Transfer-Encoding") || request.get_header_value<std::uint64_t>("Content-Length") > 0;
}

/// Brings a request into the one form that the handlers know: a plain body of known length, whatever its declared type,
/// and a whole, uncompressed answer.
void Simplify(httplib::Request& request) {
    request.ranges.clear();
    for (const char* name : {"Content-Type", "Content-Encoding", "Accept-Encoding"}) {
        request.headers.erase(name);
    }
    if (!request.has_header("Content-Length") && !request.has_header("Transfer-Encoding")) {
        request.set_header("Content-Length", "0");
    }
}

/// The library's server, with the reading and writing done by Connection.
class Server final : public httplib::Server {
public:
    Server(HttpServer::Handler handler, const ZStopEvent& stop) : m_handler(std::move(handler)), m_stop(stop) {
        set_address_family(AF_UNIX);
        set_payload_max_length(kLargestBody);
        set_keep_alive_max_count(kRequestsOfOneConnection);
        set_pre_routing_handler([this](const auto& request, auto& response) { return WithoutBody(request, response); });
        Post(".*", [this](const httplib::Request& request, httplib::Response& response,
                          const httplib::ContentReader& reader) { WithBody(request, response, reader); });
        set_error_handler([](const httplib::Request&, httplib::Response& response) { Explain(response); });
    }
    ~Server() override { DropListener(); }

    /// Closes the listening socket when the library's loop has not done so, because it never ran.
    void DropListener() { ZFileDescriptor(svr_sock_.exchange(INVALID_SOCKET)).Reset(); }
    /// The loop has ended, and has closed the socket; it may still remember the number.
    void ForgetListener() { svr_sock_ = INVALID_SOCKET; }

private:
    bool process_and_close_socket(socket_t socket) override;
    HandlerResponse WithoutBody(const httplib::Request& request, httplib::Response& response) const;
    void WithBody(const httplib::Request& request, httplib::Response& response,
                  const httplib::ContentReader& reader) const;
    void Answer(const httplib::Request& request, std::string body, httplib::Response& response) const;
    static void Explain(httplib::Response& response);

    const HttpServer::Handler m_handler;
    const ZStopEvent& m_stop;
};

bool Server::process_and_close_socket(socket_t socket) {
    try {
        Connection connection{ZFileDescriptor(socket), m_stop};
        ConnectionStream stream(connection);
        t_connection = &connection;
        bool closed = false;
        for (int left = kRequestsOfOneConnection; left > 0 && !closed && connection.AwaitRequest(); --left) {
            closed = !process_request(stream, left == 1, closed, Simplify) || closed || connection.IsLast();
        }
    } catch (const std::exception& failure) {
        Z_LOG(4, "A connection broke off: %s", failure.what());
    } catch (...) {
        Z_LOG(4, "A connection broke off");
    }
    t_connection = nullptr;
    return true;
}

/// Everything but a POST of reasonable form is answered without looking at its body.
httplib::Server::HandlerResponse Server::WithoutBody(const httplib::Request& request,
                                                     httplib::Response& response) const {
    if (request.method == "POST" && request.path.size() <= kLongestPath) {
        return HandlerResponse::Unhandled;
    }
    if (HasBody(request)) {
        t_connection->CloseWithRestUnread();
    }
    Answer(request, {}, response);
    return HandlerResponse::Handled;
}

void Server::WithBody(const httplib::Request& request, httplib::Response& response,
                      const httplib::ContentReader& reader) const {
    t_connection->AllowBody(2 * kLargestBody);  // with room for the length lines of a body that comes in chunks
    std::string body;
    bool tooLarge = false;
    const bool whole = reader([&](const char* bytes, size_t size) {
        tooLarge = body.size() + size > kLargestBody;
        if (!tooLarge) {
            body.append(bytes, size);
        }
        return !tooLarge;
    });
    if (whole) {
        Answer(request, std::move(body), response);
        return;
    }
    response.status = tooLarge ? 413 : response.status;
    Explain(response);
}

void Server::Answer(const httplib::Request& request, std::string body, httplib::Response& response) const {
    HttpRequest plain;
    plain.method = request.method;
    plain.path = request.path;
    plain.query.insert(request.params.begin(), request.params.end());
    plain.body = std::move(body);
    Fill(response, Guarded(m_handler, plain));
}

/// A refusal of the library's own gets its problem document. The rest of such a request is not looked for.
void Server::Explain(httplib::Response& response) {
    if (!response.body.empty()) {
        return;
    }
    t_connection->CloseWithRestUnread();
    switch (response.status) {
        case 413:
            Fill(response, Problem(413, "The body is larger than 2 MiB"));
            break;
        case 414:
            Fill(response, Problem(414, "The address is longer than 8192 bytes"));
            break;
        default:
            Fill(response, Problem(response.status, "The request is not well-formed HTTP, or it broke off"));
    }
}

}  // namespace

struct HttpServer::Impl {
    Impl(HttpServerSettings theSettings, Handler handler)
        : settings(std::move(theSettings)), file(settings.path), server(std::move(handler), stop) {}

    bool Bind(std::string& error);
    bool BindAgain();
    void Run();

    const HttpServerSettings settings;
    ZStopEvent stop;
    SocketFile file;
    Server server;
    std::thread thread;
    std::mutex listenerMutex;
    // A second descriptor of the listening socket, whose first one the library closes when it likes: shutting this one
    // down ends the library's loop, whatever that is doing, on its own thread.
    ZFileDescriptor listener;
};

bool HttpServer::Impl::Bind(std::string& error) {
    const std::lock_guard lock(listenerMutex);
    server.DropListener();
    listener.Reset();
    if (!file.Prepare(error)) {
        return false;
    }
    server.set_socket_options([this](socket_t socket) {
        SocketFile::Close(socket);
        listener.Reset(::fcntl(socket, F_DUPFD_CLOEXEC, 0));
    });
    // A UNIX socket has no port; the library wants one that is not 0.
    if (!server.bind_to_port(settings.path, 1) || ::listen(listener.Get(), kWaitingConnections) != 0) {
        error = std::strerror(errno);
        return false;
    }
    return file.Open(settings.access, error);
}

bool HttpServer::Impl::BindAgain() {
    std::string error;
    try {
        file.Remove();
        if (Bind(error)) {
            return true;
        }
    } catch (const std::exception& failure) {
        error = failure.what();
    }
    Z_LOG(4, "The server can't be set up again: %s", error.c_str());
    return false;
}

void HttpServer::Impl::Run() {
    while (!stop.IsSet()) {
        try {
            server.listen_after_bind();
        } catch (const std::exception& failure) {
            Z_LOG(4, "The server failed: %s", failure.what());
        }
        server.ForgetListener();
        // The loop also ends when the system lacks memory or descriptors for a moment.
        while (!stop.IsSet()) {
            Z_LOG(4, "No connections are accepted on %s; trying again", settings.path.c_str());
            pollfd wait{stop.Descriptor(), POLLIN, 0};
            ::poll(&wait, 1, static_cast<int>(std::chrono::milliseconds(kRetryAfter).count()));
            if (BindAgain()) {
                break;
            }
        }
    }
}

HttpServer::HttpServer(HttpServerSettings settings, Handler handler)
    : m_impl(std::make_unique<Impl>(std::move(settings), std::move(handler))) {
    m_impl->server.new_task_queue = [impl = m_impl.get()] { return new ConnectionQueue(impl->settings.threads); };
}

HttpServer::~HttpServer() {
    Stop();
}

bool HttpServer::Start(std::string& error) {
    if (!m_impl->Bind(error)) {
        return false;
    }
    try {
        m_impl->thread = std::thread([impl = m_impl.get()] { impl->Run(); });
    } catch (const std::system_error& failure) {
        error = failure.what();
        return false;
    }
    return true;
}

void HttpServer::Stop() {
    m_impl->stop.Set();
    {
        const std::lock_guard lock(m_impl->listenerMutex);
        ::shutdown(m_impl->listener.Get(), SHUT_RDWR);
    }
    if (m_impl->thread.joinable()) {
        m_impl->thread.join();
    }
    m_impl->file.Remove();
}

}  // namespace gateway
