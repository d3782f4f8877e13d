#include "PeerTable.h"

#include <algorithm>

namespace {
constexpr std::size_t kRememberedRefusals = 16;

auto HasKey(const std::string& key) {
    return [&key](const auto& peer) { return std::string_view(peer->m_PublicKey) == key; };
}

}  // namespace

void PeerTable::SetPins(const std::vector<ZLinkPin>& pins) {
    const std::lock_guard lock(m_mutex);
    std::vector<std::shared_ptr<ZPeerMsg>> peers;
    for (const ZLinkPin& pin : pins) {
        ZPeerMsg& peer = Entry(pin.publicKey);
        peer.m_Name = ToZString(pin.name);
        peer.m_Address = ToZString(pin.address);
        peer.m_bPinned = true;
        const auto entry = std::ranges::find_if(m_peers, HasKey(pin.publicKey));
        peers.push_back(std::move(*entry));
        m_peers.erase(entry);
    }
    // Those whose pin went have nothing more to do with this device; those that wait for one stay.
    std::ranges::copy_if(m_peers, std::back_inserter(peers), [](const auto& peer) { return !peer->m_bPinned; });
    m_peers = std::move(peers);
}

std::vector<ZLinkPin> PeerTable::Pins() const {
    const std::lock_guard lock(m_mutex);
    std::vector<ZLinkPin> pins;
    for (const auto& peer : m_peers) {
        if (peer->m_bPinned) {
            pins.push_back({ToStdString(peer->m_Name), ToStdString(peer->m_PublicKey), ToStdString(peer->m_Address)});
        }
    }
    return pins;
}

std::shared_ptr<ZPeerMsg> PeerTable::Arrived(const std::string& key, const ZPeerMsg& introduction) {
    const std::lock_guard lock(m_mutex);
    ZPeerMsg& peer = Entry(key);
    peer.m_bConnected = true;
    peer.m_DeviceType = introduction.m_DeviceType;
    peer.m_DeviceModel = introduction.m_DeviceModel;
    peer.m_SerialNumber = introduction.m_SerialNumber;
    peer.m_Board = introduction.m_Board;
    peer.m_Version = introduction.m_Version;
    return Copy(peer);
}

std::shared_ptr<ZPeerMsg> PeerTable::Gone(const std::string& key) {
    const std::lock_guard lock(m_mutex);
    const auto entry = std::ranges::find_if(m_peers, HasKey(key));
    if (entry == m_peers.end()) {  // its pin was taken away, and with it the connection
        auto gone = ZMakeShared<ZPeerMsg>();
        gone->m_PublicKey = ToZString(key);
        return gone;
    }
    (*entry)->m_bConnected = false;
    return Copy(**entry);
}

std::shared_ptr<ZPeerMsg> PeerTable::Judged(const std::string& key, const ZDeviceCompatibilityMsg& verdict) {
    const std::lock_guard lock(m_mutex);
    ZPeerMsg& peer = Entry(key);
    peer.m_bCompatible = verdict.m_bCompatible;
    peer.m_bRequiresUpdate = verdict.m_bRequiresUpdate;
    peer.m_TargetVersion = verdict.m_TargetVersion;
    return Copy(peer);
}

void PeerTable::Refused(const std::string& key) {
    const std::lock_guard lock(m_mutex);
    Entry(key);
    const auto isRefused = [](const auto& peer) { return !peer->m_bPinned; };
    if (static_cast<std::size_t>(std::ranges::count_if(m_peers, isRefused)) > kRememberedRefusals) {
        m_peers.erase(std::ranges::find_if(m_peers, isRefused));
    }
}

std::string PeerTable::Find(ZDeviceModel model, const ZString& serialNumber) const {
    const std::lock_guard lock(m_mutex);
    const auto found = std::ranges::find_if(m_peers, [&](const auto& peer) {
        return peer->m_bConnected && peer->m_DeviceModel == model && peer->m_SerialNumber == serialNumber;
    });
    return found == m_peers.end() ? std::string() : ToStdString((*found)->m_PublicKey);
}

ZVector<std::shared_ptr<ZPeerMsg>> PeerTable::All() const {
    const std::lock_guard lock(m_mutex);
    ZVector<std::shared_ptr<ZPeerMsg>> all;
    for (const auto& peer : m_peers) {
        all.push_back(Copy(*peer));
    }
    return all;
}

ZPeerMsg& PeerTable::Entry(const std::string& key) {
    const auto found = std::ranges::find_if(m_peers, HasKey(key));
    if (found != m_peers.end()) {
        return **found;
    }
    m_peers.push_back(ZMakeShared<ZPeerMsg>());
    m_peers.back()->m_PublicKey = ToZString(key);
    return *m_peers.back();
}

std::shared_ptr<ZPeerMsg> PeerTable::Copy(const ZPeerMsg& peer) {
    auto copy = ZMakeShared<ZPeerMsg>();
    copy->CloneDataMembers(peer);
    return copy;
}
