#include "http/Connection.h"

#include <boost/beast/core/error.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/status.hpp>

#include "http/GatewayLog.h"
#include "http/Problem.h"
#include "http/Target.h"

namespace gateway {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
constexpr std::string_view kTooManyConnections = "As many connections as are allowed are open";
constexpr std::string_view kTooMuchHeld = "As much as may be held at once is being sent; try again";
constexpr std::string_view kLineEnd = "\r\n";

asio::const_buffer Bytes(std::string_view text) {
    return {text.data(), text.size()};
}

std::string_view View(beast::string_view text) {
    return {text.data(), text.size()};
}

std::string Size(std::size_t bytes) {
    constexpr std::size_t kMiB = std::size_t{1024} * 1024;
    return bytes % kMiB == 0 ? std::to_string(bytes / kMiB) + " MiB" : std::to_string(bytes / 1024) + " KiB";
}

HttpResponse Guarded(HttpHandler& handler, const HttpRequest& request) {
    try {
        return handler.Handle(request);
    } catch (const std::exception& failure) {
        Z_LOG(4, "An exception left the handler of %s: %s", request.path, failure.what());
    } catch (...) {
        Z_LOG(4, "An unknown exception left the handler of %s", request.path);
    }
    return Problem(500, "The gateway failed; its log says more");
}

}  // namespace

Connection::Connection(ServerState& server, ByteStream stream, std::shared_ptr<const Peer> peer, UserShares& share,
                       NetworkDoor* door)
    : m_server(server), m_door(door), m_peer(std::move(peer)), m_share(&share), m_stream(std::move(stream)) {}

void Connection::Start() {
    if (m_stream.Encrypted() == nullptr) {
        ReadHead();
        return;
    }
    LimitTime(limits::kStrangerTime);
    m_stream.Encrypted()->async_handshake(asio::ssl::stream_base::server, [self = shared_from_this()](Error error) {
        if (self->m_state == State::Closed) {
            return;
        }
        if (error) {
            self->m_door->OnHandshakeFailed(*self->m_peer, error);
            self->Close();
            return;
        }
        self->ReadHead();
    });
}

void Connection::TurnAway() {
    m_restUnread = true;
    Answer(Problem(503, kTooManyConnections));
}

void Connection::Close() {
    if (m_state == State::Closed) {
        return;
    }
    m_state = State::Closed;
    ReturnCharge();
    m_share->Return(m_peer->account);
    m_timer.reset();
    m_response.reset();
    Error ignored;
    // Reaches the other side even when a child process holds a copy of the descriptor.
    m_stream.Transport().shutdown(ByteStream::Socket::shutdown_both, ignored);
    m_stream.OnTheWay().close();
    m_server.open.erase(shared_from_this());
}

void Connection::Finish() {
    m_last = true;
    if (m_state == State::Streaming && !m_sending) {
        EndStream();
    } else if (m_state == State::Reading) {
        Close();
    }
}

// --- Reading a request ---

void Connection::ReadHead() {
    m_state = State::Reading;
    m_response.reset();
    m_request.emplace().peer = m_peer;
    m_buffer.shrink_to_fit();
    m_parser.emplace();
    m_parser->header_limit(static_cast<std::uint32_t>(limits::kHead));
    m_parser->body_limit(boost::none);  // is known once the path is
    m_buffer.max_size(limits::kBuffer);
    LimitTime(IsStranger() ? limits::kStrangerTime : limits::kHeadTime);
    ContinueHead();
}

void Connection::ContinueHead() {
    http::async_read_header(m_stream, m_buffer, *m_parser,
                            [self = shared_from_this()](Error error, std::size_t) { self->OnHead(error); });
}

void Connection::OnHead(Error error) {
    if (m_state == State::Closed) {
        return;
    }
    if (error == http::error::buffer_overflow && m_buffer.max_size() < limits::kHead) {
        if (!Charge(limits::kHead)) {
            Refuse(503, kTooMuchHeld);
            return;
        }
        m_buffer.max_size(limits::kHead);
        ContinueHead();
        return;
    }
    if (error) {
        OnUnreadable(error);
        return;
    }
    const auto& head = m_parser->get();
    m_request->method = head.method_string();
    m_last = --m_requestsLeft <= 0 || !head.keep_alive();
    if (m_door != nullptr && !PassesDoor()) {
        return;
    }
    if (head.target().size() > limits::kTarget) {
        Refuse(414, "The address is longer than " + std::to_string(limits::kTarget) + " bytes");
        return;
    }
    ReadTarget(View(head.target()), *m_request);
    m_request->knownTag = head[http::field::if_none_match];
    m_request->takesGzip = http::token_list(head[http::field::accept_encoding]).exists("gzip");
    if (!IsWellFramed()) {
        Refuse(400, "A body's length is told once, by Content-Length or by \"Transfer-Encoding: chunked\"");
        return;
    }
    if (m_request->method == "POST" && m_request->path.size() <= limits::kPath) {
        PrepareBody();
        return;
    }
    // Everything else is answered without looking at its body.
    m_restUnread = HasBody();
    Work();
}

