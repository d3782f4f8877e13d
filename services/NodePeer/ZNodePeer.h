#pragma once

#include "NodeBase/ZNode.h"
#include "NodeComm/ZNodeCommZmq.h"
#include "PeerTable.h"

class ZNodePeerCfg : public ZConfig {
    Z_MESSAGE(ZNodePeerCfg, ZConfig)
public:
    using ZConfig::ZConfig;
    ZString m_KeyFile;   ///< this device's key pair; made when there is none. Environment variables are replaced.
    ZString m_PinsFile;  ///< the keys of the devices that are let in; written when one is paired
    ZString m_Listen;    ///< "tcp://*:5700"; empty: this device only calls
    ZVector<ZString> m_Exports;  ///< what other devices may call here, by type and keyword: "2:upload"
    std::uint32_t m_HeartbeatMilliseconds = 1000;  ///< 100 to 60000; a silent device is given up after twice that

    Z_FIELDS(Z_FIELD(m_KeyFile), Z_FIELD(m_PinsFile), Z_FIELD(m_Listen), Z_FIELD(m_Exports),
             Z_FIELD(m_HeartbeatMilliseconds))
};

/// This device's link to others: knows them, hands messages to them ("forward"), lets them in by their keys ("peers",
/// "pair") and says when one comes or goes ("peerupdate"). On an accessory it asks every host device that comes whether
/// the software fits ("checkCompatibility").
class ZNodePeer : public ZNode, private ZLinkObserver {
    Z_CLASS(ZNodePeer, ZNode)
public:
    explicit ZNodePeer(const ZString& name);
    ~ZNodePeer() override;

    bool OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) override;
    bool InitMessageMap() override;
    /// Learns who this device is, and opens the link.
    bool OnGraphCreated() override;
    void OnShutdown() override;

private:
    void TakeSettings(const ZNodePeerCfg& record);
    /// Reads the files that the record names.
    void LoadKeysAndPins(const ZNodePeerCfg& record);
    std::shared_ptr<ZPeerMsg> Introduction();
    template <typename Answer>
    std::shared_ptr<Answer> Ask(ZEndpointType type, const char* keyword);

    bool OnForward(std::shared_ptr<ZMessage>& message) override;
    bool OnPeers(const std::shared_ptr<ZMessage>& request);
    bool OnPair(const std::shared_ptr<ZMessage>& request);
    /// Empty when it was done, or what is in the way.
    std::string Pair(const ZPairMsg& order);
    std::shared_ptr<ZPeersMsg> Peers() const;

    // On the link's thread.
    void OnPeerArrived(const std::string& key, const std::shared_ptr<ZMessage>& introduction) override;
    void OnPeerGone(const std::string& key) override;
    void OnPeerRefused(const std::string& key) override;
    void AskWhetherItFits(const std::string& key);
    void TakeVerdict(const std::string& key, const std::shared_ptr<ZMessage>& answer);
    void Announce(const std::shared_ptr<ZPeerMsg>& peer);

    ZLinkSettings m_settings;
    std::string m_pinsFile;
    std::chrono::milliseconds m_answerTimeout{30'000};
    std::shared_ptr<ZPeerMsg> m_self;  // set before the link is opened, then only read
    PeerTable m_peers;
    std::shared_ptr<ZNodeCommZmq> m_link;
};
