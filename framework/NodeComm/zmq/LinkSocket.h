#pragma once

#include <functional>
#include <zmq.hpp>

#include "NodeComm/zmq/LinkKeys.h"
#include "NodeComm/zmq/LinkMessage.h"

/// What all sockets of a link share.
struct LinkSocketSettings {
    LinkKeyPair keys;
    /// How often a silent connection is probed; one that doesn't answer within twice that time is given up.
    std::chrono::milliseconds heartbeat{1000};
};

/// What became of a socket's connections. After Refused (the other side does not know this key) and Foreign (it does
/// not speak this protocol) the library does not call again.
struct LinkSocketEvent {
    enum class Kind : std::int8_t { Connected, Lost, Refused, Foreign };
    Kind kind;
    int descriptor;  ///< of a listener's connection that is Lost: its file descriptor
};

/// One encrypted ZeroMQ socket with the news of its connections. Used by one thread. Throws zmq::error_t.
class LinkSocket {
public:
    /// Takes connections from others, of which the authenticator (zmq::context_t-wide) lets in whom it knows.
    static LinkSocket Listener(zmq::context_t& context, const LinkSocketSettings& settings);
    /// Calls a device, again and again, until it is reached and proves that it has the key.
    static LinkSocket Caller(zmq::context_t& context, const LinkSocketSettings& settings, const std::string& peerKey,
                             const std::string& address);

    LinkSocket(LinkSocket&&) = default;
    LinkSocket& operator=(LinkSocket&&) = delete;
    ~LinkSocket();

    void Bind(const std::string& address) { m_socket.bind(address); }

    /// What became of its connections since the last call, in order.
    std::vector<LinkSocketEvent> TakeEvents();
    /// The next whole message; nothing when there is none now. For a listener its first frame is the sender's number.
    std::optional<LinkFrames> Receive();
    /// False when there is no room now, or nobody is connected: the frames are as they were then. Throws for a
    /// listener's message to a number that is gone.
    bool Send(LinkFrames& frames);

    void* Handle() { return m_socket.handle(); }
    void* EventsHandle() { return m_events.handle(); }

private:
    LinkSocket(zmq::context_t& context, zmq::socket_type type, const LinkSocketSettings& settings);
    void Watch();

    zmq::socket_t m_socket;
    zmq::socket_t m_events;
};