/// Each request anew: what passes a connection on may do so for several.
bool Connection::PassesDoor() {
    const auto& head = m_parser->get();
    const bool reads = head.method() == http::verb::get || head.method() == http::verb::head;
    const std::string_view target = View(head.target());
    const bool isOpen = reads && m_server.handler.IsOpen(target.substr(0, target.find('?')));
    auto verdict = m_door->Judge(head, *m_peer, isOpen);
    if (verdict.token != nullptr) {
        return TakeSeat(*verdict.token);
    }
    if (!verdict.refusal) {
        return true;
    }
    m_restUnread = true;
    m_response = std::move(verdict.refusal);
    if (verdict.delay.count() == 0) {
        Answer(std::move(*m_response));
        return false;
    }
    m_state = State::Working;
    WakeAt(Clock::now() + verdict.delay, [](Connection& self) {
        if (self.m_state == State::Working) {
            self.Answer(std::move(*self.m_response));
        }
    });
    return false;
}

/// From now on it is the token's connection.
bool Connection::TakeSeat(const Token& token) {
    auto peer = std::make_shared<Peer>(*m_peer);
    peer->account = "token " + token.name;
    peer->token = token;
    if (peer->account == m_peer->account) {
        return true;
    }
    if (!m_server.connections.Take(peer->account)) {
        Refuse(503, kTooManyConnections);
        return false;
    }
    const std::size_t charged = m_charged;
    ReturnCharge();
    m_share->Return(m_peer->account);
    m_share = &m_server.connections;
    m_peer = std::move(peer);
    m_request->peer = m_peer;
    if (!Charge(charged)) {
        Refuse(503, kTooMuchHeld);
        return false;
    }
    return true;
}

bool Connection::IsWellFramed() const {
    const auto& head = m_parser->get();
    const std::size_t codings = head.count(http::field::transfer_encoding);
    return codings == 0 || (codings == 1 && beast::iequals(head[http::field::transfer_encoding], "chunked") &&
                            head.count(http::field::content_length) == 0);
}

bool Connection::HasBody() const {
    return m_parser->chunked() || m_parser->content_length().value_or(0) > 0;
}

void Connection::PrepareBody() {
    const std::size_t limit = m_server.handler.LargestBody(m_request->path);
    const std::uint64_t size = m_parser->chunked() ? limit : m_parser->content_length().value_or(0);
    if (size > limit) {
        Refuse(413, "The body is larger than " + Size(limit));
        return;
    }
    // Before anything of it is read: a body in chunks may become as large as it likes.
    if (!Charge(size)) {
        Refuse(503, kTooMuchHeld);
        return;
    }
    m_parser->body_limit(limit);
    m_buffer.reserve(std::min<std::size_t>(size, m_buffer.max_size()));
    m_parser->eager(true);
    m_bodyDeadline = Clock::now() + limits::kBodyTime;
    LimitTime(limits::kSilence);
    if (HasBody() && beast::iequals(m_parser->get()[http::field::expect], "100-continue")) {
        asio::async_write(m_stream, Bytes(kContinue), [self = shared_from_this()](Error error, std::size_t) {
            error ? self->Close() : self->ReadBody();
        });
        return;
    }
    ReadBody();
}

void Connection::ReadBody() {
    if (m_state == State::Closed) {
        return;
    }
    if (m_parser->is_done()) {
        m_request->body = std::move(m_parser->get().body());
        Work();
        return;
    }
    m_stream.OnTheWay().expires_at(std::min(m_bodyDeadline, Clock::now() + limits::kSilence));
    http::async_read_some(m_stream, m_buffer, *m_parser,
                          [self = shared_from_this()](Error error, std::size_t) { self->OnBody(error); });
}

void Connection::OnBody(Error error) {
    if (m_state == State::Closed) {
        return;
    }
    if (error == http::error::body_limit) {
        Refuse(413, "The body is larger than " + Size(m_server.handler.LargestBody(m_request->path)));
    } else if (error) {
        OnUnreadable(error);
    } else {
        ReadBody();
    }
}

void Connection::OnUnreadable(Error error) {
    // One that has ended, or is silent, is not waiting for an answer.
    const bool broken = error == http::error::partial_message ||
                        (error.category() == make_error_code(http::error::bad_method).category() &&
                         error != http::error::end_of_stream);
    if (broken) {
        Refuse(400, "The request is not well-formed HTTP, or it broke off");
    } else {
        Close();
    }
}

