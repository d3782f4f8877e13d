#pragma once

#include "NodeComm/ZNodeLink.h"
#include "ZMessages/PeerMessages.h"
#include "ZShared/ZGuarded.h"

/// The devices that this one knows: pinned, connected, or turned away. Thread-safe.
class PeerTable {
public:
    /// In place of the pins before; what else is known of those that stay is kept.
    void SetPins(const std::vector<ZLinkPin>& pins);
    std::vector<ZLinkPin> Pins() const;

    /// Takes down who a device says it is. The first time that settles its pin's serial number: true when it did. An
    /// error when another device's pin has that number, or its own has another.
    ZResult<bool> Introduced(const std::string& key, const ZPeerMsg& introduction);

    /// Each returns the device's new state.
    std::shared_ptr<ZPeerMsg> Arrived(const std::string& key);
    std::shared_ptr<ZPeerMsg> Gone(const std::string& key);
    std::shared_ptr<ZPeerMsg> Judged(const std::string& key, const ZDeviceCompatibilityMsg& verdict);
    /// Remembers the latest few keys that nobody pinned.
    void Refused(const std::string& key);

    /// The key of the connected device of that model whose pin has that serial number; empty when there is none.
    std::string Find(ZDeviceModel model, const ZString& serialNumber) const;
    /// Every device's state: the pinned ones, then the refused.
    ZVector<std::shared_ptr<ZPeerMsg>> All() const;

private:
    using Peers = std::vector<std::shared_ptr<ZPeerMsg>>;
    /// Creates the entry when there is none.
    static ZPeerMsg& Entry(Peers& peers, const std::string& key);
    static std::shared_ptr<ZPeerMsg> Copy(const ZPeerMsg& peer);

    ZGuarded<Peers> m_peers;  // in the order in which they were pinned, then refused
};
