#include "PeerTable.h"

#include <algorithm>

namespace {
constexpr std::size_t kRememberedRefusals = 16;
constexpr std::size_t kLongestText = 256;

auto HasKey(const std::string& key) {
    return [&key](const auto& peer) { return std::string_view(peer->m_PublicKey) == key; };
}

}  // namespace

void PeerTable::SetPins(const std::vector<ZLinkPin>& pins) {
    const auto peers = m_peers.Lock();
    Peers pinned;
    for (const ZLinkPin& pin : pins) {
        ZPeerMsg& peer = Entry(*peers, pin.publicKey);
        peer.m_Name = ToZString(pin.name);
        peer.m_Address = ToZString(pin.address);
        peer.m_bPinned = true;
        if (!pin.serialNumber.empty()) {
            peer.m_SerialNumber = ToZString(pin.serialNumber);
        }
        const auto entry = std::ranges::find_if(*peers, HasKey(pin.publicKey));
        pinned.push_back(std::move(*entry));
        peers->erase(entry);
    }
    // Those whose pin went have nothing more to do with this device; those that wait for one stay.
    std::ranges::copy_if(*peers, std::back_inserter(pinned), [](const auto& peer) { return !peer->m_bPinned; });
    *peers = std::move(pinned);
}

std::vector<ZLinkPin> PeerTable::Pins() const {
    const auto peers = m_peers.Lock();
    std::vector<ZLinkPin> pins;
    for (const auto& peer : *peers) {
        if (peer->m_bPinned) {
            pins.push_back({ToStdString(peer->m_Name), ToStdString(peer->m_PublicKey), ToStdString(peer->m_Address),
                            ToStdString(peer->m_SerialNumber)});
        }
    }
    return pins;
}

ZResult<bool> PeerTable::Introduced(const std::string& key, const ZPeerMsg& introduction) {
    const ZString& told = introduction.m_SerialNumber;
    for (const ZString* text : {&told, &introduction.m_Board, &introduction.m_Version}) {
        if (text->size() > kLongestText) {
            return ZError("it says more about itself than can be true");
        }
    }
    const auto peers = m_peers.Lock();
    const auto other = std::ranges::find_if(*peers, [&](const auto& peer) {
        return peer->m_bPinned && !told.empty() && peer->m_SerialNumber == told && !HasKey(key)(peer);
    });
    if (other != peers->end()) {
        return ZError("it says that its serial number is " + ToStdString(told) + ", which is that of " +
                      ToStdString((*other)->m_Name) + " (key " + ToStdString((*other)->m_PublicKey) + ')');
    }
    ZPeerMsg& peer = Entry(*peers, key);
    const ZString known = peer.m_SerialNumber;
    if (!known.empty() && known != told) {
        return ZError("it says that its serial number is " + ToStdString(told) + ", and was paired as " +
                      ToStdString(known));
    }
    peer.m_DeviceType = introduction.m_DeviceType;
    peer.m_DeviceModel = introduction.m_DeviceModel;
    peer.m_SerialNumber = told;
    peer.m_Board = introduction.m_Board;
    peer.m_Version = introduction.m_Version;
    return known != told;
}

std::shared_ptr<ZPeerMsg> PeerTable::Arrived(const std::string& key) {
    const auto peers = m_peers.Lock();
    ZPeerMsg& peer = Entry(*peers, key);
    peer.m_bConnected = true;
    return Copy(peer);
}

std::shared_ptr<ZPeerMsg> PeerTable::Gone(const std::string& key) {
    const auto peers = m_peers.Lock();
    const auto entry = std::ranges::find_if(*peers, HasKey(key));
    if (entry == peers->end()) {  // its pin was taken away, and with it the connection
        auto gone = ZMakeShared<ZPeerMsg>();
        gone->m_PublicKey = ToZString(key);
        return gone;
    }
    (*entry)->m_bConnected = false;
    return Copy(**entry);
}

std::shared_ptr<ZPeerMsg> PeerTable::Judged(const std::string& key, const ZDeviceCompatibilityMsg& verdict) {
    const auto peers = m_peers.Lock();
    ZPeerMsg& peer = Entry(*peers, key);
    peer.m_bCompatible = verdict.m_bCompatible;
    peer.m_bRequiresUpdate = verdict.m_bRequiresUpdate;
    // No version is that long: it would be shown, and told to every listener, again and again.
    peer.m_TargetVersion = verdict.m_TargetVersion.size() <= kLongestText ? verdict.m_TargetVersion : ZString();
    return Copy(peer);
}

void PeerTable::Refused(const std::string& key) {
    const auto peers = m_peers.Lock();
    Entry(*peers, key);
    const auto isRefused = [](const auto& peer) { return !peer->m_bPinned; };
    if (static_cast<std::size_t>(std::ranges::count_if(*peers, isRefused)) > kRememberedRefusals) {
        peers->erase(std::ranges::find_if(*peers, isRefused));
    }
}

std::string PeerTable::Find(ZDeviceModel model, const ZString& serialNumber) const {
    const auto peers = m_peers.Lock();
    const auto found = std::ranges::find_if(*peers, [&](const auto& peer) {
        return peer->m_bConnected && !serialNumber.empty() && peer->m_DeviceModel == model &&
               peer->m_SerialNumber == serialNumber;
    });
    return found == peers->end() ? std::string() : ToStdString((*found)->m_PublicKey);
}

ZVector<std::shared_ptr<ZPeerMsg>> PeerTable::All() const {
    const auto peers = m_peers.Lock();
    ZVector<std::shared_ptr<ZPeerMsg>> all;
    for (const auto& peer : *peers) {
        all.push_back(Copy(*peer));
    }
    return all;
}

ZPeerMsg& PeerTable::Entry(Peers& peers, const std::string& key) {
    const auto found = std::ranges::find_if(peers, HasKey(key));
    if (found != peers.end()) {
        return **found;
    }
    peers.push_back(ZMakeShared<ZPeerMsg>());
    peers.back()->m_PublicKey = ToZString(key);
    return *peers.back();
}

std::shared_ptr<ZPeerMsg> PeerTable::Copy(const ZPeerMsg& peer) {
    auto copy = ZMakeShared<ZPeerMsg>();
    copy->CloneDataMembers(peer);
    return copy;
}