/// An answer of the server's own. The rest of such a request is not looked for.
void Connection::Refuse(int status, std::string_view reason) {
    m_server.handler.OnRefused(m_request->path, status);
    m_restUnread = true;
    Answer(Problem(status, reason));
}

bool Connection::Charge(std::size_t bytes) {
    const bool taken = m_server.bytes.Take(m_peer->account, bytes);
    m_charged += taken ? bytes : 0;
    return taken;
}

void Connection::ReturnCharge() {
    m_server.bytes.Return(m_peer->account, std::exchange(m_charged, 0));
}

// --- Answering it ---

void Connection::Work() {
    m_state = State::Working;
    m_parser.reset();
    Turn turn;
    turn.user = m_peer->account;
    turn.reads = m_request->method == "GET" || m_request->method == "HEAD";
    // Nobody else looks at the request and the answer meanwhile.
    turn.work = [self = shared_from_this()] { self->m_response = Guarded(self->m_server.handler, *self->m_request); };
    turn.onDone = [self = shared_from_this()](bool done) {
        if (!done) {
            self->m_server.handler.OnRefused(self->m_request->path, 503);
        }
        self->Answer(done ? std::move(*self->m_response) : Problem(503, "Too many requests wait for their answers"));
    };
    m_server.turns.Ask(std::move(turn));
}

void Connection::Answer(HttpResponse response) {
    m_state = State::Answering;
    const bool bodyless = m_request && m_request->method == "HEAD";
    m_request.reset();
    m_parser.reset();
    ReturnCharge();
    if (!Charge(response.body.size())) {
        response = Problem(503, "As much as may be held at once is on its way; try again");
    }
    m_response = std::move(response);
    m_last = m_last || m_restUnread || m_response->stream || m_server.stopping;
    m_head = Head();
    std::array<asio::const_buffer, 2> parts{Bytes(m_head), Bytes(m_response->body)};
    if (bodyless) {
        parts[1] = {};
        m_response->stream.reset();
    }
    Write(parts, [](Connection& self, Error error) { self.OnAnswered(error); });
}

std::string Connection::Head() const {
    const auto phrase = http::obsolete_reason(http::int_to_status(static_cast<unsigned>(m_response->status)));
    std::string text = "HTTP/1.1 " + std::to_string(m_response->status) + ' ' + std::string(phrase) + "\r\n";
    const auto add = [&text](std::string_view name, std::string_view value) {
        text.append(name).append(": ").append(value).append(kLineEnd);
    };
    for (const auto& [name, value] : m_response->headers) {
        add(name, value);
    }
    if (m_last) {
        add("Connection", "close");
    } else {
        add("Keep-Alive", "timeout=" + std::to_string(limits::kKeepAliveTold) +
                              ", max=" + std::to_string(limits::kRequestsOfOneConnection));
    }
    if (m_response->stream) {
        add("Transfer-Encoding", "chunked");
    } else if (m_response->status != 304) {  // which has no body, and would tell the length of another answer's
        add("Content-Length", std::to_string(m_response->body.size()));
    }
    if (m_response->stream || !m_response->body.empty()) {
        add("Content-Type", m_response->contentType);
    }
    return text.append(kLineEnd);
}

void Connection::OnAnswered(Error error) {
    if (error) {
        Close();
    } else if (m_response->stream && !m_server.stopping) {
        StartStream();
    } else if (m_response->stream) {
        EndStream();
    } else if (m_restUnread || (m_last && m_stream.Encrypted() != nullptr)) {
        Leave();
    } else if (m_last) {
        Close();
    } else {
        ReturnCharge();
        ReadHead();
    }
}

/// The other side may not look for its answer before it has sent all: it still gets to, for a moment.
void Connection::Leave() {
    m_state = State::Reading;
    ReturnCharge();
    m_response.reset();
    LimitTime(limits::kRestTime);
    if (m_stream.Encrypted() == nullptr) {
        EndSending();
        return;
    }
    // Says that this is the end, which nobody could say in its place.
    m_stream.Encrypted()->async_shutdown([self = shared_from_this()](Error) {
        if (self->m_state != State::Closed) {
            self->EndSending();
        }
    });
}

void Connection::EndSending() {
    Error ignored;
    m_stream.Transport().shutdown(ByteStream::Socket::shutdown_send, ignored);
    SwallowRest();
}

void Connection::SwallowRest() {
    m_buffer.clear();
    m_stream.OnTheWay().async_read_some(m_buffer.prepare(limits::kBuffer),
                                        [self = shared_from_this()](Error error, std::size_t) {
                                            if (error) {
                                                self->Close();
                                            } else if (self->m_state != State::Closed) {
                                                self->SwallowRest();
                                            }
                                        });
}

}  // namespace gateway
