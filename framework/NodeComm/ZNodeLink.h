#pragma once

#include <filesystem>
#include <set>
#include <vector>

#include "NodeComm/ZNodeComm.h"
#include "ZShared/ZError.h"

/// A device that may be talked to: its key, how it is reached, and who it is.
struct ZLinkPin {
    std::string name;  ///< for people
    std::string publicKey;
    std::string address;       ///< where it is called ("tcp://host:port"); empty: it calls
    std::string serialNumber;  ///< empty until it has introduced itself
    bool operator==(const ZLinkPin&) const = default;
};

struct ZLinkSettings {
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
    /// Whether a device whose key is pinned may come in as who it says it is. An error turns it away; the link tells.
    virtual ZResult<void> OnPeerIntroduced(const std::string& key, const std::shared_ptr<ZMessage>& introduction) = 0;
    virtual void OnPeerArrived(const std::string& key) = 0;
    virtual void OnPeerGone(const std::string& key) = 0;
    /// A key that is not pinned was turned away, or a pinned device turned this one away.
    virtual void OnPeerRefused(const std::string& key) = 0;
};

/// A bus that reaches other devices; each transport is a subclass, made by its class name. A publication on an endpoint
/// whose node is a connected device's public key goes to that device, and is published on its bus when its export list
/// has the endpoint; everything else is the local bus's, which is behind this one. Connections come back by themselves.
/// A request to a device that goes away fails at once.
class ZNodeLink : public ZNodeComm {
    Z_CLASS(ZNodeLink, ZNodeComm)
public:
    /// Receives the device's answer, or a ZGenericResponseMsg that says why there is none. On the link's thread, or on
    /// the caller's when nothing could be sent.
    using Completion = std::function<void(ZPublishOutcome, const std::shared_ptr<ZMessage>&)>;

    /// Whether a text has the form of an address: "tcp://host:port"; to listen, the host may be "*".
    virtual bool IsAddress(const std::string& text) const = 0;
    /// Whether a text has the form of a public key.
    virtual bool IsKey(const std::string& text) const = 0;

    /// Reads this device's keys, or makes them when there is no such file. Before Start.
    virtual ZResult<void> LoadKeys(const std::filesystem::path& file) = 0;
    /// This device's own.
    virtual std::string PublicKey() const = 0;
    /// Once. `observer` must live until Close has returned. An error when the system has no thread or descriptor left.
    /// An address that can't be bound now is tried again: the network may not be up yet.
    virtual ZResult<void> Start(const ZLinkSettings& settings, std::shared_ptr<ZNodeComm> local,
                                ZLinkObserver& observer) = 0;
    /// The devices that may be talked to, in place of those before; connections to others end. Without effect before
    /// Start.
    virtual void SetPins(std::vector<ZLinkPin> pins) = 0;
    /// Publishes a message on another device's bus and returns at once. `done` is called exactly once.
    virtual void Send(const std::string& key, const ZCommEndpoint& endpoint, const std::shared_ptr<ZMessage>& message,
                      std::chrono::milliseconds timeout, Completion done) = 0;
};
