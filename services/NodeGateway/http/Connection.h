#pragma once

#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <optional>
#include <set>

#include "http/ByteStream.h"
#include "http/HttpMessage.h"
#include "http/Limits.h"
#include "http/NetworkDoor.h"
#include "http/Turns.h"
#include "http/UserShares.h"

namespace gateway {

class Connection;

/// What the connections of a server have in common. Belongs to the thread that runs `io`.
struct ServerState {
    ServerState(HttpHandler& theHandler, std::size_t connectionLimit)
        : handler(theHandler), connections(connectionLimit) {}

    HttpHandler& handler;
    boost::asio::io_context io{1};
    UserShares connections;
    UserShares refused{limits::kRefused};      // connections that are only told so
    UserShares strangers{limits::kStrangers};  // likewise over the network, before their first token
    UserShares bytes{limits::kBytes};
    Turns turns{io};
    std::set<std::shared_ptr<Connection>> open;  // whoever is in it lives
    bool stopping = false;
};

/// One accepted connection: reads requests and answers them, one after the other, until the other side goes, a time or
/// a limit is over, or the server stops. Belongs to the server's thread; only the handler's call runs on another one.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    /// `share` is where it was counted, and is given back at its end. `door` is the one by which it came; null: that of
    /// this system's users.
    Connection(ServerState& server, ByteStream stream, std::shared_ptr<const Peer> peer, UserShares& share,
               NetworkDoor* door);

    void Start();
    /// In place of Start: its user has as many as allowed.
    void TurnAway();
    /// A stream may have something to send.
    void Continue();
    /// The server stops: ends what waits for the other side, and after their answers what is being worked on.
    void Finish();
    /// Ends it at once; nothing of it happens later, but for callbacks that find it ended.
    void Close();

private:
    using Clock = std::chrono::steady_clock;
    using Error = boost::beast::error_code;
    using Parser = boost::beast::http::request_parser<boost::beast::http::string_body>;
    enum class State { Reading, Working, Answering, Streaming, Closed };

    void ReadHead();
    void ContinueHead();
    void OnHead(Error error);
    bool IsStranger() const { return m_door != nullptr && !m_peer->token; }
    bool PassesDoor();
    bool TakeSeat(const Token& token);
    bool IsWellFramed() const;
    bool HasBody() const;
    void PrepareBody();
    void ReadBody();
    void OnBody(Error error);
    void OnUnreadable(Error error);
    void Refuse(int status, std::string_view reason);
    bool Charge(std::size_t bytes);
    void ReturnCharge();

    void Work();
    void Answer(HttpResponse response);
    std::string Head() const;
    void OnAnswered(Error error);
    void Leave();
    void EndSending();
    void SwallowRest();

    void StartStream();
    void WatchForEnd();
    void ScheduleKeepAlive(Clock::time_point silentSince);
    void KeepAlive();
    void SendPieces();
    void SendBuffers();
    void OnSent(Error error);
    void EndStream();

    /// For what is read or written next.
    void LimitTime(std::chrono::seconds time) { m_stream.OnTheWay().expires_after(time); }
    /// Does something then, unless the connection ends before, or wants something else.
    template <typename Then>
    void WakeAt(Clock::time_point time, Then then);
    /// Sends the buffers, within the time for an answer, and goes on with `next(error)`.
    template <typename Buffers, typename Next>
    void Write(const Buffers& buffers, Next next);

    ServerState& m_server;
    NetworkDoor* const m_door;
    std::shared_ptr<const Peer> m_peer;
    UserShares* m_share;
    ByteStream m_stream;
    State m_state = State::Reading;
    std::size_t m_charged = 0;

    boost::beast::flat_buffer m_buffer;
    std::optional<Parser> m_parser;
    Clock::time_point m_bodyDeadline;
    std::optional<boost::asio::basic_waitable_timer<Clock, boost::asio::wait_traits<Clock>, ByteStream::Executor>>
        m_timer;
    std::optional<HttpRequest> m_request;
    int m_requestsLeft = limits::kRequestsOfOneConnection;
    bool m_last = false;        // no further request is read after this one's answer
    bool m_restUnread = false;  // of this request: it could not be told from a new one

    std::optional<HttpResponse> m_response;
    std::string m_head;
    HttpStream::Pieces m_pieces;  // under way
    std::vector<boost::asio::const_buffer> m_buffers;
    Clock::time_point m_lastSent;
    bool m_sending = false;
};

template <typename Then>
void Connection::WakeAt(Clock::time_point time, Then then) {
    m_timer.emplace(m_server.io.get_executor(), time);
    m_timer->async_wait([self = shared_from_this(), then](Error error) {
        if (!error && self->m_state != State::Closed) {
            then(*self);
        }
    });
}

template <typename Buffers, typename Next>
void Connection::Write(const Buffers& buffers, Next next) {
    LimitTime(limits::kAnswerTime);
    boost::asio::async_write(m_stream, buffers, [self = shared_from_this(), next](Error error, std::size_t) {
        if (self->m_state != State::Closed) {
            next(*self, error);
        }
    });
}

}  // namespace gateway
