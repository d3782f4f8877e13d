#include "LinkDevice.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <random>

#include "NodeLink/LinkKeys.h"
#include "ZNodePeer.h"
#include "ZShared/ZFileDescriptor.h"

int FreePort() {
    // Below those that the system gives to callers: one of them might take a port while its listener is away.
    std::uniform_int_distribution anyPort(10'000, 32'000);
    std::random_device random;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int tries = 0; tries < 1'000; ++tries) {
        const int port = anyPort(random);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        const ZFileDescriptor probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (::bind(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            return port;
        }
    }
    ADD_FAILURE() << "no port is free";
    return 0;
}

LinkDevice::LinkDevice(const std::string& serialNumber, ZDeviceType type, int port, const ZVector<ZString>& exports)
    : m_serialNumber(serialNumber),
      m_type(type),
      m_listen(port == 0 ? "" : "tcp://127.0.0.1:" + std::to_string(port)),
      m_exports(exports) {
    Start();
}

void LinkDevice::Start(std::uint32_t requestSeconds) {
    const auto core = ZMakeShared<ZCoreConfigParams>();
    core->m_RequestTimeoutSeconds = requestSeconds;
    m_graph = std::make_unique<ZGraph>(core);
    ASSERT_EQ(ErrorOf(m_graph->AddNode(ProbeNode::kClassName, "Probe", nullptr)), "");
    m_probe = cast_shared<ProbeNode>(m_graph->Node("Probe"));
    m_probe->Listen(ZEndpointType::GraphService, "deviceProps", [this](const auto&) {
        const auto properties = Z_MAKE(ZDevicePropertiesMsg);
        properties->m_DeviceType = m_type;
        properties->m_SerialNumber = ToZString(m_serialNumber);
        properties->m_Board = "verdin-imx8mm";
        return properties;
    });
    m_probe->Listen(ZEndpointType::ClientRequest, "getinstalledversioninfo", [](const auto&) {
        const auto version = Z_MAKE(ZVersionInfoMsg);
        version->m_Version = "3.044";
        return version;
    });
    const auto record = ZMakeShared<ZNodePeerCfg>();
    record->m_KeyFile = ToZString((m_folder / "key.json").string());
    record->m_PinsFile = ToZString(PinsFile().string());
    record->m_Listen = ToZString(m_listen);
    record->m_Exports = m_exports;
    record->m_HeartbeatMilliseconds = 10'000;  // a loaded machine is no dead link
    ASSERT_EQ(ErrorOf(m_graph->AddNode(ZNodePeer::kClassName, "Peer", record)), "");
    ASSERT_EQ(ErrorOf(m_graph->Start()), "");
}

std::shared_ptr<ZPeersMsg> LinkDevice::Peers() const {
    return cast_shared<ZPeersMsg>(m_probe->Ask(ZEndpointType::GraphService, "peers", Z_MAKE(ZGenericRequestMsg)));
}

std::string LinkDevice::Key() const {
    return ToStdString(Peers()->m_PublicKey);
}

std::string LinkDevice::KnownKey() const {
    return LoadOrMakeLinkKeys(m_folder / "key.json")->publicKey;
}

std::string LinkDevice::Pair(const std::string& key, int port, bool remove) const {
    const auto order = Z_MAKE(ZPairMsg);
    order->m_PublicKey = ToZString(key);
    order->m_Address = port == 0 ? ZString() : ToZString("tcp://127.0.0.1:" + std::to_string(port));
    order->m_bRemove = remove;
    const auto answer = cast_shared<ZPeersMsg>(m_probe->Ask(ZEndpointType::GraphService, "pair", order));
    return ToStdString(answer->m_ErrorText);
}

std::shared_ptr<ZPeerMsg> LinkDevice::Peer(const std::string& key) const {
    const auto peers = Peers();
    for (const auto& peer : peers->m_Peers) {
        if (peer->m_PublicKey == ToZString(key)) {
            return peer;
        }
    }
    return nullptr;
}

bool LinkDevice::IsConnectedTo(const std::string& key) const {
    const auto peer = Peer(key);
    return peer && peer->m_bConnected;
}

std::shared_ptr<ZMessage> LinkDevice::Forward(const std::string& serialNumber, const char* keyword,
                                              const std::shared_ptr<ZMessage>& message) const {
    // As the file service does it: the message is a request of this node's own, which the peer node answers.
    static std::atomic<int> number{0};
    const std::string name = "handed on " + std::to_string(++number);
    const auto place = m_probe->GetEndpoint(ZEndpointType::DeviceRequest, name.c_str(), 0);
    const bool subscribed = m_probe->Subscribe(place, [this, serialNumber, keyword](std::shared_ptr<ZMessage>& taken) {
        const auto order = Z_MAKE(ZForwardMsg);
        order->m_SerialNumber = ToZString(serialNumber);
        order->m_Keyword = keyword;
        order->m_pMessage = taken;
        return m_probe->Publish(m_probe->GetEndpoint(ZEndpointType::GraphService, "forward", 0), order);
    });
    return subscribed ? m_probe->Ask(ZEndpointType::DeviceRequest, name.c_str(), message) : nullptr;
}

void Join(const LinkDevice& listening, int port, const LinkDevice& calling) {
    EXPECT_EQ("", listening.Pair(calling.Key()));
    EXPECT_EQ("", calling.Pair(listening.Key(), port));
    EXPECT_TRUE(
        WaitUntil([&] { return listening.IsConnectedTo(calling.Key()) && calling.IsConnectedTo(listening.Key()); }));
}
