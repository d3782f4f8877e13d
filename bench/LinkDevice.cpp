#include "LinkDevice.h"

#include <stdexcept>

#include "NodeLink/LinkKeys.h"
#include "PinFile.h"
#include "ZMessages/PeerMessages.h"
#include "ZNodePeer.h"

namespace {

constexpr auto kType = ZEndpointType::DeviceRequest;
constexpr auto kPatience = std::chrono::seconds(30);

std::shared_ptr<ZNodePeerCfg> PeerRecord(const LinkIdentity& self) {
    auto record = ZMakeShared<ZNodePeerCfg>();
    record->m_KeyFile = ToZString(self.keyFile.string());
    record->m_PinsFile = ToZString(self.pinsFile.string());
    record->m_Exports = {ZCommEndpoint({}, kType, "upload").Text()};
    return record;
}

void Pin(const LinkIdentity& self, const LinkIdentity& other, const std::string& address) {
    if (const auto saved = SavePins(self.pinsFile, {{other.serialNumber, other.publicKey, address, {}}}); !saved) {
        throw std::runtime_error(saved.error().text);
    }
}

}  // namespace

LinkIdentity::LinkIdentity(const Scratch& scratch, const std::string& serial)
    : serialNumber(serial), keyFile(scratch / (serial + "-key.json")), pinsFile(scratch / (serial + "-pins.json")) {
    const auto keys = LoadOrMakeLinkKeys(keyFile);
    if (!keys) {
        throw std::runtime_error(keys.error().text);
    }
    publicKey = keys->publicKey;
}

LinkDevice::LinkDevice(const LinkIdentity& self, const LinkIdentity& other, const std::string& address, Role role)
    : m_serialNumber(ToZString(self.serialNumber)),
      m_other(ToZString(other.serialNumber)),
      m_graph(ZMakeShared<ZCoreConfigParams>()),
      m_rest(AddNode(m_graph, ZNode::kClassName, "Rest")) {
    Subscribe(ZEndpointType::GraphService, "deviceProps", [this](auto& request) { return TellIdentity(request); });
    Subscribe(ZEndpointType::GraphService, "peerupdate", [this](auto& message) {
        const auto peer = cast_shared<ZPeerMsg>(message);
        m_news.Push(peer && peer->m_bConnected);
        return true;
    });
    Subscribe(kType, "fileIO", [this](auto& message) { return HandOn(message); });
    Subscribe(kType, "upload", [this](auto& request) { return Answer(request); });

    const bool listens = role == Role::Listens;
    Pin(self, other, listens ? "" : address);
    const auto record = PeerRecord(self);
    record->m_Listen = listens ? ToZString(address) : ZString();
    AddNode(m_graph, ZNodePeer::kClassName, "Peer", record);
    StartGraph(m_graph);
}

void LinkDevice::Subscribe(ZEndpointType type, const char* keyword, ZNode::MessageFunction handler) {
    if (!m_rest->Subscribe(m_rest->GetEndpoint(type, keyword, 0), std::move(handler))) {
        throw std::runtime_error(std::string(keyword) + " could not be subscribed");
    }
}

void LinkDevice::WaitForOther() {
    if (!m_news.PopWithin(kPatience).value_or(false)) {
        throw std::runtime_error("the devices did not find each other");
    }
}

std::shared_ptr<ZMessage> LinkDevice::Ask(const std::shared_ptr<ZMessage>& request) {
    std::shared_ptr<ZMessage> answer;
    m_rest->Publish(m_rest->GetEndpoint(kType, "fileIO", 0), request, &answer);
    return answer;
}

bool LinkDevice::TellIdentity(const std::shared_ptr<ZMessage>& request) {
    const auto properties = Z_MAKE(ZDevicePropertiesMsg);
    properties->m_SerialNumber = m_serialNumber;
    return m_rest->PublishResponse(request, properties);
}

bool LinkDevice::HandOn(const std::shared_ptr<ZMessage>& message) {
    const auto forward = Z_MAKE(ZForwardMsg);
    forward->m_SerialNumber = m_other;
    forward->m_Keyword = "upload";
    forward->m_pMessage = message;
    return m_rest->Publish(m_rest->GetEndpoint(ZEndpointType::GraphService, "forward", 0), forward);
}

bool LinkDevice::Answer(const std::shared_ptr<ZMessage>& request) {
    return m_rest->PublishResponse(request, Z_MAKE(ZGenericResponseMsg));
}
