#pragma once

#include "NodeBase/ZGraph.h"
#include "PeerTable.h"
#include "TestSupport.h"
#include "ZMessages/PeerMessages.h"

/// A TCP port of this machine that nobody uses now.
int FreePort();

/// A device: a graph with the real ZNodePeer, and a probe that stands for the rest of the graph.
class LinkDevice {
public:
    /// Listens on `port`, unless that is 0.
    LinkDevice(const std::string& serialNumber, ZDeviceType type, int port, const ZVector<ZString>& exports = {});

    /// Starts the graph, whose requests wait that long; its key and pins outlive it.
    void Start(std::uint32_t requestSeconds = 30);
    void Stop() { m_graph.reset(); }

    ProbeNode& Probe() const { return *m_probe; }
    std::string Key() const;
    /// As Key, also while it is stopped; from its key file.
    std::string KnownKey() const;
    std::filesystem::path PinsFile() const { return m_folder / "pins.json"; }
    /// Takes effect with the next start.
    void SetSerialNumber(const std::string& serialNumber) { m_serialNumber = serialNumber; }
    /// Pins another device, which is called on `port` unless that is 0. Returns what is in the way.
    std::string Pair(const std::string& key, int port = 0, bool remove = false) const;
    /// What this device knows of another; null when it knows nothing.
    std::shared_ptr<ZPeerMsg> Peer(const std::string& key) const;
    bool IsConnectedTo(const std::string& key) const;
    /// Hands a message to another device's `keyword` and returns the answer.
    std::shared_ptr<ZMessage> Forward(const std::string& serialNumber, const char* keyword,
                                      const std::shared_ptr<ZMessage>& message) const;

private:
    std::shared_ptr<ZPeersMsg> Peers() const;

    std::string m_serialNumber;
    const ZDeviceType m_type;
    const std::string m_listen;
    const ZVector<ZString> m_exports;
    TemporaryFolder m_folder;
    std::unique_ptr<ZGraph> m_graph;
    std::shared_ptr<ProbeNode> m_probe;
};

/// Both pin the other and the second calls the first; waits until they are connected.
void Join(const LinkDevice& listening, int port, const LinkDevice& calling);
