#pragma once

#include <span>

#include "NodeLink/LinkCurve.h"
#include "NodeLink/LinkMessage.h"

/// One end of a connection as it is on the wire: ZMTP 3.1 (RFC 23 of the ZeroMQ project) with CURVE. Bytes in, messages
/// out, and the other way round; knows no socket. What the other side can make it hold is bounded: some 2 KiB until it
/// was let in, then one message.
class LinkWire {
public:
    enum class News : std::int8_t {
        None,     ///< more bytes are needed
        Asks,     ///< PeerKey wants to be let in: Admit or Refuse
        Open,     ///< a caller was let in
        Message,  ///< TakeMessage has it
        Refused,  ///< a caller was turned away
        Failed,   ///< Problem says why; nothing more can be done with the connection
    };

    LinkWire(LinkCurve::Side side, const LinkKeyPair& own, const std::string& peerKey = {});

    /// Where received bytes go, at least one, and how many came.
    std::span<char> Room();
    void Filled(std::size_t count) { m_end += count; }
    /// What the received bytes amount to next. To be called until it is None.
    News Next();

    std::string PeerKey() const { return m_curve.PeerKey(); }
    void Admit();
    void Refuse();
    LinkFrames TakeMessage();
    const std::string& Problem() const { return m_problem; }

    /// Writes a part of a message, or the probe of a silent connection, to the output; only when it is open.
    void Put(std::string_view frame, bool more) { PutSealed(more ? LinkCurve::kMore : 0, frame); }
    void Probe();
    /// What is to be sent; the sender removes what it sent.
    std::string& Output() { return m_output; }
    std::size_t OutputSize() const { return m_output.size(); }

private:
    News TakeGreeting();
    /// A whole frame's body, which is removed from what was received. No value while it is not whole, or when the
    /// connection failed.
    std::optional<std::string_view> TakeBody();
    News TakeHandshake(std::string_view command);
    News TakeSealed(std::string_view body);
    void TakeCommand(std::string_view command);
    News Fail(const char* problem);
    void PutPlain(std::string_view command);
    void PutSealed(std::uint8_t flags, std::string_view content);
    bool IsOpen() const { return m_curve.GetState() == LinkCurve::State::Open; }

    LinkCurve m_curve;
    bool m_greeted = false;
    std::string m_input;  // received bytes are those from m_begin to m_end
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    LinkFrames m_message;  // as far as it has come
    std::size_t m_held = 0;
    std::string m_output;
    std::string m_problem;
};
