#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "NodeComm/ZNodeComm.h"
#include "NodeComm/zmq/LinkKeys.h"

class LinkLoop;

struct ZLinkSettings {
    std::string publicKey;  ///< this device's own pair; 64 hexadecimal digits each
    std::string secretKey;
    std::string listenAddress;  ///< "tcp://*:5700"; empty: this device only calls
    /// What other devices may call here, as ZCommEndpoint::Text has it ("2:upload"). All else is refused.
    std::set<std::string> exports;
    std::chrono::milliseconds heartbeat{1000};
    std::shared_ptr<ZMessage> introduction;  ///< what other devices are told about this one
};

/// Learns which devices come and go. Called on the link's thread: quick, and without waiting for an answer.
class ZLinkObserver {
public:
    virtual ~ZLinkObserver() = default;
    virtual void OnPeerArrived(const std::string& key, const std::shared_ptr<ZMessage>& introduction) = 0;
    virtual void OnPeerGone(const std::string& key) = 0;
    /// A key that is not pinned was turned away, or a pinned device turned this one away.
    virtual void OnPeerRefused(const std::string& key) = 0;
};

/// A bus that reaches other devices: over ZeroMQ, encrypted, each side known to the other by its pinned key (CURVE).
/// A publication on an endpoint whose node is a connected device's public key goes to that device, and is published on
/// its bus when its export list has the endpoint; everything else is the local bus's, which is behind this one.
/// Connections come back by themselves. A request to a device that goes away fails at once.
class ZNodeCommZmq : public ZNodeComm, public std::enable_shared_from_this<ZNodeCommZmq> {
    Z_CLASS(ZNodeCommZmq, ZNodeComm)
public:
    /// Receives the device's answer, or a ZGenericResponseMsg that says why there is none. On the link's thread, or on
    /// the caller's when nothing could be sent.
    using Completion = std::function<void(ZPublishOutcome, const std::shared_ptr<ZMessage>&)>;

    ZNodeCommZmq();
    ~ZNodeCommZmq() override;
    ZNodeCommZmq(const ZNodeCommZmq&) = delete;
    ZNodeCommZmq& operator=(const ZNodeCommZmq&) = delete;

    /// Whether a text has the form of an address: "tcp://host:port"; to listen, the host may be "*".
    static bool IsAddress(const std::string& text);

    /// Once, before anything else. `observer` must live until Close has returned. False, with `error`, when the
    /// system has no thread or descriptor left. An address that can't be bound now is tried again: the network may not
    /// be up yet.
    bool Start(const ZLinkSettings& settings, std::shared_ptr<ZNodeComm> local, ZLinkObserver& observer,
               std::string& error);
    /// The devices that may be talked to, in place of those before; connections to others end.
    void SetPins(std::vector<ZLinkPin> pins);
    /// Publishes a message on another device's bus and returns at once. `done` is called exactly once.
    void Send(const std::string& key, const ZCommEndpoint& endpoint, const std::shared_ptr<ZMessage>& message,
              std::chrono::milliseconds timeout, Completion done);

    bool Subscribe(const void* owner, const ZNodeUID& node, const std::shared_ptr<ZMailbox>& mailbox,
                   const ZCommEndpoint& endpoint, Handler handler) override;
    void Unsubscribe(const void* owner) override;
    ZPublishOutcome Publish(const ZCommEndpoint& endpoint, const std::shared_ptr<ZMessage>& message,
                            std::shared_ptr<ZMessage>* response, const ZPublishOptions& options) override;
    /// Answers a request that came from another device.
    bool Respond(const ZResponseSource& source, const std::shared_ptr<ZMessage>& response) override;
    /// Ends the link. Not for the link's own thread. The local bus is not closed.
    void Close() override;
    void SetRequestTimeout(std::chrono::milliseconds timeout) override;

private:
    class Receiver;
    /// A request that went to a device and waits for its answer.
    struct Asked {
        std::string key;
        ZMailbox::Clock::time_point deadline;
        Completion done;
    };
    /// A request that came from a device and waits for this one's answer.
    struct Owed {
        std::string key;
        std::uint64_t number;  ///< the device's own
        ZMailbox::Clock::time_point deadline;
    };

    bool IsConnected(const std::string& key) const;
    void Complete(std::uint64_t number, ZPublishOutcome outcome, const std::shared_ptr<ZMessage>& message);
    void Fail(std::uint64_t number, ZPublishOutcome outcome, const char* reason);

    std::shared_ptr<ZNodeComm> m_local;
    std::set<std::string> m_exports;
    std::unique_ptr<Receiver> m_receiver;
    std::unique_ptr<LinkLoop> m_loop;
    std::atomic<bool> m_closed{false};
    std::atomic<std::chrono::milliseconds::rep> m_requestTimeout{30'000};

    mutable std::mutex m_mutex;  // of all below; never held while anything is called
    std::set<std::string> m_connected;
    std::map<std::uint64_t, Asked> m_asked;
    std::map<std::uint64_t, Owed> m_owed;
    std::uint64_t m_nextNumber = 1;
};
