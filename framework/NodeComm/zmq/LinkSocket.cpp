#include "NodeComm/zmq/LinkSocket.h"

#include <atomic>
#include <cstring>

namespace {

constexpr int kQueuedMessages = 16;  // in the library, for each connection and direction; ours is in front of it
constexpr std::int64_t kLongestFrame = 2 << 20;
constexpr int kFirstRetry = 100;  // milliseconds, here and below
constexpr int kSlowestRetry = 400;
constexpr int kConnectLimit = 500;
constexpr int kHandshakeLimit = 3000;

// Not a handshake that broke off with its connection: the library calls again after that by itself.
constexpr int kWatched = ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED | ZMQ_EVENT_HANDSHAKE_FAILED_AUTH |
                         ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL;

/// An event as the library writes it: 16 bits of kind, 32 bits of value.
LinkSocketEvent EventOf(const zmq::message_t& frame) {
    std::uint16_t kind = 0;
    std::int32_t value = 0;
    if (frame.size() >= sizeof kind + sizeof value) {
        std::memcpy(&kind, frame.data(), sizeof kind);
        std::memcpy(&value, frame.data<char>() + sizeof kind, sizeof value);
    }
    using Kind = LinkSocketEvent::Kind;
    switch (kind) {
        case ZMQ_EVENT_HANDSHAKE_SUCCEEDED:
            return {Kind::Connected, value};
        case ZMQ_EVENT_DISCONNECTED:
            return {Kind::Lost, value};
        case ZMQ_EVENT_HANDSHAKE_FAILED_AUTH:
            return {Kind::Refused, -1};
        default:
            return {Kind::Foreign, -1};
    }
}

template <typename Option>
void SetKey(zmq::socket_t& socket, const Option& option, const std::string& text) {
    const LinkKeyBytes key = LinkKeyFrom(text).value_or(LinkKeyBytes{});
    socket.set(option, zmq::buffer(key));
}

}  // namespace

LinkSocket::LinkSocket(zmq::context_t& context, zmq::socket_type type, const LinkSocketSettings& settings)
    : m_socket(context, type), m_events(context, zmq::socket_type::pair) {
    const int heartbeat = static_cast<int>(settings.heartbeat.count());
    m_socket.set(zmq::sockopt::linger, 0);
    m_socket.set(zmq::sockopt::sndhwm, kQueuedMessages);
    m_socket.set(zmq::sockopt::rcvhwm, kQueuedMessages);
    m_socket.set(zmq::sockopt::maxmsgsize, kLongestFrame);
    m_socket.set(zmq::sockopt::handshake_ivl, kHandshakeLimit);
    m_socket.set(zmq::sockopt::heartbeat_ivl, heartbeat);
    m_socket.set(zmq::sockopt::heartbeat_timeout, 2 * heartbeat);
    m_socket.set(zmq::sockopt::heartbeat_ttl, 3 * heartbeat);
    SetKey(m_socket, zmq::sockopt::curve_secretkey, settings.keys.secretKey);
}

LinkSocket::~LinkSocket() {
    // The library tells of events as long as it watches, and its only thread waits until they are taken: for good, once
    // nobody is there to take them.
    if (m_socket.handle() != nullptr) {
        ::zmq_socket_monitor(m_socket.handle(), nullptr, 0);
    }
}

void LinkSocket::Watch() {
    static std::atomic<unsigned> number{0};
    const std::string address = "inproc://link-events-" + std::to_string(++number);
    if (::zmq_socket_monitor(m_socket.handle(), address.c_str(), kWatched) != 0) {
        throw zmq::error_t();
    }
    m_events.connect(address);
}

LinkSocket LinkSocket::Listener(zmq::context_t& context, const LinkSocketSettings& settings) {
    LinkSocket socket(context, zmq::socket_type::router, settings);
    socket.m_socket.set(zmq::sockopt::curve_server, true);
    socket.m_socket.set(zmq::sockopt::zap_domain, "arbor");
    socket.m_socket.set(zmq::sockopt::router_mandatory, true);
    socket.Watch();
    return socket;
}

LinkSocket LinkSocket::Caller(zmq::context_t& context, const LinkSocketSettings& settings, const std::string& peerKey,
                              const std::string& address) {
    LinkSocket socket(context, zmq::socket_type::dealer, settings);
    SetKey(socket.m_socket, zmq::sockopt::curve_publickey, settings.keys.publicKey);
    SetKey(socket.m_socket, zmq::sockopt::curve_serverkey, peerKey);
    // Nothing is queued for a connection that doesn't stand: it would arrive when nobody waits for it any more.
    socket.m_socket.set(zmq::sockopt::immediate, true);
    socket.m_socket.set(zmq::sockopt::reconnect_ivl, kFirstRetry);
    socket.m_socket.set(zmq::sockopt::reconnect_ivl_max, kSlowestRetry);
    socket.m_socket.set(zmq::sockopt::connect_timeout, kConnectLimit);
    socket.Watch();
    socket.m_socket.connect(address);
    return socket;
}

std::vector<LinkSocketEvent> LinkSocket::TakeEvents() {
    std::vector<LinkSocketEvent> events;
    zmq::message_t frame;
    while (m_events.recv(frame, zmq::recv_flags::dontwait)) {
        events.push_back(EventOf(frame));
        while (frame.more()) {  // the address, of no use here
            static_cast<void>(m_events.recv(frame, zmq::recv_flags::none));
        }
    }
    return events;
}

std::optional<LinkFrames> LinkSocket::Receive() {
    LinkFrames frames(1);
    if (!m_socket.recv(frames.back(), zmq::recv_flags::dontwait)) {
        return std::nullopt;
    }
    while (frames.back().more()) {  // a message arrives whole
        frames.emplace_back();
        static_cast<void>(m_socket.recv(frames.back(), zmq::recv_flags::none));
    }
    return frames;
}

bool LinkSocket::Send(LinkFrames& frames) {
    for (std::size_t index = 0; index < frames.size(); ++index) {
        const bool last = index + 1 == frames.size();
        const auto flags = last ? zmq::send_flags::dontwait : zmq::send_flags::dontwait | zmq::send_flags::sndmore;
        if (!m_socket.send(frames[index], flags)) {
            return false;  // only the first frame can be refused: room is counted in messages
        }
    }
    return true;
}
