#pragma once

#include <deque>

#include "NodeLink/LinkWire.h"
#include "ZShared/ZFileDescriptor.h"

/// A connection's socket, and what waits to be sent on it.
class LinkConnection {
public:
    /// `key`: whom this device calls; empty for one that called.
    LinkConnection(ZFileDescriptor socket, const LinkKeyPair& own, const std::string& key)
        : m_key(key),
          m_wire(key.empty() ? LinkCurve::Side::Listener : LinkCurve::Side::Caller, own, key),
          m_socket(std::move(socket)),
          m_connected(key.empty()) {}

    int Descriptor() const { return m_socket.Get(); }
    /// What to poll for.
    short Events() const;
    bool IsConnected() const { return m_connected; }
    /// Whether a call was answered, once the socket is writable.
    bool FinishConnecting();

    /// The other side's key; empty until it has proved it, for one that called.
    const std::string& Key() const { return m_key; }
    void SetKey(std::string key) { m_key = std::move(key); }
    LinkWire& Wire() { return m_wire; }

    /// Reads once; 0 when there is nothing now. No value when the connection has ended.
    std::optional<std::size_t> Read();
    void Queue(LinkFrames frames) { m_outbox.push_back(std::move(frames)); }
    /// Sends what the socket takes now, about 1 MiB at most. How much was taken from the queue, as LinkSize has it; no
    /// value when the connection has ended.
    std::optional<std::size_t> Flush();

private:
    std::size_t Fill();
    bool HasOutput() const { return m_sent < m_wire.OutputSize() || !m_outbox.empty(); }

    std::string m_key;
    LinkWire m_wire;
    const ZFileDescriptor m_socket;
    bool m_connected;
    std::deque<LinkFrames> m_outbox;
    std::size_t m_nextFrame = 0;  // of the first message
    std::size_t m_sent = 0;       // of the wire's output
};
