#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "NodeLink/LinkKeys.h"

/// One end of an encrypted connection: CURVE, RFC 26 of the ZeroMQ project, over the primitives of libsodium. Both
/// sides prove that they have their keys; those of the connection itself are made for it alone and forgotten with it.
/// Takes and gives the bodies of frames, and knows no socket.
class LinkCurve {
public:
    enum class Side : std::int8_t { Caller, Listener };
    /// Asks: the other side is who it says (PeerKey), and this one has to decide (Admit or Refuse).
    enum class State : std::int8_t { Begins, Waits, Asks, Open, Refused };

    /// `peerKey`: whom a caller wants to reach.
    LinkCurve(Side side, const LinkKeyPair& own, const std::string& peerKey);
    LinkCurve(const LinkCurve&) = delete;
    LinkCurve& operator=(const LinkCurve&) = delete;

    State GetState() const { return m_state; }
    /// The other side's key: a listener knows it from Asks on.
    std::string PeerKey() const { return LinkKeyText(m_peerKey); }

    /// A caller's first command.
    std::string Begin();
    /// The other side's next command; gives what to send, which may be nothing. No value when it is not what the
    /// protocol wants at this place, or is not from who has the key.
    std::optional<std::string> Take(std::string_view command);
    std::string Admit();
    std::string Refuse();

    /// By so much a sealed body is longer than its content.
    static constexpr std::size_t kOverhead = 8 + 8 + 16 + 1;
    static constexpr std::uint8_t kMore = 1;     ///< flag: the message goes on
    static constexpr std::uint8_t kCommand = 2;  ///< flag: of the transport's own
    /// Writes the sealed body, content.size() + kOverhead bytes.
    void Seal(std::uint8_t flags, std::string_view content, char* body);
    /// The flags; the content is written to `content`, which has body.size() - kOverhead + 1 bytes of room: from its
    /// second byte on. No value for a body that is not the other side's, or comes again.
    std::optional<std::uint8_t> Unseal(std::string_view body, char* content);

private:
    std::string Welcome(std::string_view hello);
    std::string Initiate(std::string_view welcome);
    bool TakeInitiate(std::string_view initiate);
    bool TakeReady(std::string_view ready);
    bool IsNext(std::string_view counter);

    const Side m_side;
    LinkKeyBytes m_ownKey{};
    LinkSecretKey m_ownSecret;
    LinkKeyBytes m_peerKey{};
    LinkKeyBytes m_key{};  // of this connection
    LinkSecretKey m_secret{};
    LinkKeyBytes m_peerConnectionKey{};
    LinkSecretKey m_shared{};
    std::string m_cookie;
    std::uint64_t m_sent = 0;      // counters within nonces; each is used once
    std::uint64_t m_received = 0;  // the other side's last
    State m_state;
};
